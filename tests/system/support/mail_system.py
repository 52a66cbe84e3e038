"""A real mail system in the sandbox: unpacked from its Debian packages over the running system.

script/setup has downloaded the packages; nothing of them is ever installed. Mailboxes are maildirs below
/var/vmail, of the user vmail. The loopback device is up, and there is no other network. What a package's
maintainer scripts would do (users, modes) is done here or by the file of the mail system.
"""

import fcntl
import os
import pathlib
import pwd
import shutil
import socket
import struct
import subprocess

import linux
import sandbox
from program_run import wait_until

PATIENCE_SECONDS = 20
MAILBOXES = pathlib.Path("/var/vmail")
UNPACKED = pathlib.Path("/sandbox/mailsystem")
_PACKAGES = pathlib.Path(__file__).resolve().parents[3] / "build/mailsystems"
_ACCOUNT_FILES = [pathlib.Path("/etc", name) for name in
                  ("passwd", "passwd-", "group", "group-", "shadow", "shadow-", "gshadow", "gshadow-",
                   "subuid", "subgid", ".pwd.lock")]
_SIOCSIFFLAGS, _IFF_UP, _IFF_RUNNING = 0x8914, 0x1, 0x40  # see netdevice(7)


def missing(name):
    """Why the mail system can't be tried here, or None when it can."""
    if pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
        return "a mail system needs several users and a sandbox of an ordinary user has one: run this as root"
    if not list((_PACKAGES / name).glob("*.deb")):
        return f"the packages of {name} couldn't be downloaded; with a network, run script/setup again"
    return None


def unpack(name):
    """Shows the files of the packages as if they were installed, all but those below /var."""
    for package in sorted((_PACKAGES / name).glob("*.deb")):
        subprocess.run(["dpkg-deb", "-x", package, UNPACKED], check=True)
    linux.mount("overlay", "/usr/lib", "overlay", linux.MS_RDONLY, f"lowerdir={UNPACKED}/usr/lib:/usr/lib")
    for program in (UNPACKED / "usr/sbin").iterdir():
        place = pathlib.Path("/usr/sbin", program.name)
        place.unlink(missing_ok=True)
        place.symlink_to(program)
    for place in _ACCOUNT_FILES:
        _own_copy(place)
    add_user("vmail")
    MAILBOXES.mkdir()
    shutil.chown(MAILBOXES, "vmail", "vmail")
    pathlib.Path("/var/lib/dpkg").mkdir(exist_ok=True)
    bring_loopback_up()


def _own_copy(path):
    if not path.exists():
        return
    content, mode = path.read_bytes(), path.stat().st_mode
    path.unlink()
    path.write_bytes(content)
    path.chmod(mode & 0o777)


def add_user(name, group=None):
    """A system user with a group of its own, and another group, unless they are there."""
    if subprocess.run(["getent", "passwd", name], stdout=subprocess.DEVNULL, check=False).returncode != 0:
        subprocess.run(["useradd", "--system", "--user-group", "--no-create-home", name], check=True)
    if group is not None:
        subprocess.run(["groupadd", "--system", "--force", group], check=True)


def remove_user(name):
    """Removes a user that the host happens to have."""
    if subprocess.run(["getent", "passwd", name], stdout=subprocess.DEVNULL, check=False).returncode == 0:
        subprocess.run(["userdel", name], check=True)


def own_folder(path):
    """An empty folder in the place of the host's, if it has one there."""
    path.unlink(missing_ok=True)
    path.mkdir(parents=True)


def account(name):
    return pwd.getpwnam(name)


def bring_loopback_up():
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sh22x", b"lo", _IFF_UP | _IFF_RUNNING))


def put_sendmail_back():
    """Undoes what the tests' recorder did to the mail system's own sendmail."""
    place = pathlib.Path(sandbox.SENDMAIL)
    place.unlink(missing_ok=True)
    place.symlink_to(UNPACKED / "usr/sbin/sendmail")


def mailbox(address):
    """The messages in a mailbox, oldest first."""
    local_part, _, domain = address.partition("@")
    files = (MAILBOXES / domain / local_part / "new").glob("*")
    return [file.read_bytes() for file in sorted(files, key=lambda file: file.stat().st_mtime_ns)]


def empty_mailboxes():
    for domain in MAILBOXES.iterdir():
        shutil.rmtree(domain)


def files_below(*folders):
    return [path for folder in folders for path in pathlib.Path(folder).rglob("*") if path.is_file()]


def answers_smtp():
    with socket.socket() as client:
        try:
            client.settimeout(5)
            client.connect(("127.0.0.1", 25))
            return client.recv(3) == b"220"
        except OSError:
            return False


def end(pid):
    """Ends a daemon and returns when it is gone."""
    os.kill(pid, 15)
    wait_until(f"the end of process {pid}", lambda: not pathlib.Path(f"/proc/{pid}").exists())

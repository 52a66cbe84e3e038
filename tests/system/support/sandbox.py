"""Runs a command in private namespaces, where the program's fixed places are scratch.

The command sees the host read-only, but for these places of its own on a memory file system:
/tmp, /etc/qrx, /usr/sbin/sendmail (the recorder), /var/qmail, /run with a MariaDB server of its own
behind /run/mysqld/mysqld.sock, and /sandbox with what the recorder and the server keep. The checkout's
build folder stays writable; a checkout below /tmp, which tests empty, is seen at /sandbox/checkout, and
its path in the command and in the environment is changed accordingly. There is no network but a loopback device that is down, and no process
of the host can be seen. When the command ends, or the process that called run() does, by whatever
signal, the kernel ends all that is left and everything private is gone.

Works as root and as an ordinary user (who is root inside, by a user namespace); see namespaces(7).
"""

import errno
import os
import pathlib
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys

import linux
import server

CHECKOUT = pathlib.Path(__file__).resolve().parents[3]
BUILD = CHECKOUT / "build"
_SEEN_AT = pathlib.Path("/sandbox/checkout") if CHECKOUT.is_relative_to("/tmp") else CHECKOUT
PROGRAM = "/sandbox/autoresponder"
GMIME_HEADERS = "/sandbox/gmime_headers"
FAIL_MALLOC = "/sandbox/fail_malloc.so"
FAIL_CLOSE = "/sandbox/fail_close.so"
SHORTEN_WAITS = "/sandbox/shorten_waits.so"
RECORDER = "/sandbox/recording_sendmail"
SENDMAIL = "/usr/sbin/sendmail"
SPOOL = "/sandbox/spool"
CONTROL = "/sandbox/sendmail.control"
ADMIN_PASSWORD = server.ADMIN_PASSWORD

# The sandbox's own folders of the root; of every other one it sees the host's.
_OWN = {"dev", "etc", "proc", "run", "sandbox", "sys", "tmp", "var"}
# Where the new root is put together. Any folder will do that is always there and that nothing needs.
_WORKBENCH = "/sys"


class Refused(Exception):
    """The kernel or the set-up doesn't allow a sandbox; the text says why and what to do."""


def run(command):
    """Runs the command, a list of strings, in a new sandbox and returns its exit status; 128 + N for signal N."""
    programs = _programs_under_test()
    _enter_namespaces()
    ours, theirs = socket.socketpair()
    child = os.fork()
    if child == 0:
        ours.close()
        _as_first_process(command, programs, theirs)
    theirs.close()
    # Until the command runs, a signal ends this process, and with it the sandbox.
    ours.recv(1)
    # From then on one of the terminal reaches the command as well, and it decides what to make of it.
    signal.signal(signal.SIGINT, _ignore)
    signal.signal(signal.SIGQUIT, _ignore)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda got, frame: (os.kill(child, signal.SIGKILL), os._exit(128 + got)))
    return _exit_status(os.waitpid(child, 0)[1])


def enter(prepare=lambda: None):
    """Returns at once in a sandbox. Elsewhere calls prepare(), runs this very program in one and ends as it does."""
    if os.environ.get("QRX_SANDBOX") == "1":
        return
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # Ctrl-C ends it without a word
    prepare()
    try:
        sys.exit(run([os.path.abspath(sys.argv[0]), *sys.argv[1:]]))
    except Refused as refused:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {refused}")


def _ignore(number, frame):
    """Unlike SIG_IGN, a handler isn't inherited by the command."""


def _exit_status(status):
    return os.WEXITSTATUS(status) if os.WIFEXITED(status) else 128 + os.WTERMSIG(status)


def _programs_under_test():
    """Host paths by sandbox path: from the environment, else what the preset QRX_PRESET built."""
    folder = BUILD / os.environ.get("QRX_PRESET", "release")
    known = {
        PROGRAM: ("AUTORESPONDER", folder / "autoresponder/autoresponder"),
        RECORDER: ("QRX_RECORDING_SENDMAIL", folder / "tests/system/recording_sendmail"),
        GMIME_HEADERS: ("QRX_GMIME_HEADERS", folder / "tests/system/gmime_headers"),
        FAIL_MALLOC: ("QRX_FAIL_MALLOC_LIBRARY", folder / "tests/system/fail_malloc.so"),
        FAIL_CLOSE: ("QRX_FAIL_CLOSE_LIBRARY", folder / "tests/system/fail_close.so"),
        SHORTEN_WAITS: ("QRX_SHORTEN_WAITS_LIBRARY", folder / "tests/system/shorten_waits.so"),
    }
    return {inside: os.path.abspath(os.environ.get(name, path))
            for inside, (name, path) in known.items()}


# Entering the namespaces


def _enter_namespaces():
    uid, gid = os.getuid(), os.getgid()
    flags = linux.CLONE_NEWNS | linux.CLONE_NEWPID | linux.CLONE_NEWNET | linux.CLONE_NEWIPC
    if uid != 0:
        flags |= linux.CLONE_NEWUSER
    try:
        linux.unshare(flags)
        if uid != 0:
            pathlib.Path("/proc/self/setgroups").write_text("deny")
            pathlib.Path("/proc/self/uid_map").write_text(f"0 {uid} 1")
            pathlib.Path("/proc/self/gid_map").write_text(f"0 {gid} 1")
        _make_mounts_private()
    except OSError as error:
        raise Refused(f"{error.filename}: {error.strerror}; {_remedy(error.errno, uid)}") from error


def _make_mounts_private():
    try:
        linux.mount(None, "/", flags=linux.MS_PRIVATE | linux.MS_REC)
    except OSError as error:
        if error.errno != errno.EINVAL:
            raise
        _make_root_a_mount()


def _make_root_a_mount():
    """In a chroot the root is a mere folder of a larger tree: makes that private, and the root a mount of its own.

    The way out is the one that chroot(2) tells of: the root is moved below the working folder.
    """
    folder = os.getcwd()
    root = os.open("/", os.O_PATH | os.O_DIRECTORY)
    os.chroot(_WORKBENCH)
    os.fchdir(root)
    while not os.path.samefile(".", ".."):
        os.chdir("..")
    os.chroot(".")
    linux.mount(None, "/", flags=linux.MS_PRIVATE | linux.MS_REC)
    os.fchdir(root)
    os.close(root)
    place = os.getcwd()
    linux.bind(".", ".")
    os.chroot(place)
    os.chdir(folder)


def _remedy(number, uid):
    """What to do about a refusal; see the errors of unshare(2), user_namespaces(7) and mount(2)."""
    if number == errno.EPERM and uid == 0:
        return "in a container, give it the capability CAP_SYS_ADMIN (docker run --privileged)"
    if number in (errno.EPERM, errno.EACCES):
        return ("run this as root, or allow user namespaces: outside of a chroot, with the sysctls, where they"
                " exist, kernel.unprivileged_userns_clone=1 and kernel.apparmor_restrict_unprivileged_userns=0")
    if number in (errno.ENOSPC, errno.EUSERS):
        return "raise the sysctls user.max_*_namespaces: each must be above 0 and above what is in use"
    if number == errno.EINVAL:
        return "it takes a kernel with mount, process, network, IPC and user namespaces, and a root that is mounted"
    if number == errno.ENOENT:
        return "mount /proc"
    return "without private namespaces there is no sandbox"


def _as_first_process(command, programs, parent):
    """The first process of the process namespace: when it ends, the kernel kills all others.

    parent: a socket that ends when the parent does, and that wants a byte when the command runs
    """
    status = 125
    try:
        signal.signal(signal.SIGINT, _ignore)
        signal.signal(signal.SIGQUIT, _ignore)
        linux.die_with_parent(signal.SIGKILL)
        if select.select([parent], [], [], 0)[0]:
            return  # the parent ended before it could be watched
        folder = os.getcwd()
        _build_root(programs)
        folder = _as_seen_inside(folder)
        os.chdir(folder if os.path.isdir(folder) else "/")
        server.start(_SEEN_AT)
        status = _run_command([_as_seen_inside(word) for word in command], parent)
    except (OSError, server.Failed) as error:
        print(f"sandbox: {error}", file=sys.stderr)
    finally:
        sys.stderr.flush()
        os._exit(status)


def _run_command(command, parent):
    """Runs the command to its end, burying every orphan on the way."""
    # A limit of 1 keeps a crash also from a core dump handler of the host; see core(5) and coredump.c. A test
    # that wants a core dump can raise it again.
    resource.setrlimit(resource.RLIMIT_CORE, (1, resource.getrlimit(resource.RLIMIT_CORE)[1]))
    variables = {name: _as_seen_inside(value) for name, value in os.environ.items()}
    try:
        main = subprocess.Popen(command, env={**variables, "QRX_SANDBOX": "1"})
    except OSError as error:
        print(f"in_sandbox: {command[0]}: {error.strerror}", file=sys.stderr)
        return 127
    parent.send(b"1")
    while True:
        pid, status = os.wait()
        if pid == main.pid:
            return _exit_status(status)


# The file system


def _build_root(programs):
    """Puts a root folder together on a memory file system and moves into it."""
    linux.mount("sandbox", _WORKBENCH, "tmpfs", options="mode=0755")
    root = pathlib.Path(_WORKBENCH)
    for name in os.listdir("/"):
        if name not in _OWN:
            _show_host_entry(pathlib.Path("/", name), root / name)
    for name in sorted(_OWN):
        (root / name).mkdir()
    linux.mount("proc", root / "proc", "proc")
    _show_read_only("/dev", root / "dev")  # devices can be written to all the same
    if (root / "dev/shm").is_dir():
        linux.mount("sandbox", root / "dev/shm", "tmpfs", options="mode=1777")
    linux.mount("sandbox", root / "tmp", "tmpfs", options="mode=1777")
    _make_etc(root)
    _make_sbin(root)
    _make_private_folders(root)
    _show_programs(root, programs)
    _show_checkout(root)
    linux.pivot_root(_WORKBENCH)
    replace_sendmail()


def _show_host_entry(host, inside):
    if host.is_symlink():
        inside.symlink_to(os.readlink(host))
    elif host.is_dir():
        inside.mkdir()
        _show_read_only(host, inside)


def _show_read_only(host, inside):
    linux.bind(host, inside)
    linux.make_read_only(inside)


def _link_all(host, aside, inside, leave_out):
    """Fills the folder inside with links to the entries of the host's folder, which is shown aside."""
    nested = f"/sandbox/{aside.name}"
    if os.path.isdir(nested):
        host = nested  # where this host is a sandbox, its folder is such links itself
    aside.mkdir()
    _show_read_only(host, aside)
    for name in os.listdir(host):
        if name not in leave_out:
            (inside / name).symlink_to(f"/sandbox/{aside.name}/{name}")


def _make_etc(root):
    _link_all("/etc", root / "sandbox/host-etc", root / "etc", {"qrx", "mysql", "my.cnf"})
    (root / "etc/qrx").mkdir()
    password = root / "etc/qrx/.qrx.shadow"
    password.write_text(ADMIN_PASSWORD + "\n")
    password.chmod(0o600)


def _make_sbin(root):
    linux.mount("sandbox", root / "usr/sbin", "tmpfs", options="mode=0755")
    _link_all("/usr/sbin", root / "sandbox/host-sbin", root / "usr/sbin", {"sendmail"})


def _make_private_folders(root):
    for name in ("run/mysqld", "var/lib", "var/log", "var/qmail/control", "var/qmail/mailnames"):
        (root / name).mkdir(parents=True)
    (root / "var/run").symlink_to("/run")
    (root / "var/tmp").mkdir(mode=0o1777)
    spool = root / SPOOL.lstrip("/")
    spool.mkdir()
    spool.chmod(0o777)  # a test may run the program, and so the recorder, as another user


def _show_programs(root, programs):
    """Shows the programs at places of their own, so that a test may do with /tmp as it likes."""
    for inside, host in programs.items():
        if os.path.isfile(host):
            place = root / inside.lstrip("/")
            place.touch()
            _show_read_only(host, place)


def _show_checkout(root):
    """The checkout, read-only but for its build folder."""
    BUILD.mkdir(exist_ok=True)
    inside = root / str(_SEEN_AT).lstrip("/")
    if not inside.is_dir():
        inside.mkdir(parents=True)
        _show_read_only(CHECKOUT, inside)
    linux.bind(BUILD, inside / "build")


def _as_seen_inside(text):
    return re.sub(re.escape(str(CHECKOUT)) + r"(?![\w.-])", str(_SEEN_AT), text)


def replace_sendmail(content=None):
    """Puts the recorder, or else a program with the given bytes, in the place of sendmail."""
    place = pathlib.Path(SENDMAIL)
    place.unlink(missing_ok=True)
    if content is not None:
        place.write_bytes(content)
    elif os.path.exists(RECORDER):
        shutil.copyfile(RECORDER, place)
    else:
        return
    place.chmod(0o755)

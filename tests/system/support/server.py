"""The sandbox's own MariaDB server: the panel's tables in a scratch data folder, reached by its socket only.

A data folder with the tables and the panel's user is made once by mariadb-install-db, kept under the
build folder, and copied for each sandbox; one made from another schema or server is never used.
"""

import fcntl
import hashlib
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import time

ADMIN_PASSWORD = "sandbox-admin"
SOCKET = "/run/mysqld/mysqld.sock"
DATA = "/sandbox/data"
LOG = "/sandbox/mariadbd.log"
PID_FILE = "/sandbox/mariadbd.pid"
_CHECKOUT = pathlib.Path(__file__).resolve().parents[3]
_SERVER = "/usr/sbin/mariadbd"
_PATIENCE_SECONDS = 60

# What template and server must agree on: as little to write and to copy as the server allows.
_FILES = ["--innodb-log-file-size=4M", "--innodb-data-file-path=ibdata1:2M:autoextend",
          "--innodb-autoextend-increment=1", "--innodb-buffer-pool-size=8M", "--skip-log-bin"]

# Nothing here outlives a test run, so nothing is written twice or waited for.
_QUICK = ["--skip-networking", f"--tmpdir={DATA}", "--skip-name-resolve", "--performance-schema=0",
          "--innodb-flush-log-at-trx-commit=0", "--skip-innodb-doublewrite",
          "--innodb-use-native-aio=0", "--innodb-fast-shutdown=2",
          "--innodb-buffer-pool-load-at-startup=0", "--innodb-buffer-pool-dump-at-shutdown=0",
          "--innodb-temp-data-file-path=ibtmp1:2M:autoextend", "--max-connections=30"]

_USER = f"""
FLUSH PRIVILEGES;
CREATE USER 'admin'@'localhost' IDENTIFIED BY '{ADMIN_PASSWORD}';
GRANT ALL PRIVILEGES ON *.* TO 'admin'@'localhost';
"""


class Failed(Exception):
    """The server or its data folder can't be had; the text says why."""


def start(checkout=_CHECKOUT, options=()):
    """Starts the server on the data folder, a fresh copy unless there is one, and returns when it answers.

    checkout: where the checkout is now; options: more of the server's
    """
    if not os.path.exists(_SERVER):
        raise Failed("there is no MariaDB server here (Debian package mariadb-server-core): run script/setup")
    if not os.path.isdir(DATA):
        shutil.copytree(_template(checkout), DATA)
    with open(LOG, "ab") as log:
        process = subprocess.Popen(
            [_SERVER, "--no-defaults", "--user=root", f"--datadir={DATA}", f"--socket={SOCKET}",
             f"--pid-file={PID_FILE}", *_FILES, *_QUICK, *options],
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    deadline = time.monotonic() + _PATIENCE_SECONDS
    while not _answers():
        if process.poll() is not None or time.monotonic() > deadline:
            raise Failed("the database server doesn't start:\n" + pathlib.Path(LOG).read_text())
        time.sleep(0.005)


def stop():
    """Stops the server, if it runs, and returns when it and its socket are gone."""
    pid = process_id()
    if pid is None:
        return
    os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + _PATIENCE_SECONDS
    while _is_alive(pid):
        if time.monotonic() > deadline:
            raise Failed("the database server doesn't stop:\n" + pathlib.Path(LOG).read_text())
        time.sleep(0.002)
    for leftover in (PID_FILE, SOCKET):
        pathlib.Path(leftover).unlink(missing_ok=True)


def restore():
    """Puts a fresh copy of the data folder in place of the one in use, whatever has become of it."""
    stop()
    shutil.rmtree(DATA, ignore_errors=True)
    start()


def process_id():
    """The server's process id, or None when it doesn't run."""
    try:
        return int(pathlib.Path(PID_FILE).read_text())
    except FileNotFoundError:
        return None


def _is_alive(pid):
    """Whether the process runs; one that ended counts as gone also when its parent hasn't buried it yet."""
    try:
        state = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return False
    return state != "Z"


def _answers():
    with socket.socket(socket.AF_UNIX) as client:
        try:
            client.connect(SOCKET)
            return bool(client.recv(1))
        except OSError:
            return False


# The template


def _template(checkout):
    """The data folder to copy; makes it when it isn't there yet."""
    schema = (checkout / "tests/system/schema.sql").read_text() + _USER
    version = subprocess.run([_SERVER, "--no-defaults", "--version"], stdin=subprocess.DEVNULL,
                             capture_output=True, check=True, text=True).stdout
    key = hashlib.sha256("\n".join([schema, version, *_FILES]).encode()).hexdigest()[:16]
    place = checkout / "build/sandbox" / f"data-{key}"
    place.parent.mkdir(parents=True, exist_ok=True)
    with open(place.with_name("lock"), "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # of two sandboxes that start at once, one makes it
        if not place.is_dir():
            _make_template(place, schema)
    return place


def _make_template(place, schema):
    for old in place.parent.glob("data-*"):
        shutil.rmtree(old)
    unfinished = place.with_name("unfinished")
    shutil.rmtree(unfinished, ignore_errors=True)
    extra = place.with_name("tables.sql")
    extra.write_text(schema)
    made = subprocess.run(
        ["mariadb-install-db", "--no-defaults", f"--datadir={unfinished}", "--user=root",
         "--auth-root-authentication-method=normal", "--skip-test-db", "--skip-name-resolve",
         f"--extra-file={extra}", *_FILES],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        start_new_session=True)
    if made.returncode != 0:
        raise Failed("mariadb-install-db failed:\n" + made.stdout)
    unfinished.rename(place)

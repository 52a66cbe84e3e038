"""Starts the program under test and gathers everything that a run leaves to see."""

import dataclasses
import fcntl
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import termios
import threading
import time

import linux
import sandbox
import server
import spool

RECIPIENT = "info@example.com"
MESSAGE = (b"From: Sam Sender <sam@sender.example>\n"
           b"To: info@example.com\n"
           b"Subject: Opening hours\n"
           b"Date: Mon, 02 Jun 2025 10:00:00 +0200\n"
           b"\n"
           b"When are you open?\n")
# How the program was built: ctest says so; by hand the preset does.
SANITIZED = os.environ.get("QRX_PRESET") == "asan" or os.environ.get("QRX_SANITIZED") == "1"
COVERAGE = os.environ.get("QRX_PRESET") == "coverage" or os.environ.get("QRX_COVERAGE") == "1"
# Whether memcheck watches each run that is the program's own: strace, limits, other users and names need it bare.
WATCHED = os.environ.get("QRX_VALGRIND") == "1"
_HERE = pathlib.Path(__file__).resolve().parent
_TMP = pathlib.Path("/tmp")
_RUNS = pathlib.Path("/sandbox/runs")


@dataclasses.dataclass
class TemporaryFile:
    """A file found in /tmp."""
    name: str      # with the six characters that mkstemp(3) chose as XXXXXX
    path: str
    content: bytes
    mode: int      # permission bits


@dataclasses.dataclass
class Result:
    """What came of one run."""
    status: int          # exit status, or None when a signal ended the program
    signal: int          # or None
    stdout: bytes
    stderr: bytes
    mails: list          # of spool.Mail: the calls of sendmail since the run began
    tmp: list            # of TemporaryFile: all that lies in /tmp now
    trace: str           # what strace wrote
    duration: float      # seconds
    left: list           # ids of processes that the run left behind


class TimedOut(AssertionError):
    """The program didn't end in time; it and what it started have been killed."""


class Running:
    """One run under way. The parameters are those of SystemTest.run."""

    def __init__(self, message=MESSAGE, recipient=RECIPIENT, env=None, strace=None, rlimits=None,
                 argv0=None, args=(), stdin=None, stdout=None, stderr=None, user=None, cwd="/",
                 program=sandbox.PROGRAM, timeout=60):
        self._timeout = timeout
        self._folder = _RUNS / f"{time.monotonic_ns()}"
        self._folder.mkdir(parents=True)
        self._others = process_ids()
        self._mails_before = max((mail.number for mail in spool.mails()), default=0)
        self._closed = [fd for fd, stream in enumerate((stdin, stdout, stderr)) if stream == "closed"]
        chunks = message if isinstance(message, (list, tuple)) else None
        streams = [subprocess.PIPE if chunks is not None else self._stream(stdin, "stdin", message),
                   self._stream(stdout, "stdout"), self._stream(stderr, "stderr")]
        bare = strace or rlimits or user is not None or argv0 or self._closed or program != sandbox.PROGRAM
        command = [*self._tracer(strace), *_as_user(user), *_limited(rlimits), *_named(argv0),
                   *([] if bare or not WATCHED else self._memcheck()), program, *args]
        self._started = time.monotonic()
        self.process = subprocess.Popen(
            command, stdin=streams[0], stdout=streams[1], stderr=streams[2], cwd=cwd,
            env=_environment(recipient, env, user, strace, rlimits), preexec_fn=self._close_streams)
        if chunks is not None:
            threading.Thread(target=_feed, args=(self.process, chunks), daemon=True).start()
        for stream in streams:
            if hasattr(stream, "close") and stream not in (stdin, stdout, stderr):
                stream.close()

    def finish(self):
        """Waits for the program's end and returns the Result; TimedOut after the run's time limit."""
        try:
            code = self.process.wait(self._timeout)
        except subprocess.TimeoutExpired:
            self.kill_all()
            raise TimedOut(f"no end after {self._timeout} seconds; standard error: "
                           f"{self._output('stderr')!r}") from None
        duration = time.monotonic() - self._started
        if report := self._output("memcheck"):
            raise AssertionError(f"memcheck reports:\n{report.decode(errors='replace')}")
        return Result(
            status=code if code >= 0 else None, signal=-code if code < 0 else None,
            stdout=self._output("stdout"), stderr=self._output("stderr"),
            mails=spool.mails(self._mails_before), tmp=temporary_files(),
            trace=self._output("trace").decode(errors="replace"), duration=duration,
            left=self._left_behind())

    def kill_all(self):
        """Ends the program and every process that came since it was started."""
        while left := process_ids() - self._others:
            for pid in left:
                _kill(pid)
            time.sleep(0.001)
        self.process.wait()

    def _stream(self, given, name, content=b""):
        """A file of the run's own unless the test gave a stream; so nothing waits for a process left behind."""
        if given == "closed":
            return subprocess.DEVNULL  # until the child closes it
        if given is not None:
            return given
        path = self._folder / name
        path.write_bytes(content)
        return open(path, "rb" if name == "stdin" else "ab")

    def _close_streams(self):
        for fd in self._closed:
            os.close(fd)

    def _output(self, name):
        path = self._folder / name
        return path.read_bytes() if path.exists() else b""

    def _tracer(self, options):
        if options is None:
            return []
        return ["strace", "-qq", "-o", str(self._folder / "trace"), *options]

    def _memcheck(self):
        # valgrind's own files go elsewhere than into a /tmp that a test has made full or read-only.
        return ["env", f"TMPDIR={self._folder}", "valgrind", "--quiet", "--child-silent-after-fork=yes",
                "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
                f"--suppressions={_HERE / 'memcheck.supp'}", f"--log-file={self._folder / 'memcheck'}"]

    def _left_behind(self):
        """Processes that came with the run and are still there after a moment to be buried."""
        for _ in range(200):
            left = process_ids() - self._others
            if not left:
                break
            time.sleep(0.005)
        return sorted(left)


def wait_until(what, condition, seconds=30):
    """Returns once condition() is true; raises AssertionError, naming what was waited for, after so many seconds."""
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within {seconds} seconds")
        time.sleep(0.005)


def process_ids():
    """All processes of the sandbox that haven't ended, but for the database server."""
    alive = set()
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                state = pathlib.Path("/proc", name, "stat").read_text(errors="replace")
            except (FileNotFoundError, ProcessLookupError):
                continue
            if state.rpartition(")")[2].split()[0] not in "ZX":
                alive.add(int(name))
    return alive - {server.process_id()}


def _kill(pid):
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def temporary_files():
    """All that lies in /tmp, by name; a folder or the like has no content."""
    found = []
    for path in sorted(_TMP.iterdir()):
        name = re.sub(r"^(qrx-[a-z-]+-)[A-Za-z0-9]{6}$", r"\1XXXXXX", path.name)
        content = path.read_bytes() if path.is_file() and not path.is_symlink() else b""
        found.append(TemporaryFile(name, str(path), content, path.lstat().st_mode & 0o7777))
    return found


def empty_tmp():
    for file in temporary_files():
        if os.path.isdir(file.path) and not os.path.islink(file.path):
            shutil.rmtree(file.path)
        else:
            os.unlink(file.path)


class SmallTmp:
    """A context in which /tmp is another, empty file system: of that many KiB, for that many files, or read-only."""

    def __init__(self, kib=None, files=None, read_only=False):
        self._options = "mode=1777"
        if kib is not None:
            self._options += f",size={kib}k"
        if files is not None:
            self._options += f",nr_inodes={files + 1}"  # the folder itself counts
        self._flags = linux.MS_RDONLY if read_only else 0

    def __enter__(self):
        linux.mount("sandbox", _TMP, "tmpfs", self._flags, self._options)

    def __exit__(self, *_):
        linux.unmount(_TMP)


def _environment(recipient, extra, user, strace, rlimits):
    variables = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                 "RESP_RECIPIENT": recipient,
                 # LeakSanitizer uses ptrace(2) itself, in a process and on descriptors of its own.
                 "ASAN_OPTIONS": f"detect_leaks={int(not (strace or rlimits))}" if SANITIZED else None,
                 "UBSAN_OPTIONS": "print_stacktrace=1" if SANITIZED else None,
                 # Another user can't write the counters beside the objects, and would say so.
                 "GCOV_PREFIX": f"{sandbox.SPOOL}/.counters" if COVERAGE and user is not None else None,
                 **(extra or {})}
    return {name: value for name, value in variables.items() if value is not None}


def _as_user(user):
    return [] if user is None else ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]


def _limited(rlimits):
    """Soft limits, so that the recorder can lift them for itself."""
    return ["prlimit", *(f"--{name}={limit}:" for name, limit in rlimits.items())] if rlimits else []


def _named(argv0):
    return [] if argv0 is None else ["bash", "-c", 'exec -a "$0" "$@"', argv0]


def _feed(process, chunks):
    """Writes the chunks one by one, each once the last has been read, so that each is read by itself."""
    try:
        with process.stdin as pipe:
            for chunk in chunks:
                pipe.write(chunk)
                pipe.flush()
                while _unread(pipe) and process.returncode is None:
                    time.sleep(0.001)
    except BrokenPipeError:
        pass  # the program doesn't want more


def _unread(pipe):
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, b"\0" * 4))[0]

"""What the recording sendmail wrote down, and how it is told to behave (see recording_sendmail.cpp)."""

import dataclasses
import os
import pathlib
import shutil

import sandbox

_SPOOL = pathlib.Path(sandbox.SPOOL)
_CONTROL = pathlib.Path(sandbox.CONTROL)


@dataclasses.dataclass
class Mail:
    """One call of sendmail."""
    number: int       # calls since the spool was emptied, from 1
    argv: list        # text; bytes that aren't UTF-8 as surrogate escapes
    stdin: bytes      # as far as it was read
    complete: bool    # whether the call ended by itself, or stopped, as it was told to
    parent: int       # the process that started it
    pid: int
    cwd: str
    ignored: set      # signals that it was started with ignored
    blocked: set      # signals that it was started with blocked
    fds: dict         # its open descriptors: number -> what /proc says it is
    env: dict
    start: float      # time.monotonic()
    end: float        # or None when not complete
    uid: tuple        # real and effective
    gid: tuple


def behave(*calls):
    """Tells sendmail what to do: a string of steps, separated by "; ", for each call; the last holds on."""
    blocks = ["\n".join(step.strip() for step in call.split(";")) for call in calls]
    _CONTROL.write_text("\n\n".join(blocks) + "\n")


def empty():
    """Forgets all calls and the behaviour."""
    _CONTROL.unlink(missing_ok=True)
    for entry in _SPOOL.iterdir():
        shutil.rmtree(entry) if entry.is_dir() else entry.unlink()


def mails(after=0):
    """The calls in their order, without the first ones up to number `after`."""
    while True:
        folders = sorted(entry for entry in _SPOOL.iterdir() if not entry.name.startswith("."))
        try:
            return [mail for mail in map(_mail, folders) if mail.number > after]
        except FileNotFoundError:
            continue  # a call ended meanwhile, so its folder has another name now


def take():
    """The calls that are complete by now, in their order; they are forgotten, the others aren't."""
    taken = []
    for folder in sorted(entry for entry in _SPOOL.iterdir() if entry.name.isdigit()):
        taken.append(_mail(folder))
        shutil.rmtree(folder)
    return taken


def _mail(folder):
    argv = (folder / "argv").read_bytes().split(b"\0")[:-1]
    info = [line.split(" ", 1) for line in
            (folder / "info").read_text(errors="surrogateescape").splitlines()]
    single = dict(info)
    numbers = {name: {int(value) for key, value in info if key == name}
               for name in ("ignored", "blocked")}
    return Mail(
        number=int(folder.name.partition(".")[0]), argv=[os.fsdecode(word) for word in argv],
        stdin=(folder / "stdin").read_bytes(), complete=folder.suffix != ".open",
        parent=int(single["parent"]), pid=int(single["pid"]), cwd=single["cwd"], **numbers,
        fds=dict(_descriptor(value) for key, value in info if key == "fd"),
        env=dict(value.split("=", 1) for key, value in info if key == "env"),
        start=int(single["start_ns"]) / 1e9,
        end=int(single["end_ns"]) / 1e9 if "end_ns" in single else None,
        uid=tuple(map(int, single["uid"].split())), gid=tuple(map(int, single["gid"].split())))


def _descriptor(value):
    number, target = value.split(" ", 1)
    return int(number), target

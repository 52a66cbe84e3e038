"""Many runs of the program at the same time: three mailboxes, and senders that write again and again.

The mailbox info answers each sender three times a day; sales has two responders, the first with a forward
and an attachment, the second with a file that is missing, so that the panel's client is told; news remembers
five senders only.
"""

import dataclasses
import os
import pathlib
import random
import signal
import time

import program_run
import sandbox
import spool

SENDERS = 700
_FOLDER = pathlib.Path("/sandbox/crowd")
_PATIENCE_SECONDS = 60
PRICES = b"article;price\n" * 100


@dataclasses.dataclass
class Responder:
    id: int
    mailbox: str
    text: bytes
    limit: int             # replies to a sender
    remembered: int        # senders
    attachments: tuple = ()


@dataclasses.dataclass
class Run:
    mailbox: str
    sender: str
    started: float = 0.0   # by the wall clock, which is the server's too
    duration: float = 0.0
    status: int = 0        # as os.waitstatus_to_exitcode() gives it
    killed: bool = False   # a SIGKILL was sent to it
    stdout: bytes = b""
    stderr: bytes = b""


def furnish(panel):
    """Makes the mailboxes and returns their responders."""
    domain = panel.domain("example.com", client=panel.client())
    responders = []

    def add(mailbox, name, limit, remembered=100000, attachments=()):
        text = f"This is {name}.\n"
        number = panel.responder(mailbox, text=text, ans_freq=str(limit), mem_limit=str(remembered))
        responders.append(Responder(number, mail_names[mailbox], text.encode(), limit, remembered, attachments))
        return number

    mail_names = {panel.mailbox(domain, name): name for name in ("info", "sales", "news")}
    info, sales, news = mail_names
    add(info, "info", 3)
    first = add(sales, "the first of sales", 10, attachments=(("prices.csv", PRICES),))
    panel.forward(first, "archive@example.com")
    panel.attachment(first, "prices.csv", PRICES)
    panel.attachment(add(sales, "the second of sales", 1), "gone.pdf")
    add(news, "news", 2, remembered=5)
    return responders


def address(number):
    return f"sender{number}@crowd.example"


def message(sender):
    return (f"From: {sender}\nTo: somebody@example.com\nSubject: Crowd\n\nA message of {sender}.\n").encode()


class Crowd:
    """Runs of the program, each for a mailbox and a sender chosen by chance.

    So many at once are started, each waiting for the end of its message, and then let go together.
    """

    def __init__(self, seed, at_once=64, senders=SENDERS):
        self._random = random.Random(seed)
        self._at_once = at_once
        self._senders = senders
        self._active = {}     # process id -> (number, Run)
        self._kills = {}      # process id -> when
        self._usual = 0.1     # seconds from the start line to a run's end
        self.runs = []
        self.mails = []

    def run(self, total, kill_share=0.0, disturb=None):
        """Starts that many runs and waits for all of them and for what they have started.

        kill_share: that part of them gets a SIGKILL at a moment chosen by chance, unless it ends before
        disturb: is called while the second group and every 30th after it is under way, with a moment chosen by
        chance: seconds from now; it must not wait
        """
        _FOLDER.mkdir(exist_ok=True)
        others = program_run.process_ids()
        # Blocked, so that it can be waited for; see sigtimedwait(2).
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGCHLD])
        try:
            for group, first in enumerate(range(0, total, self._at_once)):
                self._run_together(range(first, min(first + self._at_once, total)), kill_share,
                                   disturb if group % 30 == 1 else None)
                self.mails += spool.take()
        finally:
            signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGCHLD])
        self._await_orphans(others)
        self.mails += spool.take()

    def _run_together(self, numbers, kill_share, disturb):
        holds = [self._start(number) for number in numbers]
        now = time.time()
        for pid, (_, run) in self._active.items():
            run.started = now
            if self._random.random() < kill_share:
                self._kills[pid] = now + self._random.uniform(0, 1.5 * self._usual)
        for hold in holds:
            os.close(hold)
        if disturb is not None:
            disturb(self._random.uniform(0, self._usual / 2))
        before = len(self.runs)
        while self._active:
            self._wait()
        durations = [run.duration for run in self.runs[before:] if not run.killed]
        self._usual = sum(durations) / len(durations) if durations else self._usual

    def _start(self, number):
        """Starts a run and returns what keeps its message from ending: the pipe's other end."""
        mailbox = self._random.choice(("info", "sales", "news"))
        sender = address(self._random.randrange(self._senders))
        reading, writing = os.pipe()
        os.write(writing, message(sender))
        streams = [(os.POSIX_SPAWN_DUP2, reading, 0)] + [
            (os.POSIX_SPAWN_OPEN, fd, str(_FOLDER / f"{number}.{fd}"), os.O_WRONLY | os.O_CREAT, 0o600)
            for fd in (1, 2)]
        variables = {"PATH": "/usr/bin:/bin", "RESP_RECIPIENT": f"{mailbox}@example.com"}
        if program_run.SANITIZED:
            variables["ASAN_OPTIONS"] = "detect_leaks=0"
        pid = os.posix_spawn(sandbox.PROGRAM, ["autoresponder"], variables, file_actions=streams, setsigmask=[])
        os.close(reading)
        self._active[pid] = number, Run(mailbox, sender)
        return writing

    def _wait(self):
        """Until a run has ended or is to be killed."""
        pause = min(self._kills.values(), default=time.time() + 1) - time.time()
        signal.sigtimedwait([signal.SIGCHLD], max(pause, 0))
        while (ended := _ended_child()) is not None:
            self._finish(*ended)
        for pid in [pid for pid, when in self._kills.items() if when <= time.time()]:
            del self._kills[pid]
            self._active[pid][1].killed = True
            os.kill(pid, signal.SIGKILL)

    def _finish(self, pid, status):
        if pid not in self._active:
            return  # a database server
        number, run = self._active.pop(pid)
        self._kills.pop(pid, None)
        run.duration = time.time() - run.started
        run.status = os.waitstatus_to_exitcode(status)
        run.stdout, run.stderr = (_taken(_FOLDER / f"{number}.{fd}") for fd in (1, 2))
        self.runs.append(run)

    def _await_orphans(self, others):
        """A sendmail whose program was killed goes on by itself."""
        program_run.wait_until("the end of all processes", lambda: not program_run.process_ids() - others,
                               _PATIENCE_SECONDS)


def _ended_child():
    """A child that has ended, as (process id, status), or None."""
    try:
        pid, status = os.waitpid(-1, os.WNOHANG)
    except ChildProcessError:
        return None
    return (pid, status) if pid else None


def _taken(path):
    content = path.read_bytes()
    path.unlink()
    return content

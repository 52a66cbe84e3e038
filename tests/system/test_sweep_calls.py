"""Every system call of a run, from the start of main to its end, fails once: each gives the ending that its rule says.

Calls before main are the loader's. A failing call isn't carried out, except close(2), which always frees the
descriptor and only then reports an error; it fails in test_sweep_closes. strace(1) counts the calls of each
process by itself, so what a child does before it is sendmail fails in every child alike. What follows when memory
runs out is in test_sweep_memory and test_faults_memory.
"""

import errno
import os
import re

import sweep_rules
from sweep import ALL, Outcome, SweepTest
from sweep_rules import Fault, Story

MAIN = re.compile(r"fcntl\(0.*F_GETFD")
NOT_PLACED = rb"fork_execv: dup\(\) failed: "
NOT_EXECUTED = rb'fork_execv: execv\("/usr/sbin/sendmail"\) failed: '

SWEPT = set()
# The kernel has no error for these; a program of one thread wakes nobody by futex(2); brk(2) that fails gives the old
# break, and the C library then takes mmap(2).
WITHOUT_FAILURE = {"getpid", "geteuid", "exit_group", "futex", "brk"}
ELSEWHERE = {"close"}  # test_sweep_closes


def sweeps(calls, *errors, missable=False, sendmail="read"):
    """A test in which each call of these names fails once with each of the errors.

    calls: which of the names it has the C library decides
    missable: how often the call is made depends on how fast the server is
    sendmail: its behaviour
    """
    SWEPT.update(calls.split())

    def test(self):
        self.behaviour = sendmail
        self.sweep(calls.split(), errors, missable)
    return test


def start_of_main(trace):
    return next(at for at, line in enumerate(trace) if MAIN.match(line))


class CallsFail(SweepTest):
    def setUp(self):
        super().setUp()
        self.need_plain_program()

    def sweep(self, calls, errors, missable):
        trace = self.assert_undisturbed(strace=["-y", "-e", "signal=none"])[0].trace.splitlines()
        places = [(call, number) for call in calls for number in self.places(call, trace)]
        self.assertTrue(places, f"none of {calls} in a run")
        for error in errors:
            name = errno.errorcode[error]
            for call, number in places:
                with self.subTest(call=call, error=name, number=number):
                    self.fail_once(call, Fault(error), name, number, missable)

    @staticmethod
    def places(call, trace):
        """The numbers of the calls to fail."""
        made = [at for at, line in enumerate(trace) if line.startswith(call + "(")]
        return [number for number, at in enumerate(made, 1) if at >= start_of_main(trace)]

    def fail_once(self, call, fault, name, number, missable):
        result, statements = self.run_once(strace=[
            "-y", "-s", "200", "-e", "signal=none", "-e", f"inject={call}:error={name}:when={number}"])
        story = Story()
        for line in result.trace.splitlines():
            story.tell(line)
            if "(INJECTED)" in line:
                outcome = sweep_rules.outcome_of(line, story, fault)
                break
        else:
            self.assertTrue(missable, f"no fault in:\n{result.trace}")
            return
        self.count(f"{call} {name}", outcome.ending())
        with self.subTest(line=line):
            self.judge(result, statements, outcome)

    def test_none_is_left_out(self):
        trace = self.assert_undisturbed(strace=["-e", "signal=none"])[0].trace.splitlines()
        names = {line[:line.index("(")] for line in trace[start_of_main(trace):] if re.match(r"\w+\(", line)}
        self.assertEqual(names - SWEPT - WITHOUT_FAILURE - ELSEWHERE, set())

    test_openat = sweeps("openat", errno.EMFILE, errno.EIO)
    test_read = sweeps("read", errno.EIO, errno.EINTR)
    test_write = sweeps("write", errno.ENOSPC, errno.EINTR)
    test_lseek = sweeps("lseek", errno.EIO)
    test_stat = sweeps("newfstatat fstat stat", errno.EACCES)
    test_unlink = sweeps("unlink", errno.EROFS)
    test_fcntl = sweeps("fcntl", errno.EBADF)
    test_pipe2 = sweeps("pipe2", errno.EMFILE)
    test_fork = sweeps("clone clone3 vfork fork", errno.EAGAIN, errno.ENOMEM)
    # A slow sendmail: who doesn't wait for it overtakes it.
    test_wait4 = sweeps("wait4", errno.ECHILD, errno.EINTR, sendmail="read; sleep 0.03")
    test_socket = sweeps("socket", errno.EMFILE)
    test_connect = sweeps("connect", errno.ECONNREFUSED, errno.EAGAIN)
    test_setsockopt = sweeps("setsockopt", errno.ENOBUFS)
    test_sendto = sweeps("sendto", errno.EPIPE, errno.EINTR)
    test_recvfrom = sweeps("recvfrom", errno.ECONNRESET, errno.EINTR, missable=True)
    test_poll = sweeps("poll ppoll", errno.ENOMEM, errno.EINTR, missable=True)
    test_mmap = sweeps("mmap", errno.ENOMEM)
    test_mprotect = sweeps("mprotect", errno.ENOMEM)
    test_setuid = sweeps("setuid", errno.EPERM)
    test_setgid = sweeps("setgid", errno.EPERM)
    test_prctl = sweeps("prctl", errno.EINVAL)
    test_clock_nanosleep = sweeps("clock_nanosleep", errno.EINTR, missable=True)
    test_rt_sigaction = sweeps("rt_sigaction", errno.EINVAL)


class ChildrensCallsFail(SweepTest):
    """A child that doesn't get to be sendmail says so itself, and the run goes on as if it had."""

    def setUp(self):
        super().setUp()
        self.need_plain_program()

    def fail_in_children(self, call, error, line=None, **how):
        """The first such call of each child fails, and each of them writes the line, or is sendmail after all."""
        name = errno.errorcode[error]
        result, statements = self.run_once(
            strace=["-f", "-e", f"trace={call}", "-e", "signal=none", "-e", f"inject={call}:error={name}:when=1"], **how)
        self.assertGreaterEqual(result.trace.count("(INJECTED)"), len(ALL))
        outcome = Outcome(mails=ALL)
        if line is not None:
            outcome = Outcome(stderr=(line + re.escape(os.strerror(error).encode()) + rb"\n") * len(ALL))
        self.count(f"{call} {name} in the children", outcome.ending())
        self.judge(result, statements, outcome)

    def test_dup2(self):
        for error in errno.EMFILE, errno.EINTR, errno.EBUSY:
            with self.subTest(errno.errorcode[error]):
                self.fail_in_children("dup2", error, NOT_PLACED)

    def test_execve(self):
        for error in errno.EIO, errno.ENOMEM, errno.EMFILE:
            with self.subTest(errno.errorcode[error]):
                self.fail_in_children("execve", error, NOT_EXECUTED)

    def test_close_range(self):
        self.fail_in_children("close_range", errno.ENOSYS, rlimits={"nofile": 64})

    def test_rt_sigaction(self):
        """The program doesn't get to ignore SIGPIPE, nor a child to have it at its default again: it has it anyway."""
        self.fail_in_children("rt_sigaction", errno.EINVAL)

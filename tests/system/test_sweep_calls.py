"""Every system call of a run, from the start of main to its end, fails once: each gives the ending that its rule says.

Calls before main are the loader's. A failing call isn't carried out, except close(2), which always frees the
descriptor and only then reports an error; it fails in test_sweep_closes. strace(1) counts the calls of each
process by itself, so what a child does before it is sendmail fails in every child alike. Not made to fail here:
calls that the kernel has no error for, such as getpid(2) and geteuid(2), futex(2), with which a program of one thread
waits for nobody, and brk(2), whose failure is no error but the old break;
what follows when memory runs out is in test_sweep_memory and test_faults_memory.
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


class CallsFail(SweepTest):
    def setUp(self):
        super().setUp()
        self.need_plain_program()

    def sweep(self, calls, *errors, missable=False):
        """Each call of these names fails once with each of the errors; which name it has the C library decides.

        missable: how often the call is made depends on how fast the server is
        """
        trace = self.assert_undisturbed(strace=["-y", "-e", "signal=none"])[0].trace.splitlines()
        places = [(call, number) for call in calls.split() for number in self.places(call, trace)]
        self.assertTrue(places, f"no {calls} in a run")
        for error in errors:
            name = errno.errorcode[error]
            for call, number in places:
                with self.subTest(call=call, error=name, number=number):
                    self.fail_once(call, Fault(error), name, number, missable)

    @staticmethod
    def places(call, trace):
        """The numbers of the calls to fail."""
        first = next(at for at, line in enumerate(trace) if MAIN.match(line))
        made = [at for at, line in enumerate(trace) if line.startswith(call + "(")]
        return [number for number, at in enumerate(made, 1) if at >= first]

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

    def test_openat(self):
        self.sweep("openat", errno.EMFILE, errno.EIO)

    def test_read(self):
        self.sweep("read", errno.EIO, errno.EINTR)

    def test_write(self):
        self.sweep("write", errno.ENOSPC, errno.EINTR)

    def test_lseek(self):
        self.sweep("lseek", errno.EIO)

    def test_stat(self):
        self.sweep("newfstatat fstat stat", errno.EACCES)

    def test_unlink(self):
        self.sweep("unlink", errno.EROFS)

    def test_fcntl(self):
        self.sweep("fcntl", errno.EBADF)

    def test_pipe2(self):
        self.sweep("pipe2", errno.EMFILE)

    def test_fork(self):
        self.sweep("clone clone3 vfork fork", errno.EAGAIN, errno.ENOMEM)

    def test_wait4(self):
        self.behaviour = "read; sleep 0.03"  # so that who doesn't wait for it overtakes it
        self.sweep("wait4", errno.ECHILD, errno.EINTR)

    def test_socket(self):
        self.sweep("socket", errno.EMFILE)

    def test_connect(self):
        self.sweep("connect", errno.ECONNREFUSED, errno.EAGAIN)

    def test_setsockopt(self):
        self.sweep("setsockopt", errno.ENOBUFS)

    def test_sendto(self):
        self.sweep("sendto", errno.EPIPE, errno.EINTR)

    def test_recvfrom(self):
        self.sweep("recvfrom", errno.ECONNRESET, errno.EINTR, missable=True)

    def test_poll(self):
        self.sweep("poll ppoll", errno.ENOMEM, errno.EINTR, missable=True)

    def test_mmap(self):
        self.sweep("mmap", errno.ENOMEM)

    def test_mprotect(self):
        self.sweep("mprotect", errno.ENOMEM)

    def test_setuid(self):
        self.sweep("setuid", errno.EPERM)

    def test_setgid(self):
        self.sweep("setgid", errno.EPERM)

    def test_prctl(self):
        self.sweep("prctl", errno.EINVAL)

    def test_clock_nanosleep(self):
        self.sweep("clock_nanosleep", errno.EINTR, missable=True)

    def test_rt_sigaction(self):
        self.sweep("rt_sigaction", errno.EINVAL)


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

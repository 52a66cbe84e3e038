"""Children that can't be made, can't be given their descriptors or can't be executed, and interrupted waiting."""

import os

import expected
from fault_case import ALL, FORKS, FORWARD, NOTIFICATION, REPLY, FaultTest
from harness import MESSAGE, NOBODY
from panel import PASSWORD_FILE

COPY_TEXT = expected.message_copy(MESSAGE)
NOT_FORKED = (b"autoresponder: fork_execv_pipes: fork() failed\n"
              b"System error 11: Resource temporarily unavailable\n")
NOT_PLACED = b"fork_execv: dup() failed: Bad file descriptor\n"
NOT_EXECUTED = b'fork_execv: execv("/usr/sbin/sendmail") failed: '


class ForkFails(FaultTest):
    """The run ends at once with status 1 and the message on both streams; its files stay."""

    def assert_fork_failed(self, result, *calls, **files):
        self.assert_ended(result, stderr=NOT_FORKED, stdout=NOT_FORKED, status=1)
        self.assert_calls(result, *calls)
        self.assert_counted()
        self.assert_files_left(result, copy=COPY_TEXT, **files)

    def test_for_the_forward(self):
        self.assert_fork_failed(self.run_injected(FORKS, "error=EAGAIN:when=1"))

    def test_for_the_notification(self):
        self.assert_fork_failed(self.run_injected(FORKS, "error=EAGAIN:when=2"), FORWARD, response=b"")

    def test_for_the_reply(self):
        self.assert_fork_failed(self.run_injected(FORKS, "error=EAGAIN:when=3"),
                                FORWARD, NOTIFICATION, response=REPLY[1])

    def test_for_a_later_responder_leaves_what_was_done(self):
        second = self.panel.responder(self.mailbox, text="Again\n")
        result = self.run_injected(FORKS, "error=EAGAIN:when=4")
        self.assert_ended(result, stderr=NOT_FORKED, stdout=NOT_FORKED, status=1)
        self.assert_calls(result, *ALL)
        self.assertEqual([row[0] for row in self.panel.frequency_rows()], [self.responder, second])
        self.assert_files_left(result, copy=COPY_TEXT, response=expected.reply(
            "sam@sender.example", "info@example.com", "Re: Opening hours", b"Again\n"))

    def test_by_the_limit_on_processes(self):
        os.chmod(PASSWORD_FILE, 0o644)
        # A leak sanitizer needs a process of its own.
        self.assert_fork_failed(self.run_program(user=NOBODY, rlimits={"nproc": 1},
                                                 env={"ASAN_OPTIONS": "detect_leaks=0"}))


class ChildFails(FaultTest):
    """A child that ends before it is sendmail counts as one that was: the run goes on to its ordinary end."""

    def assert_each_child_said(self, result, line):
        self.assert_done(result, stderr=3 * line)
        self.assertEqual(result.trace.count("si_status=255"), 3)

    def test_descriptors_cannot_be_placed(self):
        result = self.run_injected("dup2,dup3", "error=EBADF", follow=True)
        self.assert_each_child_said(result, NOT_PLACED)

    def test_the_message_on_a_failed_placing_is_the_system_error_of_it(self):
        result = self.run_injected("dup2,dup3", "error=EMFILE", follow=True)
        self.assert_each_child_said(result, b"fork_execv: dup() failed: Too many open files\n")

    def test_there_is_no_sendmail(self):
        self.remove_sendmail()
        result = self.run_program(strace=["-f", "-e", "trace=dup2"])
        self.assert_each_child_said(result, NOT_EXECUTED + b"No such file or directory\n")

    def test_sendmail_must_not_be_executed(self):
        self.replace_sendmail(b"#!/bin/sh\n", mode=0o644)
        result = self.run_program(strace=["-f", "-e", "trace=dup2"])
        self.assert_each_child_said(result, NOT_EXECUTED + b"Permission denied\n")

    def test_sendmail_is_no_program(self):
        self.replace_sendmail(b"not a program\n")
        result = self.run_program(strace=["-f", "-e", "trace=dup2"])
        self.assert_each_child_said(result, NOT_EXECUTED + b"Exec format error\n")

    def test_more_addresses_than_an_argument_list_holds(self):
        """The forward fails by itself; execve(2) on the size of arguments."""
        self.skip_if_watched("a child whose execve(2) fails ends there")
        long_address = "a" * 150_000
        self.sql("alter table resp_forward modify address longtext")
        self.sql("update resp_forward set address=%s", long_address)
        self.assert_done(self.run_program(), NOTIFICATION, REPLY,
                         stderr=NOT_EXECUTED + b"Argument list too long\n")

    def test_descriptors_cannot_be_closed_at_once(self):
        """A kernel older than close_range(2): they are closed one by one."""
        result = self.run_injected("close_range", "error=ENOSYS", follow=True, rlimits={"nofile": 64})
        self.assert_done(result, *ALL)
        for mail in result.mails:
            self.assertEqual(sorted(mail.fds), [0, 1, 2])


class WaitingFails(FaultTest):
    def assert_one_after_the_other(self, result):
        self.assert_done(result, *ALL)
        self.assertTrue(all(mail.complete for mail in result.mails))
        forward, notification, reply = result.mails
        self.assertLessEqual(forward.end, notification.start)
        self.assertLessEqual(notification.end, reply.start)

    def test_an_interrupted_wait_is_resumed(self):
        self.sendmail("read; sleep 0.05")
        result = self.run_injected("wait4", "error=EINTR:when=1+2")
        self.assertEqual(result.trace.count("EINTR"), 3)
        self.assert_one_after_the_other(result)

    def test_a_wait_interrupted_time_and_again_is_resumed(self):
        self.sendmail("read; sleep 0.05")
        result = self.run_injected("wait4", "error=EINTR:when=1..500")
        self.assert_one_after_the_other(result)

    def test_a_failed_wait_is_not_repeated(self):
        """Nobody says a word of it; sendmail does its work unobserved."""
        result = self.run_injected("wait4", "error=ECHILD", allow_left=True)
        self.assert_ended(result)
        self.assertEqual(result.trace.count("wait4("), 3)


class StreamFails(FaultTest):
    """The stream into the notification's sendmail can't be made: the child is told so by the end of its input."""

    def test_its_descriptor_is_not_usable(self):
        number = self.count_calls_to("fcntl", r"<pipe:.*F_GETFL")
        result = self.run_injected("fcntl", f"error=EBADF:when={number}", timeout=20)
        self.assert_done(result, FORWARD, (NOTIFICATION[0], b""), REPLY,
                         stderr=b"Unable to send mail with notify of not exist attachment.\n")

    def test_its_writing_fails(self):
        """As when the child doesn't read on: nobody is told."""
        number = self.count_calls_to("write", r"<pipe:.*\"From: ")
        result = self.run_injected("write", f"error=EIO:when={number}")
        self.assert_done(result, FORWARD, (NOTIFICATION[0], b""), REPLY)

    def test_its_writing_is_interrupted(self):
        number = self.count_calls_to("write", r"<pipe:.*\"From: ")
        result = self.run_injected("write", f"error=EINTR:when={number}..{number + 2}")
        self.assertEqual(result.trace.count("EINTR"), 3)
        self.assert_done(result, *ALL)

"""How runs end: the status, the lines on standard error and output, and the files left in /tmp."""

import os
import pathlib
import re
import signal

import expected
from harness import RECIPIENT
from intake_case import FROM, NO_SENDER, SENDER, TEXT, IntakeTest

COPY = "qrx-autoresponder-XXXXXX"
RESPONSE = "qrx-response-uu-XXXXXX"
MEBIBYTE = 1 << 20


class OrdinaryEnds(IntakeTest):
    def test_intake_failed(self):
        self.assert_silent(self.run_program(message=b"Subject: no sender\n\n"), NO_SENDER)

    def test_the_responder_logic_returned(self):
        self.assert_answered(self.run_program(message=FROM + b"\n"))

    def test_the_responder_logic_found_nothing_to_do(self):
        self.sql("update mail_resp set resp_on='false'")
        self.assert_silent(self.run_program(), b"")

    def test_a_fatal_error_of_the_responder_logic(self):
        self.assert_silent(self.run_program(recipient="nobody@example.com"),
                           b"autoresponder: Mailname not found: nobody@example.com\n")

    def test_a_fatal_error_with_both_files_made_removes_both(self):
        self.drop_table("resp_attach")
        result = self.run_program(message=FROM + b"\n", strace=["-e", "trace=open,openat,unlink"])
        self.assert_ended(result, stderr=b"autoresponder: Unable to exec query :"
                                         b"Table 'qrx.resp_attach' doesn't exist\n")
        self.assert_nothing_sent(result)
        self.assertRegex(result.trace, r'open\w*\(.*"/tmp/qrx-response-uu-\w{6}".*O_EXCL')
        self.assert_nothing_left(result)

    def test_a_failing_sendmail_is_no_failure(self):
        self.sendmail("read; exit 75")
        self.assert_answered(self.run_program(message=FROM + b"\n"))


class Removal(IntakeTest):
    def test_both_names_are_removed_the_copy_first_also_when_there_is_no_reply(self):
        result = self.run_program(message=b"\n", strace=["-e", "trace=unlink,unlinkat"])
        self.assert_silent(result, NO_SENDER)
        self.assertRegex(result.trace, r'\Aunlink\("/tmp/qrx-autoresponder-\w{6}"\) += 0\n'
                                       r'unlink\("/tmp/qrx-response-uu-XXXXXX"\) += -1 ENOENT .*\n\Z')

    def test_a_file_under_the_unreplaced_template_is_removed(self):
        pathlib.Path("/tmp", RESPONSE).write_text("planted")
        self.assert_silent(self.run_program(message=b"\n"), NO_SENDER)

    def test_files_of_other_runs_stay(self):
        others = ["/tmp/qrx-autoresponder-AAAAAA", "/tmp/qrx-response-uu-AAAAAA"]
        for path in others:
            pathlib.Path(path).write_text("of another run")
        result = self.run_program(message=FROM + b"\n")
        self.assert_ended(result)
        self.assertEqual([(file.path, file.content) for file in result.tmp],
                         [(path, b"of another run") for path in others])

    def test_a_failed_removal_is_ignored(self):
        result = self.run_program(message=FROM + b"\n", strace=[
            "-e", "trace=unlink", "-e", "inject=unlink:error=EACCES"])
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assertEqual([file.name for file in result.tmp], [COPY, RESPONSE])


class FatalEnds(IntakeTest):
    """Ends through the panel library's reporter: status 1, the message on both streams, both files left."""

    def assert_fatal(self, result, text, response):
        """response: what the response's file holds, a pattern"""
        self.assertEqual((result.status, result.signal), (1, None), result.stderr)
        self.assertRegex(result.stderr, rb"\Aautoresponder: " + re.escape(text) + rb"\n"
                                        rb"(System error \d+: .+\n)?\Z")
        self.assertEqual(result.stdout, result.stderr)
        self.assert_nothing_sent(result)
        self.assertEqual([(file.name, file.mode) for file in result.tmp], [(COPY, 0o600), (RESPONSE, 0o600)])
        self.assert_bytes(result.tmp[0].content, expected.message_copy(self.message), "stored copy")
        self.assertRegex(result.tmp[1].content, response)

    message = FROM + b"\nA text.\n"

    def run_message(self, **how):
        return self.run_program(message=self.message, argv0="/usr/local/bin/autoresponder", **how)

    def test_a_runtime_error(self):
        self.sql("update mail_resp set charset='x-none'")
        self.assert_fatal(self.run_message(), b"Send error: Cannot convert from UTF-8 to x-none", rb"\A\Z")

    def test_an_idn_error(self):
        name = "x" * 80 + ".example"
        self.panel.responder(self.panel.mailbox(self.panel.domain(name), "info"))
        result = self.run_message(recipient=f"info@{name}")
        line = result.stderr.split(b"\n")[0].removeprefix(b"autoresponder: ")
        self.assertRegex(line, rb"\AIDN conversion error: .+\Z")
        self.assert_fatal(result, line, rb"\A\Z")

    def test_exhausted_memory(self):
        self.skip_if_sanitized("they take more address space than the limit leaves")
        # The text fits into the limit, its conversion, which is four times as long, doesn't.
        self.sql("update mail_resp set charset='UTF-32', text=repeat('long ', %s)", 2 * MEBIBYTE)
        result = self.run_message(rlimits={"as": 64 * MEBIBYTE})
        self.assert_fatal(result, b"Program failed due to exhausted memory", rb"\A\Z")

    def test_a_failed_fork(self):
        calls = "clone,clone3,fork,vfork"
        result = self.run_message(strace=["-e", f"trace={calls}", "-e", f"inject={calls}:error=EAGAIN"])
        reply = expected.reply(SENDER, RECIPIENT, "Re: ", TEXT.encode())
        self.assert_fatal(result, b"fork_execv_pipes: fork() failed", rb"\A" + re.escape(reply) + rb"\Z")
        self.assertIn(b"\nSystem error 11: Resource temporarily unavailable\n", result.stderr)

    def test_a_run_before_does_not_disturb_the_files_left(self):
        self.sql("update mail_resp set charset='x-none'")
        first, second = self.run_message(), self.run_message()
        self.assertEqual([file.name for file in first.tmp], [COPY, RESPONSE])
        self.assertEqual([file.name for file in second.tmp], [COPY, COPY, RESPONSE, RESPONSE])

    def test_replies_before_the_failing_one_are_sent(self):
        self.panel.responder(self.mailbox, charset="x-none")
        self.panel.responder(self.mailbox, text="never reached")
        result = self.run_message()
        self.assertEqual(result.status, 1)
        self.assertEqual([mail.stdin for mail in result.mails],
                         [expected.reply(SENDER, RECIPIENT, "Re: ", TEXT.encode())])
        self.assertEqual([file.name for file in result.tmp], [COPY, RESPONSE])


class UncaughtEnds(IntakeTest):
    def test_exhausted_memory_during_intake_ends_by_abort_and_leaves_the_copy(self):
        self.skip_if_sanitized("they take more address space than the limit leaves")
        message = FROM + b"\n" + b"long line " * (6 * MEBIBYTE)
        result = self.run_program(message=message, rlimits={"as": 64 * MEBIBYTE})
        self.assertEqual((result.status, result.signal), (None, signal.SIGABRT))
        self.assertEqual(result.stdout, b"")
        self.assertNotIn(b"Abnormal exit.", result.stderr)
        self.assert_nothing_sent(result)
        self.assertEqual([file.name for file in result.tmp], [COPY])


class SideBySide(IntakeTest):
    def test_runs_at_the_same_time_keep_their_messages_apart(self):
        self.forward()
        messages = {f"sender{i}@x.example": b"From: sender%d@x.example\nSubject: number %d\n\nHello.\n" % (i, i)
                    for i in range(6)}
        runs, pipes = [], []
        for _ in messages:
            reading, writing = os.pipe()
            runs.append(self.start(stdin=reading))
            os.close(reading)
            pipes.append(writing)
        for place, byte in self.interleaved(list(messages.values())):
            os.write(pipes[place], byte)
        for pipe in pipes:
            os.close(pipe)
        for run in runs:  # a result lists /tmp, where nothing should come or go meanwhile
            run.process.wait(60)
        for run in runs:
            result = run.finish()
            self.assertEqual((result.status, result.stderr, result.stdout), (0, b"", b""))
        forwards = [mail.stdin for mail in self.mails() if mail.argv[3] == "archive@example.com"]
        self.assertEqual(sorted(forwards), sorted(map(expected.message_copy, messages.values())))
        replies = {mail.argv[3]: mail.stdin for mail in self.mails() if mail.argv[3] in messages}
        self.assertEqual(replies, {
            sender: expected.reply(sender, RECIPIENT, f"Re: number {i}", TEXT.encode())
            for i, sender in enumerate(messages)})
        self.assertEqual(len(self.mails()), 2 * len(messages))
        self.assertEqual(self.temporary_files(), [])

    @staticmethod
    def interleaved(messages):
        """The messages' bytes one by one in turn, as (number of the message, byte)."""
        for place in range(max(map(len, messages))):
            for number, message in enumerate(messages):
                if place < len(message):
                    yield number, message[place:place + 1]

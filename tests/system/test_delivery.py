"""Handing the reply to sendmail: arguments, what the child inherits, and every way sendmail can misbehave."""

import os
import pathlib

import expected
import sandbox
from harness import NOBODY, RECIPIENT, Sql, SystemTest

SENDER = "sam@sender.example"
REPLY = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"Hello\n")
ARGUMENTS = ["/usr/sbin/sendmail", "-f", RECIPIENT, SENDER]


class Delivery(SystemTest):
    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text="Hello\n")

    def assert_counted_as_sent(self, result, **texts):
        """Whatever sendmail did, the run went on to its ordinary end."""
        self.assert_ended(result, **texts)
        self.assert_nothing_left(result)
        self.assertEqual(self.panel.frequency_rows(), [(self.responder, SENDER, 1)])

    def argv_for(self, sender_header):
        result = self.run_program(message=b"From: " + sender_header + b"\nSubject: Opening hours\n\n")
        self.assert_ended(result)
        return result.mails[0].argv

    def test_the_arguments(self):
        result = self.run_program()
        self.assert_counted_as_sent(result)
        self.assertEqual([mail.argv for mail in result.mails], [ARGUMENTS])

    def test_a_sender_that_begins_with_a_dash_stands_as_it_is(self):
        self.assertEqual(self.argv_for(b"-OQueueDirectory=/tmp@sender.example"),
                         [*ARGUMENTS[:3], "-OQueueDirectory=/tmp@sender.example"])

    def test_a_sender_is_one_argument_whatever_is_in_it(self):
        self.assertEqual(self.argv_for(b'"a b;`c`$d \'e\' & f"@sender.example'),
                         [*ARGUMENTS[:3], '"a b;`c`$d \'e\' & f"@sender.example'])

    def test_the_senders_internationalised_domain_is_not_converted(self):
        self.assertEqual(self.argv_for("sam@bücher.example".encode()),
                         [*ARGUMENTS[:3], "sam@bücher.example"])

    def test_the_child_inherits_three_descriptors_and_its_signals_at_their_defaults(self):
        mail = self.run_program(env={"QRX_MARK": "kept"}).mails[0]
        self.assertEqual(sorted(mail.fds), [0, 1, 2])
        self.assertRegex(mail.fds[0], r"/tmp/qrx-response-uu-\w{6}")
        self.assertEqual((mail.ignored, mail.blocked), (set(), set()))
        self.assertEqual(mail.env["QRX_MARK"], "kept")

    def test_what_sendmail_writes_goes_to_the_programs_own_streams(self):
        self.sendmail("out queued; err warning; read")
        self.assert_counted_as_sent(self.run_program(), stdout=b"queued", stderr=b"warning")

    def test_the_file_is_its_owners_alone(self):
        self.sendmail("run stat -c %a /tmp/qrx-response-uu-* > /sandbox/mode; read")
        self.assert_counted_as_sent(self.run_program())
        self.assertEqual(pathlib.Path("/sandbox/mode").read_text(), "600\n")

    def test_the_program_waits_for_its_child(self):
        self.sendmail("read; sleep 0.3")
        result = self.run_program()
        self.assert_counted_as_sent(result)
        self.assertTrue(result.mails[0].complete)
        self.assertGreaterEqual(result.duration, 0.3)

    def test_a_sendmail_that_fails_counts_as_having_sent(self):
        for behaviour in ("read; exit 75", "exit 1", "read 10; exit 0", "signal 9", "close; sleep 0.1",
                          "sleep 0.1"):
            with self.subTest(behaviour):
                self.sendmail(behaviour)
                self.sql("delete from resp_freq")
                result = self.run_program()
                self.assert_counted_as_sent(result)
                self.assertEqual(len(result.mails), 1)

    def test_a_stopped_sendmail_does_not_hold_the_run(self):
        self.sendmail("read; stop")
        result = self.run_program(allow_left=True, timeout=20)
        self.assert_counted_as_sent(result)

    def test_no_sendmail(self):
        self.remove_sendmail()
        self.assert_counted_as_sent(
            self.run_program(),
            stderr=b'fork_execv: execv("/usr/sbin/sendmail") failed: No such file or directory\n')

    def test_a_sendmail_that_is_not_executable(self):
        self.replace_sendmail(b"#!/bin/sh\n", mode=0o644)
        self.assert_counted_as_sent(
            self.run_program(),
            stderr=b'fork_execv: execv("/usr/sbin/sendmail") failed: Permission denied\n')

    def test_a_sendmail_that_is_a_folder(self):
        self.remove_sendmail()
        os.mkdir(sandbox.SENDMAIL)
        self.addCleanup(os.rmdir, sandbox.SENDMAIL)
        self.assert_counted_as_sent(
            self.run_program(),
            stderr=b'fork_execv: execv("/usr/sbin/sendmail") failed: Permission denied\n')

    def test_a_sendmail_that_is_no_program(self):
        self.replace_sendmail(b"not a program\n")
        self.assert_counted_as_sent(
            self.run_program(),
            stderr=b'fork_execv: execv("/usr/sbin/sendmail") failed: Exec format error\n')


class ReplyFileMeddledWith(SystemTest):
    """Before the reply is written somebody takes its file away or puts another one in its place.

    The missing attachment's notification is the moment: the reply's file has its name by then.
    """

    def assert_replied(self, deed):
        self.panel.attachment(self.furnish(text="Hello\n"), "gone")
        self.sendmail(f"run f=$(ls /tmp/qrx-response-uu-*) && {deed}; read", "read")
        result = self.run_program(timeout=20)
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 2)
        self.assert_bytes(result.mails[1].stdin, REPLY)
        self.assert_nothing_left(result)

    def test_removed_it_is_created_again(self):
        self.assert_replied("rm $f")

    def test_filled_it_is_emptied_first(self):
        self.assert_replied("head -c 5000 /dev/zero > $f")

    def test_replaced_by_a_link_that_is_not_followed(self):
        target = pathlib.Path("/sandbox/target")
        target.write_text("untouched\n")
        self.assert_replied("rm $f && ln -s /sandbox/target $f")
        self.assertEqual(target.read_text(), "untouched\n")

    def test_replaced_by_another_users_file(self):
        self.need_other_users()
        self.assert_replied(f"rm $f && echo planted > $f && chown {NOBODY} $f")


class FullDisk(SystemTest):
    """A /tmp without room cuts the reply; what is in the file goes out."""

    def test_a_reply_that_does_not_fit_is_cut(self):
        self.furnish(text="x" * 200000)
        result = self.run_program(tmp_size=64)
        self.assert_ended(result)
        whole = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"x" * 200000)
        sent = result.mails[0].stdin
        self.assertLess(len(sent), 65536)
        self.assertEqual(sent, whole[:len(sent)])
        self.assert_nothing_left(result)

    def test_a_tmp_without_a_place_for_the_reply(self):
        self.furnish(text="x")
        self.use_tmp(kib=64, files=1)
        result = self.run_program(argv0="autoresponder")
        self.assertEqual(result.status, 1)
        self.assertRegex(result.stderr, rb"\Aautoresponder: Failed to open temporary file with response "
                                        rb"mail contents '/tmp/qrx-response-uu-\w{6}': "
                                        rb"No such file or directory \(2\)\n"
                                        rb"autoresponder: Send error: Failed to generate response mail "
                                        rb"contents\n(System error .*\n)?\Z")
        self.assert_nothing_sent(result)


class ExhaustedMemory(SystemTest):
    def test_a_reply_beyond_the_memory_limit(self):
        self.skip_if_sanitized("the sanitizers need more address space than any limit leaves")
        self.sql("alter table mail_resp modify text longblob")
        self.furnish(text=Sql("repeat('x', 14000000)"))
        result = self.run_program(rlimits={"as": 48 * 1024 * 1024}, argv0="autoresponder")
        self.assertEqual(result.status, 1)
        for stream in (result.stderr, result.stdout):
            self.assertRegex(stream, rb"\Aautoresponder: Program failed due to exhausted memory\n"
                                     rb"(System error \d+: .*\n)?\Z")
        self.assert_nothing_sent(result)

"""The guards against answering itself or a mailer daemon, the identity taken, and the program's name."""

import os
import pathlib
import shutil

import sandbox
from harness import MESSAGE, NOBODY, RECIPIENT
from intake_case import FROM, SENDER, IntakeTest, message_from

ITSELF = b"Field From: equial field To:\n"
DAEMON = b"Field From: contains MAILER-DAEMON\n"
SETUID_PROGRAM = pathlib.Path("/sandbox/setuid_autoresponder")


class GuardAgainstItself(IntakeTest):
    def test_a_message_from_the_recipient_is_refused(self):
        result = self.run_program(message=message_from(RECIPIENT.encode()))
        self.assert_silent(result, ITSELF)

    def test_a_message_to_be_answered_to_the_recipient_is_refused(self):
        result = self.run_program(message=b"Reply-To: " + RECIPIENT.encode() + b"\n" + MESSAGE)
        self.assert_silent(result, ITSELF)

    def test_a_message_from_the_recipient_to_be_answered_elsewhere_is_answered(self):
        result = self.run_program(message=b"Reply-To: " + SENDER.encode() + b"\n"
                                  + message_from(RECIPIENT.encode()))
        self.assert_answered(result)

    def test_the_recipient_in_other_letter_case_is_answered(self):
        for sender in ("Info@example.com", "info@EXAMPLE.com", "INFO@EXAMPLE.COM"):
            with self.subTest(sender):
                self.assert_answered(self.run_program(message=message_from(sender.encode())), sender)

    def test_a_sender_that_holds_the_recipient_or_is_held_by_it_is_answered(self):
        for sender in ("info@example.com.au", "xinfo@example.com", "info@example.co", "nfo@example.com"):
            with self.subTest(sender):
                self.assert_answered(self.run_program(message=message_from(sender.encode())), sender)

    def test_an_odd_recipient_is_compared_byte_for_byte(self):
        sender = '"q r"@[192.0.2.1]'
        result = self.run_program(message=message_from(sender.encode()), recipient=sender)
        self.assert_silent(result, ITSELF)

    def test_it_stands_before_the_one_against_daemons(self):
        result = self.run_program(message=message_from(b"MAILER-DAEMON@example.com"),
                                  recipient="MAILER-DAEMON@example.com")
        self.assert_silent(result, ITSELF)


class GuardAgainstDaemons(IntakeTest):
    def test_each_daemon_name_is_refused_wherever_it_stands(self):
        for sender in ("MAILER-DAEMON@x.example", "mailer-daemon@x.example", "DrWEB-DAEMON@x.example",
                       "owner-mailer-daemon@x.example", "MAILER-DAEMON-owner@x.example",
                       "xDrWEB-DAEMONx@x.example", "sam@MAILER-DAEMON.example",
                       "sam@mail.mailer-daemon", "sam@DrWEB-DAEMON", '"MAILER-DAEMON"@x.example'):
            with self.subTest(sender):
                self.assert_silent(self.run_program(message=message_from(sender.encode())), DAEMON)

    def test_other_spellings_are_answered(self):
        for sender in ("Mailer-Daemon@x.example", "MAILER-daemon@x.example", "mailer-DAEMON@x.example",
                       "mailer-Daemon@x.example", "drweb-daemon@x.example", "DRWEB-DAEMON@x.example",
                       "DrWeb-Daemon@x.example", "MAILER_DAEMON@x.example", "MAILER-DAEMO@N.example",
                       "MAILER-@DAEMON.example", "postmaster@x.example"):
            with self.subTest(sender):
                self.assert_answered(self.run_program(message=message_from(sender.encode())), sender)

    def test_the_address_to_answer_to_is_what_counts(self):
        result = self.run_program(message=b"Reply-To: mailer-daemon@x.example\n" + MESSAGE)
        self.assert_silent(result, DAEMON)
        result = self.run_program(message=b"Reply-To: " + SENDER.encode() + b"\n"
                                  + message_from(b"MAILER-DAEMON@x.example"))
        self.assert_answered(result)

    def test_a_display_name_and_a_return_path_are_not_looked_at(self):
        result = self.run_program(message=b"Return-Path: <MAILER-DAEMON>\nSender: mailer-daemon@x.example\n"
                                          b"From: MAILER-DAEMON <" + SENDER.encode() + b">\n\n")
        self.assert_answered(result)

    def test_a_recipient_named_so_answers(self):
        self.panel.mailbox(self.domain, "unused")
        mailbox = self.panel.mailbox(self.domain, "MAILER-DAEMON")
        self.panel.responder(mailbox, text="Thank you.\n")
        result = self.run_program(message=message_from(SENDER.encode()), recipient="MAILER-DAEMON@example.com")
        self.assert_answered(result, recipient="MAILER-DAEMON@example.com")


class Guards(IntakeTest):
    def test_they_stand_before_the_database(self):
        self.panel.password_file(None)  # a connection would fail, and say so
        for sender, line in ((RECIPIENT.encode(), ITSELF), (b"MAILER-DAEMON@x.example", DAEMON)):
            with self.subTest(sender):
                self.assert_silent(self.run_program(message=message_from(sender)), line)

    def test_they_stand_behind_intake(self):
        message = (b"From: MAILER-DAEMON@x.example\nSubject: =?x-none?Q?a?=\n"
                   b"Content-Type: text/plain; charset=x-other\n\ntext\n")
        self.assert_silent(self.run_program(message=message),
                           b"Could not convert message body text from x-other to UTF-8.\n"
                           b"Could not convert message subject text from x-other to UTF-8.\n" + DAEMON)

    def test_they_need_a_recipient(self):
        self.assert_silent(
            self.run_program(message=message_from(b"MAILER-DAEMON@x.example"), recipient=None),
            b"Could not get recipient e-mail address from RESP_RECIPIENT environment variable\n"
            b"Abnormal exit.\n")


class Identity(IntakeTest):
    def tearDown(self):
        SETUID_PROGRAM.unlink(missing_ok=True)
        super().tearDown()

    def test_configuration_then_user_then_group_then_the_message(self):
        self.panel.configuration("")
        result = self.run_program(message=FROM + b"\n", strace=[
            "-e", "trace=open,openat,setuid,setgid", "-e", "signal=none"])
        steps = [next(place for place, line in enumerate(result.trace.splitlines()) if wanted in line)
                 for wanted in ("/etc/qrx/qrx.conf", "setuid(0)", "setgid(0)", "/tmp/qrx-autoresponder-")]
        self.assertEqual(steps, sorted(steps), result.trace)

    def test_a_program_installed_set_user_id_takes_roots_user_and_group(self):
        shutil.copyfile(sandbox.PROGRAM, SETUID_PROGRAM)
        SETUID_PROGRAM.chmod(0o4755)
        result = self.run_program(message=FROM + b"\n", program=str(SETUID_PROGRAM), user=NOBODY)
        self.assert_answered(result)
        self.assertEqual((result.mails[0].uid, result.mails[0].gid), ((0, 0), (0, 0)))

    def test_without_more_rights_than_its_caller_the_environment_is_the_callers_business(self):
        result = self.run_program(message=FROM + b"\n", env={"MYSQL_UNIX_PORT": "/sandbox/rogue.sock"})
        self.assertEqual(result.status, 0)
        self.assertIn(b"Can't connect to local server through socket '/sandbox/rogue.sock'", result.stderr)
        self.assert_nothing_sent(result)

    def test_an_ordinary_user_goes_on_as_it_is(self):
        os.chmod("/etc/qrx/.qrx.shadow", 0o644)
        result = self.run_program(message=FROM + b"\n", user=NOBODY)
        self.assert_answered(result)
        self.assertEqual((result.mails[0].uid, result.mails[0].gid), ((NOBODY, NOBODY), (NOBODY, NOBODY)))

    def test_a_refused_identity_is_ignored(self):
        for call in ("setuid", "setgid"):
            with self.subTest(call):
                result = self.run_program(message=FROM + b"\n", strace=[
                    "-e", f"trace={call}", "-e", "signal=none", "-e", f"inject={call}:error=EPERM"])
                self.assertEqual(result.trace.splitlines(), [
                    f"{call}(0)                               = -1 EPERM (Operation not permitted) (INJECTED)"])
                self.assert_answered(result)


class NameAndArguments(IntakeTest):
    def failing_run(self, **how):
        """A run that ends with a message of the panel library, and that message without its system error."""
        self.sql("update mail_resp set charset='x-none'")
        result = self.run_program(message=FROM + b"\n", **how)
        self.assertEqual(result.status, 1)
        self.assertEqual(result.stdout, result.stderr)
        return result.stderr.split(b"\nSystem error ")[0]

    def test_messages_of_the_panel_library_begin_with_the_last_part_of_the_programs_name(self):
        text = b": Send error: Cannot convert from UTF-8 to x-none"
        for argv0, name in (("autoresponder", b"autoresponder"), ("/opt/panel/bin/answer", b"answer"),
                            ("./some where/re sponder", b"re sponder"), ("../%s%n", b"%s%n")):
            with self.subTest(argv0):
                self.assertEqual(self.failing_run(argv0=argv0), name + text)

    def test_other_messages_do_not_depend_on_it(self):
        result = self.run_program(message=FROM + b"\n", argv0="/opt/panel/bin/answer", recipient="x@y.example")
        self.assert_silent(result, b"autoresponder: Mailname not found: x@y.example\n")

    def test_arguments_are_not_read(self):
        result = self.run_program(message=FROM + b"\n", args=["--help", "-f", "x@y.example", "--", ""])
        self.assert_answered(result)

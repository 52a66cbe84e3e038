"""The cases that every mail system must pass with the configuration of the operating guide.

A message comes in over SMTP; the mail system puts it into its mailbox and runs the program, whose mails
go through the mail system's real sendmail into other local mailboxes, where they are read.
"""

import email
import email.policy
import pathlib
import shutil
import smtplib
import subprocess
import unittest

import guide
import mail_system
import sandbox
from harness import SystemTest
from panel import PASSWORD_FILE
from program_run import wait_until

PROGRAM = pathlib.Path("/usr/sbin/autoresponder")
INFO, SALES, OFFICE = "info@example.com", "sales@example.com", "office@example.com"
SAM, BOSS, CLIENT = "sam@sender.example", "boss@sender.example", "carla@panel.example"
MAILBOXES = (INFO, SALES, SAM, BOSS, CLIENT)
FALLBACK_SENDER = "root@localhost"


def parsed(message):
    return email.message_from_bytes(message, policy=email.policy.default)


def envelope_sender(message):
    return parsed(message)["Return-Path"].strip("<>")


def body(message):
    """What follows the header fields."""
    return message.partition(b"\n\n")[2]


class MailSystemTest(SystemTest):
    """The mail system runs for all cases of the class. What a derived class must have:

    name: that of the package folder
    configure(): configures the system, with the guide's blocks, and starts it
    shut_down(): ends it
    queue(): the files of the messages that aren't delivered yet
    log(): what it has logged, as text
    last_line(answer): what ends the log of the message that was accepted with this answer
    failures(log): the lines of the log that tell of a bounced or deferred message
    """

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        reason = mail_system.missing(cls.name)
        if reason:
            raise unittest.SkipTest(reason)
        mail_system.unpack(cls.name)
        PROGRAM.unlink(missing_ok=True)
        shutil.copyfile(sandbox.PROGRAM, PROGRAM)
        PROGRAM.chmod(0o755)
        mail_system.remove_user("autoresponder")
        guide.run_block("user")
        guide.run_block("group")
        cls.configure()
        wait_until("an answer over SMTP", mail_system.answers_smtp)

    @classmethod
    def tearDownClass(cls):
        cls.shut_down()
        super().tearDownClass()

    def setUp(self):
        """The password file is made anew for each case, so the guide's commands hold for it no longer."""
        super().setUp()
        guide.run_block("password")
        mail_system.put_sendmail_back()
        mail_system.empty_mailboxes()
        self.log_begins = len(self.log())

    # Steps

    def receive(self, sender=SAM, to=(INFO,), header=f"From: {SAM}\nSubject: Opening hours\n",
                text="When are you open?\n"):
        """A message comes in over SMTP, and all that it causes is done."""
        message = f"{header}To: {', '.join(to)}\n\n{text}"
        with smtplib.SMTP("127.0.0.1", timeout=mail_system.PATIENCE_SECONDS) as client:
            client.ehlo("client.example")
            client.mail(sender)
            for address in to:
                client.rcpt(address)
            code, answer = client.data(message)
        self.assertEqual(code, 250, answer)
        self.wait_for("the message's end in the log", lambda: self.last_line(answer.decode()) in self.news())
        self.settle()

    def settle(self):
        """Returns when the queue has stayed empty for a look and another: mail moves on between two looks."""
        self.wait_for("an empty queue", lambda: not any(self.queue() for _ in range(3)))

    def wait_for(self, what, condition):
        try:
            wait_until(what, condition)
        except AssertionError as late:
            self.fail(f"{late}\n{self.news()}")

    def news(self):
        """What has been logged in this case."""
        return self.log()[self.log_begins:]

    # Comparing

    def assert_delivered(self, address, *texts):
        """The mailbox holds messages with these bodies, in their order."""
        bodies = [body(message) for message in mail_system.mailbox(address)]
        self.assertEqual(bodies, [text.encode() for text in texts], f"bodies in {address}\n{self.news()}")

    def assert_nothing_failed(self):
        self.assertEqual(self.failures(self.news()), [], "bounced or deferred")

    def only_mail(self, address):
        messages = mail_system.mailbox(address)
        self.assertEqual(len(messages), 1, f"messages in {address}\n{self.news()}")
        return messages[0]


class MailSystemCases:
    """The cases, for a class that is a MailSystemTest too."""

    def test_a_message_is_delivered_and_answered(self):
        self.furnish(text="From nine to five.\n")
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM, "From nine to five.\n\n\n\n")
        reply = self.only_mail(SAM)
        self.assertEqual((envelope_sender(reply), parsed(reply)["From"], parsed(reply)["Subject"]),
                         (INFO, INFO, "Re: Opening hours"))
        self.assert_nothing_failed()

    def test_the_forward_is_the_message_as_it_came(self):
        self.panel.forward(self.furnish(), BOSS)
        self.receive()
        forward = self.only_mail(BOSS)
        self.assertEqual((envelope_sender(forward), parsed(forward)["From"], parsed(forward)["Subject"]),
                         (INFO, SAM, "Opening hours"))
        self.assertEqual(body(forward), b"When are you open?\n\n")
        self.assertFalse(forward.startswith(b"From "))
        self.assert_nothing_failed()

    def test_the_client_is_told_of_a_missing_attachment(self):
        self.panel.attachment(self.furnish(), "prices.pdf")
        self.receive()
        notification = self.only_mail(CLIENT)
        self.assertEqual(envelope_sender(notification), FALLBACK_SENDER)
        self.assertIn(b"The following files are missing", notification)
        self.assertIn(b"\nprices.pdf\n", notification)
        self.assertEqual(len(mail_system.mailbox(SAM)), 1)
        self.assert_nothing_failed()

    def test_an_attachment_that_cannot_be_reached_counts_as_missing(self):
        responder = self.furnish()
        self.panel.attachment(responder, "prices.pdf", b"from 5 to 10\n")
        self.panel.attachment_folder(responder).parent.chmod(0o700)
        self.receive()
        self.assertIn(b"\nprices.pdf\n", self.only_mail(CLIENT))
        self.assertFalse(parsed(self.only_mail(SAM)).is_multipart())

    def test_an_attachment_arrives(self):
        self.panel.attachment(self.furnish(), "prices.pdf", bytes(range(256)) * 40)
        self.receive()
        parts = list(parsed(self.only_mail(SAM)).iter_attachments())
        self.assertEqual([(part.get_filename(), part.get_content()) for part in parts],
                         [("prices.pdf", bytes(range(256)) * 40)])

    def test_an_attachment_in_folders_of_the_group_arrives(self):
        responder = self.furnish()
        self.panel.attachment(responder, "prices.pdf", b"from 5 to 10\n")
        folder = self.panel.attachment_folder(responder)
        for path in (folder.parent, folder, folder / "prices.pdf"):
            shutil.chown(path, "root", "vmail")
            path.chmod(0o750 if path.is_dir() else 0o640)
        self.assertEqual(self.list_as_the_guide_does(folder), "prices.pdf\n")
        self.receive()
        parts = list(parsed(self.only_mail(SAM)).iter_attachments())
        self.assertEqual([(part.get_filename(), part.get_content()) for part in parts],
                         [("prices.pdf", b"from 5 to 10\n")])

    def list_as_the_guide_does(self, folder):
        check = "setpriv --reuid autoresponder --regid vmail --clear-groups ls FOLDER"
        self.assertIn(check, guide.text())
        return guide.run_commands(check.replace("FOLDER", str(folder)))

    def test_over_the_daily_limit_a_message_is_delivered_and_gets_nothing(self):
        self.panel.forward(self.furnish(ans_freq="1"), BOSS)
        self.receive(text="first\n")
        self.receive(text="second\n")
        self.assert_delivered(INFO, "first\n", "second\n")
        self.assertEqual((len(mail_system.mailbox(SAM)), len(mail_system.mailbox(BOSS))), (1, 1))
        self.assert_nothing_failed()

    def test_with_the_database_down_a_message_is_delivered_and_gets_nothing(self):
        self.furnish()
        self.stop_server()
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM)
        self.assertIn("Unable to connect to Quarx Database: Can't connect to local", self.news())
        self.assert_nothing_failed()

    def test_without_responder_a_message_is_delivered_and_gets_nothing(self):
        self.furnish(resp_on="false")
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM)
        self.assert_nothing_failed()

    def test_a_mailbox_that_is_not_listed_does_not_start_the_program(self):
        self.panel.mailbox(self.panel.domain("panel.example"), "carla")
        self.receive(to=[CLIENT])
        self.assert_delivered(CLIENT, "When are you open?\n")
        self.assertNotIn("autoresponder", self.news())

    def test_two_mailboxes_in_one_message_answer_each_for_itself(self):
        self.furnish(text="info\n")
        self.panel.responder(self.panel.mailbox(self.domain, "sales"), text="sales\n")
        self.receive(to=[INFO, SALES])
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SALES, "When are you open?\n")
        replies = mail_system.mailbox(SAM)
        self.assertEqual(sorted((envelope_sender(reply), body(reply)) for reply in replies),
                         [(INFO, b"info\n\n\n\n"), (SALES, b"sales\n\n\n\n")])

    def test_a_message_to_an_alias_is_answered_as_the_alias(self):
        self.furnish()
        self.panel.mail_alias(self.mailbox, "office")
        self.receive(to=[OFFICE])
        self.assert_delivered(INFO, "When are you open?\n")
        self.assertEqual(envelope_sender(self.only_mail(SAM)), OFFICE)

    def test_an_address_is_handed_over_whatever_it_is_made_of(self):
        self.furnish()
        self.receive(to=['"odd:x=/y $(id) $home"@all.example'])
        self.assert_delivered(INFO, "When are you open?\n")
        self.assertIn("autoresponder: Mailname not found: odd:x=/y $(id) $home@all.example", self.news())
        self.assert_nothing_failed()

    def test_a_line_of_one_dot_ends_what_sendmail_reads(self):
        self.panel.forward(self.furnish(text="before\n.\nafter\n"), BOSS)
        self.receive(text="first\n.\nlast\n")
        self.assert_delivered(INFO, "first\n.\nlast\n")
        self.assert_delivered(SAM, "before\n")
        self.assert_delivered(BOSS, "first\n")

    def test_a_reply_over_the_size_limit_becomes_the_short_one(self):
        self.furnish(text="word " * 1000)
        self.panel.databytes("1000\n")
        self.receive()
        self.assertIn(b"Autoresponder message size exceeds databytes limit.", self.only_mail(SAM))
        self.assert_nothing_failed()

    def test_two_responders_that_answer_each_other_stop_at_the_daily_limit(self):
        self.furnish(text="info\n", ans_freq="2")
        self.panel.responder(self.panel.mailbox(self.domain, "sales"), text="sales\n", ans_freq="2")
        self.receive(sender=SALES, header=f"From: {SALES}\n")
        self.assert_delivered(SALES, "info\n\n\n\n", "info\n\n\n\n")
        self.assert_delivered(INFO, "When are you open?\n", "sales\n\n\n\n", "sales\n\n\n\n")
        self.assert_nothing_failed()

    def test_a_bounce_is_delivered_and_gets_nothing(self):
        self.furnish()
        self.receive(sender="", header=f"From: Mailer-Daemon <{SAM}>\n")
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM)
        self.assert_nothing_failed()

    def test_a_run_that_ends_with_status_1_does_not_bounce(self):
        self.furnish(charset="no-such-charset")
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM)
        self.assertIn("Send error: ", self.news())
        self.assert_nothing_failed()

    def test_a_program_that_crashes_or_is_not_there_does_not_bounce(self):
        self.furnish()
        kept = PROGRAM.read_bytes()
        self.addCleanup(PROGRAM.chmod, 0o755)
        self.addCleanup(PROGRAM.write_bytes, kept)
        PROGRAM.write_text("#!/bin/sh\nkill -SEGV $$\n")
        self.receive(text="crash\n")
        PROGRAM.unlink()
        self.receive(text="not there\n")
        self.assert_delivered(INFO, "crash\n", "not there\n")
        self.assert_delivered(SAM)
        self.assert_nothing_failed()

    def test_a_report_of_many_lines_does_not_bounce(self):
        self.furnish()
        charset = "".join(f"{part:0900d}\n " for part in range(60))
        self.receive(header=f'From: {SAM}\nContent-Type: text/plain; charset="{charset}"\n')
        self.assert_delivered(INFO, "When are you open?\n")
        self.assertEqual(len(mail_system.mailbox(SAM)), 1)
        self.assert_nothing_failed()

    def test_a_password_that_cannot_be_read_is_logged(self):
        self.furnish()
        shutil.chown(PASSWORD_FILE, "root")
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assertIn("Unable to open admin password file: Permission denied", self.news())
        self.assert_nothing_failed()

    def test_a_mailbox_is_tried_by_hand(self):
        self.furnish()
        written = guide.run_commands(guide.block("by-hand").replace("you@example.org", SAM))
        self.settle()
        self.assertEqual((written, envelope_sender(self.only_mail(SAM))), ("", INFO))

    def test_a_mailbox_is_stopped_and_another_one_is_not(self):
        self.furnish(text="info\n")
        self.panel.responder(self.panel.mailbox(self.domain, "sales"), text="sales\n")
        guide.run_sql("mailbox-stop")
        self.receive(to=[INFO, SALES])
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM, "sales\n\n\n\n")

    def test_with_the_set_user_id_bit_the_password_stays_for_root(self):
        self.skip_if_sanitized("the sanitizers' library doesn't trust its environment there")
        self.furnish()
        shutil.chown(PASSWORD_FILE, "root")
        self.addCleanup(PROGRAM.chmod, 0o755)
        self.addCleanup(shutil.chown, PROGRAM, "root", "root")
        self.addCleanup(subprocess.run, ["dpkg-statoverride", "--quiet", "--remove", PROGRAM], check=True)
        guide.run_block("set-user-id")
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assertEqual(envelope_sender(self.only_mail(SAM)), INFO)
        self.assert_nothing_failed()

"""Several responders answer one message: separate replies, one after the other, through one file name."""

import pathlib

import expected
from harness import NOBODY, RECIPIENT, SystemTest

SENDER = "sam@sender.example"


def reply(text, **more):
    return expected.reply(SENDER, RECIPIENT, "Re: Opening hours", text, **more)


class SeveralReplies(SystemTest):
    def setUp(self):
        super().setUp()
        self.first = self.furnish(text="one\n")

    def another(self, **columns):
        return self.panel.responder(self.mailbox, **columns)

    def test_one_mail_each_in_the_databases_order(self):
        self.another(text="two\n")
        self.another(text="three\n", charset="koi8-r")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual([mail.stdin for mail in result.mails],
                         [reply(b"one\n"), reply(b"two\n"), reply(b"three\n", charset="koi8-r")])
        self.assertEqual([mail.argv for mail in result.mails],
                         [["/usr/sbin/sendmail", "-f", RECIPIENT, SENDER]] * 3)
        self.assert_nothing_left(result)

    def test_a_boundary_of_its_own_each_the_same_in_every_run(self):
        second = self.another(text="two\n")
        third = self.another(text="three\n")
        for responder in (second, third):
            self.panel.attachment(responder, "a", b"A")
        for _ in range(2):
            self.sql("delete from resp_freq")
            result = self.run_program()
            self.assert_ended(result)
            self.assertIn(b"--------=_rJmOWFrxsjyBldbEFSArCBynEcdyG", result.mails[1].stdin)
            self.assertIn(b"--------=_gxxpkLoRellNMPapqfWkHOPkMCoQH", result.mails[2].stdin)
            self.assertEqual([mail.stdin for mail in result.mails],
                             [reply(b"one\n"), reply(b"two\n", attachments=[("a", b"A")], number=2),
                              reply(b"three\n", attachments=[("a", b"A")], number=3)])

    def test_a_responder_that_does_not_reply_uses_no_boundary_up(self):
        self.sql("update mail_resp set resp_on='false'")
        self.another(text="none\n", key_where="subj", keystr="no such word")
        self.another(text="none\n", ans_freq="0")
        replying = self.another(text="one\n")
        self.panel.attachment(replying, "a", b"A")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual([mail.stdin for mail in result.mails], [reply(b"one\n", attachments=[("a", b"A")])])

    def test_a_short_reply_after_a_long_one_holds_nothing_of_it(self):
        self.sql("update mail_resp set text=%s", "x" * 60000)
        self.another(text="short")
        result = self.run_program()
        self.assert_ended(result)
        self.assert_bytes(result.mails[1].stdin, reply(b"short"))

    def test_the_file_name_is_used_again_for_a_new_file_of_the_owner_alone(self):
        self.another(text="two\n")
        self.sendmail("run stat -c '%n %a' /tmp/qrx-response-uu-* >> /sandbox/files; read")
        pathlib.Path("/sandbox/files").unlink(missing_ok=True)
        self.assert_ended(self.run_program())
        names = pathlib.Path("/sandbox/files").read_text().splitlines()
        self.assertEqual(len(names), 2)
        self.assertEqual(names[0], names[1])
        self.assertTrue(names[0].endswith(" 600"))

    def test_what_somebody_plants_under_the_name_is_neither_followed_nor_sent(self):
        """The second responder's forward is the moment: the first reply's file is gone, its name known."""
        self.need_other_users()
        target = pathlib.Path("/sandbox/target")
        for plant in ("ln -s /sandbox/target $n", "mkfifo $n", "echo planted > $n && chmod 666 $n",
                      f"echo planted > $n && chown {NOBODY} $n"):
            with self.subTest(plant):
                self.setUp()
                target.write_text("untouched\n")
                self.panel.forward(self.another(text="two\n"), "archive@example.com")
                self.sendmail("read; run ls /tmp/qrx-response-uu-* > /sandbox/name",
                              f"read; run n=$(cat /sandbox/name) && {plant}", "read")
                result = self.run_program(timeout=20)
                self.assert_ended(result)
                self.assert_bytes(result.mails[2].stdin, reply(b"two\n"))
                self.assertEqual(target.read_text(), "untouched\n")
                self.assert_nothing_left(result)

    def test_a_file_that_sendmail_puts_back_is_not_sent(self):
        """unlink of the reply's file fails when its sendmail took it away; another one is then created anew."""
        self.another(text="two\n")
        self.sendmail("read; run f=$(ls /tmp/qrx-response-uu-*) && rm $f && ln -s /sandbox/none $f", "read")
        result = self.run_program()
        self.assert_ended(result)
        self.assert_bytes(result.mails[1].stdin, reply(b"two\n"))
        self.assert_nothing_left(result)
        self.assertFalse(pathlib.Path("/sandbox/none").exists())

    def test_the_first_reply_is_not_sent_again_when_its_file_can_not_be_replaced(self):
        self.another(text="two\n")
        self.use_tmp(kib=1024)
        self.sendmail("read; run mount -o remount,ro /tmp")
        result = self.run_program(argv0="autoresponder")
        self.assertEqual(result.status, 1)
        self.assertRegex(result.stderr,
                         rb"\Aautoresponder: Failed to open temporary file with response mail contents "
                         rb"'/tmp/qrx-response-uu-\w{6}': No such file or directory \(2\)\n"
                         rb"autoresponder: Send error: Failed to generate response mail contents\n"
                         rb"(System error .*\n)?\Z")
        self.assertEqual([mail.stdin for mail in result.mails], [reply(b"one\n")])

    def test_the_second_fails_after_the_first_went_out(self):
        self.another(text="two\n", charset="no-such-charset")
        self.another(text="three\n")
        result = self.run_program()
        self.assertEqual(result.status, 1)
        self.assertEqual([mail.stdin for mail in result.mails], [reply(b"one\n")])
        self.assertEqual(len(result.tmp), 2)  # the copy of the message and the second reply's file
        self.assertEqual(len(self.panel.frequency_rows()), 2)

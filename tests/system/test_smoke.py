"""The plainest run: one message, one responder, one reply."""

import expected
from harness import MESSAGE, RECIPIENT, SystemTest


class Smoke(SystemTest):
    def test_a_plain_message_gets_one_reply_to_the_byte(self):
        responder = self.furnish(text="We are open from nine to five.\n")
        result = self.run_program(message=MESSAGE)
        self.assert_ended(result)
        self.assertEqual([mail.argv for mail in result.mails],
                         [["/usr/sbin/sendmail", "-f", RECIPIENT, "sam@sender.example"]])
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply("sam@sender.example", RECIPIENT, "Re: Opening hours",
                                         b"We are open from nine to five.\n"))
        self.assertEqual(self.panel.frequency_rows(), [(responder, "sam@sender.example", 1)])
        self.assert_nothing_left(result)

    def test_a_message_to_an_unknown_mailbox_gets_none(self):
        self.furnish()
        result = self.run_program(recipient="nobody@example.com")
        self.assert_ended(result, stderr=b"autoresponder: Mailname not found: nobody@example.com\n")
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)

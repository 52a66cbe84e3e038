"""How the mailbox is found: four lookups in a fixed order, of which the first that finds something decides."""

import expected
from database_test import DatabaseTest, lookups, responder_query
from harness import MESSAGE, SystemTest

SENDER = "sam@sender.example"


class LookupOrder(DatabaseTest):
    """A domain example.com with a mailbox info and a responder, reached in different ways."""

    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text="the mailbox info")

    def assert_answered(self, recipient, lookup_count):
        """A message to the recipient is answered by the mailbox after that many lookups."""
        result, statements = self.run_recorded(recipient=recipient)
        self.assert_ended(result)
        self.assertEqual([mail.argv for mail in result.mails],
                         [["/usr/sbin/sendmail", "-f", recipient, SENDER]])
        self.assertEqual(self.mail_texts(result), ["the mailbox info"])
        wanted = lookups(*recipient.split("@"))[:lookup_count]
        self.assertEqual(statements[:lookup_count + 2],
                         ["SET NAMES utf8", *wanted, responder_query(self.mailbox)])

    def assert_not_found(self, recipient):
        result, statements = self.run_recorded(recipient=recipient)
        self.assert_run_ended_by(
            result, f"autoresponder: Mailname not found: {recipient}".encode())
        self.assert_nothing_sent(result)
        self.assertEqual(statements, ["SET NAMES utf8", *lookups(*recipient.split("@"))])
        self.assertEqual(self.panel.frequency_rows(), [])

    def test_a_mailbox_on_its_domain_takes_the_first_lookup_alone(self):
        self.panel.mail_alias(self.mailbox, "info")
        self.assert_answered("info@example.com", 1)

    def test_a_mail_alias_on_the_domain_takes_the_second(self):
        self.panel.mail_alias(self.mailbox, "desk")
        self.assert_answered("desk@example.com", 2)

    def test_a_mailbox_on_a_domain_alias_takes_the_third(self):
        self.panel.domain_alias(self.domain, "example.net")
        self.assert_answered("info@example.net", 3)

    def test_a_mail_alias_on_a_domain_alias_takes_the_fourth(self):
        self.panel.domain_alias(self.domain, "example.net")
        self.panel.mail_alias(self.mailbox, "desk")
        self.assert_answered("desk@example.net", 4)

    def test_a_mail_alias_is_found_by_the_second_lookup_although_its_domain_has_an_alias(self):
        self.panel.domain_alias(self.domain, "example.net")
        self.panel.mail_alias(self.mailbox, "desk")
        self.assert_answered("desk@example.com", 2)

    def test_an_unknown_mailbox_takes_all_four_and_no_statement_more(self):
        self.panel.domain_alias(self.domain, "example.net")
        self.panel.mail_alias(self.mailbox, "desk")
        self.assert_not_found("nobody@example.com")

    def test_an_unknown_domain_takes_all_four_and_no_statement_more(self):
        self.assert_not_found("info@example.org")

    def test_names_are_compared_by_the_databases_collation(self):
        self.assert_answered("INFO@Example.COM", 1)

    def test_a_domain_alias_that_carries_no_mail_is_not_found(self):
        self.panel.domain_alias(self.domain, "example.net", mail="false")
        self.panel.mail_alias(self.mailbox, "desk")
        self.assert_not_found("info@example.net")
        self.assert_not_found("desk@example.net")

    def test_a_domain_alias_with_any_other_mail_value_is_not_found(self):
        for number, value in enumerate(["", "1", "yes", "truely", " true"]):
            with self.subTest(mail=value):
                self.panel.domain_alias(self.domain, f"alias{number}.example", mail=value)
                self.assert_not_found(f"info@alias{number}.example")

    def test_a_domain_alias_with_mail_null_is_not_found(self):
        self.sql("alter table domainaliases modify mail varchar(16) null")
        self.panel.domain_alias(self.domain, "example.net", mail=None)
        self.panel.mail_alias(self.mailbox, "desk")
        self.assert_not_found("info@example.net")
        self.assert_not_found("desk@example.net")


class Precedence(DatabaseTest):
    """Where several lookups would find a mailbox, the earlier one decides, and its first row alone."""

    def other_mailbox(self, domain, name):
        """A mailbox with a responder of its own that answers "the other mailbox"."""
        mailbox = self.panel.mailbox(domain, name)
        self.panel.responder(mailbox, text="the other mailbox")
        return mailbox

    def assert_answer(self, recipient, *texts):
        result = self.run_program(recipient=recipient)
        self.assert_ended(result)
        self.assertEqual(self.mail_texts(result), list(texts))

    def test_a_mailbox_comes_before_a_mail_alias_of_its_name(self):
        self.furnish(text="the mailbox info")
        other = self.other_mailbox(self.domain, "other")
        self.panel.mail_alias(other, "info")
        self.assert_answer("info@example.com", "the mailbox info")

    def test_a_mail_alias_comes_before_a_mailbox_on_a_domain_alias(self):
        self.furnish(text="the mailbox info")
        self.panel.mail_alias(self.mailbox, "desk")
        other_domain = self.panel.domain("example.org")
        self.panel.domain_alias(other_domain, "example.com")
        self.other_mailbox(other_domain, "desk")
        self.assert_answer("desk@example.com", "the mailbox info")

    def test_a_mailbox_on_a_domain_alias_comes_before_a_mail_alias_on_it(self):
        self.furnish(text="the mailbox info")
        self.panel.domain_alias(self.domain, "example.net")
        other = self.other_mailbox(self.domain, "other")
        self.panel.mail_alias(other, "info")
        self.assert_answer("info@example.net", "the mailbox info")

    def test_a_domain_alias_named_like_a_domain_is_looked_at_after_the_domain(self):
        self.furnish(text="the mailbox info")
        other_domain = self.panel.domain("example.org")
        self.panel.domain_alias(other_domain, "example.com")
        self.other_mailbox(other_domain, "sales")
        self.assert_answer("sales@example.com", "the other mailbox")

    def test_of_several_rows_only_the_first_is_used(self):
        self.furnish(text="the mailbox info")
        other = self.other_mailbox(self.domain, "other")
        for mailbox in (other, self.mailbox):
            self.panel.mail_alias(mailbox, "desk")
        rows = self.panel.sql(lookups("desk", "example.com")[1])
        self.assertEqual(len(rows), 2, "the alias stands for two mailboxes")
        first = int(rows[0][0])
        result, statements = self.run_recorded(recipient="desk@example.com")
        self.assertEqual(self.mail_texts(result),
                         ["the mailbox info" if first == self.mailbox else "the other mailbox"])
        self.assertEqual([text for text in statements if "mail_resp" in text], [responder_query(first)])

    def test_only_the_mailboxs_own_responders_answer(self):
        self.furnish(text="the mailbox info")
        self.other_mailbox(self.domain, "other")
        other_domain = self.panel.domain("example.org")
        self.other_mailbox(other_domain, "info")
        self.assert_answer("info@example.com", "the mailbox info")

    def test_a_mailbox_without_responders_ends_the_run_quietly(self):
        domain = self.panel.domain()
        mailbox = self.panel.mailbox(domain)
        result, statements = self.run_recorded()
        self.assert_ended(result)
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)
        self.assertEqual(statements, ["SET NAMES utf8", lookups("info", "example.com")[0],
                                      responder_query(mailbox)])


class AttachmentFolder(SystemTest):
    """The folder is that of the real mailbox on its primary domain, whatever the message was addressed to."""

    def assert_attached(self, recipient):
        responder = self.furnish(text="See the price list.")
        self.panel.domain_alias(self.domain, "example.net")
        self.panel.mail_alias(self.mailbox, "desk")
        self.panel.attachment(responder, "prices.txt", b"cheap\n")
        result = self.run_program(message=MESSAGE, recipient=recipient)
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(SENDER, recipient, "Re: Opening hours", b"See the price list.",
                                         attachments=[("prices.txt", b"cheap\n")]))

    def test_of_the_mailbox(self):
        self.assert_attached("info@example.com")

    def test_through_a_mail_alias(self):
        self.assert_attached("desk@example.com")

    def test_through_a_domain_alias(self):
        self.assert_attached("info@example.net")

    def test_through_both(self):
        self.assert_attached("desk@example.net")

    def test_has_the_names_as_the_database_spells_them(self):
        self.assert_attached("INFO@EXAMPLE.NET")

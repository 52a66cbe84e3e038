"""Tables that are gone, in turn: which lookups notice, what is said, and what has happened by then."""

from database_test import LOOKUP_FAILED, QUERY_FAILED, DatabaseTest, lookups, responder_query

ADDRESSES = {1: "info@example.com", 2: "desk@example.com", 3: "info@example.net", 4: "desk@example.net"}


class LostTables(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.responder = self.furnish()
        self.panel.domain_alias(self.domain, "example.net")
        self.panel.mail_alias(self.mailbox, "desk")

    def assert_lookup_fails(self, number, table, recipient):
        """The lookup with that number misses the table; no statement follows."""
        result, statements = self.run_recorded(recipient=recipient)
        self.assert_run_ended_by(result, LOOKUP_FAILED + f"Table 'qrx.{table}' doesn't exist".encode())
        self.assert_nothing_sent(result)
        self.assertEqual(statements,
                         ["SET NAMES utf8", *lookups(*recipient.split("@"))[:number]])
        self.assertEqual(self.panel.frequency_rows(), [])

    def assert_answered(self, recipient):
        result = self.run_program(recipient=recipient)
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1, f"replies for {recipient}")

    def assert_query_fails(self, table, statements_before):
        """A query behind the lookups misses the table, after that many statements."""
        result, statements = self.run_recorded()
        self.assert_run_ended_by(result, QUERY_FAILED + f"Table 'qrx.{table}' doesn't exist".encode())
        self.assert_nothing_sent(result)
        self.assertEqual(len(statements), statements_before + 1)

    def test_mail(self):
        self.drop_table("mail")
        for recipient in ADDRESSES.values():
            self.assert_lookup_fails(1, "mail", recipient)

    def test_domains(self):
        self.drop_table("domains")
        for recipient in ADDRESSES.values():
            self.assert_lookup_fails(1, "domains", recipient)

    def test_mail_aliases(self):
        self.drop_table("mail_aliases")
        for number in 2, 3, 4:
            self.assert_lookup_fails(2, "mail_aliases", ADDRESSES[number])

    def test_mail_aliases_is_not_missed_by_the_first_lookup(self):
        self.drop_table("mail_aliases")
        self.assert_answered(ADDRESSES[1])

    def test_domainaliases(self):
        self.drop_table("domainaliases")
        for number in 3, 4:
            self.assert_lookup_fails(3, "domainaliases", ADDRESSES[number])

    def test_domainaliases_is_not_missed_by_the_first_two_lookups(self):
        self.drop_table("domainaliases")
        self.assert_answered(ADDRESSES[1])
        self.assert_answered(ADDRESSES[2])

    def test_mail_resp(self):
        self.drop_table("mail_resp")
        self.assert_query_fails("mail_resp", 2)
        self.assertEqual(self.panel.frequency_rows(), [])

    def test_resp_freq(self):
        self.drop_table("resp_freq")
        self.assert_query_fails("resp_freq", 3)

    def test_resp_freq_is_not_missed_by_a_responder_that_is_passed_over(self):
        self.panel.sql("update mail_resp set resp_on='false'")
        self.drop_table("resp_freq")
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_sent(result)

    def test_resp_forward_after_the_reply_was_counted(self):
        self.drop_table("resp_forward")
        self.assert_query_fails("resp_forward", 7)
        self.assertEqual(self.panel.frequency_rows(), [(self.responder, "sam@sender.example", 1)])

    def test_resp_attach_after_the_reply_was_counted(self):
        self.drop_table("resp_attach")
        self.assert_query_fails("resp_attach", 8)
        self.assertEqual(self.panel.frequency_rows(), [(self.responder, "sam@sender.example", 1)])

    def test_a_lost_column_of_mail_resp(self):
        self.drop_column("mail_resp", "mem_limit")
        refusal = self.refusal_of(responder_query(self.mailbox))
        self.assertIn(b"Unknown column 'mem_limit'", refusal)
        result, statements = self.run_recorded()
        self.assert_run_ended_by(result, QUERY_FAILED + refusal)
        self.assert_nothing_sent(result)
        self.assertEqual(statements[2:], [responder_query(self.mailbox)])

    def test_a_damaged_table(self):
        self.sql("alter table mail_resp engine=MyISAM")
        self.panel.sql("flush tables")
        with open("/sandbox/data/qrx/mail_resp.MYI", "r+b") as index:
            index.truncate(100)
        refusal = self.refusal_of(responder_query(self.mailbox))
        result = self.run_program()
        self.assert_run_ended_by(result, QUERY_FAILED + refusal)
        self.assert_nothing_sent(result)

"""All statements of whole runs, in order, and what becomes of a run in which one of them fails."""

from database_test import (LOOKUP_FAILED, QUERY_FAILED, DatabaseTest, attachment_query, count_senders,
                           find_oldest, forget_earlier_days, forget_oldest, forward_query, insert_sender,
                           look_sender_up, lookups, raise_count, responder_query)
from harness import Sql

SET_NAMES = "SET NAMES utf8"


class WholeRuns(DatabaseTest):
    """The statements of a run, from connecting to the connection's end."""

    def assert_statements(self, *wanted, replies=1, **how):
        result, events = self.run_observed(**how)
        self.assert_ended(result)
        self.assert_nothing_left(result)
        self.assertEqual(len(result.mails), replies, "mails sent")
        self.assertEqual(events, [("Connect", "admin@localhost on qrx using Socket"),
                                  *(("Query", text) for text in wanted), ("Quit", "")])

    def test_the_first_message_of_a_sender(self):
        responder = self.furnish()
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox),
            forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
            insert_sender(responder), forward_query(responder), attachment_query(responder))

    def test_a_later_message_of_a_sender(self):
        responder = self.furnish(ans_freq="5")
        self.panel.answered(responder, "sam@sender.example", num=3)
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox),
            forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
            raise_count(responder, 3), forward_query(responder), attachment_query(responder))

    def test_a_message_over_the_limit(self):
        responder = self.furnish(ans_freq="5")
        self.panel.answered(responder, "sam@sender.example", num=5)
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox),
            forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
            replies=0)

    def test_a_message_for_which_the_oldest_sender_is_forgotten(self):
        responder = self.furnish(mem_limit="1")
        self.panel.answered(responder, "old@sender.example")
        oldest = self.panel.sql("select time_resp from resp_freq")[0][0].decode()
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox),
            forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
            find_oldest(responder), forget_oldest(responder, oldest), insert_sender(responder),
            forward_query(responder), attachment_query(responder))

    def test_a_limit_of_zero(self):
        responder = self.furnish(ans_freq="0")
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox),
            forget_earlier_days(responder), replies=0)

    def test_a_responder_that_is_off(self):
        self.furnish(resp_on="false")
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox), replies=0)

    def test_a_keyword_that_does_not_match(self):
        self.furnish(keystr="holiday", key_where="subj")
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox), replies=0)

    def test_several_responders_share_one_connection(self):
        first = self.furnish()
        second = self.panel.responder(self.mailbox, ans_freq="0")
        third = self.panel.responder(self.mailbox)
        self.assert_statements(
            SET_NAMES, lookups("info", "example.com")[0], responder_query(self.mailbox),
            forget_earlier_days(first), count_senders(first), look_sender_up(first),
            insert_sender(first), forward_query(first), attachment_query(first),
            forget_earlier_days(second),
            forget_earlier_days(third), count_senders(third), look_sender_up(third),
            insert_sender(third), forward_query(third), attachment_query(third),
            replies=2)

    def test_a_message_that_is_refused_before_opens_no_connection(self):
        self.furnish()
        result, events = self.run_observed(message=b"From: info@example.com\n\nHello.\n")
        self.assert_ended(result, stderr=b"Field From: equial field To:\n")
        self.assertEqual(events, [])


class EachStatementFailing(DatabaseTest):
    """The same run again and again, each time with one statement more carried out before the server refuses."""

    def furnish_anew(self):
        """A mailbox that only the fourth lookup finds, a sender to be forgotten, and a stale one."""
        self.panel.empty()
        self.responder = self.furnish(mem_limit="1")
        self.panel.domain_alias(self.domain, "example.net")
        self.panel.mail_alias(self.mailbox, "desk")
        self.panel.answered(self.responder, "stale@sender.example",
                            time_resp=Sql("now() - interval 2 day"))
        self.panel.answered(self.responder, "old@sender.example")

    def refused_run(self, count, **how):
        self.furnish_anew()
        refusal = self.refuse_statements_after(count)
        result, statements = self.run_recorded(recipient="desk@example.net", **how)
        return refusal, result, statements

    # What of the table is there after the statements that were carried out.
    UNTOUCHED = ["stale@sender.example", "old@sender.example"]
    CLEANED = ["old@sender.example"]
    EVICTED = []
    COUNTED = ["sam@sender.example"]

    def assert_ends_at(self, number, message, senders):
        """The run ends with the message at the statement with that number, before any mail."""
        refusal, result, statements = self.refused_run(number - 1)
        self.assert_run_ended_by(result, message + refusal)
        self.assert_nothing_sent(result)
        self.assertEqual(len(statements), number, f"no statement after the refused one: {statements}")
        self.assertEqual(self.panel.frequency_rows(),
                         [(self.responder, sender, 1) for sender in senders])

    def test_the_statements_are_these(self):
        self.furnish_anew()
        oldest = self.panel.sql("select max(time_resp) from resp_freq")[0][0].decode()
        result, statements = self.run_recorded(recipient="desk@example.net")
        self.assertEqual(statements, [
            SET_NAMES, *lookups("desk", "example.net"), responder_query(self.mailbox),
            forget_earlier_days(self.responder), count_senders(self.responder),
            look_sender_up(self.responder), find_oldest(self.responder),
            forget_oldest(self.responder, oldest), insert_sender(self.responder),
            forward_query(self.responder), attachment_query(self.responder)])

    def test_the_first_lookup(self):
        self.assert_ends_at(2, LOOKUP_FAILED, self.UNTOUCHED)

    def test_the_second_lookup(self):
        self.assert_ends_at(3, LOOKUP_FAILED, self.UNTOUCHED)

    def test_the_third_lookup(self):
        self.assert_ends_at(4, LOOKUP_FAILED, self.UNTOUCHED)

    def test_the_fourth_lookup(self):
        self.assert_ends_at(5, LOOKUP_FAILED, self.UNTOUCHED)

    def test_the_responder_query(self):
        self.assert_ends_at(6, QUERY_FAILED, self.UNTOUCHED)

    def test_the_deletion_of_earlier_days(self):
        self.assert_ends_at(7, QUERY_FAILED, self.UNTOUCHED)

    def test_the_count_of_senders(self):
        self.assert_ends_at(8, QUERY_FAILED, self.CLEANED)

    def test_the_look_up_of_the_sender(self):
        self.assert_ends_at(9, QUERY_FAILED, self.CLEANED)

    def test_the_search_for_the_oldest_time(self):
        self.assert_ends_at(10, QUERY_FAILED, self.CLEANED)

    def test_the_deletion_of_the_oldest(self):
        self.assert_ends_at(11, QUERY_FAILED, self.CLEANED)

    def test_the_insertion_of_the_sender(self):
        self.assert_ends_at(12, QUERY_FAILED, self.EVICTED)

    def test_the_forwarding_query(self):
        self.assert_ends_at(13, QUERY_FAILED, self.COUNTED)

    def test_the_attachment_query(self):
        self.assert_ends_at(14, QUERY_FAILED, self.COUNTED)

    def test_none(self):
        refusal, result, statements = self.refused_run(14)
        self.assert_ended(result)
        self.assert_nothing_left(result)
        self.assertEqual(len(result.mails), 1)
        self.assertEqual(self.panel.frequency_rows(), [(self.responder, "sam@sender.example", 1)])

    def test_the_raising_of_a_count(self):
        responder = self.furnish()
        self.panel.answered(responder, "stale@sender.example", time_resp=Sql("now() - interval 2 day"))
        self.panel.answered(responder, "sam@sender.example", num=4)
        refusal = self.refuse_statements_after(6)
        result, statements = self.run_recorded()
        self.assert_run_ended_by(result, QUERY_FAILED + refusal)
        self.assert_nothing_sent(result)
        self.assertEqual(statements[6:], [raise_count(responder, 4)])
        self.assertEqual(self.panel.frequency_rows(), [(responder, "sam@sender.example", 4)])

    def test_of_the_second_responder_leaves_the_first_ones_reply_and_count(self):
        first = self.furnish(text="the first")
        second = self.panel.responder(self.mailbox, text="the second")
        for count, rows in [(9, 1), (10, 1), (11, 1), (12, 1), (13, 2), (14, 2)]:
            with self.subTest(carried_out=count):
                self.panel.sql("delete from resp_freq")
                refusal = self.refuse_statements_after(count)
                result = self.run_program()
                self.assert_run_ended_by(result, QUERY_FAILED + refusal)
                self.assertEqual(self.mail_texts(result), ["the first"])
                self.assertEqual(self.panel.frequency_rows(),
                                 [(responder, "sam@sender.example", 1)
                                  for responder in (first, second)[:rows]])

"""Statements that succeed and answer with no rows, or with no result at all, where the panel's own server never does."""

from database_test import (QUERY_FAILED, DatabaseTest, attachment_query, count_senders, find_oldest,
                           forget_oldest, forward_query, insert_sender, look_sender_up)
from fake_server import OK, FakeServer, rows
from fault_case import SENDER

ID = "7"
MAILBOX = rows(3, (b"1", b"info", b"example.com"))
NOTHING = rows(1)
NO_CLIENT = b"Unable to define client email and personal name :\n"


def responder(mem_limit=b"1000"):
    return rows(11, (ID.encode(), b"", b"no", b"Hello\n", b"true", b"10", mem_limit, b"", b"", None, None))


class EmptyAnswers(DatabaseTest):
    def run_against(self, *answers):
        """Runs against a server with these answers from the responders' on; returns Result and statements."""
        self.stop_server()
        fake = FakeServer([[OK], MAILBOX, *answers])
        self.addCleanup(fake.close)
        result = self.run_program()
        self.doCleanups()
        return result, [text[1:].decode() for text in fake.received[2:] if text[:1] == b"\x03"]

    def assert_ends_at(self, statement, *answers, message=QUERY_FAILED):
        """The last answer has no result; its statement is the last, and nothing is sent."""
        result, statements = self.run_against(*answers)
        self.assert_run_ended_by(result, message)
        self.assert_nothing_sent(result)
        self.assertEqual(statements[-1], statement)

    def assert_answered(self, result, stderr=b""):
        self.assert_ended(result, stderr=stderr)
        self.assertEqual([mail.argv[-1] for mail in result.mails], [SENDER])
        self.assert_nothing_left(result)

    def test_no_row_for_the_count_of_senders_is_a_count_of_0(self):
        result, statements = self.run_against(responder(mem_limit=b"1"), [OK], NOTHING, NOTHING, [OK], NOTHING, NOTHING)
        self.assert_answered(result)
        self.assertIn(count_senders(ID), statements)
        self.assertEqual([text for text in statements if "MIN(" in text], [])
        self.assertIn(insert_sender(ID), statements)

    def test_no_row_for_the_count_of_senders_reaches_a_limit_of_0(self):
        result, statements = self.run_against(responder(mem_limit=b"0"), [OK], NOTHING, NOTHING,
                                              rows(1, (b"2025-06-02 10:00:00",)), [OK], [OK], NOTHING, NOTHING)
        self.assert_answered(result)
        self.assertIn(forget_oldest(ID, "2025-06-02 10:00:00"), statements)

    def test_no_row_for_the_oldest_time_is_an_empty_time(self):
        result, statements = self.run_against(responder(mem_limit=b"0"), [OK], rows(1, (b"0",)), NOTHING, NOTHING,
                                              [OK], [OK], NOTHING, NOTHING)
        self.assert_answered(result)
        at = statements.index(find_oldest(ID))
        self.assertEqual(statements[at + 1:at + 3], [forget_oldest(ID, ""), insert_sender(ID)])

    def test_null_for_the_oldest_time_is_0(self):
        result, statements = self.run_against(responder(mem_limit=b"0"), [OK], rows(1, (b"0",)), NOTHING,
                                              rows(1, (None,)), [OK], [OK], NOTHING, NOTHING)
        self.assert_answered(result)
        self.assertIn(forget_oldest(ID, "0"), statements)

    def test_no_result_for_the_count_of_senders(self):
        self.assert_ends_at(count_senders(ID), responder(), [OK], [OK])

    def test_no_result_for_the_number_of_a_sender(self):
        self.assert_ends_at(look_sender_up(ID), responder(), [OK], rows(1, (b"0",)), [OK])

    def test_no_result_for_the_oldest_time(self):
        self.assert_ends_at(find_oldest(ID), responder(mem_limit=b"0"), [OK], rows(1, (b"0",)), NOTHING, [OK])

    def test_no_result_for_the_forwarding_addresses(self):
        self.assert_ends_at(forward_query(ID), responder(), [OK], rows(1, (b"0",)), NOTHING, [OK], [OK])

    def test_no_result_for_the_attachments(self):
        self.assert_ends_at(attachment_query(ID), responder(), [OK], rows(1, (b"0",)), NOTHING, [OK], NOTHING, [OK])

    def test_no_result_for_the_client_is_told_and_the_reply_goes_out(self):
        result, _ = self.run_against(responder(), [OK], rows(1, (b"0",)), NOTHING, [OK], NOTHING,
                                     rows(1, (b"gone",)), [OK])
        self.assert_answered(result, stderr=NO_CLIENT)

    def test_no_result_for_the_parameters_is_as_none_set(self):
        result, statements = self.run_against(responder(), [OK], rows(1, (b"0",)), NOTHING, [OK], NOTHING,
                                              rows(1, (b"gone",)), rows(3, (b"carla@panel.example", b"Carla", b"c")),
                                              [OK], [OK])
        self.assert_ended(result)
        self.assertEqual([mail.argv[2:] for mail in result.mails],
                         [["root@localhost", "carla@panel.example"], ["info@example.com", SENDER]])
        self.assertEqual([text[-14:] for text in statements if "misc" in text], ["='admin_email'", "'FullHostName'"])

    def test_a_responder_after_an_answer_without_a_result(self):
        """Nothing was left unread, so the connection serves the next responder."""
        two = responder()
        two = [*two[:-1], two[-2], two[-1]]
        step = ([OK], rows(1, (b"0",)), NOTHING, [OK], NOTHING, rows(1, (b"gone",)), [OK])
        result, _ = self.run_against(two, *step, *step)
        self.assert_ended(result, stderr=2 * NO_CLIENT)
        self.assertEqual(len(result.mails), 2)

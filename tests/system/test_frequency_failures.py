"""Statements of the frequency limit that the server refuses, and servers that are lost: no reply, and nothing undone."""

import pathlib

import server
from database_test import (QUERY_FAILED, DatabaseTest, attachment_query, count_senders, find_oldest,
                           forget_earlier_days, forget_oldest, forward_query, insert_sender,
                           look_sender_up, raise_count)
from harness import Sql

SENDER = "sam@sender.example"
STALE = Sql("now() - interval 2 day")
TODAY = Sql("curdate()")
# The server records what triggers and functions do among the statements that it was sent.
OF_THE_GUARDIAN = ("signal ", "select info ")
REFUSAL = "the table's \"guardian\" refuses"


class RefusedByTheTable(DatabaseTest):
    """Triggers and a guarded view let exactly one statement of a run fail."""

    def guard(self, event, condition):
        self.sql(f"create trigger guardian before {event} on resp_freq for each row"
                 f" if {condition} then signal sqlstate '45000' set message_text = %s; end if", REFUSAL)

    def guard_query(self, pattern):
        """A query of resp_freq fails when the statement's text is like the pattern and it finds a row."""
        self.sql("rename table resp_freq to resp_freq_rows")
        self.sql("create function guardian() returns int reads sql data begin"
                 " if (select info from information_schema.processlist where id = connection_id())"
                 " like %s then signal sqlstate '45000' set message_text = %s; end if; return 1; end",
                 pattern, REFUSAL)
        self.sql("create sql security invoker view resp_freq as"
                 " select * from resp_freq_rows where guardian() = 1")

    def assert_refused(self, statements, rows):
        """The last of the statements, which are those of the frequency limit, fails; the rows are left."""
        result, sent = self.run_recorded()
        self.assert_run_ended_by(result, QUERY_FAILED + REFUSAL.encode())
        self.assert_nothing_sent(result)
        self.assertEqual([text for text in sent[3:] if not text.startswith(OF_THE_GUARDIAN)], statements)
        self.assertEqual(self.panel.frequency_rows(), rows)

    def test_the_deletion_of_earlier_days(self):
        responder = self.furnish()
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.guard("delete", "true")
        self.assert_refused([forget_earlier_days(responder)], [(responder, "stale", 1)])

    def test_the_count(self):
        responder = self.furnish()
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.panel.answered(responder, "fresh")
        self.guard_query("select COUNT%")
        self.assert_refused([forget_earlier_days(responder), count_senders(responder)],
                            [(responder, "fresh", 1)])

    def test_the_look_up_of_the_sender(self):
        responder = self.furnish()
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.panel.answered(responder, SENDER)
        self.guard_query("select num%")
        self.assert_refused(
            [forget_earlier_days(responder), count_senders(responder), look_sender_up(responder)],
            [(responder, SENDER, 1)])

    def test_the_raising_of_the_count(self):
        responder = self.furnish()
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.panel.answered(responder, SENDER, num=3)
        self.guard("update", "true")
        self.assert_refused(
            [forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
             raise_count(responder, 3)], [(responder, SENDER, 3)])

    def test_the_search_for_the_oldest_time(self):
        responder = self.furnish(mem_limit="1")
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.panel.answered(responder, "fresh")
        self.guard_query("select MIN%")
        self.assert_refused(
            [forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
             find_oldest(responder)], [(responder, "fresh", 1)])

    def test_the_deletion_of_the_oldest(self):
        responder = self.furnish(mem_limit="1")
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.panel.answered(responder, "fresh", time_resp=TODAY)
        oldest = self.panel.sql("select curdate() + interval 0 second")[0][0].decode()
        self.guard("delete", "old.email = 'fresh'")
        self.assert_refused(
            [forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
             find_oldest(responder), forget_oldest(responder, oldest)], [(responder, "fresh", 1)])

    def test_the_insertion_which_leaves_the_oldest_forgotten(self):
        responder = self.furnish(mem_limit="2")
        self.panel.answered(responder, "stale", time_resp=STALE)
        self.panel.answered(responder, "old", time_resp=TODAY)
        self.panel.answered(responder, "young", time_resp=Sql("curdate() + interval 1 minute"))
        oldest = self.panel.sql("select curdate() + interval 0 second")[0][0].decode()
        self.guard("insert", "true")
        self.assert_refused(
            [forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
             find_oldest(responder), forget_oldest(responder, oldest), insert_sender(responder)],
            [(responder, "young", 1)])

    def test_the_second_responders_insertion_leaves_the_first_ones_reply(self):
        first = self.furnish(text="the first")
        second = self.panel.responder(self.mailbox, text="the second")
        self.panel.responder(self.mailbox, text="the third")
        self.guard("insert", f"new.rn_id = {second}")
        result = self.run_program()
        self.assert_run_ended_by(result, QUERY_FAILED + REFUSAL.encode())
        self.assertEqual(self.mail_texts(result), ["the first"])
        self.assertEqual(self.panel.frequency_rows(), [(first, SENDER, 1)])


class RefusedAddress(DatabaseTest):
    """Senders that the table can't hold aren't answered."""

    def assert_refused(self, sender, refusal):
        responder = self.furnish()
        self.panel.forward(responder, "all@forward.example")
        result = self.run_program(message=b"From: <" + sender + b">\n\nHello.\n")
        self.assert_run_ended_by(result, QUERY_FAILED + refusal)
        self.assert_nothing_sent(result)
        self.assertEqual(self.panel.frequency_rows(), [])

    def test_that_is_too_long(self):
        self.assert_refused(b"s" * 241 + b"@sender.example",
                            b"Data too long for column 'email' at row 1")

    def test_that_is_not_utf8(self):
        self.assert_refused(b"j\xf6rg@sender.example", rb"Incorrect string value: '\xF6rg@se...'"
                            b" for column `qrx`.`resp_freq`.`email` at row 1")

    def test_with_a_character_of_four_bytes(self):
        self.assert_refused("😀@sender.example".encode(),
                            rb"Incorrect string value: '\xF0\x9F\x98\x80@s...'"
                            b" for column `qrx`.`resp_freq`.`email` at row 1")


class Locked(DatabaseTest):
    def test_a_row_that_another_connection_holds_ends_the_run_at_the_servers_time_limit(self):
        self.addCleanup(self.panel.sql, "set global innodb_lock_wait_timeout = 50")
        self.panel.sql("set global innodb_lock_wait_timeout = 1")
        responder = self.furnish()
        self.panel.answered(responder, SENDER, num=1, time_resp=TODAY)
        self.addCleanup(self.panel.sql, "rollback")
        self.panel.sql("start transaction")
        self.panel.sql("update resp_freq set num = 5")
        result = self.run_program()
        self.assert_run_ended_by(
            result, QUERY_FAILED + b"Lock wait timeout exceeded; try restarting transaction")
        self.assert_nothing_sent(result)
        self.panel.sql("rollback")
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])


class LostServer(DatabaseTest):
    """The server ends in the middle of a run. Every mail is a place where the test can stop it."""

    GONE = QUERY_FAILED + b"Server has gone away"

    def stop_server_at_mail(self, number):
        pathlib.Path("/sandbox/stop_server").write_text(
            f"kill {server.process_id()}\nwhile test -e {server.PID_FILE}; do sleep 0.01; done\n")
        self.sendmail(*["read"] * (number - 1), "read; run sh /sandbox/stop_server", "read")

    def rows_after_restart(self):
        self.panel.disconnect()
        self.start_server()
        return self.panel.frequency_rows()

    def test_after_the_forward(self):
        responder = self.furnish()
        self.panel.forward(responder, "all@forward.example")
        self.stop_server_at_mail(1)
        result = self.run_program()
        self.assert_run_ended_by(result, self.GONE)
        self.assertEqual([mail.argv[3] for mail in result.mails], ["all@forward.example"])
        self.assertEqual(self.rows_after_restart(), [(responder, SENDER, 1)])

    def test_between_two_responders(self):
        first = self.furnish(text="the first")
        self.panel.responder(self.mailbox, text="the second")
        self.stop_server_at_mail(1)
        result = self.run_program()
        self.assert_run_ended_by(result, self.GONE)
        self.assertEqual(self.mail_texts(result), ["the first"])
        self.assertEqual(self.rows_after_restart(), [(first, SENDER, 1)])

    def test_after_the_last_reply_ends_quietly(self):
        responder = self.furnish(text="the only one")
        self.stop_server_at_mail(1)
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_left(result)
        self.assertEqual(self.mail_texts(result), ["the only one"])
        self.assertEqual(self.rows_after_restart(), [(responder, SENDER, 1)])

    def test_a_connection_killed_within_a_statement(self):
        responder = self.furnish()
        self.sql("create trigger killer after insert on resp_freq for each row"
                 " kill connection connection_id()")
        result, statements = self.run_recorded()
        self.assertRegex(result.stderr,
                         rb"\A" + QUERY_FAILED + rb"(Connection was killed|Query execution was interrupted"
                         rb"|Server has gone away|Lost connection to server during query)\n\Z")
        self.assertEqual((result.status, result.stdout), (0, b""))
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)
        self.assertEqual(statements[-2:], [insert_sender(responder), "kill connection connection_id()"])
        self.assertEqual(self.panel.frequency_rows(), [])

    def test_a_connection_killed_between_two_statements(self):
        responder = self.furnish()
        self.panel.forward(responder, "all@forward.example")
        self.sendmail("read; run mariadb --no-defaults -uadmin -psandbox-admin -NBe \"select concat("
                      "'kill ', id) from information_schema.processlist where user = 'admin'"
                      " and db = 'qrx' and command = 'Sleep' and id > %d\""
                      " | mariadb --no-defaults -uadmin -psandbox-admin"
                      % int(self.panel.sql("select connection_id()")[0][0]), "read")
        result, statements = self.run_recorded()
        self.assertRegex(result.stderr, rb"\A" + QUERY_FAILED + rb"(Connection was killed"
                         rb"|Server has gone away|Lost connection to server during query)\n\Z")
        self.assertEqual((result.status, result.stdout), (0, b""))
        self.assert_nothing_left(result)
        self.assertEqual([mail.argv[3] for mail in result.mails], ["all@forward.example"])
        self.assertEqual([text for text in statements if "resp_attach" in text],
                         [], f"{attachment_query(responder)} came through")
        self.assertIn(forward_query(responder), statements)
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])

"""Database servers that misbehave: each ends the run in an orderly way, and none gets at a file."""

from database_test import LOOKUP_FAILED, QUERY_FAILED, DatabaseTest, lookups, responder_query
from fake_server import CLOSE, GREETING, OK, FakeServer, error, rows

REFUSED = b"Unable to connect to Quarx Database: "
LOST_AT_GREETING = (REFUSED + rb"Lost connection to server at 'handshake: reading initial communication packet',"
                    rb" system error: \d+")
MAILBOX = rows(3, (b"1", b"info", b"example.com"))


class HostileServer(DatabaseTest):
    def fake(self, *answers, **how):
        self.stop_server()
        fake = FakeServer(answers, **how)
        self.addCleanup(fake.close)
        return fake

    def assert_refused(self, pattern, **how):
        """No connection comes about, with a reason like the pattern."""
        self.fake(**how)
        result = self.run_program()
        first = result.stdout.partition(b"\n")[0].removeprefix(b"autoresponder: ")
        self.assertRegex(first, rb"\A" + pattern + rb"\Z")
        self.assert_no_connection(result, first)

    def test_an_error_for_a_greeting(self):
        self.assert_refused(REFUSED + b"Too many connections", greeting=error(1040, "Too many connections"))

    def test_a_log_in_that_is_refused(self):
        self.assert_refused(REFUSED + b"no entry", log_in=error(1045, "no entry"))

    def test_an_end_at_once(self):
        self.assert_refused(LOST_AT_GREETING, raw=b"")

    def test_an_end_within_the_greeting(self):
        self.assert_refused(LOST_AT_GREETING, raw=len(GREETING).to_bytes(4, "little") + GREETING[:20])

    def test_garbage_for_a_greeting(self):
        self.assert_refused(LOST_AT_GREETING, raw=b"220 smtp.example ESMTP\r\n")

    def test_an_old_protocol(self):
        self.assert_refused(REFUSED + rb"Protocol mismatch\. Server Version = 9 Client Version = 10",
                            greeting=b"\x09" + GREETING[1:])

    def test_an_empty_greeting(self):
        self.assert_refused(LOST_AT_GREETING, greeting=b"")

    def test_a_log_in_that_is_never_answered(self):
        self.assert_refused(REFUSED + rb"Lost connection to server at 'reading authorization packet',"
                            rb" system error: \d+", log_in=CLOSE)

    def test_an_error_for_set_names(self):
        fake = self.fake([error(1115, "Unknown character set: 'utf8'")])
        self.assert_no_connection(self.run_program(),
                                  b"DB error (set names query) 1115: Unknown character set: 'utf8'")
        self.assertEqual(fake.received[0], b"\x03SET NAMES utf8")

    def test_an_end_at_set_names(self):
        self.fake([CLOSE])
        result = self.run_program()
        self.assertRegex(result.stdout, rb"\Aautoresponder: DB error \(set names query\) 20(06|13): ")
        self.assert_no_connection(result, result.stdout.partition(b"\n")[0].removeprefix(b"autoresponder: "))

    def test_an_error_text_of_many_lines_and_bytes(self):
        text = "100%s %n\n" * 40
        self.fake([OK], [error(1064, text)])
        result = self.run_program()
        self.assert_ended(result, stderr=LOOKUP_FAILED + text.encode() + b"\n")
        self.assert_nothing_left(result)

    def test_a_connection_that_ends_within_a_result(self):
        for number in range(1, len(MAILBOX)):
            with self.subTest(packets=number):
                fake = self.fake([OK], [*MAILBOX[:number], CLOSE])
                result = self.run_program()
                self.assertRegex(result.stderr, rb"\A" + LOOKUP_FAILED + rb"(Lost connection to server"
                                 rb" during query|Server has gone away)\n\Z")
                self.assertEqual((result.status, result.stdout), (0, b""))
                self.assert_nothing_sent(result)
                self.assert_nothing_left(result)
                self.doCleanups()
                self.assertEqual(len(fake.received), 2)

    def test_no_result_where_rows_are_due(self):
        """A query that succeeds without a result counts as failed: there is nothing to take rows from."""
        self.fake([OK], [OK])
        result = self.run_program()
        self.assert_run_ended_by(result, LOOKUP_FAILED)
        self.assert_nothing_sent(result)

    def test_no_result_of_responders(self):
        self.fake([OK], MAILBOX, [OK])
        result = self.run_program()
        self.assert_run_ended_by(result, QUERY_FAILED)
        self.assert_nothing_sent(result)

    def test_a_mailbox_of_nulls(self):
        fake = self.fake([OK], rows(3, (None, None, None)), rows(11))
        result = self.run_program()
        self.assert_ended(result)
        self.doCleanups()
        self.assertEqual([text[1:].decode() for text in fake.received[:3]],
                         ["SET NAMES utf8", lookups("info", "example.com")[0], responder_query("")])

    def test_a_mailbox_id_that_is_no_number_goes_on_as_it_is(self):
        fake = self.fake([OK], rows(3, (b"1 or 1=1", b"info", b"example.com")), rows(11))
        result = self.run_program()
        self.assert_ended(result)
        self.doCleanups()
        self.assertEqual(fake.received[2], b"\x03" + responder_query("1 or 1=1").encode())

    def test_a_responder_of_nulls_is_off(self):
        self.fake([OK], MAILBOX, rows(11, (None,) * 11))
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_sent(result)

    def test_a_server_that_asks_for_a_file_does_not_get_it(self):
        request = b"\xfb/etc/qrx/.qrx.shadow"
        for name, answers in (("instead of SET NAMES", [[request]]),
                              ("instead of a mailbox", [[OK], [request]]),
                              ("instead of responders", [[OK], MAILBOX, [request]])):
            with self.subTest(name):
                fake = self.fake(*answers)
                result = self.run_program()
                self.assertEqual((result.status, result.signal), (0, None))
                self.assert_nothing_sent(result)
                self.doCleanups()
                self.assertNotIn(b"sandbox-admin", b"".join(fake.received))
                # An empty packet says that there is no file.
                self.assertEqual(fake.received[len(answers):], [b""])

    def test_the_client_offers_no_files(self):
        """The log-in's capabilities leave out LOAD DATA LOCAL."""
        self.stop_server()
        fake = FakeServer([[CLOSE]])
        self.addCleanup(fake.close)
        self.run_program()
        capabilities = int.from_bytes(fake.logged_in[:4], "little")
        self.assertEqual(capabilities & 0x0080, 0, f"{capabilities:#x}")

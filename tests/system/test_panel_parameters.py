"""The panel's parameters as the program reads them: a notification's sender shows what came of one."""

import os
import re

from database_test import DatabaseTest

CLIENT = "carla@panel.example"
FALLBACK = "root@localhost"


class Parameters(DatabaseTest):
    def setUp(self):
        super().setUp()
        responder = self.furnish(ans_freq="1000")
        self.panel.attachment(responder, "missing.txt")

    def notified_from(self, result):
        """The envelope sender of the notification, which comes before the reply."""
        self.assertEqual([mail.argv[3] for mail in result.mails], [CLIENT, "sam@sender.example"])
        self.assertEqual(result.mails[0].argv[:2], ["/usr/sbin/sendmail", "-f"])
        return result.mails[0].argv[2]

    def assert_sender(self, wanted):
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(self.notified_from(result), wanted)

    def test_with_a_value(self):
        self.panel.param("admin_email", "admin@panel.example")
        self.panel.param("FullHostName", "host.example")
        self.assert_sender("admin@panel.example")

    def test_without_a_row_null_or_empty_are_the_same(self):
        for value in (None, ""):
            with self.subTest(value=value):
                self.panel.param("admin_email", value)
                self.panel.param("FullHostName", "host.example")
                self.assert_sender("root@host.example")
                self.panel.param("FullHostName", value)
                self.assert_sender(FALLBACK)
        self.panel.sql("delete from misc")
        self.assert_sender(FALLBACK)

    def test_of_4095_bytes_comes_whole(self):
        self.panel.param("admin_email", "a" * 4095)
        self.assert_sender("a" * 4095)

    def test_of_more_is_cut_to_4095_bytes(self):
        for size in (4096, 5000, 70_000):
            with self.subTest(size=size):
                self.panel.param("admin_email", "a" * 4094 + "b" + "c" * (size - 4095))
                self.assert_sender("a" * 4094 + "b")

    def test_are_asked_for_one_by_one(self):
        self.panel.param("FullHostName", "host.example")
        result, statements = self.run_recorded()
        self.assert_ended(result)
        self.assertEqual([text for text in statements if "misc" in text],
                         ["select val from misc where param='admin_email'",
                          "select val from misc where param='FullHostName'"])

    def test_that_cannot_be_read_are_reported_on_both_streams_and_the_reply_follows(self):
        self.drop_table("misc")
        result = self.run_program()
        self.assertEqual(self.notified_from(result), FALLBACK)
        self.assert_nothing_left(result)
        # The message ends its own line; behind it stands whatever errno held, if anything.
        number = re.search(rb"System error (\d+): ", result.stdout)
        suffix = f"\nSystem error {number[1].decode()}: {os.strerror(int(number[1]))}\n" if number else ""
        report = "".join(f"autoresponder: Unable to query parameter by query select val from misc where"
                         f" param='{name}': Table 'qrx.misc' doesn't exist\n{suffix}"
                         for name in ("admin_email", "FullHostName")).encode()
        self.assert_ended(result, stderr=report, stdout=report)

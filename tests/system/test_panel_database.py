"""The connection to the panel's database: the administrator's password file, and servers that can't be had."""

import errno
import os
import pathlib
import re

import database
from database_test import DatabaseTest
from harness import NOBODY
from panel import PASSWORD_FILE

PASSWORD = "sandbox-admin"
UNREADABLE = b"Unable to open admin password file: "
UNREAD = b"Unable to read admin password file: "
REFUSED = b"Unable to connect to Quarx Database: "
DENIED = REFUSED + b"Access denied for user 'admin'@'localhost' (using password: "


class PasswordFile(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.furnish()

    def set_password(self, password):
        """The database's password of the administrator, for this case."""
        change = "set password for 'admin'@'localhost' = password('{}')"
        self.addCleanup(self.panel.sql, change.format(PASSWORD))
        self.panel.sql(change.format(re.sub(r"(['\\])", r"\\\1", password)))

    def assert_connects(self, content):
        self.panel.password_file(content)
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)

    def assert_denied(self, content, using_password=b"YES"):
        self.panel.password_file(content)
        self.assert_no_connection(self.run_program(), DENIED + using_password + b")")

    def test_of_one_line_with_a_line_feed(self):
        self.assert_connects(PASSWORD + "\n")

    def test_of_one_line_without_a_line_feed(self):
        self.assert_connects(PASSWORD)

    def test_of_several_lines_has_the_password_in_the_first(self):
        self.assert_connects(PASSWORD + "\nsecond line\n\n")

    def test_loses_one_line_feed_and_nothing_else(self):
        for ending in ("\r\n", " \n", "\r", " ", "\t\n"):
            with self.subTest(ending=ending):
                self.assert_denied(PASSWORD + ending)

    def test_keeps_leading_blanks(self):
        self.assert_denied(" " + PASSWORD + "\n")

    def test_ends_at_a_nul_byte(self):
        self.assert_connects(PASSWORD + "\0junk\n")

    def test_with_an_empty_first_line_gives_no_password(self):
        self.assert_denied("\n" + PASSWORD + "\n", b"NO")

    def test_of_99_characters_is_taken_whole(self):
        self.set_password("p" * 99)
        self.assert_connects("p" * 99)
        self.assert_connects("p" * 99 + "\n")

    def test_of_98_characters_loses_its_line_feed(self):
        self.set_password("p" * 98)
        self.assert_connects("p" * 98 + "\n")

    def test_of_100_characters_is_cut_to_99(self):
        self.set_password("p" * 99)
        self.assert_connects("p" * 100 + "\n")
        self.assert_connects("p" * 5000)

    def test_of_100_characters_is_not_taken_whole(self):
        self.set_password("p" * 100)
        self.assert_denied("p" * 100 + "\n")

    def test_with_quotes_and_utf8(self):
        password = "p'a\"s\\s wörd%s"
        self.set_password(password)
        self.assert_connects(password + "\n")

    def test_with_another_password_is_denied(self):
        self.assert_denied("wrong\n")

    def test_that_is_missing(self):
        self.panel.password_file(None)
        self.assert_no_connection(self.run_program(), UNREADABLE + b"No such file or directory",
                                  errno.ENOENT)

    def test_that_leads_nowhere(self):
        self.panel.password_file(None)
        self.addCleanup(PASSWORD_FILE.unlink)
        PASSWORD_FILE.symlink_to(PASSWORD_FILE.name)
        self.assert_no_connection(self.run_program(), UNREADABLE + b"Too many levels of symbolic links",
                                  errno.ELOOP)

    def test_that_is_a_folder(self):
        self.panel.password_file(None)
        self.addCleanup(PASSWORD_FILE.rmdir)
        PASSWORD_FILE.mkdir()
        self.assert_no_connection(self.run_program(), UNREAD + b"Is a directory", errno.EISDIR)

    def test_that_this_user_may_not_read(self):
        result = self.run_program(user=NOBODY)
        self.assert_no_connection(result, UNREADABLE + b"Permission denied", errno.EACCES)

    def test_that_is_empty(self):
        """The end of a file is no error, so the text is that of whatever errno held before."""
        self.panel.password_file("")
        result = self.run_program()
        number = self.error_number(result.stdout)
        self.assert_no_connection(result, UNREAD + os.strerror(number).encode(), number)

    def error_number(self, stdout):
        """The number that belongs to the text behind the colon, 0 when there is no line with a number."""
        first, _, rest = stdout.decode().partition("\n")
        text = first.rpartition(": ")[2]
        numbers = [number for number in [0, *errno.errorcode] if os.strerror(number) == text]
        self.assertEqual(len(numbers), 1, f"{text!r} is the text of an errno")
        self.assertEqual(rest, f"System error {numbers[0]}: {text}\n" if numbers[0] else "")
        return numbers[0]


class NoServer(DatabaseTest):
    SOCKET = b"'/run/mysqld/mysqld.sock'"

    def setUp(self):
        super().setUp()
        self.furnish()

    def test_a_server_that_is_stopped(self):
        self.stop_server()
        self.assert_no_connection(
            self.run_program(), REFUSED + b"Can't connect to local server through socket " + self.SOCKET
            + b" (2)", errno.ENOENT)

    def test_a_socket_that_nobody_listens_to(self):
        self.stop_server()
        socket = pathlib.Path("/run/mysqld/mysqld.sock")
        self.addCleanup(socket.unlink)
        socket.touch()
        self.assert_no_connection(
            self.run_program(), REFUSED + b"Can't connect to local server through socket " + self.SOCKET
            + b" (111)", errno.ECONNREFUSED)

    def test_a_database_that_is_missing(self):
        self.sql("drop database qrx")
        self.assert_no_connection(self.run_program(), REFUSED + b"Unknown database 'qrx'")

    def test_an_administrator_who_is_missing(self):
        self.sql("rename user 'admin'@'localhost' to 'other'@'localhost'")
        self.assert_no_connection(self.run_program(), DENIED + b"YES)")

    def test_an_administrator_without_rights(self):
        self.sql("create user 'plain'@'localhost'")
        self.sql("rename user 'admin'@'localhost' to 'other'@'localhost',"
                 " 'plain'@'localhost' to 'admin'@'localhost'")
        self.panel.password_file("\n")
        self.assert_no_connection(
            self.run_program(), REFUSED + b"Access denied for user 'admin'@'localhost' to database 'qrx'")

    def test_a_locked_administrator(self):
        self.sql("alter user 'admin'@'localhost' account lock")
        self.assert_no_connection(self.run_program(), REFUSED + b"Access denied, this account is locked")

    def test_a_refused_set_names_closes_the_connection(self):
        refusal = self.refuse_statements_after(1)
        database.Database().close()  # uses up the one statement
        result, events = self.run_observed()
        self.assert_no_connection(result, b"DB error (set names query) 1226: " + refusal)
        self.assertEqual([text for event, text in events if event == "Query"], ["SET NAMES utf8"])
        self.assertEqual(events[-1], ("Quit", ""))


class Report(DatabaseTest):
    """The library's message goes to both streams under the program's name, the program's own to one."""

    def test_has_the_last_part_of_the_programs_path(self):
        self.panel.password_file(None)
        for name, shown in (("/usr/local/bin/qrx-answer", b"qrx-answer"), ("answer", b"answer"),
                            ("./a/b", b"b")):
            with self.subTest(argv0=name):
                reason = (shown + b": Unable to open admin password file: No such file or directory\n"
                          b"System error 2: No such file or directory\n")
                self.assert_ended(
                    self.run_program(argv0=name), stdout=reason,
                    stderr=reason + b"autoresponder: Unable to connect to the mysql database \n")

    def test_does_not_need_the_streams(self):
        self.panel.password_file(None)
        for stream in ("stdout", "stderr"):
            with self.subTest(closed=stream):
                result = self.run_program(**{stream: "closed"})
                self.assertEqual((result.status, result.signal), (0, None))
                self.assert_nothing_left(result)

    def test_does_not_need_room_for_it(self):
        self.panel.password_file(None)
        with open("/dev/full", "wb") as full:
            result = self.run_program(stdout=full)
        self.assertEqual((result.status, result.signal), (0, None))
        self.assertEqual(result.stderr.count(b"\n"), 3)
        self.assert_nothing_left(result)

    def test_never_shows_the_password(self):
        for content in ("hidden-from-view\n", "hidden-from-view" * 20):
            self.panel.password_file(content)
            result = self.run_program()
            self.assertIn(b"Access denied", result.stdout)
            self.assertNotIn(b"hidden", result.stdout + result.stderr)

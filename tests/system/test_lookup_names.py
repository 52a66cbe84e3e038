"""Hostile and unusual names in the recipient's address: escaped in the statements, untouched in messages."""

import os
import re

import expected
from database_test import QUERY_FAILED, DatabaseTest, lookups, responder_query
from harness import MESSAGE, Sql

# name, as it is addressed, as it is escaped
NAMES = [
    ("a single quote", "o'brien", r"o\'brien"),
    ("a double quote", 'o"brien', r"o\"brien"),
    ("a backslash", "back\\slash", r"back\\slash"),
    ("a backslash at the end", "end\\", r"end\\"),
    ("an escaped quote", "o\\'brien", r"o\\\'brien"),
    ("UTF-8", "müller", "müller"),
    ("UTF-8 with a quote", "d'été", r"d\'été"),
    ("wildcards", "100%_x", "100%_x"),
    ("a comment", "x'-- ", r"x\'-- "),
    ("a condition", "x' or '1'='1", r"x\' or \'1\'=\'1"),
    ("a second statement", "x'; drop table mail; -- ", r"x\'; drop table mail; -- "),
    ("a line feed", "two\nlines", r"two\nlines"),
    ("a carriage return", "two\rlines", r"two\rlines"),
    ("the end-of-file character", "sub\x1astitute", r"sub\Zstitute"),
    ("a tab", "tab\tbed", "tab\tbed"),
    ("nothing", "", ""),
    ("quotes and backslashes alone", "'\\" * 120, r"\'\\" * 120),
]


class Escaping(DatabaseTest):
    def assert_not_found(self, recipient, mailname, domain):
        """Nothing is found; mailname, domain: as they stand in the statements."""
        result, statements = self.run_recorded(recipient=recipient)
        shown = recipient if "@" in recipient else f"{recipient}@{recipient}"
        self.assert_run_ended_by(result, f"autoresponder: Mailname not found: {shown}".encode())
        self.assert_nothing_sent(result)
        self.assertEqual(statements, ["SET NAMES utf8", *lookups(mailname, domain)])

    def test_of_the_mail_name(self):
        self.furnish()
        for case, name, escaped in NAMES:
            with self.subTest(case):
                self.assert_not_found(f"{name}@example.com", escaped, "example.com")

    def test_of_the_domain(self):
        self.furnish()
        for case, name, escaped in NAMES:
            with self.subTest(case):
                self.assert_not_found(f"info@{name}", "info", escaped)

    def test_a_mailbox_with_such_a_name_is_found_and_answers(self):
        for case, name, escaped in NAMES[:7]:
            with self.subTest(case):
                self.panel.empty()
                mailbox = self.panel.mailbox(self.panel.domain(), name)
                self.panel.responder(mailbox, text=case)
                result, statements = self.run_recorded(recipient=f"{name}@example.com")
                self.assert_ended(result)
                self.assertEqual(self.mail_texts(result), [case])
                self.assertEqual(statements[1:3],
                                 [lookups(escaped, "example.com")[0], responder_query(mailbox)])

    def test_a_domain_alias_with_such_a_name_is_found_and_answers(self):
        for case, name, escaped in NAMES[:5]:
            with self.subTest(case):
                self.panel.empty()
                responder = self.furnish(text=case)
                self.panel.domain_alias(self.domain, name)
                self.panel.mail_alias(self.mailbox, name)
                result, statements = self.run_recorded(recipient=f"{name}@{name}")
                self.assert_ended(result)
                self.assertEqual(self.mail_texts(result), [case])
                self.assertEqual(statements[1:6],
                                 [*lookups(escaped, escaped), responder_query(self.mailbox)])
                self.assertEqual(self.panel.frequency_rows(), [(responder, "sam@sender.example", 1)])

    def test_a_recipient_without_an_at_sign_is_both_names(self):
        self.furnish()
        self.assert_not_found("info", "info", "info")

    def test_an_empty_recipient_is_both_names(self):
        self.furnish()
        result, statements = self.run_recorded(recipient="")
        self.assert_run_ended_by(result, b"autoresponder: Mailname not found: @")
        self.assertEqual(statements, ["SET NAMES utf8", *lookups("", "")])

    def test_a_second_at_sign_belongs_to_the_domain(self):
        self.furnish()
        self.assert_not_found("info@example.com@example.org", "info", "example.com@example.org")

    def test_a_name_of_120_kilobytes_is_looked_up_whole(self):
        self.furnish()
        name = "'" * 60_000
        self.assert_not_found(f"{name}@{name}", "\\'" * 60_000, "\\'" * 60_000)


class NullColumns(DatabaseTest):
    """Tables that allow NULL where the panel's don't: the mailbox's columns then count as empty texts."""

    def test_a_mail_name_null_gives_an_attachment_folder_without_it(self):
        self.sql("alter table mail modify mail_name varchar(245) null")
        domain = self.panel.domain()
        mailbox = self.panel.mailbox(domain, None)
        self.panel.mail_alias(mailbox, "info")
        responder = self.panel.responder(mailbox, text="Found.")
        self.panel.sql("insert into resp_attach set rn_id=%s, filename='a.txt'", responder)
        folder = "/var/qmail/mailnames/example.com/@attachments"
        os.makedirs(folder)
        with open(f"{folder}/a.txt", "wb") as file:
            file.write(b"abc")
        result = self.run_program(message=MESSAGE)
        self.assert_ended(result)
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply("sam@sender.example", "info@example.com", "Re: Opening hours",
                                         b"Found.", attachments=[("a.txt", b"abc")]))

    def test_a_domain_name_null_gives_an_attachment_folder_without_it(self):
        self.sql("alter table domains modify name varchar(255) null")
        domain = self.panel.domain(None)
        self.panel.domain_alias(domain, "example.com")
        responder = self.panel.responder(self.panel.mailbox(domain), text="Found.")
        self.panel.sql("insert into resp_attach set rn_id=%s, filename='a.txt'", responder)
        folder = "/var/qmail/mailnames/info/@attachments"
        os.makedirs(folder)
        with open(f"{folder}/a.txt", "wb") as file:
            file.write(b"abc")
        result = self.run_program(message=MESSAGE)
        self.assert_ended(result)
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply("sam@sender.example", "info@example.com", "Re: Opening hours",
                                         b"Found.", attachments=[("a.txt", b"abc")]))

    def test_an_id_null_makes_the_responder_query_fail(self):
        self.sql("alter table mail modify id int unsigned null, drop primary key")
        self.panel.sql("insert into mail set id=%s, mail_name='info', dom_id=%s", Sql("NULL"),
                       self.panel.domain())
        result, statements = self.run_recorded()
        self.assert_run_ended_by(result, QUERY_FAILED + self.refusal_of(responder_query("")))
        self.assert_nothing_sent(result)
        self.assertEqual(statements, ["SET NAMES utf8", lookups("info", "example.com")[0],
                                      responder_query("")])


class NoMemory(DatabaseTest):
    """The buffers for the escaped names, each made to fail at the very system call that is to fill it."""

    LONG = "n" * 100_000
    BUFFER_SIZE = 2 * len(LONG) + 1

    def assert_out_of_memory(self, recipient):
        self.skip_if_sanitized("the sanitizers' allocator ends the process itself")
        self.furnish()
        calls = self.calls_to_the_buffer(recipient)
        # The library then tries to grow its heap, and to map a small part: neither may work.
        result = self.run_program(
            recipient=recipient,
            strace=["-e", "trace=mmap,brk", "-e", f"inject=mmap:error=ENOMEM:when={calls['mmap']}+",
                    "-e", f"inject=brk:retval=0:when={calls['brk'] + 1}+"])
        self.assert_run_ended_by(result, b"autoresponder: Unable to alloc memory")
        self.assert_nothing_sent(result)

    def calls_to_the_buffer(self, recipient):
        """How many calls of mmap and brk there are up to the one that makes room for the buffer."""
        trace = self.run_program(recipient=recipient, strace=["-e", "trace=mmap,brk"]).trace
        calls = {"mmap": 0, "brk": 0}
        for name, size in re.findall(r"^(mmap|brk)\((?:NULL, (\d+), )?", trace, re.MULTILINE):
            calls[name] += 1
            # The C library adds a header and rounds up to whole pages.
            if size and self.BUFFER_SIZE < int(size) <= self.BUFFER_SIZE + 2 * 4096:
                return calls
        self.fail(f"no mapping of about {self.BUFFER_SIZE} bytes in:\n{trace}")

    def test_for_the_domain(self):
        self.assert_out_of_memory(f"info@{self.LONG}")

    def test_for_the_mail_name(self):
        self.assert_out_of_memory(f"{self.LONG}@example.com")

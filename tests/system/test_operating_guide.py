"""What the operating guide says, tried: the database user's rights, the qmail line, and the causes that it names."""

import pathlib
import re
import shutil
import subprocess

import guide
import mail_system
import sandbox
from harness import SystemTest
from program_run import MESSAGE

OFFICE = "office@alias.example"
SOURCES = pathlib.Path(__file__).resolve().parents[2]


def as_root_of_the_database(*statements):
    """Runs the statements as the server's root; a failure raises CalledProcessError."""
    subprocess.run(["mariadb", "--no-defaults", "-uroot", "qrx", "-e", ";".join(statements)], check=True)


def rights():
    """The guide's grants, split so that each allows one thing: (what, table)."""
    found = re.findall(r"^GRANT (.*) ON qrx\.(\w+) TO 'admin'@'localhost';$", guide.block("database-rights"),
                       re.MULTILINE)
    return [(right, table) for rights_of_table, table in found for right in rights_of_table.split(", ")]


class LeastRights(SystemTest):
    """The database's user of the guide, in runs that use all of the tables in every way there is."""

    def setUp(self):
        super().setUp()
        responder = self.furnish(mem_limit="1")
        self.panel.domain_alias(self.domain, "alias.example")
        self.panel.mail_alias(self.mailbox, "office")
        self.panel.forward(responder, "boss@sender.example")
        self.panel.attachment(responder, "missing.pdf")
        self.panel.answered(responder, "old@sender.example")
        self.responder = responder

    def allow_only(self, grants):
        """The user as the guide makes it; the server is a fresh one in the next case."""
        self.sql("set global max_connections = 31")
        as_root_of_the_database(
            "drop user 'admin'@'localhost'",
            f"create user 'admin'@'localhost' identified by '{sandbox.ADMIN_PASSWORD}'",
            *(f"grant {right} on qrx.{table} to 'admin'@'localhost'" for right, table in grants))

    def two_runs(self):
        """A sender's first message, for which another one is forgotten, and the second: their reports and mails."""
        results = [self.run_program(recipient=OFFICE) for _ in range(2)]
        return b"".join(result.stderr for result in results), [mail for result in results for mail in result.mails]

    def test_suffice(self):
        self.allow_only(rights())
        reports, mails = self.two_runs()
        self.assertEqual(reports, b"This client does not exist :\n" * 2)
        self.assertEqual([mail.argv[-1] for mail in mails], ["boss@sender.example", "sam@sender.example"] * 2)

    def test_suffice_for_the_client_of_a_domain(self):
        self.allow_only(rights())
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual([mail.argv[-1] for mail in result.mails],
                         ["boss@sender.example", "carla@panel.example", "sam@sender.example"])

    def test_are_all_needed(self):
        for missing in rights():
            with self.subTest(missing=missing):
                self.setUp()
                self.allow_only([right for right in rights() if right != missing])
                reports = self.two_runs()[0] + self.run_program().stderr
                self.assertRegex(reports.decode(), f"{missing[0]} command denied to user 'admin'@'localhost' for .*"
                                                   f"[`']{missing[1]}[`']")


class Tables(SystemTest):
    """The guide's list of tables, against the ones that all tests use."""

    def listed(self):
        """The rows of the list: (table, its columns, its indexes as lists of columns)."""
        rows = re.findall(r"^\| `(\w+)` \| (.*?) \| (.*?) \| .* \|$", guide.text(), re.MULTILINE)
        return [(table, re.findall(r"`(\w+)`", columns), [re.findall(r"\w+", index) for index in
                                                          re.findall(r"`([^`]+)`", indexes.partition("none")[0])])
                for table, columns, indexes in rows]

    def test_are_the_ones_that_the_rights_are_for(self):
        self.assertEqual({table for table, _, _ in self.listed()}, {table for _, table in rights()})

    def test_have_these_columns(self):
        for table, columns, _ in self.listed():
            known = {row[0].decode() for row in self.sql(f"describe {table}")}
            self.assertEqual(set(columns) - known, set(), table)

    def test_have_these_indexes(self):
        for table, _, indexes in self.listed():
            known = [row[0].decode().split(",") for row in self.sql(
                "select group_concat(column_name order by seq_in_index) from information_schema.statistics"
                " where table_schema = 'qrx' and table_name = %s group by index_name", table)]
            for index in indexes:
                self.assertIn(index, known, table)


class Qmail(SystemTest):
    """The line of the guide, run as qmail-local does; see qmail-command(8)."""

    def run_line(self, program=sandbox.PROGRAM, **variables):
        line = guide.block("qmail").rstrip("\n")
        self.assertEqual(line[0], "|")
        command = line[1:].replace("/usr/sbin/autoresponder", program)
        environment = {"PATH": "/usr/bin:/bin", "HOST": "example.com", "LOCAL": "1-info", "EXT": "info",
                       "RECIPIENT": "1-info@example.com", "SENDER": "sam@sender.example", **variables}
        return subprocess.run(["/bin/sh", "-c", command], input=MESSAGE, env=environment, capture_output=True,
                              timeout=60, check=False)

    def test_answers(self):
        self.furnish()
        result = self.run_line()
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        self.assertEqual([mail.argv[1:] for mail in self.mails()], [["-f", "info@example.com", "sam@sender.example"]])

    def test_does_not_answer_a_bounce(self):
        self.furnish()
        self.assertEqual(self.run_line(SENDER="").returncode, 0)
        self.assertEqual(self.mails(), [])

    def test_hands_an_address_over_whatever_it_is_made_of(self):
        odd = "a $(exit 7) 'b\" ;c"
        self.assertIn(f"Mailname not found: {odd}@example.com".encode(), self.run_line(EXT=odd).stderr)

    def test_goes_on_without_an_answer_when_it_is_stopped(self):
        self.furnish()
        program = pathlib.Path("/usr/sbin/autoresponder")
        program.unlink(missing_ok=True)
        self.addCleanup(program.unlink)
        shutil.copy(sandbox.PROGRAM, program)
        self.run_line(program=str(program))
        self.assertEqual(len(self.mails()), 1)
        guide.run_block("qmail-stop")
        result = self.run_line(program=str(program))
        self.assertEqual((result.returncode, result.stdout), (0, b""))
        self.assertIn(b"Permission denied", result.stderr)
        self.assertEqual(len(self.mails()), 1)

    def test_ends_with_0_when_the_program_ends_with_1(self):
        self.furnish(charset="no-such-charset")
        result = self.run_line()
        self.assertEqual(result.returncode, 0)
        self.assertIn(b"Send error: ", result.stderr)


class Queries(SystemTest):
    """The statements that the guide gives for one mailbox."""

    def setUp(self):
        super().setUp()
        self.responder = self.furnish(keystr="hours", key_where="subj", ans_freq="3")
        self.other = self.panel.responder(self.panel.mailbox(self.domain, "sales"))

    def test_from_an_address_to_its_responders(self):
        self.assertEqual(guide.run_sql("responders"), f"{self.responder}\ttrue\tsubj\thours\t3\n")

    def test_a_sender_is_forgotten_by_one_mailbox(self):
        for responder in (self.responder, self.other):
            self.panel.answered(responder, "you@example.org")
        self.panel.answered(self.responder, "sam@sender.example")
        guide.run_sql("forget")
        self.assertEqual([row[:2] for row in self.panel.frequency_rows()],
                         [(self.other, "you@example.org"), (self.responder, "sam@sender.example")])

    def test_one_mailbox_is_stopped(self):
        guide.run_sql("mailbox-stop")
        self.assertEqual(self.sql("select id, resp_on from mail_resp order by id"),
                         [(str(self.responder).encode(), b"false"), (str(self.other).encode(), b"true")])


class Causes(SystemTest):
    """Causes of the guide that no other test tries."""

    def sql_mode(self, mode):
        self.sql(f"set global sql_mode = '{mode}'")

    def test_without_backslash_escapes_a_quote_in_the_address_ends_the_text(self):
        self.furnish()
        self.sql_mode("NO_BACKSLASH_ESCAPES")
        result = self.run_program(recipient="o'brien@example.com")
        self.assertIn(b"autoresponder: Unable to query: You have an error in your SQL syntax", result.stderr)

    def test_characters_of_four_bytes_come_back_as_a_question_mark(self):
        responder = self.furnish()
        self.sql("alter table mail_resp modify text mediumtext character set utf8mb4")
        self.sql("set names utf8mb4")
        self.sql(f"update mail_resp set text = X'{'so 😀 long'.encode().hex()}' where id = %s", responder)
        self.assertIn(b"\nso ? long\n", self.run_program().mails[0].stdin)

    def test_a_charset_that_is_none_is_reported(self):
        self.furnish(charset="no-such-charset")
        self.assertIn(b"Send error: Cannot convert", self.run_program().stderr)

    def test_a_domain_that_cannot_be_written_in_ascii_is_reported(self):
        domain = "x" * 64 + ".example"
        self.panel.responder(self.panel.mailbox(self.panel.domain(domain)))
        self.assertIn(b"IDN conversion error: ", self.run_program(recipient=f"info@{domain}").stderr)

    def test_what_the_charset_of_the_reply_cannot_hold_is_a_question_mark_a_byte(self):
        self.furnish(charset="US-ASCII", text="für alle\n")
        self.assertIn(b"\nf??r alle\n", self.run_program().mails[0].stdin)

    def test_a_missing_column_is_reported(self):
        self.furnish()
        self.drop_column("mail_resp", "charset")
        self.assertIn(b"autoresponder: Unable to exec query :Unknown column 'charset'", self.run_program().stderr)

    def long_sender(self):
        return b"From: " + b"s" * 300 + b"@sender.example\n\ntext\n"

    def test_in_strict_mode_a_sender_longer_than_its_column_gets_no_reply(self):
        self.furnish()
        self.sql_mode("STRICT_TRANS_TABLES")
        result = self.run_program(message=self.long_sender())
        self.assertIn(b"autoresponder: Unable to exec query :Data too long for column 'email'", result.stderr)
        self.assert_nothing_sent(result)

    def test_without_strict_mode_a_sender_longer_than_its_column_is_answered_without_limit(self):
        self.furnish(ans_freq="1")
        self.sql_mode("")
        for _ in range(3):
            self.assertEqual(len(self.run_program(message=self.long_sender()).mails), 1)

    def test_a_full_server_is_reported(self):
        self.furnish()
        self.sql("set global max_connections = 10")
        others = [subprocess.Popen(["mariadb", "--no-defaults", "-uadmin", f"-p{sandbox.ADMIN_PASSWORD}", "-e",
                                    "select sleep(60)"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                  for _ in range(12)]
        for other in others:
            self.addCleanup(other.wait)
            self.addCleanup(other.kill)
        # One more than the limit, for a user with all rights as the tests' one is.
        mail_system.wait_until("a full server", lambda: len(self.sql("show processlist")) == 11)
        self.assertIn(b"Unable to connect to Quarx Database: Too many connections", self.run_program().stderr)


class Reports(SystemTest):
    """The table of causes quotes the reports as the program writes them."""

    def test_are_in_the_program(self):
        table = re.findall(r"^\| (`.*?) \| ", guide.text(), re.MULTILINE)
        reports = [report for cell in table for report in re.findall(r"`([^`]+)`", cell) if " " in report.strip()]
        self.assertGreater(len(reports), 10)
        sources = [path.read_text() for folder in ("autoresponder", "lib")
                   for path in (SOURCES / folder).rglob("*.[ch]*")]
        texts = re.sub(r'"\s*"', "", "".join(sources))
        for report in reports:
            constant = report.removeprefix("autoresponder: ").replace(": Permission denied", ": ").rstrip("'")
            with self.subTest(report=report):
                self.assertTrue(constant in texts, "not in the sources")

"""The demonstration: what script/demo shows, as a person sees it."""

import os
import pathlib
import signal
import subprocess

from harness import SystemTest

HERE = pathlib.Path(__file__).resolve().parent
SCRIPT = HERE.parents[1] / "script/demo"
DEMO = ["/usr/bin/python3", "-B", str(HERE / "support/demo.py")]
KINDS = ["a reply", "a reply", "the client is told of a missing file", "a reply", "the message, forwarded",
         "a reply"]
LAST_LINE = "       script/demo --shell lets you look around."


SUMMARY = "  6 mails: 4 replies, 1 forward, 1 notice to the client"


def demo(*arguments, message=b""):
    result = subprocess.run([*DEMO, *arguments], input=message, capture_output=True, timeout=60, check=False)
    return result.returncode, result.stdout.decode(), result.stderr.decode()


class Demo(SystemTest):
    def test_the_sample_shows_each_mail_and_what_became_of_the_run(self):
        status, shown, errors = demo("--sample")
        self.assertEqual((status, errors), (0, ""))
        for wanted in ("== The incoming message, to office@example.com", "== Mail 6 of 6: a reply",
                       "== Mail 5 of 6: the message, forwarded",
                       "== Mail 3 of 6: the client is told of a missing file",
                       "\n  $ /usr/sbin/sendmail -f panel@host.example carla@panel.example", "  terms.pdf",
                       '[the subject reads: About your "Price list für 2025?"]', "Прайс-лист во вложении.",
                       "[attachment 'price list.txt': application/octet-stream, 2080 bytes]",
                       "anna.becker@customer.example  1  since", "== Standard error\n  nothing",
                       f"ms and ended with status 0\n{SUMMARY}\n"):
            self.assertIn(wanted, shown)
        self.assertEqual(shown.splitlines()[-1], LAST_LINE)
        for number in (1, 2, 3, 4):
            self.assertRegex(shown, rf"\n  {number} \(id \d+\)  anna\.becker@customer\.example  1 ")

    def test_no_line_is_wider_than_80_columns_and_none_is_coloured(self):
        long_message = (b"From: " + b"n" * 300 + b" <a@b.example>\nSubject: " + b"word " * 99
                        + b"\nX: y" * 40 + b"\n\n" + b"long line " * 50 + b"\nline" * 100 + b"\n")
        for name, arguments, message in (("sample", ["--sample"], b""),
                                         ("long", ["--message", "office@example.com"], long_message)):
            with self.subTest(name):
                self.setUp()
                shown = demo(*arguments, message=message)[1]
                self.assertEqual([line for line in shown.splitlines() if len(line) > 80], [])
                self.assertNotIn("\033", shown)
                self.assertEqual("more lines left out]" in shown, name == "long")

    def test_headings_are_bold_on_a_terminal_only_where_colour_is_wanted(self):
        for environment, coloured in (({"TERM": "xterm"}, True), ({"TERM": "dumb"}, False),
                                      ({"TERM": "xterm", "NO_COLOR": "1"}, False)):
            with self.subTest(environment):
                self.setUp()
                shown = subprocess.run(["script", "-qec", " ".join([*DEMO, "--sample"]), "/dev/null"],
                                       env={"PATH": os.environ["PATH"], **environment, "QRX_SANDBOX": "1"},
                                       stdin=subprocess.DEVNULL, capture_output=True, timeout=60, check=True)
                self.assertEqual(b"\033[1m== The panel\033[0m\r\n" in shown.stdout, coloured)
                self.assertEqual(b"\033" in shown.stdout, coloured)

    def test_a_message_of_ones_own_to_any_recipient(self):
        message = b"From: me@home.example\nSubject: x\n\n\xff\0\x1b[31m text\n"
        status, shown, _ = demo("--message", "nobody@example.com", message=message)
        self.assertEqual(status, 0)
        self.assertIn("== No mail was sent", shown)
        self.assertIn("  autoresponder: Mailname not found: nobody@example.com", shown)
        self.assertIn("\N{REPLACEMENT CHARACTER}[31m text", shown)
        self.assertEqual(shown.splitlines()[-1], "  0 mails")

    def test_text_without_a_blank_line_is_shown_once(self):
        for name, message in (("no header", b"Only once\n"), ("header", b"Subject: x\nOnly once\n"),
                              ("text", b"Only once\n\nThe end.\n")):
            with self.subTest(name):
                self.setUp()
                shown = demo("--message", "nobody@example.com", message=message)[1]
                self.assertEqual(shown.count("Only once"), 1)
                self.assertEqual(shown.count("The end."), message.count(b"The end."))

    def test_a_line_of_one_dot_gets_a_note(self):
        note = "  [a line of one dot: a real sendmail may end the mail there]\n"
        for line, noted in ((b".", 1), (b"..", 0), (b". ", 0)):
            with self.subTest(line):
                self.setUp()
                message = b"From: me@home.example\nSubject: x\n\nabove\n" + line + b"\nbelow\n"
                self.assertEqual(demo("--message", "info@example.com", message=message)[1].count(note), noted)

    def test_wrong_arguments_are_one_line_each(self):
        for arguments, error in ((["/usr"], "/usr is a folder"),
                                 (["/nope"], "'/nope' can't be read"),
                                 ([""], "'' can't be read"),
                                 (["me@x.example"], "the file comes first: script/demo FILE.eml me@x.example"),
                                 (["-", "office"], "'office' is no address: it has no @"),
                                 (["-", ""], "'' is no address: it has no @"),
                                 (["-", "me@x.example", "more"], "one file and one recipient, not also more"),
                                 (["--shell", "more"], "--shell takes no more"),
                                 (["-x"], "no option -x; see script/demo --help")):
            with self.subTest(arguments):
                result = subprocess.run([SCRIPT, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                                        timeout=60, check=False)
                self.assertEqual((result.returncode, result.stdout.decode(), result.stderr.decode()),
                                 (2, "", f"demo: {error}\n"))

    def test_the_shell_has_its_commands_at_hand(self):
        commands = (b"answer | grep '^== Mail'; mails | grep -c '^== Mail'\n"
                    b"db 'select count(*) from mail_resp'\n"
                    b"RESP_RECIPIENT=who@example.com autoresponder < /sandbox/sample.eml\nexit 3\n")
        status, shown, errors = demo("--shell", message=commands)
        self.assertEqual(status, 3)
        headings = [f"== Mail {count} of 6: {kind}" for count, kind in enumerate(KINDS, 1)]
        self.assertEqual(shown.splitlines()[:7], [*headings, "6"])
        self.assertIn("|        4 |", shown)
        self.assertEqual(errors, "autoresponder: Mailname not found: who@example.com\n")

    def test_the_shell_names_its_commands(self):
        shown = demo("--shell", message=b"help\n")[1]
        for command in ("answer", "mails", "db", "autoresponder", "/sandbox/sample.eml", "help", "exit"):
            self.assertRegex(shown, rf"(?m)^  {command} ")

    def test_wrong_arguments_in_the_shell_are_one_line_each(self):
        _, shown, errors = demo("--shell", message=b"answer /nope\nanswer /usr\nanswer sample.eml office\n"
                                                   b"answer sample.eml office@example.com more\n")
        self.assertEqual(shown, "")
        self.assertEqual(errors, "answer: /nope: No such file or directory\nanswer: /usr: Is a directory\n"
                                 "answer: office is no address: it has no @\n"
                                 "answer: one file and one recipient, not also more\n")

    def test_a_reader_that_has_seen_enough_ends_it_quietly(self):
        reader, writer = os.pipe()
        os.close(reader)
        with open(writer, "wb") as closed:
            result = subprocess.run([*DEMO, "--mails"], stdout=closed, stderr=subprocess.PIPE, timeout=60, check=False)
        self.assertEqual((result.returncode, result.stderr), (-signal.SIGPIPE, b""))

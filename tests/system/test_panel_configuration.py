"""The panel's configuration file as the program meets it: where it looks for a mailbox's attachments.

The root of the mailboxes' folders is the one value that a run shows from outside.
"""

import pathlib

import expected
from harness import NOBODY, RECIPIENT, SystemTest
from panel import CONFIGURATION

DEFAULT = "/var/qmail/mailnames"
OTHER = DEFAULT + "/other"
SENDER = "sam@sender.example"

# name of the case, the file's text, the root that it gives
FILES = [
    ("one line", f"QUARX_MAILNAMES_D {OTHER}\n", OTHER),
    ("no line feed at the end", f"QUARX_MAILNAMES_D {OTHER}", OTHER),
    ("several blanks and tabs", f" \t QUARX_MAILNAMES_D \t  {OTHER}\n", OTHER),
    ("among others", f"HTTPD_SERVICE apache2\n\n# note\nQUARX_MAILNAMES_D {OTHER}\nDUMP_D /dumps\n", OTHER),
    ("among a hundred others", "".join(f"NAME{number} value\n" for number in range(60))
     + f"QUARX_MAILNAMES_D {OTHER}\n" + "".join(f"name{number} value\n" for number in range(60)), OTHER),
    ("a comment behind it", f"QUARX_MAILNAMES_D {OTHER} # note\n", OTHER),
    ("a comment without a blank", f"QUARX_MAILNAMES_D {OTHER}#note\n", OTHER),
    ("a trailing blank is kept with its line feed", f"QUARX_MAILNAMES_D {OTHER} \n", f"{OTHER} \n"),
    ("of three trailing blanks the last is cut", f"QUARX_MAILNAMES_D {OTHER}  \n", f"{OTHER}  "),
    ("a carriage return is kept with its line feed", f"QUARX_MAILNAMES_D {OTHER}\r\n", f"{OTHER}\r\n"),
    ("a trailing blank at the end of the file is cut", f"QUARX_MAILNAMES_D {OTHER} ", OTHER),
    ("inner blanks are kept", f"QUARX_MAILNAMES_D {OTHER} and more\n", f"{OTHER} and more"),
    ("the last of several", f"QUARX_MAILNAMES_D /first\nQUARX_MAILNAMES_D {OTHER}\n", OTHER),
    ("a malformed later one changes nothing", f"QUARX_MAILNAMES_D {OTHER}\nQUARX_MAILNAMES_D=/x\n", OTHER),
    ("a slash at the end", f"QUARX_MAILNAMES_D {OTHER}/\n", f"{OTHER}/"),
    ("an empty file", "", DEFAULT),
    ("another name", "MAILNAMES_D /x\nXQUARX_MAILNAMES_D /x\nQUARX_MAILNAMES_D_ /x\n", DEFAULT),
    ("another letter case", "quarx_mailnames_d /x\n", DEFAULT),
    ("an equals sign", f"QUARX_MAILNAMES_D={OTHER}\n", DEFAULT),
    ("no value", "QUARX_MAILNAMES_D\n", DEFAULT),
    ("blanks for a value", "QUARX_MAILNAMES_D   \n", DEFAULT),
    ("a comment for a value", f"QUARX_MAILNAMES_D # {OTHER}\n", DEFAULT),
    ("a comment", f"# QUARX_MAILNAMES_D {OTHER}\n", DEFAULT),
    ("no name", f"= {OTHER}\n", DEFAULT),
    ("malformed lines before it", f"A=1\n=\nB\nC #\n\t-\n\x01\x02\nQUARX_MAILNAMES_D {OTHER}\n", OTHER),
    ("a NUL byte ends its line", f"QUARX_MAILNAMES_D {OTHER}\0/x\n", OTHER),
    ("a very long line before it", "LONG " + "x" * 300_000 + f"\nQUARX_MAILNAMES_D {OTHER}\n", OTHER),
    ("bytes that are no text", "".join(map(chr, range(1, 256))) + f"\nQUARX_MAILNAMES_D {OTHER}\n", OTHER),
]


class MailnamesFolder(SystemTest):
    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text="See the price list.", ans_freq="1000")
        self.panel.sql("insert into resp_attach set rn_id=%s, filename='prices.txt'", self.responder)

    def put_attachment(self, root, content):
        folder = pathlib.Path(f"{root}/example.com/info/@attachments")
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "prices.txt").write_bytes(content)

    def assert_root(self, root, **how):
        """The attachment is taken from below the root, and the run is quiet."""
        self.put_attachment(DEFAULT, b"from the default folder\n")
        self.put_attachment(OTHER, b"from the other folder\n")
        self.put_attachment(root, b"from the right folder\n")
        result = self.run_program(**how)
        self.assert_ended(result)
        self.assert_nothing_left(result)
        self.assertEqual(len(result.mails), 1)
        self.assert_bytes(
            result.mails[0].stdin,
            expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"See the price list.",
                           attachments=[("prices.txt", b"from the right folder\n")]))

    def test_from_the_files_text(self):
        for name, text, root in FILES:
            with self.subTest(name):
                CONFIGURATION.write_bytes(text.encode("latin-1"))
                self.assert_root(root)

    def test_without_a_file(self):
        self.assert_root(DEFAULT)

    def test_with_a_folder_in_its_place(self):
        self.addCleanup(CONFIGURATION.rmdir)
        CONFIGURATION.mkdir()
        self.assert_root(DEFAULT)

    def test_with_a_link_that_leads_nowhere(self):
        CONFIGURATION.symlink_to("/nowhere")
        self.assert_root(DEFAULT)

    def test_with_a_file_that_this_user_may_not_read(self):
        self.panel.configuration(f"QUARX_MAILNAMES_D {OTHER}\n")
        CONFIGURATION.chmod(0o600)
        self.let_everybody_read_the_password()
        self.assert_root(DEFAULT, user=NOBODY)

    def test_with_a_file_that_this_user_may_read(self):
        self.panel.configuration(f"QUARX_MAILNAMES_D {OTHER}\n")
        CONFIGURATION.chmod(0o644)
        self.let_everybody_read_the_password()
        self.assert_root(OTHER, user=NOBODY)

    def let_everybody_read_the_password(self):
        pathlib.Path("/etc/qrx/.qrx.shadow").chmod(0o644)

    # A short file is read by two calls: its text, and its end.

    def failing_read(self, when):
        return ["-P", str(CONFIGURATION), "-e", "trace=read", "-e", f"inject=read:error=EIO:when={when}"]

    def test_with_a_file_that_always_fails_at_its_end(self):
        """The lines before the failure are not used either."""
        self.panel.configuration(f"QUARX_MAILNAMES_D {OTHER}\n")
        self.assert_root(DEFAULT, strace=self.failing_read("2+2"))

    def test_with_a_file_that_fails_once_is_loaded_at_the_next_need(self):
        self.panel.configuration(f"QUARX_MAILNAMES_D {OTHER}\n")
        self.assert_root(OTHER, strace=self.failing_read("2"))

    def test_is_relative_to_where_the_program_runs_when_it_is_written_so(self):
        self.panel.configuration("QUARX_MAILNAMES_D other\n")
        self.assert_root(OTHER, cwd=DEFAULT)

    def test_the_file_is_read_once_for_all_responders(self):
        second = self.panel.responder(self.mailbox)
        self.panel.sql("insert into resp_attach set rn_id=%s, filename='prices.txt'", second)
        self.panel.configuration(f"QUARX_MAILNAMES_D {OTHER}\n")
        self.put_attachment(OTHER, b"cheap\n")
        result = self.run_program(strace=["-e", "trace=open,openat"])
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 2)
        self.assertEqual(result.trace.count('"/etc/qrx/qrx.conf"'), 1)

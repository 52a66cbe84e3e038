"""Postfix, with the configuration of the operating guide."""

import pathlib
import re
import shutil
import smtplib
import subprocess

import guide
import mail_system
import sandbox
from mail_system_case import CLIENT, INFO, MAILBOXES, SALES, SAM, MailSystemCases, MailSystemTest

_CONFIGURATION = pathlib.Path("/etc/postfix")
_SPOOL = pathlib.Path("/var/spool/postfix")
_LOG = pathlib.Path("/var/log/mail.log")

# What a host has already: virtual mailboxes, an alias of one, and a domain all for one.
_HOST = """
compatibility_level = 3.6
myhostname = mail.example
mydestination = localhost
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
alias_maps =
smtpd_peername_lookup = no
disable_dns_lookups = yes
maillog_file = /var/log/mail.log
virtual_alias_domains = all.example
virtual_mailbox_domains = example.com, sender.example, panel.example
virtual_mailbox_base = /var/vmail
virtual_mailbox_maps = texthash:/etc/postfix/mailboxes
virtual_uid_maps = static:{uid}
virtual_gid_maps = static:{gid}
"""


class Postfix(MailSystemCases, MailSystemTest):
    name = "postfix"

    @classmethod
    def configure(cls):
        cls._finish_the_installation()
        cls._start_as_it_was()
        cls._append("autoresponder", guide.block("postfix-map"))
        guide.run_block("postfix-postmap")
        cls._append("main.cf", cls._with_the_map_of_the_host(guide.block("postfix-main")))
        cls._append("master.cf", guide.block("postfix-master"))
        cls._until_reloaded(lambda: guide.run_block("postfix-commands"))

    @staticmethod
    def _with_the_map_of_the_host(settings):
        """The autoresponder's map with the host's own appended, as the guide says."""
        alone = "virtual_alias_maps = hash:/etc/postfix/autoresponder"
        both = alone + ", hash:/etc/postfix/virtual"
        if f"`{both}`" not in guide.text() or alone + "\n" not in settings:
            raise AssertionError("the guide doesn't say how maps are appended")
        return settings.replace(alone, both)

    @classmethod
    def _until_reloaded(cls, change):
        done = cls.log().count(" reload -- version")
        change()
        mail_system.wait_until("the new configuration", lambda: cls.log().count(" reload -- version") > done)
        mail_system.wait_until("an answer over SMTP", mail_system.answers_smtp)

    def set_for_this_case(self, setting):
        """Changes main.cf, and puts it back when the case ends."""
        self.change_main_cf(lambda: guide.run_commands(f"postconf -e '{setting}' && postfix reload"))

    def change_main_cf(self, change):
        main = _CONFIGURATION / "main.cf"
        kept = main.read_bytes()
        self._until_reloaded(change)

        def put_back():
            main.write_bytes(kept)
            self._until_reloaded(lambda: guide.run_commands("postfix reload"))
        self.addCleanup(put_back)

    @classmethod
    def _start_as_it_was(cls):
        vmail = mail_system.account("vmail")
        cls._append("main.cf", _HOST.format(uid=vmail.pw_uid, gid=vmail.pw_gid))
        cls._append("mailboxes", "".join("{0} {2}/{1}/\n".format(address, *address.split("@"))
                                         for address in MAILBOXES))
        cls._append("virtual", "office@example.com info@example.com\n@all.example info@example.com\n")
        for command in (["postmap", "/etc/postfix/virtual"], ["postconf", "-F", "*/*/chroot=n"], ["postfix", "start"]):
            subprocess.run(command, check=True, capture_output=True)

    @staticmethod
    def _finish_the_installation():
        """What the package's maintainer scripts do."""
        mail_system.add_user("postfix", group="postdrop")
        mail_system.own_folder(_CONFIGURATION)
        shutil.copytree(mail_system.UNPACKED / "etc/postfix", _CONFIGURATION, dirs_exist_ok=True)
        shutil.copyfile(mail_system.UNPACKED / "usr/share/postfix/master.cf.dist", _CONFIGURATION / "master.cf")
        shutil.copytree(mail_system.UNPACKED / "var/spool/postfix", _SPOOL)
        data = pathlib.Path("/var/lib/postfix")
        data.mkdir()
        shutil.chown(data, "postfix")
        for name in ("postdrop", "postqueue"):
            program = mail_system.UNPACKED / "usr/sbin" / name
            shutil.chown(program, group="postdrop")
            program.chmod(0o2555)

    @staticmethod
    def _append(name, content):
        with open(_CONFIGURATION / name, "a", encoding="ascii") as file:
            file.write(content)

    @classmethod
    def shut_down(cls):
        master = int((_SPOOL / "pid/master.pid").read_text())
        mail_system.end(master)

    @staticmethod
    def queue():
        return mail_system.files_below(*(_SPOOL / name for name in ("maildrop", "incoming", "active", "deferred")))

    @staticmethod
    def log():
        return _LOG.read_text(encoding="utf-8", errors="replace")

    @staticmethod
    def last_line(answer):
        return re.search(r"queued as (\w+)", answer)[1] + ": removed"

    @staticmethod
    def failures(log):
        return re.findall(r".*status=(?!sent).*|.*postfix/\w+\[\d+\]: (?:fatal|panic|error|warning): .*", log)

    def test_the_log_shows_what_the_program_reports(self):
        self.furnish()
        self.stop_server()
        self.receive()
        shown = re.search(r"relay=autoresponder, .* status=sent \(delivered via autoresponder service \((.*)\)\)$",
                          self.news(), re.MULTILINE)[1]
        self.assertTrue(shown.startswith("autoresponder: Unable to connect to Quarx Database: "), shown)
        self.assertEqual(len(shown), 100)

    def test_the_check_of_a_listed_mailbox(self):
        check = "postmap -q info@example.com hash:/etc/postfix/autoresponder"
        self.assertIn(check.replace("info@example.com", "ADDRESS"), guide.text())
        self.assertEqual(guide.run_commands(check), "info@example.com, answer@autoresponder.invalid\n")

    def test_a_map_that_does_not_exist_stops_all_mail(self):
        self.set_for_this_case("virtual_alias_maps = hash:/etc/postfix/autoresponder, hash:/etc/postfix/missing")
        with smtplib.SMTP("127.0.0.1", timeout=mail_system.PATIENCE_SECONDS) as client:
            client.ehlo("client.example")
            client.mail(SAM)
            self.assertEqual(client.rcpt(CLIENT)[0], 451)

    def test_stopped_at_once_a_message_is_delivered_and_gets_nothing(self):
        self.furnish()
        self.change_main_cf(lambda: guide.run_block("postfix-stop"))
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM)
        self.assert_nothing_failed()

    def test_the_replies_of_a_mailbox_are_listed_and_deleted_in_the_queue(self):
        self.set_for_this_case("defer_transports = virtual")
        for sender in (INFO, SALES):
            subprocess.run([sandbox.SENDMAIL, "-f", sender, SAM], input=b"Subject: queued\n\n", check=True)
        self.wait_for("two deferred messages",
                      lambda: guide.run_commands("postqueue -p").count("deferred transport") == 2)
        listed = guide.run_block("postfix-queued")
        self.assertEqual((listed.count(INFO), listed.count(SALES)), (1, 0), listed)
        self.assertIn("Deleted: 1 message", guide.run_block("postfix-delete"))
        left = guide.run_commands("postqueue -p")
        self.assertEqual((left.count(INFO), left.count(SALES)), (0, 1), left)
        guide.run_commands("postsuper -d ALL")

    def test_a_reply_over_the_message_size_limit_is_refused_unless_databytes_says_so(self):
        self.panel.attachment(self.furnish(), "large.bin", bytes(9_000_000))
        self.receive()
        self.assert_delivered(SAM)
        self.assertIn("postdrop: warning: uid=", self.news())
        self.panel.databytes("10240000\n")
        self.receive()
        self.assertIn(b"Autoresponder message size exceeds databytes limit.", self.only_mail(SAM))

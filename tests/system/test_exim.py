"""Exim, with the configuration of the operating guide."""

import pathlib
import re
import shutil
import subprocess

import guide
import mail_system
import sandbox
from mail_system_case import INFO, SALES, SAM, MailSystemCases, MailSystemTest, parsed

_CONFIGURATION = pathlib.Path("/etc/exim4")
_SPOOL = pathlib.Path("/var/spool/exim4")
_LOG = pathlib.Path("/var/log/exim4")
_PID = pathlib.Path("/run/exim4/exim.pid")

# What a host has already: local mailboxes, an alias of one, and a domain all for one.
_HOST = """
primary_hostname = mail.example
domainlist local_domains = example.com : sender.example : panel.example : all.example
local_interfaces = 127.0.0.1
host_lookup =
keep_environment =
tls_advertise_hosts =
rfc1413_query_timeout = 0s
pid_file_path = /run/exim4/exim.pid
acl_smtp_rcpt = check_rcpt
acl_smtp_data = check_data
{main}
begin acl
check_rcpt:
  accept domains = +local_domains
check_data:
  accept

begin routers
{routers}
aliases:
  driver = redirect
  condition = ${{if or{{{{eq{{$local_part@$domain}}{{office@example.com}}}}{{eq{{$domain}}{{all.example}}}}}}}}
  data = info@example.com
mailboxes:
  driver = accept
  domains = +local_domains
  local_parts = info : sales : sam : boss : carla
  transport = maildir

begin transports
{transports}
maildir:
  driver = appendfile
  maildir_format
  create_directory
  directory = /var/vmail/$domain_data/$local_part_data
  return_path_add
  user = vmail
"""


class Exim(MailSystemCases, MailSystemTest):
    name = "exim4-daemon-light"

    @classmethod
    def configure(cls):
        cls._finish_the_installation()
        cls._write_configuration()
        subprocess.run(["exim4", "-bd"], check=True)
        mail_system.wait_until("an answer over SMTP", mail_system.answers_smtp)
        (_CONFIGURATION / "autoresponder").write_text(guide.block("exim-list"))
        cls._load(*cls._blocks())

    @staticmethod
    def _blocks():
        return [guide.block(f"exim-{part}") for part in ("main", "router", "transport")]

    @classmethod
    def _load(cls, *parts):
        cls._write_configuration(*parts)
        started = cls.log().count(" daemon started: ")
        guide.run_block("exim-commands")
        mail_system.wait_until("the new configuration", lambda: cls.log().count(" daemon started: ") > started)
        mail_system.wait_until("an answer over SMTP", mail_system.answers_smtp)

    @staticmethod
    def _finish_the_installation():
        """What the package's maintainer scripts do."""
        mail_system.add_user("Debian-exim")
        mail_system.own_folder(_CONFIGURATION)
        for folder in (_SPOOL, _LOG, _PID.parent):
            folder.mkdir(parents=True)
            shutil.chown(folder, "Debian-exim", "Debian-exim")

    @staticmethod
    def _write_configuration(main="", routers="", transports=""):
        (_CONFIGURATION / "exim4.conf").write_text(
            _HOST.format(main=main, routers=routers, transports=transports), encoding="ascii")

    @staticmethod
    def shut_down():
        mail_system.end(int(_PID.read_text()))

    @staticmethod
    def queue():
        return mail_system.files_below(_SPOOL / "input")

    @staticmethod
    def log():
        return (_LOG / "mainlog").read_text(encoding="utf-8", errors="replace")

    @staticmethod
    def last_line(answer):
        return re.search(r"id=(\S+)", answer)[1] + " Completed"

    @staticmethod
    def failures(log):
        """See "Logging information" in Exim's documentation: ** is a failed address, == a deferred one."""
        panic = _LOG / "paniclog"
        return re.findall(r".* (?:\*\*|==|Frozen) .*", log) + (panic.read_text().splitlines() if panic.exists() else [])

    def test_the_log_shows_what_the_program_reports(self):
        self.furnish()
        self.stop_server()
        self.receive()
        self.assertRegex(self.news(), r"<info@example\.com>: autoresponder transport output: "
                                      r"autoresponder: Unable to connect to Quarx Database: .*mysqld\.sock")

    def test_the_check_of_a_listed_mailbox(self):
        check = "exim4 -bt -f sender@example.org info@example.com"
        self.assertIn(check.replace("info@example.com", "ADDRESS"), guide.text())
        self.assertIn("router = autoresponder, transport = autoresponder\n", guide.run_commands(check))

    def test_a_configuration_with_an_error_is_not_loaded(self):
        self.addCleanup(self._write_configuration, *self._blocks())
        started = self.log().count(" daemon started: ")
        self._write_configuration("trusted_users = autoresponder\n" * 2)
        with self.assertRaisesRegex(AssertionError, "trusted_users.* set for the second time"):
            guide.run_block("exim-commands")
        self.assertEqual(self.log().count(" daemon started: "), started)

    def robots_passed_over(self):
        """From here on the router has the guide's further condition."""
        main, router, transport = self._blocks()
        self._load(main, router + guide.block("exim-robots"), transport)
        self.addCleanup(self._load, main, router, transport)

    def test_with_the_further_condition_robots_are_passed_over_and_others_are_not(self):
        self.furnish(ans_freq="100")
        self.robots_passed_over()
        for field, answered in (("List-Id: <all.lists.example>", False), ("Precedence: bulk", False),
                                ("Precedence: List", False), ("Precedence: junk", False),
                                ("Precedence: first-class", True), ("Auto-Submitted: auto-replied", False),
                                ("Auto-Submitted: auto-generated; x=y", False), ("Auto-Submitted: No", True),
                                ("X-Other: bulk", True)):
            with self.subTest(field=field):
                mail_system.empty_mailboxes()
                self.receive(header=f"From: {SAM}\n{field}\n")
                self.assert_delivered(INFO, "When are you open?\n")
                self.assertEqual(len(mail_system.mailbox(SAM)), int(answered), self.news())
        self.assert_nothing_failed()

    def test_without_it_they_are_answered(self):
        self.furnish()
        self.receive(header=f"From: {SAM}\nList-Id: <all.lists.example>\nAuto-Submitted: auto-replied\n")
        self.assertEqual(len(mail_system.mailbox(SAM)), 1)
        self.assertNotIn("Auto-Submitted", parsed(self.only_mail(SAM)))

    def test_stopped_at_once_a_message_is_delivered_and_gets_nothing(self):
        self.furnish()
        guide.run_block("exim-stop")
        self.addCleanup((_CONFIGURATION / "autoresponder.kept").rename, _CONFIGURATION / "autoresponder")
        self.receive()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assert_delivered(SAM)
        self.assert_nothing_failed()

    def test_without_the_list_a_message_is_delivered_and_has_a_line_in_the_panic_log(self):
        listed, panic = _CONFIGURATION / "autoresponder", _LOG / "paniclog"
        kept = listed.rename(_CONFIGURATION / "away")
        self.receive()
        kept.rename(listed)
        said = panic.read_text()
        panic.unlink()
        self.assert_delivered(INFO, "When are you open?\n")
        self.assertRegex(said, "failed to open /etc/exim4/autoresponder")

    def test_the_replies_of_a_mailbox_are_listed_and_deleted_in_the_queue(self):
        for sender in (INFO, SALES):
            subprocess.run([sandbox.SENDMAIL, "-odq", "-f", sender, SAM], input=b"Subject: queued\n\n", check=True)
        listed = guide.run_block("exim-queued")
        self.assertEqual((listed.count(INFO), listed.count(SALES)), (1, 0), listed)
        self.assertIn("has been removed", guide.run_block("exim-delete"))
        left = guide.run_commands("exim4 -bp")
        self.assertEqual((left.count(INFO), left.count(SALES)), (0, 1), left)
        guide.run_commands("exim4 -qff")
        self.settle()

    def test_debians_configuration_takes_the_blocks_in_its_folders(self):
        """The package's own files, split, and what update-exim4.conf makes of them."""
        folder = pathlib.Path("/tmp/exim4")
        shutil.copytree(mail_system.UNPACKED / "etc/exim4", folder)
        (folder / "update-exim4.conf.conf").write_text("dc_eximconfig_configtype='internet'\n"
                                                       "dc_use_split_config='true'\n")
        pathlib.Path("/etc/mailname").unlink(missing_ok=True)
        pathlib.Path("/etc/mailname").write_text("mail.example\n")
        for place, name in (("main/000_local", "debian"), ("router/050_autoresponder", "router"),
                            ("transport/30_autoresponder", "transport")):
            self.assertIn(f"`/etc/exim4/conf.d/{place}`", guide.text())
            (folder / "conf.d" / place).write_text(guide.block(f"exim-{name}"))
        guide.run_commands(f"update-exim4.conf -d {folder} -o {folder}/made; chmod 644 {folder}/made")
        exim = f"exim4 -C {folder}/made"
        self.assertEqual(guide.run_commands(f"{exim} -bP trusted_users"), "trusted_users = uucp:autoresponder\n")
        self.assertTrue(guide.run_commands(f"{exim} -bP router_list").startswith("autoresponder\n"))
        self.assertIn("autoresponder\n", guide.run_commands(f"{exim} -bP transport_list"))

    def test_the_check_of_the_trusted_users(self):
        check = "exim4 -bP trusted_users"
        self.assertIn(check, guide.text())
        self.assertEqual(guide.run_commands(check), "trusted_users = autoresponder\n")

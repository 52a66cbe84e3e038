"""Exim, with the configuration of the operating guide."""

import pathlib
import re
import shutil
import subprocess

import guide
import mail_system
from mail_system_case import MailSystemCases, MailSystemTest

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
        cls._write_configuration(main="", routers="", transports="")
        subprocess.run(["exim4", "-bd"], check=True)
        mail_system.wait_until("an answer over SMTP", mail_system.answers_smtp)
        (_CONFIGURATION / "autoresponder").write_text(guide.block("exim-list"))
        cls._write_configuration(*(guide.block(f"exim-{part}") for part in ("main", "router", "transport")))
        guide.run_block("exim-commands")
        mail_system.wait_until("the new configuration", lambda: cls.log().count(" daemon started: ") == 2)

    @staticmethod
    def _finish_the_installation():
        """What the package's maintainer scripts do."""
        mail_system.add_user("Debian-exim")
        mail_system.own_folder(_CONFIGURATION)
        for folder in (_SPOOL, _LOG, _PID.parent):
            folder.mkdir(parents=True)
            shutil.chown(folder, "Debian-exim", "Debian-exim")

    @staticmethod
    def _write_configuration(main, routers, transports):
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

    def test_the_check_of_the_trusted_users(self):
        check = "exim4 -bP trusted_users"
        self.assertIn(check, guide.text())
        self.assertEqual(guide.run_commands(check), "trusted_users = autoresponder\n")

"""Postfix, with the configuration of the operating guide."""

import pathlib
import re
import shutil
import subprocess

import guide
import mail_system
from mail_system_case import MAILBOXES, MailSystemCases, MailSystemTest

_CONFIGURATION = pathlib.Path("/etc/postfix")
_SPOOL = pathlib.Path("/var/spool/postfix")
_LOG = pathlib.Path("/var/log/mail.log")

# What a host has already: virtual mailboxes, and an alias of one.
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
        cls._append("main.cf", guide.block("postfix-main"))
        cls._append("master.cf", guide.block("postfix-master"))
        cls._append("autoresponder", guide.block("postfix-map"))
        guide.run_block("postfix-commands")

    @classmethod
    def _start_as_it_was(cls):
        vmail = mail_system.account("vmail")
        cls._append("main.cf", _HOST.format(uid=vmail.pw_uid, gid=vmail.pw_gid))
        cls._append("mailboxes", "".join("{0} {2}/{1}/\n".format(address, *address.split("@"))
                                         for address in MAILBOXES))
        cls._append("virtual", "office@example.com info@example.com\n")
        for command in (["postmap", "/etc/postfix/virtual"], ["postconf", "-F", "*/*/chroot=n"], ["postfix", "start"]):
            subprocess.run(command, check=True, capture_output=True)

    @staticmethod
    def _finish_the_installation():
        """What the package's maintainer scripts do."""
        mail_system.add_user("postfix", group="postdrop")
        shutil.copytree(mail_system.UNPACKED / "etc/postfix", _CONFIGURATION)
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
    def failures(log):
        return re.findall(r".*status=(?!sent).*|.*postfix/\w+\[\d+\]: (?:fatal|panic|error|warning): .*", log)

    def test_the_log_shows_what_the_program_reports(self):
        self.furnish()
        self.stop_server()
        self.receive()
        self.assertRegex(self.news(), r"relay=autoresponder, .* status=sent \(delivered via autoresponder service \(.*"
                                      r"Unable to connect to Quarx Database: ")

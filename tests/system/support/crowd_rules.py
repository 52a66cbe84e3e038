"""What each run of a crowd may say and send, and what it may leave; all that breaks a rule, as text."""

import collections
import functools
import re

import crowd
import expected

SENDMAIL = "/usr/sbin/sendmail"
_NOT_CONNECTED = b"autoresponder: Unable to connect to the mysql database \n"
_SYSTEM_ERROR = rb"(System error \d+: [^\n]*\n)?"
_REFUSAL = rb"autoresponder: Unable to connect to Quarx Database: %s\n" + _SYSTEM_ERROR
_NO_SOCKET = rb"Can't connect to local server through socket '/run/mysqld/mysqld\.sock' \(\d+\)"
# How a server that goes down ends a connection under way, and one that is being made.
_GOING_DOWN = (rb"(Lost connection to server|Server has gone away|Server shutdown in progress"
               rb"|Query execution was interrupted|Connection was killed)[^\n]*")
_HALF_MADE = rb"autoresponder: DB error \(set names query\) \d+: " + _GOING_DOWN + rb"\n" + _SYSTEM_ERROR
_FAILED_QUERY = re.compile(
    rb"(autoresponder: Unable to query: |autoresponder: Unable to exec query :)" + _GOING_DOWN + rb"\n")
# The notification's own questions: without an answer it isn't sent, or goes out in root's name. The panel
# library reports on both streams.
_NO_CLIENT = re.compile(rb"Unable to define client email and personal name :" + _GOING_DOWN + rb"\n")
_NO_PARAMETER = re.compile(rb"autoresponder: Unable to query parameter by query select val from misc where"
                           rb" param='(admin_email|FullHostName)': " + _GOING_DOWN + rb"\n(\n" + _SYSTEM_ERROR
                           + rb")?")

DEADLOCK = b"Deadlock found when trying to get lock; try restarting transaction"
_DEADLOCKED = b"autoresponder: Unable to exec query :" + DEADLOCK + b"\n"

FULL = re.compile(_REFUSAL % (rb"(Too many connections|" + _NO_SOCKET + rb")"))
DOWN = re.compile(_REFUSAL % (rb"(" + _NO_SOCKET + rb"|" + _GOING_DOWN + rb")") + rb"|" + _HALF_MADE)


def how_it_ended(run, unconnected=None, may_lose_connection=False):
    """"answered" (by no or more mails), "killed", "unconnected", "failed query", or None when it breaks a rule.

    unconnected: what a run without a connection may say
    """
    if run.killed and run.status == -9:
        return "killed"
    if run.status != 0:
        return None
    if run.stdout == run.stderr == b"":
        return "answered"
    if unconnected and unconnected.fullmatch(run.stdout) and run.stderr == run.stdout + _NOT_CONNECTED:
        return "unconnected"
    if is_deadlocked(run) or (may_lose_connection and _is_lost_connection(run)):
        return "failed query"
    return None


def is_deadlocked(run):
    """Whether it ended because the server gave its statement up for another run's."""
    return run.stdout == b"" and run.stderr == _DEADLOCKED


def _is_lost_connection(run):
    on_both_streams = b"".join(match[0] for match in _NO_PARAMETER.finditer(run.stderr))
    rest = run.stderr
    for known in (_NO_PARAMETER, _NO_CLIENT, _FAILED_QUERY):
        rest = known.sub(b"", rest)
    return rest == b"" and run.stdout == on_both_streams


class Mails:
    """The mails of a crowd, by responder and sender; what is none of them is in `wrong`."""

    def __init__(self, mails, responders, may_be_cut=False):
        """may_be_cut: a notification whose writer was killed comes without its text"""
        self.replies = collections.Counter()
        self.forwards = collections.Counter()
        self.notifications = 0
        self.wrong = []
        self._responders = {responder.text: responder for responder in responders}
        self._may_be_cut = may_be_cut
        for mail in mails:
            if not (mail.complete and self._takes(mail)):
                self.wrong.append(f"sendmail {mail.argv[1:]} was given {mail.stdin[:300]!r}"
                                  f"{'' if mail.complete else ' and did not end'}")

    def _takes(self, mail):
        path, option, sender, *recipients = mail.argv
        if path != SENDMAIL or option != "-f" or len(recipients) != 1:
            return False
        if sender == "root@localhost":
            return self._takes_notification(recipients[0], mail.stdin)
        if recipients == ["archive@example.com"]:
            return self._takes_forward(sender, mail.stdin)
        return self._takes_reply(sender, recipients[0], mail.stdin)

    def _takes_notification(self, recipient, text):
        self.notifications += 1
        wanted = expected.notification("root@localhost", "carla@panel.example", "Carla Client", "sales",
                                       "example.com", ["gone.pdf"])
        return recipient == "carla@panel.example" and (text == wanted or (self._may_be_cut and text == b""))

    def _takes_forward(self, mailbox, text):
        writer = re.match(rb"From: (\S+)\n", text)
        if mailbox != "sales@example.com" or not writer:
            return False
        self.forwards[writer[1].decode()] += 1
        return text == expected.message_copy(crowd.message(writer[1].decode()))

    def _takes_reply(self, mailbox, recipient, text):
        for line, responder in self._responders.items():
            if line in text:
                self.replies[responder.id, recipient] += 1
                return (mailbox == f"{responder.mailbox}@example.com"
                        and text == _reply(recipient, mailbox, line, responder.attachments))
        return False


@functools.cache
def _reply(sender, mailbox, text, attachments):
    return expected.reply(sender, mailbox, "Re: Crowd", text, attachments=attachments)


def wrong_counts(counted, replies, broken_off=(), unlogged=()):
    """Each responder and sender whose replies aren't those that were counted, as text.

    broken_off: runs that ended before their time, so that what they counted may not have been sent
    unlogged: runs that may have counted a reply without being seen to
    """
    fewer, more = (collections.Counter(run.sender for run in runs) for runs in (broken_off, unlogged))
    return [f"responder {key[0]}, {key[1]}: {replies[key]} replies, {counted.get(key, 0)} counted"
            for key in {*counted, *replies}
            if not counted.get(key, 0) - fewer[key[1]] <= replies[key] <= counted.get(key, 0) + more[key[1]]]


def wrong_files(files, killed):
    """What lies in /tmp and may not: a killed run may leave its copy of the message and its reply, nothing else."""
    wrong = [file.path for file in files
             if file.name not in ("qrx-autoresponder-XXXXXX", "qrx-response-uu-XXXXXX") or file.mode != 0o600]
    for name in ("qrx-autoresponder-XXXXXX", "qrx-response-uu-XXXXXX"):
        if (count := sum(file.name == name for file in files)) > killed:
            wrong.append(f"{count} files {name} of {killed} killed runs")
    return wrong

"""What one failing system call or statement does to the run of sweep.py: the rules, in words of outcomes.

A rule knows what the run had done when the fault came (a Story, read from the run's own trace) and says
what must follow. A call that no rule names may fail without anybody noticing.
"""

import dataclasses
import errno
import os
import re

from sweep import ALL, ATTACHMENT, COPY, HOST, Outcome, forward, notification, replaced, reply, without

QUERY_FAILED = rb"autoresponder: Unable to exec query :"
NO_CONNECTION = rb"autoresponder: Unable to connect to the mysql database \n"
ATTACHED = "/@attachments/here"
ANY = rb"[^\n]+"
SYSTEM_ERROR = rb"(\n?System error \d+: [^\n]+\n)?"


def logged(text):
    """A message of the panel library's reporter, which may name a system error."""
    return rb"autoresponder: " + text + rb"\n" + SYSTEM_ERROR


def unnoticed():
    return Outcome(mails=ALL)


def ends(stderr, started, stdout=b""):
    """An ordinary end: what was started has been sent, and no file stays."""
    return Outcome(stderr=stderr, stdout=stdout, mails=ALL[:started])


def lacks(kind, responder, stderr):
    """The run goes on to its end without this one mail."""
    return Outcome(stderr=stderr, mails=without(kind, responder))


def alters(mail, stderr=b""):
    return Outcome(stderr=stderr, mails=replaced(mail))


# Statements


def no_connection(reason):
    text = logged(reason)
    return Outcome(stderr=text + NO_CONNECTION, stdout=text)


def failed_statement(statement, started, lost, error=ANY):
    """What follows a statement that fails; lost: the connection is gone with it.

    started: how many mails had been started; error: what the client library says, as a pattern
    """
    if statement == "SET NAMES utf8":
        return no_connection(rb"DB error \(set names query\) \d+: " + error)
    if statement.startswith("select m.id"):
        return ends(rb"autoresponder: Unable to query: " + error + rb"\n", started)
    responder = started // 3
    if statement.startswith("select c.email"):
        stderr = rb"Unable to define client email and personal name :" + error + rb"\n"
        outcome = Outcome(stderr=stderr, mails=without("notification", responder))
    elif statement.startswith("select val from misc"):
        outcome = failed_parameter(statement, responder, lost, error)
    else:
        return ends(QUERY_FAILED + error + rb"\n", started)
    if lost and responder == 0:  # the other responder's first statement finds the connection gone
        outcome.stderr += QUERY_FAILED + ANY + rb"\n"
        outcome.mails = tuple(mail for mail in outcome.mails if mail.responder == 0)
    return outcome


def failed_parameter(statement, responder, lost, error):
    """A parameter that can't be read is as one that isn't set."""
    message = logged(rb"Unable to query parameter by query " + re.escape(statement.encode()) + rb": " + error)
    if "admin_email" in statement and not lost:
        return Outcome(stderr=message, stdout=message, mails=ALL)
    if "admin_email" in statement:
        message += logged(rb"Unable to query parameter by query [^\n]+FullHostName'" + rb": " + ANY)
    without_host = ALL[3 * responder + 1]
    sender = "root@localhost"
    changed = dataclasses.replace(without_host, argv=(*without_host.argv[:2], sender, *without_host.argv[3:]),
                                  text=without_host.text.replace(f"root@{HOST}".encode(), sender.encode()))
    return Outcome(stderr=message, stdout=message, mails=replaced(changed))


# System calls


@dataclasses.dataclass
class Story:
    """What the run had done before the call that failed."""
    started: int = 0       # children
    copy: bool = False     # the copy of the message is in /tmp
    response: bool = False
    written: int = 0       # bytes of the copy
    replied: int = 0       # bytes of the reply under way
    statement: str = ""    # the last one sent
    connected: bool = False
    logged_in: bool = False
    opened: str = ""       # the last file opened
    delivering: bool = False  # the reply has been opened to be sent
    attached: int = 0      # bytes read of the attachment opened last

    def tell(self, line):
        """Takes one line of the trace, of a call that succeeded or not."""
        if re.match(r"clone.* = [1-9]\d*$|vfork.* = [1-9]", line):
            self.started += 1
        elif match := re.match(r'openat\([^"]*"([^"]+)".* = \d', line):
            self.opened, self.attached = match[1], 0
            self.delivering = "/qrx-response-uu-" in match[1] and "O_CREAT" not in line
            self.copy = self.copy or "/qrx-autoresponder-" in match[1]
            self.response = self.response or "/qrx-response-uu-" in match[1]
        elif re.match(r'unlink\("/tmp/qrx-response-uu-.* = 0', line):
            self.response, self.replied = False, 0
        elif match := re.match(r"writev?\(\d+</tmp/qrx-response-uu-.* = (\d+)$", line):
            self.replied += int(match[1])
        elif match := re.match(r"write\(\d+</tmp/qrx-autoresponder-.* = (\d+)$", line):
            self.written += int(match[1])
        elif match := re.match(rf"read\(\d+<[^>]*{ATTACHED}>.* = (\d+)$", line):
            self.attached += int(match[1])
        elif re.match(r'sendto\(.*admin\\0', line):
            self.logged_in = True
        elif match := re.match(r'sendto\(.*?, ".{1,18}?\\0\\3((?:[^"\\]|\\.)*)"', line):
            self.statement = match[1]
        elif re.match(r"connect\(.*mysqld\.sock.* = 0", line):
            self.connected = True

    @property
    def responder(self):
        return self.started // 3

    def files(self):
        return {"copy": COPY} | ({"response": None} if self.response else {})


def fatal(story, text, stderr=b"", mails=None):
    """The end by the panel library's reporter: the temporary files stay."""
    text = logged(text)
    return Outcome(status=1, stderr=stderr + text, stdout=text, left=story.files(),
                   mails=ALL[:story.started] if mails is None else mails)


def no_copy(story, fault):
    return ends(rb"Could not create a temporary file\.\nAbnormal exit\.\n", 0)


def unreadable_message(story, fault):
    return ends(rb"autoresponder: Failed to read the message from standard input: " + fault.text + rb"\n", 0)


def short_copy(story, fault):
    """What could not be copied is missing from what is forwarded; nobody is told."""
    return Outcome(mails=tuple(forward(mail.responder, COPY[:story.written]) if mail.kind == "forward" else mail
                               for mail in ALL))


def no_password(what):
    return lambda story, fault: no_connection(
        rb"Unable to " + what + rb" admin password file: " + re.escape(os.strerror(fault.number).encode()))


def no_server(story, fault):
    return no_connection(rb"Unable to connect to Quarx Database: " + ANY)


def lost_server(story, fault):
    if not story.connected:
        return unnoticed()  # a question to another service, such as the one for names
    if not story.statement:
        return no_server(story, fault)
    return failed_statement(story.statement, story.started, lost=True)


def no_time_limit(story, fault):
    """The client library doesn't go on without one; after the log-in each call has its own besides."""
    return unnoticed() if story.logged_in else no_server(story, fault)


def not_forked(story, fault):
    return fatal(story, rb"fork_execv_pipes: fork\(\) failed")


def not_forwarded(text=None):
    return lambda story, fault: lacks(
        "forward", story.responder,
        rb"autoresponder: Failed to open temporary file with forward mail contents '/tmp/qrx-autoresponder-\w{6}': "
        + (text or fault.text) + rb"\n")


def not_opened(text=None):
    return lambda story, fault: fatal(
        story, rb"Send error: Failed to generate response mail contents",
        rb"autoresponder: Failed to open temporary file with response mail contents '/tmp/qrx-response-uu-\w{6}': "
        + (text or fault.text) + rb"\n")


def reply_not_looked_at(story, fault):
    """Without its size there is no limit to it; what can't be seen to be ours isn't sent."""
    return not_opened(_DENIED)(story, fault) if story.delivering else unnoticed()


def library_not_protected(story, fault):
    return not_recoded(story, fault) if story.opened.endswith(".so") else unnoticed()


def not_recoded(story, fault):
    return fatal(story, rb"Send error: Cannot convert from UTF-8 to ISO-8859-1")


def attachment_not_found(story, fault):
    """It is reported missing, and the reply goes without it."""
    missing = (["gone", "here"], ["here", "lost"])[story.responder]
    told = notification(story.responder, missing)
    if story.responder == 1:
        told = dataclasses.replace(told, text=b"Reply-To: desk@example.com" + told.text)
    return Outcome(mails=replaced(told, replaced(reply(story.responder, ()))))


def attachment_short(story, fault):
    """What could be read of it is sent; nobody is told."""
    return alters(reply(story.responder, (("here", ATTACHMENT[:story.attached]),)))


def attachment_not_opened(story, fault):
    return alters(reply(story.responder, (("here", b""),)),
                  rb"autoresponder: Failed to read attachement file '[^\n]*/@attachments/here': "
                  + fault.text + rb"\n")


def reply_not_written(story, fault):
    """What was written goes out, maybe nothing; nobody is told."""
    return alters(reply(story.responder, text=reply(story.responder).text[:story.replied]))


def no_pipe(story, fault):
    return lacks("notification", story.responder,
                 rb"autoresponder: Failed to create pipe to sendmail to notify about missing attachment files: "
                 + fault.text + rb"\n")


def notification_empty(stderr=b""):
    return lambda story, fault: alters(
        dataclasses.replace(ALL[3 * story.responder + 1], text=b""), stderr)


def copy_stays(story, fault):
    return Outcome(mails=ALL, left={"copy": COPY})


def not_waited_for(story, fault):
    return Outcome(mails=ALL, in_order=False)


# The C library's loader doesn't resume its reading of a library.
LOADERS = re.compile(r"read\(\d+<[^>]*\.so>")
_DENIED = rb"Permission denied \(13\)"
_LIBRARY = r"gconv/ISO8859-1\.so"
RULES = [
    (r"openat\(.*/qrx-autoresponder-\w+\", .*O_CREAT", no_copy),
    (r"read\(0<", unreadable_message),
    (r"write\(\d+</tmp/qrx-autoresponder-", short_copy),
    (r"openat\(.*/\.qrx\.shadow\"", no_password(rb"open")),
    (r"read\(\d+<[^>]*/\.qrx\.shadow>", no_password(rb"read")),
    (r"socket\(AF_UNIX, SOCK_STREAM, 0\)|connect\(.*mysqld\.sock", no_server),
    (r"sendto\(.*\"\\1\\0\\0\\0\\1\"", lambda story, fault: unnoticed()),  # the farewell
    (r"setsockopt\(.*TIMEO", no_time_limit),
    (r"recvfrom\(|sendto\(|poll\(", lost_server),
    (r"(clone3?|v?fork)\(", not_forked),
    (r"openat\(.*/qrx-autoresponder-\w+\", O_RDONLY", not_forwarded()),
    (r"newfstatat\(\d+</tmp/qrx-autoresponder-", not_forwarded(_DENIED)),
    (rf"(openat\(.*{_LIBRARY}\"|(read|newfstatat)\(\d+<[^>]*{_LIBRARY}>|mmap\(.*{_LIBRARY}>)", not_recoded),
    (r"mprotect\(", library_not_protected),
    (rf"newfstatat\(AT_FDCWD[^,]*, \".*{ATTACHED}\"", attachment_not_found),
    (rf"openat\(.*{ATTACHED}\"", attachment_not_opened),
    (rf"(read|newfstatat)\(\d+<[^>]*{ATTACHED}>", attachment_short),
    (r"writev?\(\d+</tmp/qrx-response-uu-", reply_not_written),
    (r"openat\(.*/qrx-response-uu-\w+\", O_RDONLY", not_opened()),
    (r"newfstatat\(\d+</tmp/qrx-response-uu-", reply_not_looked_at),
    (r"pipe2\(", no_pipe),
    (r"fcntl\(\d+<pipe:.*F_GETFL",
     notification_empty(rb"Unable to send mail with notify of not exist attachment\.\n")),
    (r"write\(\d+<pipe:", notification_empty()),
    (r"wait4\(", not_waited_for),
    (r"unlink\(\"/tmp/qrx-autoresponder-", copy_stays),
]


@dataclasses.dataclass
class Fault:
    """An error number that a system call was made to fail with."""
    number: int

    @property
    def text(self):
        """As the program's own reports have it."""
        return re.escape(f"{os.strerror(self.number)} ({self.number})".encode())


def outcome_of(line, story, fault):
    """What must come of a run in which the system call of this trace line failed; an interrupted one is resumed."""
    if fault.number == errno.EINTR and not LOADERS.match(line):
        return unnoticed()
    if line.startswith("connect(") and fault.number == errno.EAGAIN:
        return unnoticed()  # the client library tries again
    for pattern, rule in RULES:
        if re.match(pattern, line):
            return rule(story, fault)
    return unnoticed()

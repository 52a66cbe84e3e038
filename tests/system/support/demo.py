"""The part of script/demo that runs inside the sandbox: a furnished panel, a run of the program, a report.

--sample              answers the sample message
--message RECIPIENT   answers the message on standard input
--shell               furnishes the panel and starts a shell
--answer [FILE [RECIPIENT]], --mails, --help   what the shell's commands `answer`, `mails` and `help` do
"""

import collections
import email
import email.errors
import email.header
import os
import pathlib
import re
import shlex
import signal
import sys
import textwrap

import sandbox
import spool
from panel import Panel
from program_run import Running

RECIPIENT = "office@example.com"
SAMPLE = pathlib.Path("/sandbox/sample.eml")
MESSAGE = """\
From: "Anna Becker" <anna.becker@customer.example>
To: office@example.com
Subject: =?utf-8?Q?Price_list_f=C3=BCr_2025=3F?=
Date: Mon, 02 Jun 2025 10:00:00 +0200
Message-ID: <1@customer.example>
MIME-Version: 1.0
Content-Type: text/plain; charset=ISO-8859-1
Content-Transfer-Encoding: quoted-printable

Hello,

could you send me the price list? Sch=F6ne Gr=FC=DFe

Anna
"""
PRICE_LIST = "".join(f"article {number:03}  {number * 1.25:8.2f} EUR\n" for number in range(1, 81))
WIDTH = 79
LINES = 14  # of a header block or a text; what is longer is cut, with a note
MATTERS = ("from:", "reply-to:", "to:", "cc:", "subject:", "date:", "mime-version:", "content-")
COMMANDS = f"""\
answer [FILE [RECIPIENT]]  run the program on a message, show what happened
mails                      all mails that were sent so far
db [SQL]                   the panel's database
autoresponder              the program itself: the message on standard
                           input, the address in RESP_RECIPIENT
{SAMPLE}        the sample message
help                       this list
exit                       leave; everything in here is gone then
Your files in /tmp, /run, /etc/qrx and /var are not to be seen in here."""
SHELL_FILE = f"""\
PS1='sandbox:\\w\\$ '
unset HISTFILE
export PATH=/sandbox:$PATH MYSQL_HISTFILE=/dev/null RESP_RECIPIENT={RECIPIENT}
demo() {{ /usr/bin/python3 -B '{pathlib.Path(__file__).resolve()}' "$@"; }}
answer() {{ demo --answer "$@"; }}
mails() {{ demo --mails; }}
help() {{ demo --help; }}
db() {{ mariadb --no-defaults -uadmin -p{sandbox.ADMIN_PASSWORD} qrx ${{1:+-t -e "$1"}}; }}
cd /sandbox
"""
REPLY, FORWARD, NOTICE = "a reply", "the message, forwarded", "the client is told of a missing file"
COUNTED = {REPLY: ("reply", "replies"), FORWARD: ("forward", "forwards"),
           NOTICE: ("notice to the client", "notices to the client")}


def furnish(panel):
    """A client with a domain and its alias, a mailbox with an alias, and four responders."""
    client = panel.client(pname="Carla Client", email="carla@panel.example")
    domain = panel.domain("example.com", client=client)
    panel.domain_alias(domain, "example.net")
    mailbox = panel.mailbox(domain, "info")
    panel.mail_alias(mailbox, "office")
    panel.param("admin_email", "panel@host.example")

    panel.responder(mailbox, text="Thank you for your message. We answer within a day.\n")
    panel.responder(mailbox, key_where="subj", keystr="Price", subject="About your \"<request_subject>\"",
                    reply_to="sales@example.com",
                    text="Our prices are valid until the end of the year.\n")
    russian = panel.responder(mailbox, charset="koi8-r", subject="Прайс-лист",
                              text="Здравствуйте!\n\nПрайс-лист во вложении.\n")
    panel.attachment(russian, "price list.txt", PRICE_LIST.encode())
    panel.attachment(russian, "terms.pdf")
    forwarding = panel.responder(mailbox, text="A colleague will call you.\n", ans_freq="3")
    panel.forward(forwarding, "sales@example.com")
    panel.forward(forwarding, "archive@example.com")


def describe_panel():
    heading("The panel")
    show("""\
client      Carla Client <carla@panel.example>
domain      example.com, with the alias example.net
mailbox     info@example.com, with the alias office
responders  1 plain
            2 subject from a template; only when the subject has "Price"
            3 in koi8-r, with two attachments, one of which is missing
            4 forwards to sales@ and archive@, at most 3 replies a day""")


def answer(panel, message, recipient):
    """Runs the program on the message and shows the message and what came of it."""
    heading(f"The incoming message, to {recipient}")
    show_mail(message)
    result = Running(message=message, recipient=recipient).finish()
    for count, mail in enumerate(result.mails, 1):
        heading(f"Mail {count} of {len(result.mails)}: {kind(mail, message)}")
        show_sent(mail)
    if not result.mails:
        heading("No mail was sent")
    heading("Replies counted today, by responder and sender")
    rows = panel.sql("select (select count(*) from mail_resp where mail_resp.id <= rn_id), rn_id, email, num,"
                     " time_resp from resp_freq order by id")
    show("\n".join(f"{text(place)} (id {text(rn_id)})  {text(sender)}  {text(number)}  since {text(since)}"
                   for place, rn_id, sender, number, since in rows) or "none")
    heading("Standard error")
    show(text(result.stderr).rstrip("\n") or "nothing")
    ended = f"status {result.status}" if result.signal is None else f"signal {result.signal}"
    heading(f"It took {result.duration * 1000:.1f} ms and ended with {ended}")
    show(summary(collections.Counter(kind(mail, message) for mail in result.mails)))


def kind(mail, message):
    if mail.stdin.strip() == message.strip():
        return FORWARD
    if b"\nSubject: qrx notification" in mail.stdin:
        return NOTICE
    return REPLY


def summary(kinds):
    """How many mails of each kind, as "2 mails: 1 reply, 1 forward"."""
    def counted(count, one, many):
        return f"{count} {one if count == 1 else many}"
    parts = [counted(kinds[each], *names) for each, names in COUNTED.items() if kinds[each]]
    return counted(kinds.total(), "mail", "mails") + (f": {', '.join(parts)}" if parts else "")


def show_all_mails():
    mails = spool.mails()
    for mail in mails:
        heading(f"Mail {mail.number}")
        show_sent(mail)
    if not mails:
        heading("No mail was sent yet")


def shell(panel):
    furnish(panel)
    SAMPLE.write_text(MESSAGE, encoding="ascii")
    startup = pathlib.Path("/sandbox/shell")
    startup.write_text(SHELL_FILE, encoding="utf-8")
    if sys.stdin.isatty():
        describe_panel()
        heading("In here")
        show(COMMANDS)
        print(flush=True)
    os.environ["BASH_ENV"] = str(startup)
    os.execvp("bash", ["bash", "--rcfile", str(startup)])


# Showing


def heading(title):
    bold, plain = ("\033[1m", "\033[0m") if in_colour() else ("", "")
    print(f"\n{bold}== {title}{plain}")


def in_colour():
    return sys.stdout.isatty() and "NO_COLOR" not in os.environ and os.environ.get("TERM") != "dumb"


def text(data, charset="utf-8"):
    """Bytes for people: decoded, what can't be decoded or shown replaced."""
    if data is None:
        return "NULL"
    try:
        decoded = data.decode(charset, errors="replace")
    except LookupError:
        decoded = data.decode("utf-8", errors="replace")
    return "".join(c if c.isprintable() or c in "\n\t" else "\N{REPLACEMENT CHARACTER}" for c in decoded)


def show(block):
    """Prints the block indented; long lines and the lines after the first LINES are left out with a note."""
    lines = block.expandtabs(4).split("\n")
    for line in lines[:LINES]:
        if len(line) > WIDTH - 2:
            note = f" ... {len(line)} characters"
            line = line[:WIDTH - 2 - len(note)] + note
        print(f"  {line}".rstrip())
    if len(lines) > LINES:
        print(f"  [{len(lines) - LINES} more lines left out]")


def show_sent(mail):
    """A call of sendmail: its arguments, and the mail that it was given."""
    show("\n".join(textwrap.wrap(shlex.join(mail.argv), WIDTH - 2, initial_indent="$ ", subsequent_indent="    ",
                                 break_long_words=False, break_on_hyphens=False)))
    print()
    show_mail(mail.stdin)
    if b"." in mail.stdin.splitlines():
        show("[a line of one dot: a real sendmail may end the mail there]")


def show_mail(data):
    """The header block as it stands, each text decoded, each attachment by its name and size."""
    header, _, body = data.replace(b"\r\n", b"\n").partition(b"\n\n")
    show(short_header(text(header)))
    mail = email.message_from_bytes(data)
    subject = str(mail["Subject"] or "")
    if decoded_word(subject) != subject:
        show(f"[the subject reads: {decoded_word(subject)}]")
    if any(isinstance(defect, email.errors.MissingHeaderBodySeparatorDefect) for defect in mail.defects):
        print()
        show(text(body).rstrip("\n") or "[no blank line]")
        return  # what stands above the blank line would be shown again as text
    for part in mail.walk():
        if part.is_multipart():
            continue
        content = part.get_payload(decode=True) or b""
        kind = f"{part.get_content_type()}, {len(content)} bytes"
        if part.get_content_disposition() == "attachment":
            show(f"[attachment {decoded_word(part.get_filename() or '')!r}: {kind}]")
        elif part.get_content_maintype() == "text":
            print()
            show(text(content, part.get_content_charset() or "utf-8").rstrip("\n"))
        else:
            show(f"[{kind}]")


def short_header(block):
    """A header block of few lines as it stands; of a long one the fields that matter here."""
    fields = re.split(r"\n(?![ \t])", block)
    if block.count("\n") < LINES:
        return block
    kept = [field for field in fields if field.lower().startswith(MATTERS)]
    left_out = block.count("\n") + 1 - sum(field.count("\n") + 1 for field in kept)
    return "\n".join([*kept, f"[{left_out} more lines left out]"])


def decoded_word(value):
    return "".join(piece if isinstance(piece, str) else text(piece, charset or "utf-8")
                   for piece, charset in email.header.decode_header(value))


def answer_file(panel, file=SAMPLE, recipient=RECIPIENT, *more):
    """The shell's command `answer`."""
    if more:
        sys.exit(f"answer: one file and one recipient, not also {more[0]}")
    try:
        message = pathlib.Path(file).read_bytes()
    except OSError as error:
        sys.exit(f"answer: {file}: {error.strerror}")
    if "@" not in recipient:
        sys.exit(f"answer: {recipient} is no address: it has no @")
    answer(panel, message, recipient)


def main(arguments):
    panel = Panel()
    match arguments:
        case ["--shell"]:
            shell(panel)
        case ["--mails"]:
            show_all_mails()
        case ["--help"]:
            show(COMMANDS)
        case ["--answer", *rest]:
            answer_file(panel, *rest)
        case ["--message", recipient]:
            furnish(panel)
            describe_panel()
            answer(panel, sys.stdin.buffer.read(), recipient)
        case ["--sample"]:
            furnish(panel)
            describe_panel()
            answer(panel, MESSAGE.encode(), RECIPIENT)
            print("\nGo on: script/demo FILE.eml [RECIPIENT] answers a message of yours,\n"
                  "       script/demo --shell lets you look around.")


signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # of the reader that has seen enough, as in `mails | head`
sys.stdout.reconfigure(errors="replace")
main(sys.argv[1:])

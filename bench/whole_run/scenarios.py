"""The situations that a whole run is measured in: the panel, the message, and what is put back before each run."""

import pathlib

from panel import Panel

RECIPIENT = "info@example.com"
SENDER = "sam@sender.example"
MESSAGES = pathlib.Path("/sandbox/messages")

_TEXT = "".join(f"Line {number} of a text that says when somebody is back at work.\n" for number in range(6))
_ALWAYS = "1000000000"  # times a day
_HEADER = """\
Return-Path: <{sender}>
Delivered-To: info@example.com
Received: from mx.sender.example (mx.sender.example [192.0.2.25])
\tby mail.example.com with SMTP; 2 Jun 2025 08:00:03 -0000
Received: from desk.sender.example (desk.sender.example [192.0.2.77])
\tby mx.sender.example with ESMTP id 5F3A200C1; Mon, 02 Jun 2025 10:00:01 +0200
Message-ID: <20250602080001.5F3A200C1@sender.example>
From: Sam Sender <{sender}>
To: info@example.com
Subject: Opening hours
Date: Mon, 02 Jun 2025 10:00:00 +0200
MIME-Version: 1.0
Content-Type: text/plain; charset=UTF-8
Content-Transfer-Encoding: 8bit
User-Agent: Desk Mail 4.2

"""
_LINE = "When are you open this summer, and may I bring a friend who is new in town?\n"


def message(size, sender=SENDER):
    """A message of that many bytes."""
    header = _HEADER.format(sender=sender)
    return (header + _LINE * (size // len(_LINE) + 1))[:size - 1].encode() + b"\n"


# A part of what a host has there.
_CONFIGURATION = """\
# Folders of the panel
PRODUCT_ROOT_D      /opt/qrx
QUARX_MAILNAMES_D   /var/qmail/mailnames
HTTPD_VHOSTS_D      /var/www/vhosts
HTTPD_SERVICE       apache2
MYSQL_VAR_D         /var/lib/mysql
"""


class Scenario:
    """A furnished panel, the message, how many mails a run sends, and whether it is a short one."""

    def __init__(self, name, size=3600, responders=1, forward=False, attachment=0, answered=None,
                 ans_freq=_ALWAYS, mails=None):
        self.name = name
        self.short = size < 1 << 20
        self.mails = responders + forward if mails is None else mails
        self._size = size
        self._responders = responders
        self._forward = forward
        self._attachment = attachment
        self._answered = answered
        self._ans_freq = ans_freq

    def furnish(self, panel):
        _empty(panel)
        client = panel.client()
        mailbox = panel.mailbox(panel.domain(client=client))
        for number in range(self._responders):
            responder = panel.responder(mailbox, text=_TEXT, ans_freq=self._ans_freq)
            if self._forward and number == 0:
                panel.forward(responder, "desk@example.net")
            if self._attachment:
                panel.attachment(responder, "list.bin", bytes(range(256)) * (self._attachment // 256))
        self._last = responder if self._responders else None
        MESSAGES.mkdir(exist_ok=True)
        self.message = MESSAGES / "message"
        self.message.write_bytes(message(self._size))

    def prepare(self, panel):
        """Before each run: the sender is new, or has been answered as often as the scenario says."""
        panel.sql("delete from resp_freq")
        if self._answered is not None:
            panel.answered(self._last, SENDER, num=self._answered)


SCENARIOS = [
    Scenario("no responder", responders=0),
    Scenario("one reply"),
    Scenario("two replies, one forward", responders=2, forward=True),
    Scenario("1 MB attachment", attachment=1 << 20),
    Scenario("25 MB message", size=25 << 20),
    Scenario("limit reached", answered=3, ans_freq="3", mails=0),
]


def _empty(panel):
    panel.empty()
    panel.configuration(_CONFIGURATION)
    panel.databytes("50000000\n")


def furnish_mailboxes(panel, count):
    """As many mailboxes with one responder each; returns a (recipient, message file) pair for each.

    Runs side by side for one responder would wait for each other's locks in the database, which says
    nothing about the programs. Each sender has been answered before.
    """
    _empty(panel)
    domain = panel.domain(client=panel.client())
    MESSAGES.mkdir(exist_ok=True)
    path = MESSAGES / "message"
    path.write_bytes(message(3600))
    mails = []
    for number in range(count):
        responder = panel.responder(panel.mailbox(domain, f"box{number}"), text=_TEXT, ans_freq=_ALWAYS)
        panel.answered(responder, SENDER)
        mails.append((f"box{number}@example.com", path))
    return mails


def new_panel():
    panel = Panel()
    panel.sql("set global max_connections=200")  # for 64 runs at a time
    return panel

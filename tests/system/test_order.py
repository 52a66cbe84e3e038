"""The order of what a run does, seen from outside: its system calls, its statements and its children."""

import re

from database_test import (DatabaseTest, attachment_query, count_senders, forget_earlier_days, forward_query,
                           insert_sender, look_sender_up, lookups, responder_query)

CLIENT_QUERY = ("select c.email, c.pname, c.login from clients c, domains d"
                " where d.cl_id=c.id and d.name='example.com'")
# What of the trace is an event; behind a system call's name, and with descriptors as "-y" shows them.
EVENTS = [
    (r"set(uid|gid)\(0\)", "become {0} 0"),
    (r"open\w*\(.*\"/tmp/qrx-autoresponder-.*O_CREAT", "make the copy"),
    (r"read\(0<", "read the message"),
    (r"write\(\d+</tmp/qrx-autoresponder-", "write the copy"),
    (r"connect\(.*mysqld\.sock", "connect"),
    (r"sendto\(\d+<[^>]*>, \".{1,16}?\\0\\3((?:[^\"\\]|\\.)*)\"", "{0}"),  # a COM_QUERY packet
    (r"open\w*\(.*\"/tmp/qrx-autoresponder-.*O_RDONLY", "open the copy"),
    (r"(?:clone3?|v?fork)\(.* = (\d+)", "start {child}"),
    (r"wait4\((\d+),.* = \1", "{child} has ended"),
    (r"open\w*\(.*\"/tmp/qrx-response-uu-.*O_CREAT", "make the reply's file"),
    (r"\w*stat\w*\((?:AT_FDCWD[^,]*, )?\"[^\"]*@attachments/([^\"]+)\"", "look for {0}"),
    (r"open\w*\((?:AT_FDCWD[^,]*, )?\"[^\"]*@attachments/([^\"]+)\"", "open {0}"),
    (r"pipe2\(.*O_CLOEXEC", "make a pipe"),
    (r"write\(\d+<pipe:[^>]*>, \"From: ", "write the notification"),
    (r"write\(\d+</tmp/qrx-response-uu-", "write the reply"),
    (r"open\w*\(.*/databytes\"", "read the size limit"),
    (r"ftruncate\(\d+</tmp/qrx-response-uu-", "empty the reply's file"),
    (r"open\w*\(.*\"/tmp/qrx-response-uu-.*O_RDONLY", "open the reply"),
    (r"unlink\w*\(.*\"/tmp/qrx-response-uu-", "remove the reply's file"),
    (r"unlink\w*\(.*\"/tmp/qrx-autoresponder-", "remove the copy"),
    (r"exit_group\((\d+)\)", "exit with {0}"),
]


def whole_lines(trace):
    """(process, call) for each system call of a trace of several processes, in the order in which they ended.

    A call that others came between is written in two pieces: strace(1) on "unfinished".
    """
    begun = {}
    for line in trace.splitlines():
        process, call = line.split(maxsplit=1)
        if call.endswith("<unfinished ...>"):
            begun[process] = call.removesuffix("<unfinished ...>")
        elif call.startswith("<..."):
            yield process, begun.pop(process) + call.partition("resumed>")[2]
        else:
            yield process, call
    for process, call in begun.items():
        yield process, call


def events_of(trace):
    """The program's events in order, each child named by its last argument; of equal ones in a row, one."""
    calls = list(whole_lines(trace))
    program = trace.split(maxsplit=1)[0]
    children = {process: re.findall(r'"((?:[^"\\]|\\.)*)"', call.partition("[")[2].partition("]")[0])[-1]
                for process, call in calls if process != program and call.startswith("execve(")}
    events = []
    for process, call in calls:
        for pattern, event in EVENTS:
            match = re.match(pattern, call) if process == program else None
            if match:
                child = children.get(match[1]) if "{child}" in event else None
                text = event.format(*match.groups(), child=child)
                if [text] != events[-1:]:
                    events.append(text)
    return events


class Order(DatabaseTest):
    def setUp(self):
        super().setUp()
        self.first = self.furnish(text="first")

    def furnish_fully(self, responder, address, missing):
        self.panel.forward(responder, address)
        self.panel.attachment(responder, missing)
        self.panel.attachment(responder, f"not-{missing}", b"x")

    def assert_events(self, wanted, **how):
        result = self.run_program(strace=["-f", "-y", "-s", "400", "-e", "signal=none"], **how)
        self.assert_ended(result)
        events = events_of(result.trace)
        self.assertEqual(events[events.index("become uid 0"):], wanted)
        return result

    BEGIN = ["become uid 0", "become gid 0", "make the copy", "read the message", "write the copy",
             "connect", "SET NAMES utf8"]
    END = ["remove the copy", "remove the reply's file", "exit with 0"]

    def look_up(self):
        return [lookups("info", "example.com")[0], responder_query(self.mailbox)]

    @staticmethod
    def limit(responder):
        return [forget_earlier_days(responder), count_senders(responder), look_sender_up(responder),
                insert_sender(responder)]

    @staticmethod
    def forward(responder, address):
        return [forward_query(responder), "open the copy", f"start {address}", f"{address} has ended"]

    @staticmethod
    def attachments(responder, missing):
        """The files in the order of their rows, and then the notification."""
        return [attachment_query(responder), f"look for {missing}", f"look for not-{missing}", CLIENT_QUERY,
                "select val from misc where param='admin_email'",
                "select val from misc where param='FullHostName'", "make a pipe", "start carla@panel.example",
                "write the notification", "carla@panel.example has ended"]

    DELIVERY = ["open the reply", "start sam@sender.example", "sam@sender.example has ended",
                "remove the reply's file"]

    def test_of_two_responders_with_all_there_is(self):
        second = self.panel.responder(self.mailbox, text="second")
        self.furnish_fully(self.first, "a@two.example", "gone")
        self.furnish_fully(second, "b@three.example", "lost")
        self.assert_events([
            *self.BEGIN, *self.look_up(),
            *self.limit(self.first), *self.forward(self.first, "a@two.example"), "make the reply's file",
            *self.attachments(self.first, "gone"), "open not-gone", "write the reply", "read the size limit",
            *self.DELIVERY,
            # The second reply's file has the first one's name, and is made when it is to be written.
            *self.limit(second), *self.forward(second, "b@three.example"), *self.attachments(second, "lost"),
            "make the reply's file", "open not-lost", "write the reply", "read the size limit", *self.DELIVERY,
            *self.END])

    def test_of_a_reply_above_the_size_limit(self):
        self.panel.databytes("10")
        self.assert_events([
            *self.BEGIN, *self.look_up(), *self.limit(self.first), forward_query(self.first),
            "make the reply's file", attachment_query(self.first), "write the reply", "read the size limit",
            "empty the reply's file", "write the reply", *self.DELIVERY, *self.END])

    def test_of_a_responder_that_does_not_apply(self):
        self.sql("update mail_resp set resp_on='false'")
        self.assert_events([*self.BEGIN, *self.look_up(), *self.END])

    def test_of_a_message_that_is_refused(self):
        result = self.run_program(message=b"From: info@example.com\n\n",
                                  strace=["-f", "-y", "-e", "signal=none"])
        self.assert_ended(result, stderr=b"Field From: equial field To:\n")
        events = events_of(result.trace)
        self.assertEqual(events[events.index("become uid 0"):], [
            *self.BEGIN[:self.BEGIN.index("connect")], *self.END])

    def test_of_a_run_by_its_identity_and_its_configuration(self):
        """The configuration is read before root's identity is taken, and that before the message is."""
        result = self.run_program(strace=["-y", "-e", "signal=none"])
        order = [re.search(pattern, result.trace).start() for pattern in (
            r'open\w*\(.*"/etc/qrx/qrx\.conf"', r"setuid\(0\)", r"setgid\(0\)", r"/tmp/qrx-autoresponder-",
            r"read\(0<", r'open\w*\(.*"/etc/qrx/\.qrx\.shadow"', r"mysqld\.sock")]
        self.assertEqual(order, sorted(order))

    def test_a_pipe_is_closed_in_the_program_as_soon_as_it_is_not_needed(self):
        """Its reading end behind the start, its writing end behind the text, both before the wait."""
        self.skip_if_sanitized("the sanitizers make pipes of their own")
        self.panel.attachment(self.first, "gone")
        trace = self.run_program(strace=["-y", "-e", "signal=none"]).trace
        calls = re.findall(r"^(pipe2|clone3?|v?fork|close\(\d+<pipe|write\(\d+<pipe|wait4)", trace, re.MULTILINE)
        names = [re.sub(r"\d+", "N", call) for call in calls]
        self.assertEqual(names[:6], ["pipeN", names[1], "close(N<pipe", "write(N<pipe", "close(N<pipe", "waitN"])

    def test_a_file_that_sendmail_reads_is_closed_in_the_program_before_the_wait(self):
        """The copy of the message for a forward, then the reply, behind the closing of what it was written to."""
        self.panel.forward(self.first, "a@two.example")
        trace = self.run_program(strace=["-y", "-e", "signal=none"]).trace
        calls = re.findall(r"^(open\w*\(.*\"/tmp/qrx-.*O_RDONLY|close\(\d+</tmp/qrx-|wait4)", trace, re.MULTILINE)
        names = [call.partition("(")[0] for call in calls]
        self.assertEqual(names[names.index("openat"):],
                         ["openat", "close", "wait4", "close", "openat", "close", "wait4"])

"""Memory that runs out: every request that a run makes to the kernel is refused, from a chosen one on.

A block of any size comes from mmap(2) or brk(2): see malloc(3), NOTES.
"""

import os
import pathlib
import re
import signal

import expected
import program_run
import spool
from fault_case import COPY, FORWARD, NOTIFICATION, REPLY, RESPONSE, SENDER, TEXT, FaultTest
from harness import MESSAGE, RECIPIENT

LARGE = MESSAGE + b"A line of it.\n" * 20000
# The C++ run-time writes the mangled name where it finds no memory for the other one.
ABORTED = re.compile(rb"(Could not convert message body text from US-ASCII to UTF-8\.\n)?"
                     rb"terminate called after throwing an instance of '(std::bad_alloc|St9bad_alloc)'\n"
                     rb"  what\(\):  std::bad_alloc\n")
EXHAUSTED = b"autoresponder: Program failed due to exhausted memory\nSystem error 12: Cannot allocate memory\n"
NOT_CONVERTED = b"autoresponder: Send error: Cannot convert from UTF-8 to UTF-16\nSystem error "
FATAL = re.compile(re.escape(EXHAUSTED) + b"|" + NOT_CONVERTED + rb"\d+: [A-Z][\w ]+\n")
# What ends a run with status 0: the client library lacks the memory, and says it in its own words.
REPORTED = re.compile(rb"autoresponder: (Unable to (exec query :|query: )[A-Z][\w ]+\n"
                      rb"|Unable to alloc memory\n"
                      rb"|Unable to (connect to Quarx Database|initialize MySQL connection structure): [^\n]+\n"
                      rb"(System error \d+: [^\n]+\n)?autoresponder: Unable to connect to the mysql database \n)")


class MemoryRefused(FaultTest):
    """A large message, and a large reply in another charset."""

    def setUp(self):
        super().setUp()
        self.skip_if_sanitized("the sanitizers' allocator ends the process itself")
        self.sql("alter table mail_resp modify text longtext")
        self.sql("update mail_resp set charset='UTF-16', text=%s", "some text. " * 40000)

    def requests_from_the_copy_on(self):
        """For each request since the copy of the message was made: how many calls of mmap and brk come before it."""
        trace = self.run_program(message=LARGE, strace=[
            "-e", "trace=mmap,brk,openat", "-e", "signal=none"]).trace
        before, copy_made, requests = {"mmap": 0, "brk": 0}, False, []
        for line in trace.splitlines():
            name = line.partition("(")[0]
            if name in before:
                if copy_made:
                    requests.append(dict(before))
                before[name] += 1
            copy_made = copy_made or "/tmp/qrx-autoresponder-" in line
        return requests

    def run_refused(self, granted):
        self.sql("delete from resp_freq")
        spool.empty()
        program_run.empty_tmp()
        return self.run_program(message=LARGE, strace=[
            "-e", "trace=mmap,brk", "-e", f"inject=mmap:error=ENOMEM:when={granted['mmap'] + 1}+",
            "-e", f"inject=brk:retval=0:when={granted['brk'] + 1}+"])

    def assert_aborted(self, result):
        """In intake, where nothing catches it: the copy stays and nothing has been done."""
        self.assertEqual((result.status, result.stdout), (None, b""))
        self.assertRegex(result.stderr, rb"\A(?:" + ABORTED.pattern + rb")\Z")
        self.assert_nothing_sent(result)
        self.assertEqual([file.name for file in result.tmp], [COPY])
        self.assertEqual(self.panel.frequency_rows(), [])

    def assert_fatal(self, result):
        """In the responder loop: the message on both streams, and the files stay."""
        self.assertRegex(result.stdout, rb"\A(?:" + FATAL.pattern + rb")\Z")
        self.assertEqual((result.stderr, result.signal), (result.stdout, None))
        self.assertIn([file.name for file in result.tmp], ([COPY], [COPY, RESPONSE]))
        self.assertEqual(result.tmp[0].content, expected.message_copy(LARGE))
        done = ((FORWARD[0], expected.message_copy(LARGE)), NOTIFICATION)
        self.assert_calls(result, *done[:len(result.mails)])

    def assert_reported(self, result):
        """A failure of the database, by which a run ends in order."""
        self.assertRegex(result.stderr, rb"\A(?:" + REPORTED.pattern + rb")\Z")
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)

    def test_from_each_request_on(self):
        ends = {(None, signal.SIGABRT): self.assert_aborted, (1, None): self.assert_fatal,
                (0, None): self.assert_reported}
        seen = set()
        for granted in self.requests_from_the_copy_on():
            with self.subTest(**granted):
                result = self.run_refused(granted)
                end = (result.status, result.signal)
                self.assertIn(end, ends, result.stderr)
                ends[end](result)
                seen.add(end)
        self.assertEqual(seen, set(ends), "the ways in which runs ended")
        self.assertIn(EXHAUSTED, self.run_refused(self.requests_from_the_copy_on()[-1]).stderr)


class AddressSpaceLimited(FaultTest):
    def test_every_limit_gives_a_known_end(self):
        """Limits from what the loader can't do with up to the first one that is enough."""
        self.skip_if_sanitized("the sanitizers need more address space than any limit leaves")
        known = ((127, None), (None, signal.SIGABRT), (0, None), (1, None))
        limits = [*range(2048, 16384, 256), *range(16384, 131072, 2048)]
        for kibibytes in limits:
            spool.empty()
            program_run.empty_tmp()
            result = self.run_program(message=LARGE, rlimits={"as": kibibytes << 10})
            with self.subTest(kibibytes=kibibytes):
                self.assertIn((result.status, result.signal), known, result.stderr)
                self.assertEqual(result.stderr == b"", len(result.mails) == 3, result.stderr)
                if result.status == 127:
                    self.assertIn(b"error while loading shared libraries", result.stderr)
            if result.stderr == b"":
                break
        self.assert_ended(result)
        self.assertGreater(kibibytes, limits[0])


class LargeAttachment(FaultTest):
    SIZE = 200 << 20

    def test_larger_than_the_address_space(self):
        """It is carried piece by piece: the reply's size, when sendmail is given it, is that of the whole."""
        self.skip_if_sanitized("the sanitizers need more address space than any limit leaves")
        self.panel.attachment(self.responder, "here", b"")
        os.truncate(self.panel.attachment_folder(self.responder) / "here", self.SIZE)
        self.sql("delete from resp_forward")
        self.sql("delete from resp_attach where filename='gone'")
        self.sendmail("run stat -c %s /tmp/qrx-response-uu-* >/sandbox/spool/.size")
        result = self.run_program(rlimits={"as": 128 << 20})
        self.assert_ended(result)
        self.assertEqual([mail.argv for mail in result.mails], [REPLY[0]])
        lines, rest = divmod(self.SIZE, 45)
        empty = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", TEXT, attachments=[("here", b"")])
        self.assertEqual(int(pathlib.Path("/sandbox/spool/.size").read_text()),
                         len(empty) + 61 * lines + len(expected.base64_lines(bytes(rest))))
        self.assert_nothing_left(result)

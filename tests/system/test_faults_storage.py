"""Files that can't be made, written, read or closed: what is in them goes out, and the run goes on."""

import expected
from fault_case import ALL, FORWARD, NOTIFICATION, REPLY, SENDER, TEXT, FaultTest
from harness import MESSAGE, RECIPIENT

BLOCK = 65536  # how much of a message is read, and kept, at a time
LARGE = MESSAGE + b"A line of a long message.\n" * 8000
IN_COPY = r"</tmp/qrx-autoresponder-"
IN_RESPONSE = r"</tmp/qrx-response-uu-"
FSTAT = "fstat,newfstatat"


def forwarded(text):
    return (FORWARD[0], text)


class CopyFails(FaultTest):
    """What couldn't be kept isn't forwarded; all else goes by the message as it was read."""

    def assert_forwarded(self, result, text):
        self.assert_done(result, forwarded(text), NOTIFICATION, REPLY)

    def test_its_first_block_cannot_be_written(self):
        number = self.count_calls_to("write", IN_COPY)
        self.assert_forwarded(self.run_injected("write", f"error=ENOSPC:when={number}"), b"")

    def test_nothing_is_written_behind_a_block_that_could_not_be(self):
        number = self.count_calls_to("write", IN_COPY, nth=2, message=LARGE)
        self.assert_forwarded(self.run_injected("write", f"error=ENOSPC:when={number}", message=LARGE),
                              LARGE[:BLOCK])

    def test_it_takes_all_the_room_that_there_is(self):
        """None is left for the reply, which goes out empty."""
        result = self.run_program(message=LARGE, tmp_size=BLOCK // 1024)
        self.assert_done(result, forwarded(LARGE[:BLOCK]), NOTIFICATION, (REPLY[0], b""))

    def test_it_leaves_too_little_room_for_the_reply(self):
        message = MESSAGE + b"A line.\n" * 2500
        self.sql("update mail_resp set text=%s", "x" * 60000)
        whole = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"x" * 60000)
        result = self.run_program(message=message, tmp_size=64)
        sent = result.mails[2].stdin
        self.assertTrue(0 < len(sent) < len(whole))
        self.assert_done(result, forwarded(expected.message_copy(message)), NOTIFICATION,
                         (REPLY[0], whole[:len(sent)]))

    def test_it_cannot_be_closed(self):
        number = self.count_calls_to("close", IN_COPY)
        self.assert_done(self.run_injected("close", f"error=EIO:when={number}"), *ALL)


class ResponseFails(FaultTest):
    def large_reply(self):
        """The reply's bytes, which take several blocks."""
        content = bytes(range(256)) * 1000
        self.panel.attachment(self.responder, "here", content)
        return expected.reply(SENDER, RECIPIENT, "Re: Opening hours", TEXT, attachments=[("here", content)])

    def test_nothing_is_written_behind_a_block_that_could_not_be(self):
        whole = self.large_reply()
        number = self.count_calls_to("write", IN_RESPONSE, nth=2)
        result = self.run_injected("write", f"error=ENOSPC:when={number}")
        sent = result.mails[2].stdin
        self.assertTrue(0 < len(sent) < len(whole))
        self.assert_done(result, FORWARD, NOTIFICATION, (REPLY[0], whole[:len(sent)]))

    def test_it_cannot_be_written_at_all(self):
        number = self.count_calls_to("write", IN_RESPONSE)
        self.assert_done(self.run_injected("write", f"error=EIO:when={number}"),
                         FORWARD, NOTIFICATION, (REPLY[0], b""))

    def test_it_cannot_be_closed(self):
        number = self.count_calls_to("close", IN_RESPONSE)
        self.assert_done(self.run_injected("close", f"error=EIO:when={number}"), *ALL)

    def test_its_size_cannot_be_taken_so_there_is_no_limit(self):
        self.panel.databytes("10")
        number = self.count_calls_to(FSTAT, IN_RESPONSE, nth=2)  # the first is for whether it is there
        self.assert_done(self.run_injected(FSTAT, f"error=EIO:when={number}"), *ALL)

    def test_it_cannot_be_emptied_for_the_error_reply(self):
        """Then nothing is written, and what is there goes out."""
        self.panel.databytes("10")
        self.assert_done(self.run_injected("ftruncate", "error=EIO"), *ALL)

    def assert_not_delivered(self, result, reason, **files):
        end = (rb"autoresponder: Send error: Failed to generate response mail contents\n"
               rb"(System error \d+: [\w -]+\n)?")
        self.assertEqual((result.status, result.signal), (1, None))
        self.assertRegex(result.stderr, rb"\Aautoresponder: Failed to open temporary file with response mail "
                                        rb"contents '/tmp/qrx-response-uu-\w{6}': " + reason + rb"\n" + end + rb"\Z")
        self.assertRegex(result.stdout, rb"\A" + end + rb"\Z")
        self.assert_calls(result, FORWARD, NOTIFICATION)
        self.assert_counted()
        self.assert_files_left(result, copy=FORWARD[1], **files)

    def test_whose_it_is_cannot_be_told(self):
        number = self.count_calls_to(FSTAT, IN_RESPONSE, nth=3)  # the second is for its size
        result = self.run_injected(FSTAT, f"error=EIO:when={number}")
        self.assert_not_delivered(result, rb"Permission denied \(13\)", response=REPLY[1])

    def test_the_folder_has_become_read_only(self):
        """By the time of the reply; the forward's sendmail sees to it."""
        self.use_tmp()
        self.sendmail("read; run mount -o remount,ro /tmp", "read")
        self.assert_not_delivered(self.run_program(), rb"No such file or directory \(2\)")

    def test_the_folder_is_read_only_at_the_end(self):
        """Nothing can be removed then, which nobody is told."""
        self.use_tmp()
        self.sendmail("read", "read", "read; run mount -o remount,ro /tmp")
        result = self.run_program()
        self.assert_ended(result)
        self.assert_calls(result, *ALL)
        self.assert_files_left(result, copy=FORWARD[1], response=REPLY[1])


class Interrupted(FaultTest):
    """Calls that a signal interrupts are resumed."""

    def test_each_write(self):
        result = self.run_injected("write", "error=EINTR:when=1+2")
        self.assertGreaterEqual(result.trace.count("EINTR"), 3)  # the copy, the notification, the reply
        self.assert_done(result, *ALL)

    def test_each_read_of_an_attachment(self):
        content = bytes(range(256)) * 1000
        self.panel.attachment(self.responder, "here", content)
        path = self.panel.attachment_folder(self.responder) / "here"
        result = self.run_program(strace=["-P", str(path), "-e", "trace=read",
                                          "-e", "inject=read:error=EINTR:when=1+2"])
        self.assertGreater(result.trace.count("EINTR"), 2)
        self.assert_done(result, FORWARD, NOTIFICATION, (REPLY[0], expected.reply(
            SENDER, RECIPIENT, "Re: Opening hours", TEXT, attachments=[("here", content)])))

    def test_each_answer_of_the_database(self):
        result = self.run_injected("recvfrom", "error=EINTR:when=1+3")
        self.assertGreater(result.trace.count("EINTR"), 2)
        self.assert_done(result, *ALL)


class AttachmentFails(FaultTest):
    def test_it_breaks_off_where_it_cannot_be_read_on(self):
        content = bytes(range(256)) * 1000
        self.panel.attachment(self.responder, "here", content)
        path = self.panel.attachment_folder(self.responder) / "here"
        result = self.run_program(strace=["-P", str(path), "-e", "trace=read",
                                          "-e", "inject=read:error=EIO:when=2+"])
        block = 45 * 1088
        self.assert_done(result, FORWARD, NOTIFICATION, (REPLY[0], expected.reply(
            SENDER, RECIPIENT, "Re: Opening hours", TEXT, attachments=[("here", content[:block])])))

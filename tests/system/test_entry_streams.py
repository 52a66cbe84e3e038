"""Standard input, output and error in every condition a mail system may hand them over."""

import os
import pathlib
import threading

import expected
import linux
from harness import MESSAGE, NOBODY
from intake_case import FROM, NO_SENDER, SENDER, IntakeTest

SUBJECT = "Opening hours"  # of MESSAGE
NOT_READ = b"autoresponder: Failed to read the message from standard input: "


class ClosedStreams(IntakeTest):
    def test_closed_input_is_an_empty_message(self):
        self.assert_silent(self.run_program(stdin="closed"), NO_SENDER)

    def test_closed_output(self):
        self.assert_answered(self.run_program(stdout="closed"), subject=SUBJECT)

    def test_closed_error(self):
        self.assert_answered(self.run_program(stderr="closed"), subject=SUBJECT)

    def test_closed_output_and_error(self):
        self.assert_answered(self.run_program(stdout="closed", stderr="closed"), subject=SUBJECT)

    def test_closed_input_and_error(self):
        self.assert_silent(self.run_program(stdin="closed", stderr="closed"), b"")

    def test_closed_input_and_output(self):
        self.assert_silent(self.run_program(stdin="closed", stdout="closed"), NO_SENDER)

    def test_all_closed(self):
        self.assert_silent(self.run_program(stdin="closed", stdout="closed", stderr="closed"), b"")

    def test_a_message_for_a_closed_stream_reaches_no_file(self):
        self.sql("update mail_resp set charset='x-none'")
        result = self.run_program(stdout="closed", stderr="closed")
        self.assertEqual(result.status, 1)
        self.assertEqual([file.content for file in result.tmp], [expected.message_copy(MESSAGE), b""])

    def test_closed_streams_are_the_null_device_for_sendmail(self):
        result = self.run_program(stdout="closed", stderr="closed")
        self.assertEqual([result.mails[0].fds[number] for number in (1, 2)], ["/dev/null", "/dev/null"])


class BrokenStreams(IntakeTest):
    def unread_pipe(self):
        reading, writing = os.pipe()
        os.close(reading)
        self.addCleanup(os.close, writing)
        return writing

    def full_device(self):
        device = os.open("/dev/full", os.O_WRONLY)
        self.addCleanup(os.close, device)
        return device

    def test_standard_error_that_takes_nothing_does_not_change_an_end(self):
        for kind in (self.unread_pipe, self.full_device):
            with self.subTest(kind.__name__):
                self.assert_silent(self.run_program(message=b"\n", stderr=kind()), b"")

    def test_standard_error_that_takes_nothing_does_not_keep_from_answering(self):
        message = FROM + b"Subject: =?x-none?Q?a?=\n\n"
        for kind in (self.unread_pipe, self.full_device):
            with self.subTest(kind.__name__):
                self.assert_answered(self.run_program(message=message, stderr=kind()))

    def test_streams_that_take_nothing_do_not_change_a_fatal_end(self):
        self.sql("update mail_resp set charset='x-none'")
        for kind in (self.unread_pipe, self.full_device):
            with self.subTest(kind.__name__):
                result = self.run_program(stdout=kind(), stderr=kind())
                self.assertEqual((result.status, result.signal), (1, None))


class UnreadableInput(IntakeTest):
    def opened(self, path, flags=os.O_RDONLY):
        descriptor = os.open(path, flags)
        self.addCleanup(os.close, descriptor)
        return descriptor

    def test_a_folder(self):
        self.assert_silent(self.run_program(stdin=self.opened("/")), NOT_READ + b"Is a directory (21)\n")

    def test_a_file_open_for_writing_only(self):
        descriptor = self.opened("/dev/null", os.O_WRONLY)
        self.assert_silent(self.run_program(stdin=descriptor), NOT_READ + b"Bad file descriptor (9)\n")

    def run_with_injected_read(self, fault, message):
        """A run whose reads of the message get the fault, in strace's words."""
        path = pathlib.Path("/sandbox/message")
        path.write_bytes(message)
        self.addCleanup(path.unlink)
        return self.run_program(stdin=self.opened(path), strace=[
            "-P", str(path), "-e", "trace=read", "-e", f"inject=read:{fault}"])

    def test_an_error_at_the_start(self):
        self.assert_silent(self.run_with_injected_read("error=EIO:when=1", MESSAGE),
                           NOT_READ + b"Input/output error (5)\n")

    def test_an_error_behind_the_whole_message(self):
        self.assert_silent(self.run_with_injected_read("error=EIO:when=2+", MESSAGE),
                           NOT_READ + b"Input/output error (5)\n")

    def test_interrupted_reads_are_resumed(self):
        result = self.run_with_injected_read("error=EINTR:when=1..3", MESSAGE)
        self.assertEqual(result.trace.count("EINTR"), 3)
        self.assert_answered(result, subject=SUBJECT)


class InputInPieces(IntakeTest):
    def setUp(self):
        super().setUp()
        self.forward()

    def assert_taken_whole(self, result, message=MESSAGE):
        self.assert_ended(result)
        self.assertEqual([mail.argv[3] for mail in result.mails], ["archive@example.com", SENDER])
        self.assert_forwarded(result, message)

    def test_a_pipe(self):
        self.assert_taken_whole(self.run_program(message=[MESSAGE]))

    def test_a_pipe_that_gives_it_bit_by_bit(self):
        self.assert_taken_whole(self.run_program(message=[MESSAGE[:3], MESSAGE[3:20], MESSAGE[20:35],
                                                          MESSAGE[35:-1], MESSAGE[-1:]]))

    def test_a_pipe_that_its_writer_made_non_blocking(self):
        reading, writing = os.pipe()
        os.set_blocking(reading, False)
        run = self.start(stdin=reading)
        os.close(reading)
        writer = threading.Timer(0.1, lambda: (os.write(writing, MESSAGE), os.close(writing)))
        writer.start()
        self.addCleanup(writer.join)
        self.assert_taken_whole(run.finish())

    def test_a_file_is_read_from_where_it_stands(self):
        path = pathlib.Path("/sandbox/message")
        path.write_bytes(b"From: MAILER-DAEMON\n" + MESSAGE)
        self.addCleanup(path.unlink)
        with open(path, "rb") as file:
            os.lseek(file.fileno(), len(b"From: MAILER-DAEMON\n"), os.SEEK_SET)
            self.assert_taken_whole(self.run_program(stdin=file.fileno()))

    def test_the_null_device_is_an_empty_message(self):
        with open("/dev/null", "rb") as device:
            self.assert_silent(self.run_program(stdin=device.fileno()), NO_SENDER)


class TemporaryFolder(IntakeTest):
    NOT_CREATED = b"Could not create a temporary file.\nAbnormal exit.\n"

    def test_a_read_only_one_ends_the_run_before_anything_is_read(self):
        self.use_tmp(read_only=True)
        path = pathlib.Path("/sandbox/message")
        path.write_bytes(MESSAGE)
        self.addCleanup(path.unlink)
        with open(path, "rb") as file:
            self.assert_silent(self.run_program(stdin=file.fileno(), recipient=None), self.NOT_CREATED)
            self.assertEqual(os.lseek(file.fileno(), 0, os.SEEK_CUR), 0, "how much was read")

    def test_one_without_room_for_another_file(self):
        linux.mount("sandbox", "/tmp", "tmpfs", options="nr_inodes=1,mode=1777")
        self.addCleanup(linux.unmount, "/tmp")
        self.assert_silent(self.run_program(), self.NOT_CREATED)

    def test_one_of_somebody_else(self):
        self.use_tmp()
        os.chmod("/tmp", 0o755)
        self.assert_silent(self.run_program(user=NOBODY), self.NOT_CREATED)

    def test_a_limit_on_file_sizes_cuts_the_copy_and_nothing_else(self):
        responder = self.panel.sql("select id from mail_resp")[0][0].decode()
        self.panel.forward(responder, "archive@example.com")
        message = FROM + b"\n" + b"x" * 300000
        result = self.run_program(message=message, rlimits={"fsize": 65536})
        self.assertEqual((result.status, result.signal, result.stderr), (0, None, b""))
        self.assertEqual(len(result.mails), 2)
        self.assertEqual(result.mails[0].ignored, set())
        self.assert_nothing_left(result)

    def test_a_full_one_cuts_the_copy_and_nothing_else_of_intake(self):
        self.forward()
        message = FROM + b"\n" + b"A line of a long message.\n" * 8000
        result = self.run_program(message=message, tmp_size=64)
        self.assertEqual((result.status, result.signal, result.stderr), (0, None, b""))
        forward, reply = result.mails
        self.assertEqual((forward.argv[3], reply.argv[3]), ("archive@example.com", SENDER))
        self.assertLess(len(forward.stdin), len(message))
        self.assertTrue(message.startswith(forward.stdin))
        self.assert_nothing_left(result)

    def test_the_copy_is_for_its_owner_only_whatever_the_mask(self):
        self.forward()
        modes = pathlib.Path("/sandbox/modes")
        self.addCleanup(modes.unlink)
        self.sendmail(f"run stat -c %a /tmp/qrx-autoresponder-* > {modes}; read")
        mask = os.umask(0)
        try:
            self.run_program()
        finally:
            os.umask(mask)
        self.assertEqual(modes.read_text(), "600\n")

"""The means of the system tests themselves: the recorder, the runs, the faults, the expected mails."""

import os
import pathlib
import signal
import subprocess
import sys
import time

import database
import expected
import program_run
import sandbox
import server
from harness import MESSAGE, NOBODY, RECIPIENT, Sql, SystemTest, TimedOut

SHELL = "/bin/sh"


class Recorder(SystemTest):
    """The recording sendmail, called directly."""

    def call(self, message=b"hello\n", args=(), **how):
        result = self.run_program(program=sandbox.SENDMAIL, message=message, args=args, **how)
        return result, result.mails[0]

    def test_keeps_arguments_and_input_to_the_byte(self):
        message = bytes(range(256)) * 1000
        args = ["-f", "", "a b\n", b"\xff\xfe"]
        result, mail = self.call(message, args)
        self.assert_ended(result)
        self.assertEqual(mail.argv, ["/usr/sbin/sendmail", "-f", "", "a b\n", os.fsdecode(b"\xff\xfe")])
        self.assert_bytes(mail.stdin, message)
        self.assertTrue(mail.complete)
        self.assertLessEqual(mail.start, mail.end)

    def test_reads_all_by_default_and_ends_with_0(self):
        result, mail = self.call()
        self.assert_ended(result)
        self.assertEqual(mail.stdin, b"hello\n")

    def test_ends_with_the_status_asked_for(self):
        self.sendmail("read; exit 75")
        result, mail = self.call()
        self.assert_ended(result, status=75)
        self.assertEqual(mail.stdin, b"hello\n")

    def test_exits_without_reading(self):
        self.sendmail("exit 3")
        result, mail = self.call()
        self.assert_ended(result, status=3)
        self.assertEqual((mail.stdin, mail.complete), (b"", True))

    def test_reads_some_and_dies(self):
        self.sendmail("read 3; exit 1")
        result, mail = self.call()
        self.assert_ended(result, status=1)
        self.assertEqual(mail.stdin, b"hel")

    def test_closes_its_input_and_lives_on(self):
        self.sendmail("read 2; close; sleep 0.2")
        reader, writer = os.pipe()
        running = self.start(program=sandbox.SENDMAIL, stdin=reader)
        os.close(reader)
        with self.assertRaises(BrokenPipeError):
            for _ in range(1000):
                os.write(writer, b"x")
                time.sleep(0.005)
        self.assertIsNone(running.process.poll())
        os.close(writer)
        self.assertEqual(running.finish().mails[0].stdin, b"xx")

    def test_sleeps_without_reading(self):
        self.sendmail("sleep 0.2")
        result, mail = self.call()
        self.assertGreaterEqual(result.duration, 0.2)
        self.assertEqual(mail.stdin, b"")

    def test_kills_itself(self):
        for number in (signal.SIGKILL, signal.SIGSEGV, signal.SIGTERM):
            with self.subTest(signal=number.name):
                self.sendmail(f"read; signal {int(number)}")
                result, mail = self.call()
                self.assertEqual((result.status, result.signal), (None, number))
                self.assertEqual((mail.stdin, mail.complete), (b"hello\n", True))

    def test_stops_until_it_is_continued(self):
        self.sendmail("read; stop; exit 5")
        running = self.start(program=sandbox.SENDMAIL)
        pid, status = os.waitpid(running.process.pid, os.WUNTRACED)
        self.assertTrue(os.WIFSTOPPED(status))
        self.assertEqual([mail.complete for mail in self.mails()], [True])
        os.kill(pid, signal.SIGCONT)
        self.assertEqual(running.finish().status, 5)

    def test_a_call_that_is_killed_from_outside_is_kept_as_incomplete(self):
        self.sendmail("read; sleep 1000")
        running = self.start(program=sandbox.SENDMAIL)
        while not (self.mails() and self.mails()[0].stdin):
            time.sleep(0.005)
        running.process.kill()
        mail, = running.finish().mails
        self.assertEqual((mail.stdin, mail.complete, mail.end), (MESSAGE, False, None))

    def test_writes_to_its_streams(self):
        self.sendmail("out one\\ntwo\\\\\\n; err wrong\\n")
        result, _ = self.call()
        self.assert_ended(result, stdout=b"one\ntwo\\\n", stderr=b"wrong\n")

    def test_runs_a_command(self):
        self.sendmail("run echo seen > /tmp/seen; exit 0")
        result, _ = self.call()
        self.assertEqual([(file.name, file.content) for file in result.tmp], [("seen", b"seen\n")])

    def test_a_step_it_does_not_know_fails_loudly(self):
        self.sendmail("dance")
        result, mail = self.call()
        self.assertEqual((result.status, mail.complete), (99, False))
        self.assertIn(b"dance", result.stderr)

    def test_behaves_differently_call_by_call_and_the_last_holds_on(self):
        self.sendmail("exit 1", "read; exit 2", "exit 3")
        results = [self.call() for _ in range(4)]
        self.assertEqual([result.status for result, _ in results], [1, 2, 3, 3])
        self.assertEqual([mail.stdin for _, mail in results], [b"", b"hello\n", b"", b""])
        self.assertEqual([mail.number for mail in self.mails()], [1, 2, 3, 4])

    def test_calls_at_the_same_moment_get_numbers_of_their_own(self):
        running = [self.start(program=sandbox.SENDMAIL, args=[str(number)]) for number in range(20)]
        for one in running:
            one.process.wait()
        mails = self.mails()
        self.assertEqual([mail.number for mail in mails], list(range(1, 21)))
        self.assertEqual({mail.argv[1] for mail in mails}, {str(number) for number in range(20)})

    def test_tells_what_it_inherited(self):
        script = ("trap '' PIPE; cd /var/qmail; exec 7</etc/qrx/.qrx.shadow;"
                  " /usr/sbin/sendmail; echo $$ >&2")
        result = self.run_program(program=SHELL, args=["-c", script], env={"COLOUR": "blue green"})
        mail, = result.mails
        self.assertEqual((mail.ignored, mail.blocked), ({signal.SIGPIPE}, set()))
        self.assertEqual(mail.cwd, "/var/qmail")
        self.assertEqual(mail.fds[7], "/etc/qrx/.qrx.shadow")
        self.assertEqual(set(mail.fds), {0, 1, 2, 7})
        self.assertEqual(mail.env["COLOUR"], "blue green")
        self.assertEqual(mail.env["RESP_RECIPIENT"], RECIPIENT)
        self.assertEqual(mail.parent, int(result.stderr))
        self.assertEqual((mail.uid, mail.gid), ((0, 0), (0, 0)))

    def test_records_under_the_limits_of_its_caller(self):
        for limit in ({"fsize": 0}, {"nofile": 3}, {"as": 8 << 20}):
            with self.subTest(limit=limit):
                _, mail = self.call(rlimits=limit)
                self.assertEqual((mail.stdin, mail.complete), (b"hello\n", True))

    def test_records_for_another_user(self):
        result, mail = self.call(user=NOBODY)
        self.assert_ended(result)
        self.assertEqual((mail.uid, mail.gid), ((NOBODY, NOBODY), (NOBODY, NOBODY)))
        self.assert_ended(self.call()[0])


class Run(SystemTest):
    """Running a program and seeing all that it leaves."""

    def shell(self, script, **how):
        return self.run_program(program=SHELL, args=["-c", script], **how)

    def test_streams_status_and_message(self):
        result = self.shell("cat; echo problem >&2; exit 4")
        self.assert_ended(result, stdout=MESSAGE, stderr=b"problem\n", status=4)

    def test_a_signal(self):
        result = self.shell("kill -6 $$")
        self.assertEqual((result.status, result.signal), (None, signal.SIGABRT))

    def test_the_environment_is_the_given_one_only(self):
        result = self.shell("echo $RESP_RECIPIENT; env | cut -d= -f1 | sort | tr '\\n' ' '", recipient="a@b",
                            env={"EXTRA": "1", "ASAN_OPTIONS": None, "UBSAN_OPTIONS": None})
        self.assertEqual(result.stdout, b"a@b\nEXTRA PATH PWD RESP_RECIPIENT ")

    def test_no_recipient(self):
        self.assertEqual(self.shell("echo ${RESP_RECIPIENT-unset}", recipient=None).stdout, b"unset\n")

    def test_a_program_that_does_not_end_is_killed_and_fails_the_case(self):
        with self.assertRaises(TimedOut):
            self.shell("echo stuck >&2; sleep 1000 & sleep 1000", timeout=0.3)
        self.assertEqual([pathlib.Path(f"/proc/{pid}/comm").read_text() for pid in program_run.process_ids()
                          if pid not in (1, os.getpid())], [])

    def test_a_process_left_behind_fails_the_case(self):
        with self.assertRaisesRegex(AssertionError, "left processes behind"):
            self.shell("sleep 1000 &")

    def test_a_process_left_behind_can_be_allowed_and_is_told(self):
        result = self.shell("sleep 1000 & echo $!", allow_left=True)
        self.assertEqual(result.left, [int(result.stdout)])
        self.doCleanups()
        self.assertEqual(program_run.process_ids() & set(result.left), set())

    def test_mails_are_those_of_the_run(self):
        first = self.shell("/usr/sbin/sendmail one")
        second = self.shell("/usr/sbin/sendmail two; /usr/sbin/sendmail three")
        self.assertEqual([mail.argv[1] for mail in first.mails], ["one"])
        self.assertEqual([mail.argv[1] for mail in second.mails], ["two", "three"])
        self.assertEqual([mail.argv[1] for mail in self.mails()], ["one", "two", "three"])

    def test_files_in_tmp_are_told_with_names_made_comparable(self):
        result = self.shell("umask 077; echo a > /tmp/qrx-response-uu-aB3xYz; mkdir /tmp/folder; chmod 755 /tmp/folder")
        self.assertEqual([(file.name, file.content, file.mode) for file in result.tmp],
                         [("folder", b"", 0o755), ("qrx-response-uu-XXXXXX", b"a\n", 0o600)])
        self.assertEqual(result.tmp[1].path, "/tmp/qrx-response-uu-aB3xYz")

    def test_closed_streams(self):
        script = "for fd in 0 1 2; do [ -e /proc/$$/fd/$fd ] && echo $fd >> /tmp/open; done"
        for name, wanted in (("stdin", b"1\n2\n"), ("stdout", b"0\n2\n"), ("stderr", b"0\n1\n")):
            with self.subTest(closed=name):
                self.assertEqual(self.shell(script, **{name: "closed"}).tmp[0].content, wanted)
                program_run.empty_tmp()

    def test_given_streams(self):
        with open("/dev/full", "wb") as full:
            result = self.shell("echo lost || exit 9", stdout=full)
        self.assertEqual(result.status, 9)

    def test_a_message_in_pieces_comes_through_a_pipe(self):
        result = self.run_program(program="/usr/bin/python3", message=[b"one", b"two"], args=[
            "-c", "import os\nwhile piece := os.read(0, 100): print(piece)"])
        self.assertEqual(result.stdout, b"b'one'\nb'two'\n")

    def test_a_name_of_its_own(self):
        result = self.run_program(program="/bin/bash", argv0="/odd/name", args=["-c", "cat /proc/$$/cmdline; true"])
        self.assertEqual(result.stdout, b"/odd/name\0-c\0cat /proc/$$/cmdline; true\0")

    def test_limits(self):
        self.assertEqual(self.shell("ulimit -n; ulimit -f", rlimits={"nofile": 17, "fsize": 1024}).stdout,
                         b"17\n2\n")

    def test_another_user(self):
        self.assertEqual(self.shell("id -u; id -g; id -G", user=NOBODY).stdout, b"65534\n" * 3)

    def test_a_folder_to_run_in(self):
        self.assertEqual(self.shell("pwd", cwd="/var/qmail").stdout, b"/var/qmail\n")

    def test_a_fault_injected_into_a_system_call(self):
        result = self.run_program(program="/bin/mkdir", args=["/tmp/x"],
                                  strace=["-e", "trace=mkdir", "-e", "inject=mkdir:error=ENOSPC"])
        self.assertEqual(result.status, 1)
        self.assertIn(b"No space left on device", result.stderr)
        self.assertIn('mkdir("/tmp/x"', result.trace)
        self.assertIn("(INJECTED)", result.trace)
        self.assert_nothing_left(result)

    def test_a_small_tmp_gets_full(self):
        result = self.shell("head -c 100000 /dev/zero > /tmp/big", tmp_size=16)
        self.assertIn(b"No space left on device", result.stderr)
        self.assertEqual([(file.name, len(file.content)) for file in result.tmp], [("big", 16384)])
        self.assertEqual(self.temporary_files(), [])

    def test_a_tmp_for_few_files(self):
        self.use_tmp(files=2)
        result = self.shell("touch /tmp/1 /tmp/2 /tmp/3")
        self.assertEqual([file.name for file in result.tmp], ["1", "2"])
        self.assertIn(b"/tmp/3': No space left on device", result.stderr)

    def test_a_read_only_tmp(self):
        self.use_tmp(read_only=True)
        self.assertIn(b"Read-only file system", self.shell("touch /tmp/x").stderr)
        self.doCleanups()
        self.assert_ended(self.shell("touch /tmp/x"))

    def test_the_next_case_starts_afresh(self):
        self.furnish()
        self.panel.databytes("1")
        self.panel.configuration("A b\n")
        self.panel.password_file(None)
        self.sendmail("exit 1")
        self.shell("/usr/sbin/sendmail; touch /tmp/x; mkdir -p /tmp/y/z")
        self.remove_sendmail()
        self.setUp()
        self.assertEqual((self.mails(), self.temporary_files()), ([], []))
        self.assertEqual(self.sql("select count(*) from mail_resp"), [(b"0",)])
        self.assert_ended(self.shell("ls /var/qmail/control /etc/qrx; cat /etc/qrx/.qrx.shadow; /usr/sbin/sendmail"),
                          stdout=b"/etc/qrx:\n\n/var/qmail/control:\nsandbox-admin\n")


class Surroundings(SystemTest):
    """The panel and the faults."""

    def test_a_value_comes_back_as_it_was_stored(self):
        for value in (None, "", "O'Brien \\ \n\0 ü", "x" * 70000):
            with self.subTest(value=str(value)[:20]):
                self.panel.param("name", value)
                wanted = None if value is None else value.encode()
                self.assertEqual(self.sql("select val from misc where param=%s", "name"), [(wanted,)])

    def test_an_expression_is_a_value_too(self):
        responder = self.furnish()
        self.panel.answered(responder, "a@b", num=None, time_resp=Sql("now() - interval 1 day"))
        self.assertEqual(self.panel.frequency_rows(), [(responder, "a@b", None)])
        self.assertEqual(self.sql("select to_days(now()) - to_days(time_resp) from resp_freq"), [(b"1",)])

    def test_a_refused_statement_is_told(self):
        with self.assertRaisesRegex(database.SqlError, "nowhere"):
            self.sql("select * from nowhere")

    def test_a_responder_has_the_columns_asked_for(self):
        responder = self.furnish(subject=None, text="ü")
        self.assertEqual(self.sql("select text, subject, resp_on from mail_resp where id=%s", responder),
                         [("ü".encode(), None, b"true")])

    def test_ids_of_different_tables_differ(self):
        responder = self.furnish()
        ids = [self.client, self.domain, self.mailbox, responder, self.panel.forward(responder, "x"),
               self.panel.attachment(responder, "x"), self.panel.answered(responder, "x")]
        self.assertEqual(len(set(ids)), len(ids))

    def test_an_attachment_lies_in_the_mailbox_folder(self):
        responder = self.furnish()
        self.panel.attachment(responder, "a.txt", b"content")
        self.panel.attachment(responder, "missing.txt")
        folder = pathlib.Path("/var/qmail/mailnames/example.com/info/@attachments")
        self.assertEqual([path.name for path in folder.iterdir()], ["a.txt"])
        self.assertEqual((folder / "a.txt").read_bytes(), b"content")
        self.assertEqual(len(self.sql("select * from resp_attach where rn_id=%s", responder)), 2)

    def test_tables_that_a_case_changed_are_whole_again_in_the_next(self):
        self.drop_table("mail_resp")
        self.drop_column("clients", "email")
        with self.assertRaises(database.SqlError):
            self.sql("select * from mail_resp")
        self.setUp()
        self.assertEqual(self.sql("select * from mail_resp"), [])
        self.assertEqual(self.sql("select email from clients"), [])

    def test_a_stopped_server_is_gone_and_starts_again_with_its_rows(self):
        self.furnish()
        self.stop_server()
        self.assertFalse(os.path.exists(server.SOCKET))
        self.start_server()
        self.assertEqual(len(self.sql("select * from mail")), 1)

    def test_a_server_that_was_stopped_runs_in_the_next_case(self):
        self.stop_server()
        self.doCleanups()
        self.setUp()
        self.assertEqual(self.sql("select 1"), [(b"1",)])

    def test_a_mute_server_accepts_and_says_nothing(self):
        self.mute_server()
        script = ("import socket; s = socket.socket(socket.AF_UNIX); s.connect('/run/mysqld/mysqld.sock');"
                  "s.settimeout(0.2); s.recv(1)")
        result = self.run_program(program="/usr/bin/python3", args=["-c", script])
        self.assertIn(b"TimeoutError", result.stderr)

    def test_sendmail_can_be_removed_and_replaced(self):
        self.remove_sendmail()
        self.assertFalse(os.path.exists(sandbox.SENDMAIL))
        self.replace_sendmail(b"#!/bin/sh\necho other\n")
        self.assertEqual(self.run_program(program=sandbox.SENDMAIL).stdout, b"other\n")
        self.replace_sendmail(b"", mode=0o644)
        self.assertFalse(os.access(sandbox.SENDMAIL, os.X_OK))

    def test_gmime_reads_a_header_block_without_a_complaint(self):
        result = self.run_program(program=sandbox.GMIME_HEADERS)
        self.assertEqual(result.status, 0)
        self.assertEqual(result.stdout.splitlines()[:2],
                         [b"header From: Sam Sender <sam@sender.example>", b"header To: info@example.com"])

    def test_gmime_complains_about_a_broken_header_block(self):
        result = self.run_program(program=sandbox.GMIME_HEADERS,
                                  message=b"From: a@b.example\nno colon here\nTo: c@d.example\n\ntext\n")
        self.assertEqual(result.status, 1)
        self.assertIn(b"warning", result.stdout)


class Expected(SystemTest):
    """The builder of expected mails, against what others say."""

    def test_boundaries_follow_the_c_library(self):
        script = ("import ctypes; rand = ctypes.CDLL(None).rand;"
                  "print(*(rand() % 52 for _ in range(29 * 3)))")
        draws = list(map(int, subprocess.run([sys.executable, "-c", script], capture_output=True, check=True,
                                             text=True).stdout.split()))
        letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
        for number in (1, 2, 3):
            wanted = "--------=_" + "".join(letters[draw] for draw in draws[29 * (number - 1):29 * number])
            self.assertEqual(expected.boundary(number), wanted)

    def test_encoded_words(self):
        for text, wanted in (("", ""), ("Hello world", "Hello world"), ("a-b", "=?utf-8?Q?a=2Db?="),
                             ("x y!", "=?utf-8?Q?x_y=21?="), (" über", " =?utf-8?Q?=C3=BCber?="),
                             ("\tx", "=?utf-8?Q?=09x?="), ("~\x7f.,:;<>@[]", "~\x7f.,:;<>@[]")):
            with self.subTest(text=text):
                self.assertEqual(expected.encoded_word(text), wanted)

    def test_a_reply_with_an_attachment_in_full(self):
        mark = expected.boundary(1)
        self.assert_bytes(
            expected.reply("s@x", "r@y", "Re: ü", b"text\n", reply_to="z@z", attachments=[("a-b", b"q" * 46)]),
            ("Reply-To: z@z\nFrom: r@y\nTo: s@x\nMIME-Version: 1.0\nSubject: =?utf-8?Q?Re:_=C3=BC?=\n"
             f'Content-Type: multipart/mixed;\n\tboundary="{mark}"\n\n--{mark}\n'
             'Content-Type: text/plain; charset="UTF-8"\nContent-Transfer-Encoding: 8bit\n'
             f"Content-Disposition: inline\n\ntext\n\n\n\n--{mark}\n"
             "Content-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n"
             'Content-Disposition: attachment;\n\tfilename="=?utf-8?Q?a=2Db?="\n\n'
             + "cXFx" * 15 + f"\ncQ==\n\n--{mark}--\n").encode())

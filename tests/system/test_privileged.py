"""A program of root's with the set-user-ID bit, run by another user of the host who would turn it.

Where a case shows that something has no effect, it shows too that it has one on the plain program.
"""

import os
import pathlib
import resource
import shutil
import signal
import subprocess

import expected
import program_run
import sandbox
from harness import MESSAGE, NOBODY, SystemTest
from program_run import wait_until

PROGRAM = pathlib.Path("/sandbox/setuid_autoresponder")
LURES = pathlib.Path("/sandbox/lures")
AS_NOBODY = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
SUBJECT = "Opening hours"  # of MESSAGE
SENDER = "sam@sender.example"
TEXT = "Thank you.\n"
ROOTS_ENVIRONMENT = {"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "RESP_RECIPIENT": "info@example.com"}
ROGUE_SERVER = {"MYSQL_UNIX_PORT": "/sandbox/rogue.sock", "MARIADB_UNIX_PORT": "/sandbox/rogue.sock"}
# More that a caller could set: for the client and what it loads, the C library, and programs that sendmail is
# or starts.
HOSTILE = {
    **{name: "x" for name in (
        "MYSQL_TCP_PORT", "MYSQL_PWD", "MYSQL_HOME", "MARIADB_HOME", "LIBMYSQL_PLUGINS", "LIBMYSQL_PLUGIN_DIR",
        "MARIADB_PLUGIN_DIR", "LIBMYSQL_ENABLE_CLEARTEXT_PLUGIN", "OPENSSL_CONF", "OPENSSL_CONF_INCLUDE",
        "OPENSSL_ENGINES", "OPENSSL_MODULES", "SSL_CERT_DIR", "SSL_CERT_FILE", "SSLKEYLOGFILE", "CHARSET",
        "LANG", "LC_ALL", "LANGUAGE", "TZ", "GCONV_PATH", "LOCPATH", "TMPDIR", "HOME",
        "IFS", "ENV", "BASH_ENV", "PERL5OPT", "PYTHONPATH", "MAIL_CONFIG", "QMAILQUEUE")},
    "PATH": f"{LURES}:/usr/bin:/bin"}


class PrivilegedTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.need_other_users()
        self.responder = self.furnish(text=TEXT, ans_freq="1000")
        shutil.copyfile(sandbox.PROGRAM, PROGRAM)
        PROGRAM.chmod(0o4755)
        self.addCleanup(PROGRAM.unlink)
        LURES.mkdir()
        self.addCleanup(shutil.rmtree, LURES)

    def run_as_roots(self, **how):
        """A run of the set-user-ID program by another user."""
        return self.run_program(program=str(PROGRAM), user=NOBODY, **how)

    def assert_answered(self, result):
        self.assert_ended(result)
        self.assertEqual([mail.argv[3] for mail in result.mails], [SENDER])
        self.assert_bytes(result.mails[0].stdin, expected.reply(SENDER, "info@example.com", f"Re: {SUBJECT}",
                                                                TEXT.encode()))
        self.assertEqual((result.mails[0].uid, result.mails[0].gid), ((0, 0), (0, 0)))
        self.assert_nothing_left(result)

    def lure(self, name, content, mode=0o755):
        path = LURES / name
        path.write_text(content)
        path.chmod(mode)
        return str(path)


def name_of(pid):
    """The program that the process executes now."""
    return pathlib.Path(f"/proc/{pid}/comm").read_text().strip()


class Environment(PrivilegedTest):
    def test_the_database_is_not_looked_for_where_the_caller_says(self):
        self.assert_answered(self.run_as_roots(env=ROGUE_SERVER))
        turned = self.run_program(env=ROGUE_SERVER)
        self.assertIn(b"Can't connect to local server through socket '/sandbox/rogue.sock'", turned.stderr)

    def test_no_plugin_of_the_callers_is_loaded(self):
        self.lure("lure.so", "not a library")
        env = {"LIBMYSQL_PLUGINS": "lure", "MARIADB_PLUGIN_DIR": str(LURES)}
        looked = {}
        for kind, run in (("roots", self.run_as_roots), ("plain", self.run_program)):
            trace = run(env=env, strace=["-e", "trace=open,openat", "-e", "signal=none"]).trace
            looked[kind] = f"{LURES}/lure.so" in trace
        self.assertEqual(looked, {"roots": False, "plain": True})

    def test_no_conversion_of_the_callers_is_loaded(self):
        self.lure("gconv-modules", "module X-LURE// INTERNAL lure 1\n")
        message = b"From: sam@sender.example\nContent-Type: text/plain; charset=x-lure\n\n\xe9\n"
        looked = {}
        for kind, run in (("roots", self.run_as_roots), ("plain", self.run_program)):
            trace = run(message=message, env={"GCONV_PATH": str(LURES)},
                        strace=["-e", "trace=open,openat", "-e", "signal=none"]).trace
            looked[kind] = f"{LURES}/" in trace
        self.assertEqual(looked, {"roots": False, "plain": True})

    def test_sendmail_gets_none_of_the_callers_variables(self):
        result = self.run_as_roots(env={**HOSTILE, **ROGUE_SERVER})
        self.assert_answered(result)
        self.assertEqual(result.mails[0].env, ROOTS_ENVIRONMENT)

    def test_nor_do_the_forward_and_the_notification(self):
        self.panel.forward(self.responder, "a@two.example")
        self.panel.attachment(self.responder, "gone")
        result = self.run_as_roots(env=ROGUE_SERVER)
        self.assert_ended(result)
        self.assertEqual([mail.env for mail in result.mails], [ROOTS_ENVIRONMENT] * 3)

    def test_a_sendmail_that_is_a_script_runs_nothing_of_the_callers(self):
        mark = LURES / "mark"
        startup = self.lure("startup", f"echo startup >> {mark}\n")
        self.lure("cat", f"#!/bin/sh\necho cat >> {mark}\n")
        self.replace_sendmail(b"#!/bin/bash\ncat > /dev/null\n")
        env = {"BASH_ENV": startup, "PATH": f"{LURES}:/usr/bin:/bin"}
        self.assert_ended(self.run_as_roots(env=env))
        self.assertFalse(mark.exists(), "something of the caller's was run")
        self.assert_ended(self.run_program(env=env))
        self.assertEqual(mark.read_text(), "startup\ncat\n")

    def test_without_a_recipient_ends_as_ever(self):
        result = self.run_as_roots(recipient=None)
        self.assert_ended(result, stderr=b"Could not get recipient e-mail address from RESP_RECIPIENT environment"
                                         b" variable\nAbnormal exit.\n")
        self.assert_nothing_left(result)


class Descriptors(PrivilegedTest):
    def test_what_goes_to_a_closed_stream_reaches_no_file(self):
        self.sql("update mail_resp set charset='x-none'")
        for closed in (("stderr",), ("stdout",), ("stdout", "stderr")):
            with self.subTest(closed=closed):
                program_run.empty_tmp()
                result = self.run_as_roots(**dict.fromkeys(closed, "closed"))
                self.assertEqual(result.status, 1)
                self.assertEqual([file.content for file in result.tmp], [expected.message_copy(MESSAGE), b""])

    def test_closed_output_and_error_do_not_keep_it_from_answering(self):
        result = self.run_as_roots(stdout="closed", stderr="closed")
        self.assert_answered(result)
        self.assertEqual(sorted(result.mails[0].fds), [0, 1, 2])

    def test_all_closed_ends_quietly(self):
        result = self.run_as_roots(stdin="closed", stdout="closed", stderr="closed")
        self.assert_ended(result)
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)

    def test_no_further_descriptor_reaches_sendmail(self):
        opening = self.lure("opening", f"#!/bin/bash\nexec 3>{LURES}/3 9</ 200>{LURES}/200\nexec {PROGRAM}\n")
        LURES.chmod(0o777)
        result = self.run_program(program=opening, user=NOBODY)
        self.assert_answered(result)
        self.assertEqual(sorted(result.mails[0].fds), [0, 1, 2])


class Files(PrivilegedTest):
    def masked(self, mask, **how):
        before = os.umask(mask)
        try:
            return self.run_as_roots(**how)
        finally:
            os.umask(before)

    def test_each_is_roots_alone_whatever_the_callers_mask(self):
        self.panel.responder(self.mailbox)  # a second reply
        listing = pathlib.Path("/sandbox/listing")
        self.addCleanup(lambda: listing.unlink(missing_ok=True))
        for mask in (0, 0o777):
            with self.subTest(mask=oct(mask)):
                self.sendmail(f"run stat -c '%u %a' /tmp/qrx-* >> {listing}; read")
                result = self.masked(mask)
                self.assert_ended(result)
                self.assertEqual(len(result.mails), 2)
                self.assertEqual(listing.read_text().splitlines(), ["0 600"] * 4)  # copy and reply, twice
                listing.unlink()

    def test_sendmail_gets_a_mask_that_neither_opens_nor_bars_its_files(self):
        shown = LURES / "mask"
        self.replace_sendmail(f"#!/bin/sh\numask > {shown}\ncat > /dev/null\n".encode())
        for mask in (0, 0o777):
            with self.subTest(mask=oct(mask)):
                self.assert_ended(self.masked(mask))
                self.assertEqual(shown.read_text(), "0022\n")

    def test_a_link_that_another_user_plants_under_the_second_replys_name_is_not_followed(self):
        precious = pathlib.Path("/sandbox/precious")
        precious.write_text("precious")
        self.addCleanup(precious.unlink)
        second = self.panel.responder(self.mailbox)
        self.panel.forward(second, "a@two.example")
        plants = pathlib.Path("/sandbox/name")
        self.addCleanup(plants.unlink)
        as_nobody = " ".join(AS_NOBODY)
        for plant in ("ln -s /sandbox/precious $n", "touch $n", "mkfifo $n"):
            with self.subTest(plant):
                self.sendmail(f"read; run ls /tmp/qrx-response-uu-* > {plants}",
                              f"read; run n=$(cat {plants}) && {as_nobody} sh -c \"{plant}\"", "read")
                result = self.run_as_roots()
                self.assert_ended(result)
                self.assertEqual([mail.argv[3] for mail in result.mails], [SENDER, "a@two.example", SENDER])
                self.assertIn(b"Thank you for your message.\n", result.mails[2].stdin)
                self.assertEqual(precious.read_text(), "precious")
                self.assert_nothing_left(result)


class CoreDumps(PrivilegedTest):
    def setUp(self):
        super().setUp()
        if pathlib.Path("/proc/sys/kernel/core_pattern").read_text().startswith("|"):
            self.skipTest("core dumps go to a program of the host here, which this test would set to work")
        if resource.getrlimit(resource.RLIMIT_CORE)[1] != resource.RLIM_INFINITY:
            self.skipTest("this host's hard limit on core dumps hides whether the program makes one")
        self.folder = LURES / "cores"
        self.folder.mkdir(mode=0o777)
        self.folder.chmod(0o777)

    def crash(self, *command, ready):
        """Starts the command where it could dump core, has it crash when ready, and tells whether it did dump."""
        with open(LURES / "message", "w+b") as message:
            message.write(MESSAGE)
            message.seek(0)
            process = subprocess.Popen(
                ["prlimit", "--core=unlimited:", *command], stdin=message, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL, cwd=self.folder, env=ROOTS_ENVIRONMENT)
        self.addCleanup(process.wait)
        wait_until("the moment for a crash", lambda: ready(process.pid))
        os.kill(process.pid, signal.SIGABRT)
        status = os.waitpid(process.pid, 0)[1]
        self.assertEqual(os.WTERMSIG(status), signal.SIGABRT)
        return os.WCOREDUMP(status)

    def crash_of_a_run(self, *command):
        """Whether a run dumps core while it holds a message, waiting for its sendmail."""
        self.sendmail("sleep 60")
        before = program_run.process_ids()
        dumped = self.crash(*command, ready=lambda pid: self.mails() != [])
        for pid in program_run.process_ids() - before:
            os.kill(pid, signal.SIGKILL)
        program_run.empty_tmp()
        return dumped

    def test_it_leaves_none_of_the_message(self):
        self.assertFalse(self.crash_of_a_run(*AS_NOBODY, str(PROGRAM)))

    def test_nor_does_it_without_more_rights_than_its_caller(self):
        self.assertFalse(self.crash_of_a_run(sandbox.PROGRAM))

    def test_other_programs_dump_there(self):
        self.assertTrue(self.crash("sleep", "60", ready=lambda pid: name_of(pid) == "sleep"))


class Debuggers(PrivilegedTest):
    def test_its_memory_cannot_be_read_by_a_user_with_the_same_id(self):
        """An ordinary installation, without the set-user-ID bit, as the mail system's user."""
        os.chmod("/etc/qrx/.qrx.shadow", 0o644)
        self.sendmail("sleep 60")
        run = self.start(user=NOBODY)
        other = subprocess.Popen([*AS_NOBODY, "sleep", "60"])
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        wait_until("both processes", lambda: self.mails() and name_of(other.pid) == "sleep")
        opened = {pid: subprocess.run([*AS_NOBODY, "head", "-c1", f"/proc/{pid}/environ"], capture_output=True,
                                      check=False).returncode == 0
                  for pid in (run.process.pid, other.pid)}
        run.kill_all()
        self.assertEqual(opened, {run.process.pid: False, other.pid: True})

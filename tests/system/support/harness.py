"""SystemTest: the base of the tests that run the built program for real.

A test file holds unittest cases derived from SystemTest and is run by run_tests, which puts all its
cases into one sandbox. Each case starts with an empty panel, no mail recorded, an empty /tmp, the
recorder in the place of sendmail, and the database server running. A case furnishes the panel with
the helpers of panel.Panel (self.panel), runs the program with self.run, and compares what came of it.
"""

import os
import pathlib
import re
import socket
import unittest

import program_run
import sandbox
import server
import spool
from database import Sql  # noqa: F401, for the tests
from panel import Panel
from program_run import MESSAGE, RECIPIENT, SANITIZED, Running, TimedOut  # noqa: F401

_PANEL = Panel()
_CHANGES_THE_TABLES = re.compile(r"\s*(alter|create|drop|rename|grant|revoke|set\s+(global|password))\b",
                                 re.IGNORECASE)
NOBODY = 65534


class SystemTest(unittest.TestCase):
    """One case: a fresh panel and the means to run the program in it."""

    maxDiff = None
    _tables_changed = False

    def setUp(self):
        self.panel = _PANEL
        if SystemTest._tables_changed or server.process_id() is None:
            self.panel.disconnect()
            server.restore()
            SystemTest._tables_changed = False
        self.panel.empty()
        spool.empty()
        program_run.empty_tmp()
        sandbox.replace_sendmail()

    def furnish(self, **columns):
        """A client with the domain example.com, its mailbox info and a responder with the columns; returns its id."""
        self.client = self.panel.client()
        self.domain = self.panel.domain(client=self.client)
        self.mailbox = self.panel.mailbox(self.domain)
        return self.panel.responder(self.mailbox, **columns)

    def sql(self, statement, *values):
        """As Panel.sql; a statement that changes tables or rights has the next case start from a fresh server."""
        if _CHANGES_THE_TABLES.match(statement):
            SystemTest._tables_changed = True
        return self.panel.sql(statement, *values)

    # Running the program

    def start(self, **how):
        """Starts the program as run() does and returns the Running, whose finish() gives the Result."""
        if how.get("user") is not None:
            self.need_other_users()
        running = Running(**how)
        self.addCleanup(running.kill_all)
        return running

    def run_program(self, allow_left=False, tmp_size=None, **how):
        """Runs the program on a message and returns the program_run.Result.

        message: bytes, or a list of bytes to be written one after the other to a pipe
        recipient: RESP_RECIPIENT, None for unset; env: more variables
        strace: options of strace, such as ["-e", "inject=close:error=EIO"]
        rlimits: by prlimit's names, such as {"nofile": 8}
        tmp_size: KiB of a /tmp of the run's own
        argv0: the name to run under; args: more arguments; program: another file to run
        stdin, stdout, stderr: a file, a descriptor, or "closed"
        user: the id of a user without privileges; cwd: where it runs
        timeout: seconds until it is killed and the case fails
        allow_left: whether processes of the run may outlive it (they are killed when the case ends)
        """
        if tmp_size is not None:
            with program_run.SmallTmp(tmp_size):
                return self.run_program(allow_left=allow_left, **how)
        result = self.start(**how).finish()
        if result.left and not allow_left:
            self.fail(f"the run left processes behind: {result.left}")
        return result

    def mails(self):
        """All calls of sendmail of this case."""
        return spool.mails()

    # The surroundings

    def sendmail(self, *calls):
        """How sendmail behaves, call by call: "read; exit 75", "sleep 0.2; exit 0" (see recording_sendmail.cpp)."""
        spool.behave(*calls)

    def remove_sendmail(self):
        pathlib.Path(sandbox.SENDMAIL).unlink()

    def replace_sendmail(self, content, mode=0o755):
        """Puts a file with these bytes in the place of sendmail."""
        sandbox.replace_sendmail(content)
        os.chmod(sandbox.SENDMAIL, mode)

    def drop_table(self, table):
        self.sql(f"drop table {table}")

    def drop_column(self, table, column):
        self.sql(f"alter table {table} drop column {column}")

    def stop_server(self):
        self.panel.disconnect()
        server.stop()

    def start_server(self):
        server.start()

    def mute_server(self):
        """Puts a server in the place of the real one that accepts connections and never says a word."""
        self.stop_server()
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(server.SOCKET)
        listener.listen()
        self.addCleanup(os.unlink, server.SOCKET)
        self.addCleanup(listener.close)

    def use_tmp(self, kib=None, files=None, read_only=False):
        """For the rest of the case /tmp is an empty file system: of that many KiB, for that many files, or read-only."""
        self.enterContext(program_run.SmallTmp(kib, files, read_only))

    def temporary_files(self):
        return program_run.temporary_files()

    # What can't be tried everywhere

    def skip_if_sanitized(self, reason):
        if SANITIZED:
            self.skipTest(f"not under the sanitizers: {reason}")

    def skip_if_watched(self, reason):
        if program_run.WATCHED:
            self.skipTest(f"not under memcheck: {reason}")

    def need_other_users(self):
        """Skips the case where the sandbox was started by an ordinary user and so knows no other one."""
        if pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
            self.skipTest("a sandbox of an ordinary user has no second user: run this as root")

    # Comparing

    def assert_bytes(self, got, wanted, what="bytes"):
        """Equal to the byte; the difference is shown by lines."""
        self.assertEqual(got.splitlines(keepends=True), wanted.splitlines(keepends=True), what)

    def assert_ended(self, result, stderr=b"", stdout=b"", status=0):
        """The program ended with the status and wrote exactly that."""
        self.assertEqual((result.status, result.signal), (status, None),
                         f"status and signal; standard error: {result.stderr!r}")
        self.assert_bytes(result.stderr, stderr, "standard error")
        self.assert_bytes(result.stdout, stdout, "standard output")

    def assert_nothing_left(self, result):
        self.assertEqual([file.path for file in result.tmp], [], "files in /tmp")

    def assert_nothing_sent(self, result):
        self.assertEqual([mail.argv for mail in result.mails], [], "calls of sendmail")

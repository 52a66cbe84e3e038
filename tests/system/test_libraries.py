"""The libraries that the program is linked with: what it loads and looks for, and what it can do without them."""

import os
import pathlib
import re
import struct
import subprocess
import unittest

import sandbox
from database_test import DatabaseTest
from fake_server import GREETING, OK, FakeServer
from program_run import COVERAGE, SANITIZED

ARCHIVED = os.environ.get("QRX_ARCHIVED", "1") == "1"
DENIED = b"Unable to connect to Quarx Database: Access denied for user 'admin'@'localhost' (using password: YES)"
TLS = 0x0800  # the server's ability, in the first half of its abilities
WITH_TLS = GREETING.replace(struct.pack("<H", 0xA289), struct.pack("<H", 0xA289 | TLS))


def looked_for(result):
    """The files that a traced run has opened or tried to, in order."""
    return re.findall(r'open(?:at)?\((?:AT_FDCWD, )?"([^"]+)"', result.trace)


def switch_to(plugin):
    """The server's wish that the client log in by another plugin."""
    return b"\xfe" + plugin.encode() + b"\0" + b"x" * 32 + b"\0"


class Libraries(DatabaseTest):
    TRACED = ["-f", "-e", "trace=open,openat"]

    def traced_run(self):
        return self.run_program(strace=self.TRACED)

    @unittest.skipUnless(ARCHIVED, "this program is linked with shared libraries")
    @unittest.skipIf(SANITIZED or COVERAGE, "an instrumented program needs libraries of its own")
    def test_the_program_needs_the_c_library_alone(self):
        listed = subprocess.run(["readelf", "-d", sandbox.PROGRAM], capture_output=True, check=True, text=True)
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", listed.stdout)
        self.assertEqual([name for name in needed if not re.match(r"lib[cm]\.so|ld-linux", name)], [])
        self.assertIn("libc.so.6", needed)

    @unittest.skipUnless(ARCHIVED, "this program is linked with a client library that has TLS")
    def test_no_run_loads_openssl_or_its_configuration(self):
        self.furnish()
        files = looked_for(self.traced_run())
        self.assertEqual([path for path in files if re.search("ssl|crypto", path)], [])
        self.assertIn("/etc/qrx/.qrx.shadow", files, "the trace shows what is opened")

    @unittest.skipUnless(ARCHIVED, "the shared client library looks its port up whatever the program does")
    def test_no_run_asks_the_name_service_for_a_port(self):
        self.furnish()
        files = looked_for(self.traced_run())
        self.assertEqual([path for path in files if re.search("nsswitch|services|libnss", path)], [])
        self.assertIn("/etc/qrx/.qrx.shadow", files, "the trace shows what is opened")

    def test_no_run_reads_an_option_file_of_the_client(self):
        self.furnish()
        files = looked_for(self.traced_run())
        self.assertEqual([path for path in files if "my.cnf" in path], [])
        self.assertIn("/etc/qrx/.qrx.shadow", files, "the trace shows what is opened")

    def test_an_account_that_demands_tls_is_a_failed_connection(self):
        self.furnish()
        self.addCleanup(self.panel.sql, "alter user 'admin'@'localhost' require none")
        self.panel.sql("alter user 'admin'@'localhost' require ssl")
        self.assert_no_connection(self.run_program(), DENIED)

    def test_a_server_that_offers_tls_is_spoken_to_without(self):
        self.stop_server()
        fake = FakeServer([[OK]], greeting=WITH_TLS)
        self.addCleanup(fake.close)
        self.assertNotEqual(WITH_TLS, GREETING)
        self.run_program()
        self.assertEqual(struct.unpack("<I", fake.logged_in[:4])[0] & TLS, 0, "the client asks for TLS")
        self.assertIn(b"admin\0", fake.logged_in)
        self.assertEqual(fake.received[0], b"\x03SET NAMES utf8")

    def test_a_log_in_plugin_that_is_not_there_is_a_failed_connection(self):
        self.stop_server()
        fake = FakeServer(log_in=switch_to("no_such_plugin"))
        self.addCleanup(fake.close)
        result = self.run_program()
        first = result.stdout.partition(b"\n")[0].removeprefix(b"autoresponder: ")
        self.assertRegex(first, rb"\AUnable to connect to Quarx Database: .*no_such_plugin")
        self.assert_no_connection(result, first)

    def test_a_log_in_plugin_comes_from_the_clients_own_folder_alone(self):
        pathlib.Path("/tmp/evil.so").write_bytes(b"not a library")
        self.addCleanup(pathlib.Path("/tmp/evil.so").unlink)
        for name in ("../../../../../tmp/evil", "/tmp/evil", "evil"):
            with self.subTest(plugin=name):
                self.stop_server()
                fake = FakeServer(log_in=switch_to(name))
                try:
                    result = self.traced_run()
                finally:
                    fake.close()
                    self.start_server()
                self.assertEqual([path for path in looked_for(result) if "evil" in path and
                                  not re.fullmatch(r"/usr/lib/[^/]+/libmariadb3/plugin/evil\.so", path)], [])

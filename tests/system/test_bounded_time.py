"""Nothing that a run asks and that gives no answer holds it for ever; see also test_mute_server, test_sweep_statements."""

import os

import sandbox
from database_test import QUERY_FAILED, DatabaseTest
from statement_proxy import StatementProxy
from sweep import PATIENCE_SECONDS

ANSWER_SECONDS = 60


class SilentServer(DatabaseTest):
    """shorten_waits.cpp cuts each wait to a hundredth, where a case doesn't wait for the true time."""

    def setUp(self):
        super().setUp()
        self.responder = self.furnish()
        self.proxy = StatementProxy()
        self.addCleanup(self.proxy.close)

    def assert_given_up(self, result, seconds):
        self.assertRegex(result.stderr, rb"\A" + QUERY_FAILED + rb"(Lost connection to server during query"
                         rb"|Server has gone away)\n\Z")
        self.assertEqual((result.status, result.stdout), (0, b""))
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)
        self.assertGreaterEqual(result.duration, seconds)
        self.assertLess(result.duration, seconds + PATIENCE_SECONDS)

    def test_that_takes_no_more_of_a_long_statement(self):
        """More than a socket holds: the write waits, and has a time-out of its own."""
        self.skip_if_sanitized("a preloaded library doesn't come before the sanitizers' own")
        self.skip_if_watched("it takes longer than the shortened waits")
        sender = b"s" * 2_000_000
        self.proxy.spoil(7, "deaf")
        result = self.run_program(message=b"From: " + sender + b"@sender.example\n\n", timeout=60,
                                  env={"LD_PRELOAD": sandbox.SHORTEN_WAITS})
        self.assertTrue(self.proxy.spoiled)
        self.assert_given_up(result, ANSWER_SECONDS / 100)

    def test_for_the_true_time(self):
        if os.environ.get("QRX_SLOW") != "1":
            self.skipTest("takes a minute: QRX_SLOW=1 has it run")
        self.proxy.spoil(7, "silence")
        result = self.run_program(timeout=2 * ANSWER_SECONDS)
        self.assert_given_up(result, ANSWER_SECONDS)

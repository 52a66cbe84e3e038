"""Every exchange with the database server of a run, from its greeting on, is spoiled in each way that a server can.

A server that falls silent holds a run for the connection's time-outs; these runs wait a hundredth of them (see
shorten_waits.cpp), so that a run that waits once ends in less than a second, and one that waited for each
statement anew would be noticed.
"""

import sandbox
import sweep_rules
from statement_proxy import ERROR_TEXT, StatementProxy
from sweep import SweepTest, started_before

LONGEST_WAIT_SECONDS = 60 / 100
SLACK_SECONDS = 3  # for a machine that is busy with other tests


class StatementsFail(SweepTest):
    def setUp(self):
        super().setUp()
        _, self.statements = self.assert_undisturbed()
        self.proxy = StatementProxy()
        self.addCleanup(self.proxy.close)

    def sweep(self, fault, environment=None):
        for exchange in range(2 + len(self.statements)):
            with self.subTest(fault=fault, exchange=exchange):
                self.proxy.spoil(exchange, fault)
                result, statements = self.run_once(env=environment)
                self.assertTrue(self.proxy.spoiled)
                outcome = self.outcome(exchange, fault)
                self.count(fault, outcome.ending())
                self.judge(result, statements, outcome)
                if environment:
                    self.assertLess(result.duration, LONGEST_WAIT_SECONDS + SLACK_SECONDS)

    def sweep_silence(self, fault):
        self.need_plain_program()
        self.sweep(fault, {"LD_PRELOAD": sandbox.SHORTEN_WAITS})

    def outcome(self, exchange, fault):
        error = ERROR_TEXT.encode() if fault == "error" else sweep_rules.ANY
        if exchange < 2:
            return sweep_rules.no_connection(rb"Unable to connect to Quarx Database: " + error)
        return sweep_rules.failed_statement(self.statements[exchange - 2], started_before(self.statements, exchange - 2),
                                            lost=fault != "error", error=error)

    def test_answered_with_an_error(self):
        self.sweep("error")

    def test_the_connection_ends_instead(self):
        self.sweep("close")

    def test_the_connection_ends_after_it(self):
        """It was carried out: what it wrote stays."""
        self.sweep("late close")

    def test_the_connection_ends_within_the_answer(self):
        self.sweep("cut")

    def test_never_answered(self):
        self.sweep_silence("silence")

    def test_never_answered_to_the_end(self):
        self.sweep_silence("stall")

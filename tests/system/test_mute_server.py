"""A database server that accepts connections and never says a word holds the program for ten seconds, no longer."""

import errno

from database_test import DatabaseTest


class MuteServer(DatabaseTest):
    def test_ends_the_run_like_any_failed_connection(self):
        self.furnish()
        self.mute_server()
        result = self.run_program(timeout=40)
        self.assert_no_connection(
            result, b"Unable to connect to Quarx Database: Lost connection to server at"
            b" 'handshake: reading initial communication packet', system error: 110", errno.ETIMEDOUT)
        self.assertGreater(result.duration, 9.5)
        self.assertLess(result.duration, 30)

"""Every close(2) of a run reports an error once, after it has freed the descriptor: nobody notices."""

import errno
import itertools
import pathlib

import sandbox
from sweep import ALL, Outcome, SweepTest

RECORD = pathlib.Path("/sandbox/closed")
FEWEST_CLOSES = 10


class ClosesFail(SweepTest):
    def setUp(self):
        super().setUp()
        self.need_plain_program()

    def sweep(self, error):
        name = errno.errorcode[error]
        for number in itertools.count(1):
            RECORD.unlink(missing_ok=True)
            result, statements = self.run_once(env={"LD_PRELOAD": sandbox.FAIL_CLOSE, "QRX_CLOSE_RECORD": str(RECORD),
                                                    "QRX_FAIL_CLOSE": f"{number} {error}"})
            if not RECORD.exists():
                break  # the run closes no more
            with self.subTest(error=name, number=number):
                self.count(f"close {name}", "unnoticed")
                self.judge(result, statements, Outcome(mails=ALL))
        self.assertGreater(number, FEWEST_CLOSES)

    def test_with_an_input_output_error(self):
        self.sweep(errno.EIO)

    def test_with_an_interruption(self):
        """The descriptor is gone all the same: to close it again could close another one."""
        self.sweep(errno.EINTR)

"""Times whole runs of programs with the stopwatch beside this file, and sums them up."""

import dataclasses
import os
import pathlib
import statistics
import subprocess

import sandbox
from scenarios import RECIPIENT

PROGRAMS = pathlib.Path(__file__).resolve().parents[2] / "build/release/bench/whole_run"
TARGETS = ("autoresponder", "recording_sendmail", "floor", "stopwatch", "sink")  # what measuring takes
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "RESP_RECIPIENT": RECIPIENT}


class Failed(Exception):
    """A run that was to be measured ended otherwise than it must."""


@dataclasses.dataclass
class Run:
    cpu_ms: float   # user and system time, the children's included
    wall_ms: float
    peak_mb: float  # of the program or a child, whichever is larger


def quiet_sendmail():
    sandbox.replace_sendmail((PROGRAMS / "sink").read_bytes())


def measure(command, message, environment=ENVIRONMENT, user=None):
    """One run of the command on the message, a file, as that user."""
    return _runs(1, 1, [], command, message, environment, user)[0][0]


def measure_many(command, mails, jobs, runs):
    """As many runs, `jobs` at a time, over (recipient, message file) pairs; returns them and the seconds in all."""
    words = [str(word) for mail in mails for word in mail]
    return _runs(jobs, runs, words, command, os.devnull, ENVIRONMENT)


def _runs(jobs, runs, mails, command, standard_input, environment, user=None):
    with open(standard_input, "rb") as stream:
        done = subprocess.run(
            [PROGRAMS / "stopwatch", str(jobs), str(runs), *mails, "--", *command],
            stdin=stream, capture_output=True, text=True, cwd="/", env=environment,
            user=user, group=user)
    if done.returncode != 0 or done.stderr:
        raise Failed(f"{command}: {done.stderr}")
    *lines, total = done.stdout.splitlines()
    results = []
    for line in lines:
        cpu, wall, peak, status = map(int, line.split())
        if status != 0:
            raise Failed(f"{command}: wait status {status}")
        results.append(Run(cpu / 1e6, wall / 1e6, peak / 1024))
    return results, int(total) / 1e9


def median(runs, field):
    return statistics.median(getattr(run, field) for run in runs)


def percentile(values, percent):
    """The smallest value that as many percent of the values do not exceed."""
    ordered = sorted(values)
    return ordered[max(0, -(-len(ordered) * percent // 100) - 1)]

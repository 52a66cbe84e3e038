"""Makes sure that the programs to compare do the same: the same statements and the same mails, to the byte."""

import subprocess

import sandbox
import spool
from program_run import wait_until
from scenarios import RECIPIENT


class Different(Exception):
    """The programs don't do the same work, so comparing their cost would say nothing."""


def check_same_work(panel, scenario, programs):
    """Raises Different unless all of the programs send the statements and mails that the first one does."""
    sandbox.replace_sendmail()
    work = {name: _work(panel, scenario, command) for name, command in programs.items()}
    first_name, first = next(iter(work.items()))
    if len(first[1]) != scenario.mails:
        raise Different(f"{scenario.name}: {len(first[1])} mails, {scenario.mails} wanted")
    for name, done in work.items():
        if done != first:
            raise Different(f"{scenario.name}: {name} and {first_name} differ:\n"
                            f"{name}: {_short(done)}\n{first_name}: {_short(first)}")


def _work(panel, scenario, command):
    spool.empty()
    scenario.prepare(panel)
    panel.sql("truncate table mysql.general_log")
    panel.sql("set global log_output='TABLE'")
    panel.sql("set global general_log=1")
    with open(scenario.message, "rb") as message:
        done = subprocess.run(command, stdin=message, capture_output=True, cwd="/",
                              env={"RESP_RECIPIENT": RECIPIENT})
    if done.returncode != 0 or done.stderr or done.stdout:
        raise Different(f"{command}: status {done.returncode}, {done.stderr + done.stdout}")
    wait_until("the end of the program's connection", lambda: _has_quit(panel))
    panel.sql("set global general_log=0")
    events = panel.sql("select command_type, argument from mysql.general_log"
                       " where thread_id <> connection_id()")
    return events, [(mail.argv, mail.stdin) for mail in spool.mails()]


def _has_quit(panel):
    """The server notices the end of a connection a little after the program."""
    return panel.sql("select count(*) from mysql.general_log where command_type = 'Quit'") != [(b"0",)]


def _short(work):
    events, mails = work
    return f"{events}\n{[(argv, stdin[:2000]) for argv, stdin in mails]}"

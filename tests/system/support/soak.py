"""soak.py [RUNS]: crowds of RUNS runs (20000), 64 at a time, in four kinds of weather; run by script/soak.

calm         a server with room for all
full server  one that takes 16 connections
restart      one that is stopped and started again in the middle, every 30 times 64 runs
kills        each second run gets a SIGKILL at a moment chosen by chance, if it hasn't ended by then

Prints a table and each rule that was broken; the status is 1 when there was one.
"""

import collections
import dataclasses
import itertools
import os
import sys
import threading
import time

import crowd
import crowd_rules
import crowd_rows
import program_run
import sandbox
import server
import spool
from panel import Panel

_TABLE = ("runs", "seconds", "answered", "unconnected", "failed query", "killed", "replies", "forwards",
          "notified", "held back", "double rows", "lost counts", "deadlocks", "left in /tmp", "broken rules")


@dataclasses.dataclass
class Outcome:
    weather: str
    table: dict         # the columns of _TABLE
    broken: list        # rules, as text


class Soak:
    def __init__(self, runs, seed, at_once=64, senders=crowd.SENDERS):
        self._panel = Panel()
        self._runs = runs
        self._seed = seed
        self._at_once = at_once
        self._senders = senders
        self._stops = []      # when the server was told to stop, and when it was down; its clock is the same
        self._restarting = None

    def calm(self):
        return self._weather("calm", 200)

    def full_server(self):
        return self._weather("full server", 16, unconnected=crowd_rules.FULL)

    def restart(self):
        return self._weather("restart", 200, unconnected=crowd_rules.DOWN, may_lose_connection=True,
                             disturb=self._start_restart)

    def kills(self):
        return self._weather("kills", 200, kill_share=0.5)

    def _weather(self, name, connections, unconnected=None, may_lose_connection=False, **how):
        responders = self._furnish(connections)
        crowds = crowd.Crowd(self._seed, self._at_once, self._senders)
        started = time.monotonic()
        crowds.run(self._runs, **how)
        self._await_restart()
        seconds = time.monotonic() - started
        endings, broken = _endings(crowds.runs, unconnected, may_lose_connection)
        files = program_run.temporary_files()
        broken += crowd_rules.wrong_files(files, endings["killed"])
        mails = crowd_rules.Mails(crowds.mails, responders, may_be_cut=endings["killed"] > 0)
        broken += mails.wrong
        history = crowd_rows.History(self._events())
        unlogged = [run for run in crowds.runs if self._is_under_way_at_a_stop(run)]
        for run, responder in itertools.product(unlogged, responders):
            if run.mailbox == responder.mailbox:
                history.add_unlogged(responder.id, run.sender, run.started, responder.limit)
        broken_off = [run for run in crowds.runs
                      if run.killed or crowd_rules.is_deadlocked(run) or (may_lose_connection and run.stderr)]
        broken += self._broken_rows(history, responders) + crowd_rules.wrong_counts(
            history.counted(), mails.replies, broken_off, unlogged)
        forgetful = _forgetful(responders)
        figures = (len(crowds.runs), round(seconds), endings["answered"], endings["unconnected"],
                   endings["failed query"], endings["killed"], mails.replies.total(), mails.forwards.total(),
                   mails.notifications, history.held_back(), history.double_inserts(forgetful),
                   history.lost_updates(), self._deadlocks(), len(files), len(broken))
        return Outcome(name, dict(zip(_TABLE, figures)), broken)

    def _furnish(self, connections):
        """An empty panel with the crowd's mailboxes, and the server ready to tell all.

        With the default isolation level one in seventy runs would end as a deadlock's victim: a statement that
        deletes locks the gaps that others insert into. With this one it is one in thousands.
        """
        self._options = ["--transaction-isolation=READ-COMMITTED", f"--max-connections={connections}", "--general-log", "--log-output=TABLE",
                         f"--default-time-zone={_zone_of_a_young_day()}"]
        self._panel.disconnect()
        server.stop()
        server.start(options=self._options)
        self._stops = []
        self._panel.empty()
        self._panel.sql("truncate table mysql.general_log")
        spool.empty()
        program_run.empty_tmp()
        sandbox.replace_sendmail()
        return crowd.furnish(self._panel)

    def _start_restart(self, delay):
        self._await_restart()
        self._restarting = threading.Thread(target=self._restart, args=(delay,))
        self._restarting.start()

    def _restart(self, delay):
        time.sleep(delay)
        told = time.time()
        server.stop()
        self._stops.append((told, time.time()))
        server.start(options=self._options)

    def _await_restart(self):
        if self._restarting is not None:
            self._restarting.join()
            self._restarting = None
            self._panel.disconnect()  # from the server that is no more

    def _is_under_way_at_a_stop(self, run):
        return any(run.started < down and run.started + run.duration > told for told, down in self._stops)

    def _events(self):
        rows = self._panel.sql("select unix_timestamp(event_time), thread_id, command_type, argument"
                               " from mysql.general_log")
        for when, connection, command, text in rows:
            moment = float(when)
            life = sum(moment >= down for _, down in self._stops)
            yield moment, life, int(connection), command.decode(), text.decode()

    def _deadlocks(self):
        """Since the server's last start."""
        return int(self._panel.sql("show global status like 'Innodb_deadlocks'")[0][1])

    def _broken_rows(self, history, responders):
        limits = {responder.id: responder.limit for responder in responders}
        forgetful = _forgetful(responders)
        rows = self._panel.frequency_rows()
        broken = history.wrong_answers(limits, forgetful) + [
            row for row in history.wrong_rows([(rn_id, sender, num) for rn_id, sender, num in rows],
                                              limits, forgetful)]
        for responder in responders:
            count = sum(rn_id == responder.id for rn_id, _, _ in rows)
            if count > responder.remembered + self._at_once:
                broken.append(f"responder {responder.id} remembers {count} senders")
        return broken


def _endings(runs, unconnected, may_lose_connection):
    """How many runs ended in which way, and those that ended in none, as text."""
    endings, broken = collections.Counter(), []
    for run in runs:
        ending = crowd_rules.how_it_ended(run, unconnected, may_lose_connection)
        endings[ending] += 1
        if ending is None:
            broken.append(f"a run ended with {run.status}, standard output {run.stdout!r}, error {run.stderr!r}")
    return endings, broken


def _forgetful(responders):
    return {responder.id for responder in responders if responder.remembered < 1000}


def _zone_of_a_young_day():
    """A time zone in which midnight was an hour ago: what is counted isn't forgotten before the end."""
    offset = 1 - time.gmtime().tm_hour
    return f"{offset if offset >= -12 else offset + 24:+03}:00"


def print_table(outcomes):
    width = max(map(len, _TABLE))
    print(" " * width + "".join(f"{outcome.weather:>13}" for outcome in outcomes))
    for column in _TABLE:
        print(f"{column:<{width}}" + "".join(f"{outcome.table[column]:>13}" for outcome in outcomes))


def main(arguments):
    seed = int.from_bytes(os.urandom(4), "little")
    soak = Soak(int(arguments[0]) if arguments else 20000, seed)
    print(f"seed {seed}", flush=True)
    outcomes = []
    for weather in (soak.calm, soak.full_server, soak.restart, soak.kills):
        outcomes.append(weather())
        print(f"{outcomes[-1].weather}: {outcomes[-1].table}", flush=True)
        for rule in outcomes[-1].broken[:20]:
            print(f"  broken: {rule}", flush=True)
    print_table(outcomes)
    return 1 if any(outcome.broken for outcome in outcomes) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

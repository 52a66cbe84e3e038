"""Many runs at once against one server: a short form of script/soak, and the checks that it rests on."""

import collections

import crowd
import crowd_rules
import crowd_rows
import database
import soak
from crowd import Run
from harness import SystemTest
from program_run import TemporaryFile, wait_until
from spool import Mail

SEED = 20250602
RUNS = 128


class Crowds(SystemTest):
    def setUp(self):
        super().setUp()
        SystemTest._tables_changed = True  # the server's options are others than the next case expects
        self.panel.disconnect()
        # Few senders, so that each writes often.
        self.soak = soak.Soak(RUNS, SEED, senders=8)

    def assert_kept_the_rules(self, outcome):
        self.assertEqual(outcome.broken, [], f"broken rules; {outcome.table}")
        self.assertEqual(outcome.table["runs"], RUNS)
        self.assertGreater(outcome.table["replies"], 0)

    def test_all_are_answered_as_the_limits_allow(self):
        outcome = self.soak.calm()
        self.assert_kept_the_rules(outcome)
        self.assertEqual(outcome.table["answered"] + outcome.table["failed query"], RUNS)
        self.assertGreater(outcome.table["held back"], 0)
        self.assertEqual(outcome.table["left in /tmp"], 0)

    def test_a_full_server_refuses_some(self):
        outcome = self.soak.full_server()
        self.assert_kept_the_rules(outcome)
        self.assertGreater(outcome.table["unconnected"], 0)
        self.assertEqual(outcome.table["left in /tmp"], 0)

    def test_the_server_is_restarted_under_them(self):
        hit = 0
        for _ in range(5):  # a restart may come when all are done with the server
            outcome = self.soak.restart()
            self.assert_kept_the_rules(outcome)
            self.assertEqual(outcome.table["left in /tmp"], 0)
            hit += outcome.table["unconnected"] + outcome.table["failed query"]
            if hit > 0:
                return
        self.fail("none of five restarts hit a run")

    def test_half_of_them_are_killed(self):
        outcome = self.soak.kills()
        self.assert_kept_the_rules(outcome)
        self.assertGreater(outcome.table["killed"], 0)


class Deadlocks(SystemTest):
    """Statements that wait for each other's rows; the server ends one of them."""

    def setUp(self):
        super().setUp()
        self.responder = self.furnish()

    def test_a_run_whose_statement_is_given_up_ends_with_the_reason(self):
        for number in range(3):
            self.panel.answered(self.responder, f"sender{number}@other.example")
        first, second, *_ = (row[0].decode() for row in self.sql("select id from resp_freq order by id"))
        other = database.Database()
        self.addCleanup(other.close)
        other.execute("begin")
        # With more to undo than the program's statement, this is not the one to be given up.
        other.execute("insert into misc (param) select concat('x', seq) from seq_1_to_100")
        other.execute(f"select id from resp_freq where id={second} for update")
        run = self.start()
        wait_until("a statement of the program that waits", lambda: self.sql(
            "show global status like 'Innodb_row_lock_current_waits'")[0][1] != b"0")
        other.execute(f"select id from resp_freq where id={first} for update")
        other.execute("commit")
        result = run.finish()
        self.assert_ended(result, stderr=b"autoresponder: Unable to exec query :" + crowd_rules.DEADLOCK + b"\n")
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)


def look(responder=1, sender="a@b"):
    return f"select num from resp_freq where rn_id={responder} and email='{sender}'"


def insert(responder=1, sender="a@b"):
    return f"insert into resp_freq set rn_id={responder}, email='{sender}', num=1"


def update(num, responder=1, sender="a@b"):
    return f"update resp_freq set num={num}+1 where rn_id={responder} and email='{sender}'"


def evict(responder=1):
    return f"delete from resp_freq where rn_id={responder} and time_resp='x'"


def history(*connections):
    """Each connection is pairs of a time and a statement; a None is its end."""
    return crowd_rows.History(
        (when, 0, number, "Quit" if text is None else "Query", text or "")
        for number, connection in enumerate(connections) for when, text in connection)


def wrong(*connections, limit=2, forgetful=()):
    return len(history(*connections).wrong_answers({1: limit, 2: limit}, forgetful))


class Rows(SystemTest):
    """What may and what may not come of statements at the same time."""

    FIRST = ((1, look()), (2, insert()), (3, None))
    SECOND = ((4, look()), (5, update(1)), (6, None))

    def setUp(self):
        """Needs nothing of the sandbox."""

    def test_runs_one_after_the_other(self):
        self.assertEqual(wrong(self.FIRST, self.SECOND, ((7, look()), (8, None))), 0)

    def test_a_first_row_where_there_is_one_is_wrong(self):
        self.assertEqual(wrong(self.FIRST, ((4, look()), (5, insert()), (6, None))), 1)

    def test_two_first_rows_at_once_are_right(self):
        double = history(self.FIRST, ((1.5, look()), (4, insert()), (6, None)))
        self.assertEqual(double.wrong_answers({1: 2}), [])
        self.assertEqual(double.double_inserts(), 1)

    def test_a_reply_over_the_limit_is_wrong(self):
        self.assertEqual(wrong(self.FIRST, self.SECOND, ((7, look()), (8, update(2)), (9, None))), 1)

    def test_a_reply_withheld_below_the_limit_is_wrong(self):
        self.assertEqual(wrong(self.FIRST, ((4, look()), (5, None))), 1)
        self.assertEqual(wrong(((4, look()), (5, None))), 1)

    def test_withheld_while_the_last_one_is_counted_is_right(self):
        self.assertEqual(wrong(self.FIRST, self.SECOND, ((5.5, look()), (7, None))), 0)

    def test_a_number_that_was_overwritten_is_wrong(self):
        late = ((7, look()), (8, update(1)), (9, None))
        self.assertEqual(wrong(self.FIRST, self.SECOND, late, limit=5), 1)

    def test_a_number_that_is_being_overwritten_is_right(self):
        lost = history(self.FIRST, self.SECOND, ((4.5, look()), (8, update(1)), (9, None)))
        self.assertEqual(lost.wrong_answers({1: 5}), [])
        self.assertEqual(lost.lost_updates(), 1)

    def test_a_number_that_nobody_wrote_is_wrong(self):
        self.assertEqual(wrong(self.FIRST, ((4, look()), (5, update(3)), (6, None)), limit=9), 1)

    def test_of_a_connection_that_breaks_off_nothing_is_sure(self):
        self.assertEqual(wrong(((1, look()), (2, insert())), ((4, look()), (5, insert()), (6, None))), 0)
        self.assertEqual(wrong(self.FIRST, ((4, look()),)), 0)

    def test_what_a_server_that_went_down_did_not_log(self):
        later = ((7, look()), (8, update(1)), (9, None))
        lost = history(later)
        self.assertEqual(len(lost.wrong_answers({1: 2})), 1)
        lost.add_unlogged(1, "a@b", 5, 2)
        self.assertEqual(lost.wrong_answers({1: 2}), [])
        self.assertEqual(lost.wrong_rows([(1, "a@b", 2)], {1: 2}), [])
        self.assertEqual(len(lost.wrong_rows([(1, "a@b", 3)], {1: 9})), 1)
        self.assertEqual(lost.counted(), {(1, "a@b"): 1})

    def test_another_first_row_after_an_eviction_is_right(self):
        again = ((7, look()), (8, insert()), (9, None))
        evicting = ((4, evict()), (5, None))
        self.assertEqual(wrong(self.FIRST, evicting, again, forgetful={1}), 0)
        self.assertEqual(wrong(self.FIRST, again, forgetful={1}), 1)
        self.assertEqual(wrong(((0.1, evict()), (0.2, None)), self.FIRST, again, forgetful={1}), 1)

    def test_the_table_at_the_end(self):
        done = history(self.FIRST, self.SECOND)
        for rows, broken in (([(1, "a@b", 2)], 0), ([(1, "a@b", 1)], 1), ([], 1), ([(1, "a@b", 3)], 1),
                             ([(1, "a@b", 2)] * 2, 1), ([(1, "a@b", 2), (1, "c@d", 1)], 1)):
            with self.subTest(rows):
                self.assertEqual(len(done.wrong_rows(rows, {1: 2})), broken)

    def test_counted_and_sent(self):
        counted = {(1, "a"): 2}
        for sent, broken_off, unlogged, broken in ((2, 0, 0, 0), (1, 0, 0, 1), (3, 0, 0, 1), (1, 1, 0, 0),
                                                   (0, 1, 0, 1), (3, 1, 0, 1), (3, 0, 1, 0), (4, 0, 1, 1)):
            with self.subTest((sent, broken_off, unlogged)):
                run = Run("info", "a")
                self.assertEqual(len(crowd_rules.wrong_counts(counted, collections.Counter({(1, "a"): sent}),
                                                              [run] * broken_off, [run] * unlogged)), broken)


class Rules(SystemTest):
    """What a run may say and send."""

    def setUp(self):
        """Needs nothing of the sandbox."""

    def ending(self, status=0, stdout=b"", stderr=b"", killed=False, **how):
        return crowd_rules.how_it_ended(Run("info", "a@b", status=status, stdout=stdout, stderr=stderr,
                                            killed=killed), **how)

    def test_endings(self):
        refused = b"autoresponder: Unable to connect to Quarx Database: Too many connections\n"
        unconnected = dict(stdout=refused, stderr=refused
                           + b"autoresponder: Unable to connect to the mysql database \n")
        lost = b"autoresponder: Unable to exec query :Lost connection to server during query\n"
        self.assertEqual(self.ending(), "answered")
        self.assertEqual(self.ending(status=1), None)
        self.assertEqual(self.ending(stderr=b"x\n"), None)
        self.assertEqual(self.ending(status=-9), None)
        self.assertEqual(self.ending(status=-9, killed=True), "killed")
        self.assertEqual(self.ending(status=-11, killed=True), None)
        self.assertEqual(self.ending(**unconnected), None)
        self.assertEqual(self.ending(**unconnected, unconnected=crowd_rules.FULL), "unconnected")
        self.assertEqual(self.ending(stderr=lost), None)
        self.assertEqual(self.ending(stderr=lost, may_lose_connection=True), "failed query")
        self.assertEqual(self.ending(stderr=lost + b"x\n", may_lose_connection=True), None)

    def test_a_notification_without_its_answers(self):
        client = b"Unable to define client email and personal name :Server has gone away\n"
        parameter = (b"autoresponder: Unable to query parameter by query select val from misc where"
                     b" param='admin_email': Server has gone away\n\nSystem error 32: Broken pipe\n")
        for stdout, stderr, ending in ((b"", client, "failed query"), (parameter, parameter, "failed query"),
                                       (b"", parameter, None), (client, client, None)):
            with self.subTest(stdout=stdout, stderr=stderr):
                self.assertEqual(self.ending(stdout=stdout, stderr=stderr, may_lose_connection=True), ending)

    def test_mails(self):
        responder = crowd.Responder(7, "info", b"This is info.\n", 3, 100000)
        right = crowd_rules._reply("a@b", "info@example.com", responder.text, ())
        arguments = [crowd_rules.SENDMAIL, "-f", "info@example.com", "a@b"]
        for argv, text, complete, broken in (
                (arguments, right, True, 0), (arguments, right[:-1], True, 1), (arguments, right, False, 1),
                (arguments, b"", True, 1), ([*arguments, "c@d"], right, True, 1),
                ([*arguments[:3], "c@d"], right, True, 1)):
            with self.subTest(argv=argv, text=text):
                mail = Mail(1, argv, text, complete, 1, 2, "/", set(), set(), {}, {}, 0, 0, (0, 0), (0, 0))
                self.assertEqual(len(crowd_rules.Mails([mail], [responder]).wrong), broken)

    def test_files(self):
        copy, reply, other = "qrx-autoresponder-XXXXXX", "qrx-response-uu-XXXXXX", "other"
        for names, killed, broken in (((), 0, 0), ((copy,), 0, 1), ((copy, reply), 1, 0), ((copy, copy), 1, 1),
                                      ((other,), 1, 1)):
            with self.subTest(names=names, killed=killed):
                files = [TemporaryFile(name, f"/tmp/{name}", b"", 0o600) for name in names]
                self.assertEqual(len(crowd_rules.wrong_files(files, killed)), broken)
        self.assertEqual(len(crowd_rules.wrong_files([TemporaryFile(copy, "/tmp/x", b"", 0o644)], 1)), 1)

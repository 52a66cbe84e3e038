"""How many senders a responder remembers: the oldest are forgotten for a new one."""

from database_test import (DatabaseTest, count_senders, find_oldest, forget_earlier_days, forget_oldest,
                           insert_sender, look_sender_up)
from harness import Sql

SENDER = "sam@sender.example"


def minutes_old(age):
    """A time of today for any age up to some hours: the youngest is the last second of the day."""
    return Sql(f"curdate() + interval 1 day - interval 1 second - interval {age} minute")


class Memory(DatabaseTest):
    def remember(self, responder, **ages):
        """Senders of the responder by name, each with the age of its row in minutes."""
        for name, age in ages.items():
            self.panel.answered(responder, name, time_resp=minutes_old(age))

    def assert_remembered(self, wanted, mem_limit, sender=SENDER, **ages):
        """After the sender's message, which is answered, the responder remembers exactly the wanted ones."""
        self.panel.empty()
        responder = self.furnish(mem_limit=mem_limit)
        self.remember(responder, **ages)
        result = self.run_program(message=f"From: <{sender}>\n\nHello.\n".encode())
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assertEqual([email for _, email, _ in self.panel.frequency_rows()], wanted)

    def test_below_the_limit_nobody_is_forgotten(self):
        self.assert_remembered(["a", "b", SENDER], "3", a=20, b=10)

    def test_at_the_limit_the_oldest_is_forgotten(self):
        self.assert_remembered(["a", "c", SENDER], "3", a=10, b=30, c=20)

    def test_all_with_the_oldest_time_are_forgotten(self):
        self.assert_remembered(["c", SENDER], "4", a=30, b=30, c=20, d=30)

    def test_all_of_one_time_are_forgotten_together(self):
        self.assert_remembered([SENDER], "2", a=5, b=5)

    def test_above_the_limit_only_the_oldest_time_is_forgotten(self):
        self.assert_remembered(["a", "b", "c", "e", SENDER], "2", a=10, b=20, c=30, d=50, e=40)

    def test_of_1_remembers_the_last_sender_alone(self):
        self.assert_remembered([SENDER], "1", a=10)

    def test_a_sender_who_is_remembered_makes_nobody_forgotten(self):
        self.assert_remembered(["a", SENDER.upper(), "b"], "1", sender=SENDER,
                               **{"a": 30, SENDER.upper(): 20, "b": 10})

    def test_zero_negative_or_text_forgets_the_oldest_every_time(self):
        for limit in ("0", "-1", "", "abc", "x9"):
            with self.subTest(mem_limit=limit):
                self.assert_remembered(["b", SENDER], limit, a=20, b=10)

    def test_is_read_as_atoi_reads_it(self):
        for limit in ("2x", " 2", "+2", "2.9"):
            with self.subTest(mem_limit=limit):
                self.assert_remembered(["b", SENDER], limit, a=20, b=10)
                self.assert_remembered(["a", SENDER], limit, a=20)

    def test_rows_of_earlier_days_are_gone_before_the_senders_are_counted(self):
        responder = self.furnish(mem_limit="2")
        self.panel.answered(responder, "stale", time_resp=Sql("curdate() - interval 1 second"))
        self.panel.answered(responder, "fresh", time_resp=Sql("curdate()"))
        result, statements = self.run_recorded()
        self.assert_ended(result)
        self.assertEqual(statements[3:7], [forget_earlier_days(responder), count_senders(responder),
                                           look_sender_up(responder), insert_sender(responder)])
        self.assertEqual([email for _, email, _ in self.panel.frequency_rows()], ["fresh", SENDER])

    def test_of_other_responders_is_not_touched_and_does_not_count(self):
        responder = self.furnish(mem_limit="2")
        other = self.panel.responder(self.mailbox, resp_on="false")
        self.remember(other, x=50, y=40, z=30)
        self.remember(responder, a=20)
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(self.panel.frequency_rows(), [(other, "x", 1), (other, "y", 1), (other, "z", 1),
                                                       (responder, "a", 1), (responder, SENDER, 1)])
        result = self.run_program(message=b"From: olga@sender.example\n\nHello.\n")
        self.assert_ended(result)
        self.assertEqual(len([row for row in self.panel.frequency_rows() if row[0] == other]), 3)

    def test_with_an_empty_table_a_limit_of_zero_deletes_nothing_and_answers(self):
        """The oldest time of no rows is NULL, which goes into the statement as 0."""
        for limit in ("0", "none"):
            with self.subTest(mem_limit=limit):
                self.panel.empty()
                responder = self.furnish(mem_limit=limit)
                result, statements = self.run_recorded()
                self.assert_ended(result)
                self.assertEqual(len(result.mails), 1)
                self.assertEqual(statements[5:9], [
                    look_sender_up(responder), find_oldest(responder), forget_oldest(responder, "0"),
                    insert_sender(responder)])
                self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])

    def test_a_limit_of_zero_remembers_the_last_of_several_senders(self):
        self.furnish(mem_limit="0")
        for number in range(3):
            result = self.run_program(message=f"From: {number}@sender.example\n\nHello.\n".encode())
            self.assertEqual(len(result.mails), 1)
            self.panel.sql("update resp_freq set time_resp = curdate()")
        self.assertEqual([email for _, email, _ in self.panel.frequency_rows()], ["2@sender.example"])

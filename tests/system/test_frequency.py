"""How often one sender is answered in a day, and when a day is over."""

from database_test import (DatabaseTest, count_senders, forget_earlier_days, insert_sender,
                           look_sender_up, raise_count)
from harness import Sql

SENDER = "sam@sender.example"
OTHER = "olga@sender.example"
TODAY = Sql("curdate()")
YESTERDAY_2359 = Sql("curdate() - interval 1 minute")


class FrequencyTest(DatabaseTest):
    def message(self, sender=SENDER):
        return f"From: <{sender}>\nSubject: Again\n\nHello.\n".encode(errors="surrogateescape")

    def replies_to(self, sender=SENDER, **how):
        """How many replies a message of the sender gets, in a run that ends quietly."""
        result = self.run_program(message=self.message(sender), **how)
        self.assert_ended(result)
        self.assert_nothing_left(result)
        return len(result.mails)

    def whole_table(self):
        return self.panel.sql("select * from resp_freq order by id")


class Limit(FrequencyTest):
    def test_of_3_gives_three_replies_and_no_more(self):
        responder = self.furnish(ans_freq="3")
        for replies, num in ((1, 1), (1, 2), (1, 3), (0, 3), (0, 3)):
            self.assertEqual(self.replies_to(), replies)
            self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, num)])

    def test_of_1_gives_one_reply(self):
        responder = self.furnish(ans_freq="1")
        for replies in (1, 0, 0):
            self.assertEqual(self.replies_to(), replies)
            self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])

    def test_is_read_as_atoi_reads_it(self):
        for text, answered, replies in (("2", 1, 1), ("2", 2, 0), (" 2", 1, 1), ("+2", 1, 1), ("2x", 1, 1),
                                        ("2x", 2, 0), ("2.9", 2, 0), ("0x2", 0, 0), ("1e3", 1, 0),
                                        ("2147483647", 2147483646, 1), ("2147483647", 2147483647, 0)):
            with self.subTest(ans_freq=text, answered=answered):
                self.panel.empty()
                responder = self.furnish(ans_freq=text)
                if answered:
                    self.panel.answered(responder, SENDER, num=answered)
                self.assertEqual(self.replies_to(), replies)

    def test_of_zero_negative_or_text_answers_nobody_and_still_forgets_earlier_days(self):
        for limit in ("0", "-1", "-2147483648", "", " ", "abc", "x3", "false", "0.9"):
            with self.subTest(ans_freq=limit):
                self.panel.empty()
                responder = self.furnish(ans_freq=limit)
                self.panel.answered(responder, "stale@sender.example", num=7, time_resp=YESTERDAY_2359)
                self.panel.answered(responder, SENDER, num=0, time_resp=TODAY)
                result, statements = self.run_recorded()
                self.assert_ended(result)
                self.assert_nothing_sent(result)
                self.assertEqual(statements[3:], [forget_earlier_days(responder)])
                self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 0)])

    def test_is_kept_for_each_sender(self):
        responder = self.furnish(ans_freq="1")
        self.assertEqual([self.replies_to(sender) for sender in (SENDER, OTHER, SENDER, OTHER)],
                         [1, 1, 0, 0])
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1), (responder, OTHER, 1)])

    def test_is_kept_for_each_responder(self):
        once = self.furnish(ans_freq="1", text="once")
        twice = self.panel.responder(self.mailbox, ans_freq="2", text="twice")
        texts = [self.mail_texts(self.run_program()) for _ in range(3)]
        self.assertEqual(texts, [["once", "twice"], ["twice"], []])
        self.assertEqual(self.panel.frequency_rows(), [(once, SENDER, 1), (twice, SENDER, 2)])

    def test_counts_a_reply_that_sendmail_refuses(self):
        responder = self.furnish(ans_freq="1")
        self.sendmail("exit 75")
        self.assertEqual([self.replies_to(), self.replies_to()], [1, 0])
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])

    def test_a_refused_message_changes_nothing(self):
        responder = self.furnish(ans_freq="2", mem_limit="1")
        self.panel.answered(responder, SENDER, num=2, time_resp=TODAY)
        self.panel.answered(responder, OTHER, num=1, time_resp=TODAY)
        self.panel.answered(responder + 1, SENDER, num=1, time_resp=YESTERDAY_2359)
        before = self.whole_table()
        self.assertEqual(self.replies_to(), 0)
        self.assertEqual(self.whole_table(), before)


class Count(FrequencyTest):
    """The number beside a sender's address."""

    def assert_counted(self, num, wanted, ans_freq="10"):
        """With num in the sender's row, a reply goes out and the row then has the wanted number."""
        responder = self.furnish(ans_freq=ans_freq)
        self.panel.answered(responder, SENDER, num=num)
        result, statements = self.run_recorded()
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assertEqual(statements[6], raise_count(responder, 0 if num is None else num))
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, wanted)])

    def test_null_counts_as_0(self):
        """NULL + 1 would stay NULL; the statement has the 0 in its place."""
        self.assert_counted(None, 1)

    def test_0_is_raised_to_1(self):
        self.assert_counted(0, 1)

    def test_one_below_the_limit_is_raised_to_it(self):
        self.assert_counted(9, 10)

    def test_a_negative_number_is_raised(self):
        self.sql("alter table resp_freq modify num int null")
        self.assert_counted(-5, -4, ans_freq="1")

    def test_goes_into_the_statement_as_the_text_that_was_read(self):
        """Also where that isn't how the program would write the number."""
        self.sql("alter table resp_freq modify num varchar(10)")
        responder = self.furnish()
        self.panel.answered(responder, SENDER, num="007.50")
        result, statements = self.run_recorded()
        self.assert_ended(result)
        self.assertEqual(statements[6], raise_count(responder, "007.50"))

    def test_null_is_below_a_limit_of_1(self):
        self.assert_counted(None, 1, ans_freq="1")

    def test_raising_it_does_not_write_the_time(self):
        responder = self.furnish()
        self.panel.answered(responder, SENDER, num=1, time_resp=TODAY)
        before = self.panel.sql("select time_resp from resp_freq")
        self.assertEqual(self.replies_to(), 1)
        self.assertEqual(self.panel.sql("select time_resp from resp_freq"), before)

    def test_of_two_rows_of_a_sender_the_first_counts_and_both_are_raised(self):
        responder = self.furnish(ans_freq="3")
        self.panel.answered(responder, SENDER, num=1)
        self.panel.answered(responder, SENDER, num=5)
        first = int(self.panel.sql(look_sender_up(responder))[0][0])
        self.assertEqual(first, 1)
        self.assertEqual(self.replies_to(), 1)
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 2)] * 2)

    def test_the_insertion_has_the_database_fill_the_time(self):
        self.furnish()
        self.assertEqual(self.replies_to(), 1)
        self.assertEqual(self.panel.sql("select count(*) from resp_freq where time_resp"
                                        " between now() - interval 1 minute and now()"), [(b"1",)])


class Day(FrequencyTest):
    """Counts of earlier days of the server's calendar are forgotten."""

    def test_a_row_of_yesterday_2359_is_replaced_by_a_new_one(self):
        responder = self.furnish(ans_freq="1")
        old = self.panel.answered(responder, SENDER, num=1, time_resp=YESTERDAY_2359)
        self.assertEqual(self.replies_to(), 1)
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])
        self.assertEqual(self.panel.sql("select id from resp_freq where id = %s", old), [])

    def test_a_row_of_today_0000_stays(self):
        responder = self.furnish(ans_freq="1")
        self.panel.answered(responder, SENDER, num=1, time_resp=TODAY)
        before = self.whole_table()
        self.assertEqual(self.replies_to(), 0)
        self.assertEqual(self.whole_table(), before)

    def test_older_rows_go_whatever_their_sender_and_count(self):
        responder = self.furnish(ans_freq="1")
        for number, (num, age) in enumerate([(0, "1 second"), (None, "1 day"), (7, "1 month"), (1, "20 year")]):
            self.panel.answered(responder, f"{number}@sender.example", num=num,
                                time_resp=Sql(f"curdate() - interval {age}"))
        self.panel.answered(responder, OTHER, num=5, time_resp=TODAY)
        self.panel.answered(responder, "future@sender.example", num=5,
                            time_resp=Sql("curdate() + interval 1 day"))
        self.assertEqual(self.replies_to(), 1)
        self.assertEqual(self.panel.frequency_rows(), [
            (responder, OTHER, 5), (responder, "future@sender.example", 5), (responder, SENDER, 1)])

    def test_older_rows_of_other_responders_stay(self):
        responder = self.furnish()
        other = self.panel.responder(self.mailbox, resp_on="false")
        self.panel.answered(other, SENDER, num=3, time_resp=YESTERDAY_2359)
        self.assertEqual(self.replies_to(), 1)
        self.assertEqual(self.panel.frequency_rows(), [(other, SENDER, 3), (responder, SENDER, 1)])

    def test_older_rows_go_also_when_the_message_is_refused(self):
        responder = self.furnish(ans_freq="2")
        self.panel.answered(responder, OTHER, time_resp=YESTERDAY_2359)
        self.panel.answered(responder, SENDER, num=2, time_resp=TODAY)
        self.assertEqual(self.replies_to(), 0)
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 2)])

    def test_it_is_the_servers_and_not_the_programs(self):
        """The two zones are 25 hours apart, so at least one has another day than the program."""
        self.addCleanup(self.panel.sql, "set global time_zone = 'SYSTEM'")
        self.addCleanup(self.panel.sql, "set time_zone = 'SYSTEM'")
        for zone in ("-12:00", "+13:00"):
            for environment in ({"TZ": "Etc/GMT+12"}, {"TZ": "Etc/GMT-14"}, None):
                with self.subTest(zone=zone, environment=environment):
                    self.panel.empty()
                    self.panel.sql(f"set global time_zone = '{zone}'")
                    self.panel.sql(f"set time_zone = '{zone}'")
                    responder = self.furnish(ans_freq="1")
                    self.panel.answered(responder, OTHER, time_resp=YESTERDAY_2359)
                    self.panel.answered(responder, SENDER, time_resp=TODAY)
                    self.assertEqual(self.replies_to(env=environment), 0)
                    self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1)])


class Sender(FrequencyTest):
    """The address, as it is escaped, stored and found again."""

    def assert_found_again(self, sender, escaped, stored=None):
        """Two messages of the sender, whose address stands so in the statements, count in one row."""
        responder = self.furnish()
        result, statements = self.run_recorded(message=self.message(sender))
        self.assert_ended(result)
        self.assertEqual([mail.argv[3] for mail in result.mails], [sender])
        self.assertEqual(statements[3:7], [
            forget_earlier_days(responder), count_senders(responder), look_sender_up(responder, escaped),
            insert_sender(responder, escaped)])
        result, statements = self.run_recorded(message=self.message(sender))
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assertEqual(statements[5:7],
                         [look_sender_up(responder, escaped), raise_count(responder, 1, escaped)])
        self.assertEqual(self.panel.frequency_rows(), [(responder, sender, 2)])

    def test_with_a_single_quote(self):
        self.assert_found_again("o'brien@sender.example", r"o\'brien@sender.example")

    def test_with_a_single_quote_where_the_server_knows_no_backslashes(self):
        self.sql("set global sql_mode='NO_BACKSLASH_ESCAPES'")
        self.assert_found_again("o'brien@sender.example", "o''brien@sender.example")

    def test_with_double_quotes_and_a_backslash(self):
        self.assert_found_again(r'"a\\b c"@sender.example', r'\"a\\\\b c\"@sender.example')

    def test_with_a_quote_at_its_start(self):
        self.assert_found_again("'@sender.example", r"\'@sender.example")

    def test_that_tries_a_second_statement(self):
        self.assert_found_again('"\';drop table resp_freq;-- "@sender.example',
                                r'\"\';drop table resp_freq;-- \"@sender.example')

    def test_in_utf8(self):
        self.assert_found_again("jörg@sender.example", "jörg@sender.example")

    def test_of_the_longest_length_that_the_table_takes(self):
        sender = "s" * (255 - len("@sender.example")) + "@sender.example"
        self.assert_found_again(sender, sender)

    def test_is_compared_by_the_databases_collation(self):
        responder = self.furnish(ans_freq="2")
        self.assertEqual([self.replies_to(sender) for sender in
                          ("sam@sender.example", "SAM@Sender.Example", "Sam@sender.example")], [1, 1, 0])
        self.assertEqual(self.panel.frequency_rows(), [(responder, "sam@sender.example", 2)])

    def test_is_compared_byte_for_byte_where_the_collation_does(self):
        self.sql("alter table resp_freq modify email varchar(255) collate utf8mb3_bin not null")
        responder = self.furnish(ans_freq="1")
        self.assertEqual([self.replies_to(sender) for sender in
                          ("sam@sender.example", "SAM@sender.example", "sam@sender.example")], [1, 1, 0])
        self.assertEqual(self.panel.frequency_rows(),
                         [(responder, "sam@sender.example", 1), (responder, "SAM@sender.example", 1)])

    def test_is_not_a_pattern(self):
        responder = self.furnish(ans_freq="1")
        self.assertEqual([self.replies_to("sam@sender.example"), self.replies_to("s%@sender.example")],
                         [1, 1])
        self.assertEqual(len(self.panel.frequency_rows()), 2, responder)

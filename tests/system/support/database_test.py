"""DatabaseTest: the base of the tests of what the program and the database server say to each other."""

import os
import re
import time

from database import SqlError
from harness import SystemTest

NOT_CONNECTED = b"autoresponder: Unable to connect to the mysql database \n"
LOOKUP_FAILED = b"autoresponder: Unable to query: "
QUERY_FAILED = b"autoresponder: Unable to exec query :"


def lookups(mailname, domain):
    """The four lookups of a mailbox in their order; both names as they are escaped."""
    return [
        f"select m.id, m.mail_name, d.name from mail m, domains d where m.dom_id=d.id"
        f" and d.name='{domain}' and m.mail_name='{mailname}'",
        f"select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d where m.id=ma.mn_id"
        f" and m.dom_id=d.id and d.name='{domain}' and ma.alias='{mailname}'",
        f"select m.id, m.mail_name, d.name from mail m, domains d, domainaliases da where m.dom_id=d.id"
        f" and d.id=da.dom_id and da.name='{domain}' and m.mail_name='{mailname}' and da.mail='true'",
        f"select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d, domainaliases da"
        f" where m.id=ma.mn_id and m.dom_id=d.id and d.id=da.dom_id and da.name='{domain}'"
        f" and ma.alias='{mailname}' and da.mail='true'"]


def responder_query(mailbox):
    return ("select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, reply_to, charset,"
            f" content_type from mail_resp where mn_id={mailbox}")


def forget_earlier_days(responder):
    return (f"delete from resp_freq where rn_id={responder}"
            " and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0")


def count_senders(responder):
    return f"select COUNT(*) from resp_freq where rn_id={responder}"


def look_sender_up(responder, sender="sam@sender.example"):
    return f"select num from resp_freq where rn_id={responder} and email='{sender}'"


def raise_count(responder, num, sender="sam@sender.example"):
    return f"update resp_freq set num={num}+1 where rn_id={responder} and email='{sender}'"


def find_oldest(responder):
    return f"select MIN(time_resp) from resp_freq where rn_id={responder}"


def forget_oldest(responder, time_resp):
    return f"delete from resp_freq where rn_id={responder} and time_resp='{time_resp}'"


def insert_sender(responder, sender="sam@sender.example"):
    return f"insert into resp_freq set rn_id={responder}, email='{sender}', num=1"


def forward_query(responder):
    return f"select address from resp_forward where rn_id={responder}"


def attachment_query(responder):
    return f"select filename from resp_attach where rn_id={responder}"


class DatabaseTest(SystemTest):
    """Records the program's statements, or has the server refuse them from a chosen one on."""

    def run_recorded(self, **how):
        """Runs the program; returns the Result and the statements that the server was sent, in order."""
        result, events = self.run_observed(**how)
        return result, [text for event, text in events if event == "Query"]

    def run_observed(self, **how):
        """As run_recorded, but with all events: (kind, text), the connection and its end included."""
        self.panel.sql("truncate table mysql.general_log")
        self.panel.sql("set global log_output='TABLE'")
        self.panel.sql("set global general_log=1")
        try:
            result = self.run_program(**how)
            self._await_end_of_connections()
        finally:
            self.panel.sql("set global general_log=0")
        events = self.panel.sql("select command_type, argument from mysql.general_log"
                                " where thread_id <> connection_id()")
        return result, [(kind.decode(), text.decode()) for kind, text in events]

    def refuse_statements_after(self, count):
        """The server carries out the program's first `count` statements (1 or more) and refuses all others.

        Returns the text of its refusal. The test's own connection, made before, is not concerned.
        """
        self.addCleanup(self._limit_statements, 0)
        self._limit_statements(count)
        return (f"User 'admin' has exceeded the 'max_queries_per_hour' resource"
                f" (current value: {count})").encode()

    def refusal_of(self, statement):
        """What the server says to the statement, which it refuses."""
        with self.assertRaises(SqlError) as refusal:
            self.panel.sql(statement)
        return str(refusal.exception).encode()

    def mail_texts(self, result):
        """The first body line of each mail sent, which names the responder where the test has it so."""
        return [mail.stdin.partition(b"\n\n")[2].partition(b"\n")[0].decode() for mail in result.mails]

    def assert_run_ended_by(self, result, message):
        """The run ended with that line on standard error, quietly else, without a trace in /tmp."""
        self.assert_ended(result, stderr=message + b"\n")
        self.assert_nothing_left(result)

    def assert_no_connection(self, result, text, error=None):
        """No connection, for the reason in text; error: the errno behind it, where it is known."""
        if error is None:
            number = re.search(rb"\nSystem error (\d+): ", result.stdout)
            error = int(number[1]) if number else 0
        reason = b"autoresponder: " + text + b"\n"
        if error != 0:
            reason += f"System error {error}: {os.strerror(error)}\n".encode()
        self.assert_ended(result, stderr=reason + NOT_CONNECTED, stdout=reason)
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)

    def _limit_statements(self, count):
        self.panel.sql(f"alter user 'admin'@'localhost' with max_queries_per_hour {count}")
        self.panel.sql("flush user_resources")

    def _await_end_of_connections(self):
        """The server notices the end of a connection a little after the program."""
        deadline = time.monotonic() + 10
        while self.panel.sql("select count(*) from information_schema.processlist"
                             " where user = 'admin' and id <> connection_id()") != [(b"0",)]:
            self.assertLess(time.monotonic(), deadline, "the server still has the program's connection")
            time.sleep(0.002)

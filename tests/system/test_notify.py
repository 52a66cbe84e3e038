"""The notification of the domain's client about missing attachment files."""

import expected
from harness import RECIPIENT, SystemTest

SENDER = "sam@sender.example"
CLIENT = "carla@panel.example"
REPLY = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"Hello\n")


class Notification(SystemTest):
    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text="Hello\n")
        self.panel.param("admin_email", "panel@host.example")

    def run_missing(self, *names, **how):
        """Runs with these files missing; the reply must go out in every case."""
        for name in names or ("gone.txt",):
            self.panel.attachment(self.responder, name)
        result = self.run_program(**how)
        self.assertTrue(result.mails)
        self.assertEqual(result.mails[-1].argv, ["/usr/sbin/sendmail", "-f", RECIPIENT, SENDER])
        return result

    def notified(self, *names, **how):
        """The one notification of a run that has nothing to report."""
        result = self.run_missing(*names, **how)
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 2)
        self.assert_bytes(result.mails[1].stdin, REPLY)
        self.assert_nothing_left(result)
        return result.mails[0]

    def assert_not_notified(self, stderr=b"", stdout=b""):
        result = self.run_missing()
        self.assert_ended(result, stderr=stderr, stdout=stdout)
        self.assertEqual([mail.stdin for mail in result.mails], [REPLY])

    def test_every_line_in_its_order(self):
        mail = self.notified("first.txt", "second.txt")
        self.assertEqual(mail.argv, ["/usr/sbin/sendmail", "-f", "panel@host.example", CLIENT])
        self.assert_bytes(mail.stdin,
                          b"From: panel@host.example\n"
                          b"To: carla@panel.example\n"
                          b"CC: \n"
                          b"Subject: qrx notification (files missing in attachments repository). \n"
                          b"Content-Type: text/plain; charset=utf-8\n"
                          b"Content-Disposition: inline\n"
                          b"Content-Transfer-Encoding: 8bit\n"
                          b"\n"
                          b"\n"
                          b"Notification for qrx client 'Carla Client'.\n"
                          b"\n"
                          b"The following files are missing in the attachment repository\n"
                          b"for the mailname 'info' on domain 'example.com':\n"
                          b"first.txt\n"
                          b"second.txt\n"
                          b"\n")

    def test_a_reply_to_runs_into_the_from_line(self):
        self.sql("update mail_resp set reply_to='sales@example.com'")
        self.panel.attachment(self.responder, "gone")
        result = self.run_program()
        self.assert_ended(result)
        self.assertTrue(result.mails[0].stdin.startswith(
            b"Reply-To: sales@example.comFrom: panel@host.example\nTo: carla@panel.example\n"))

    def test_three_names_in_the_databases_order_trimmed(self):
        responder = self.responder
        for name in ("c", " b ", "a"):
            self.panel.attachment(responder, name)
        result = self.run_program()
        self.assert_ended(result)
        self.assertTrue(result.mails[0].stdin.endswith(b"on domain 'example.com':\nc\nb\na\n\n"))

    def test_nothing_missing_nobody_told(self):
        self.panel.attachment(self.responder, "here", b"x")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)

    def test_without_admin_email_root_at_the_panels_host(self):
        self.panel.param("admin_email", "")
        self.panel.param("FullHostName", "host.example")
        mail = self.notified()
        self.assertEqual(mail.argv[2:], ["root@host.example", CLIENT])
        self.assertTrue(mail.stdin.startswith(b"From: root@host.example\n"))

    def test_admin_email_comes_before_the_host(self):
        self.panel.param("FullHostName", "host.example")
        self.assertEqual(self.notified().argv[2], "panel@host.example")

    def test_without_either_the_fallback(self):
        for value in ("", None):
            with self.subTest(value=value):
                self.setUp()
                self.panel.param("admin_email", value)
                self.panel.param("FullHostName", value)
                self.assertEqual(self.notified().argv[2], "root@localhost")

    def test_without_any_row_the_fallback(self):
        self.sql("delete from misc")
        self.assertEqual(self.notified().argv[2], "root@localhost")

    def test_a_client_without_a_personal_name_goes_by_its_login(self):
        for pname in ("", None):
            with self.subTest(pname=pname):
                self.setUp()
                self.sql("update clients set pname=%s", pname)
                self.assertIn(b"\nNotification for qrx client 'client'.\n", self.notified().stdin)

    def test_a_client_without_any_name(self):
        self.sql("update clients set pname=NULL, login=NULL")
        self.assertIn(b"\nNotification for qrx client ''.\n", self.notified().stdin)

    def test_names_go_out_as_they_are_stored(self):
        self.sql("update clients set pname=%s, email=%s", "Kärla 'O'", "kärla@bücher.example")
        mail = self.notified("Grüße.txt")
        self.assertEqual(mail.argv[3], "kärla@bücher.example")
        self.assert_bytes(mail.stdin, expected.notification(
            "panel@host.example", "kärla@bücher.example", "Kärla 'O'", "info", "example.com", ["Grüße.txt"]))

    def test_a_client_without_an_address_is_passed_over_silently(self):
        for email in ("", None):
            with self.subTest(email=email):
                self.setUp()
                self.sql("update clients set email=%s", email)
                self.assert_not_notified()

    def test_a_domain_without_a_client(self):
        self.sql("delete from clients")
        self.assert_not_notified(stderr=b"This client does not exist :\n")

    def test_a_quote_in_the_domain_is_escaped_in_the_query_and_plain_in_the_text(self):
        domain = self.panel.domain("o'brien.example", client=self.client)
        self.panel.attachment(self.panel.responder(self.panel.mailbox(domain), text="Hello\n"), "gone")
        result = self.run_program(recipient="info@o'brien.example")
        self.assert_ended(result)
        self.assertEqual(result.mails[0].argv[3], CLIENT)
        self.assertIn(b"\nfor the mailname 'info' on domain 'o'brien.example':\n", result.mails[0].stdin)

    def test_of_several_clients_the_first_is_told(self):
        self.sql("alter table domains drop index name")
        self.panel.domain("example.com", client=self.panel.client(login="second", email="second@panel.example"))
        mail = self.notified()
        self.assertEqual(mail.argv[3], CLIENT)

    def test_mail_to_a_domain_alias_finds_no_client(self):
        self.panel.domain_alias(self.domain, "alias.example")
        self.panel.attachment(self.responder, "gone")
        result = self.run_program(recipient="info@alias.example")
        self.assert_ended(result, stderr=b"This client does not exist :\n")
        self.assertEqual(len(result.mails), 1)

    def test_the_names_in_the_text_are_those_of_the_address(self):
        self.panel.mail_alias(self.mailbox, "office")
        self.panel.attachment(self.responder, "gone")
        result = self.run_program(recipient="office@example.com")
        self.assert_ended(result)
        self.assertIn(b"\nfor the mailname 'office' on domain 'example.com':\n", result.mails[0].stdin)

    def test_a_failed_client_query(self):
        self.drop_table("clients")
        self.assert_not_notified(stderr=b"Unable to define client email and personal name :"
                                        b"Table 'qrx.clients' doesn't exist\n")

    def test_failed_parameter_queries_leave_the_fallback(self):
        self.drop_table("misc")
        result = self.run_missing(argv0="autoresponder")
        complaint = b"".join(
            b"autoresponder: Unable to query parameter by query select val from misc where param='" + name
            + b"': Table 'qrx.misc' doesn't exist\n" for name in (b"admin_email", b"FullHostName"))
        for stream in (result.stdout, result.stderr):
            lines = [line for line in stream.splitlines(keepends=True)
                     if not line.startswith(b"System error") and line != b"\n"]
            self.assertEqual(b"".join(lines), complaint)
        self.assertEqual(result.status, 0)
        self.assertEqual(result.mails[0].argv[2], "root@localhost")

    def test_each_responder_tells_of_its_own(self):
        second = self.panel.responder(self.mailbox, text="Hello\n")
        self.panel.attachment(second, "lost")
        result = self.run_missing("gone")
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 4)
        self.assertTrue(result.mails[0].stdin.endswith(b":\ngone\n\n"))
        self.assertTrue(result.mails[2].stdin.endswith(b":\nlost\n\n"))

    def test_the_notification_has_ended_before_the_reply_begins(self):
        self.sendmail("read; sleep 0.2", "read")
        notification, reply = self.run_missing().mails
        self.assertLessEqual(notification.end, reply.start)

    def test_the_child_has_no_other_descriptors_and_sigpipe_at_its_default(self):
        mail = self.notified()
        self.assertEqual(sorted(mail.fds), [0, 1, 2])
        self.assertTrue(mail.fds[0].startswith("pipe:"))
        self.assertEqual((mail.ignored, mail.blocked), (set(), set()))


class NotificationsSendmail(SystemTest):
    """What the notification's sendmail does never keeps the reply back. Pipes hold 64 KiB: pipe(7)."""

    LARGE = [f"{number:04}" + "x" * 196 for number in range(1000)]  # 200 KB of names

    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text="Hello\n")

    def run_with(self, behaviour, names, **how):
        for name in names:
            self.panel.attachment(self.responder, name)
        self.sendmail(behaviour, "read")
        result = self.run_program(timeout=30, **how)
        self.assert_ended(result)
        self.assert_bytes(result.mails[-1].stdin, REPLY)
        self.assertEqual(len(result.mails), 2)
        return result

    def test_a_list_larger_than_a_pipe_arrives_whole(self):
        mail = self.run_with("sleep 0.1; read", self.LARGE).mails[0]
        self.assert_bytes(mail.stdin, expected.notification(
            "root@localhost", CLIENT, "Carla Client", "info", "example.com", self.LARGE))

    def test_one_that_ends_at_once(self):
        for behaviour in ("exit 0", "exit 75", "signal 9"):
            for names in (["gone"], self.LARGE):
                with self.subTest(behaviour, names=len(names)):
                    self.setUp()
                    self.run_with(behaviour, names)

    def test_one_that_closes_its_input_and_lives_on(self):
        self.run_with("close; sleep 0.3", self.LARGE)

    def test_one_that_reads_a_little_and_dies(self):
        self.run_with("read 100; exit 1", self.LARGE)

    def test_one_that_never_reads_holds_the_run_only_as_long_as_it_lives(self):
        result = self.run_with("sleep 1", self.LARGE)
        self.assertLess(result.duration, 15)

    def test_one_that_is_missing(self):
        self.panel.attachment(self.responder, "gone")
        self.remove_sendmail()
        result = self.run_program()
        self.assert_ended(result, stderr=2 * b'fork_execv: execv("/usr/sbin/sendmail") failed: '
                                             b'No such file or directory\n')

    def test_no_pipe(self):
        self.skip_if_sanitized("leaks can't be looked for under strace")
        self.panel.attachment(self.responder, "gone")
        result = self.run_program(strace=["-e", "trace=pipe2", "-e", "inject=pipe2:error=EMFILE"])
        self.assert_ended(result, stderr=b"autoresponder: Failed to create pipe to sendmail to notify about "
                                         b"missing attachment files: Too many open files (24)\n")
        self.assertEqual([mail.stdin for mail in result.mails], [REPLY])

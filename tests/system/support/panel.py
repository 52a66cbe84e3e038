"""Furnishes the panel of a sandbox: its rows, attachment files and configuration."""

import pathlib
import shutil

import database
import sandbox
from database import Sql  # for time_resp and the like

TABLES = ("clients", "domains", "domainaliases", "mail", "mail_aliases", "mail_resp", "resp_forward",
          "resp_attach", "resp_freq", "misc", "dom_param", "Parameters")
MAILNAMES = pathlib.Path("/var/qmail/mailnames")
DATABYTES = pathlib.Path("/var/qmail/control/databytes")
CONFIGURATION = pathlib.Path("/etc/qrx/qrx.conf")
PASSWORD_FILE = pathlib.Path("/etc/qrx/.qrx.shadow")

# A responder that answers everything; each column can be given otherwise, None being NULL.
_RESPONDER = dict(keystr="", key_where="no", text="Thank you for your message.\n", resp_on="true",
                  ans_freq="10", mem_limit="1000", subject="", reply_to="", charset="UTF-8",
                  content_type="text/plain")


class Panel:
    """The panel's database and files. Every helper that makes a row returns its id."""

    def __init__(self):
        self._database = None

    def sql(self, statement, *values):
        """Runs one statement, with each %s replaced by a value, and returns its rows: tuples of bytes or None."""
        return self._connection().execute(statement, *values)

    def disconnect(self):
        if self._database is not None:
            self._database.close()
            self._database = None

    def empty(self):
        """Takes away everything that the helpers below made."""
        for table in TABLES:
            self.sql(f"delete from {table}")
        for folder in (MAILNAMES, DATABYTES.parent):
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir(parents=True)
        CONFIGURATION.unlink(missing_ok=True)
        self.password_file(sandbox.ADMIN_PASSWORD + "\n")

    # Rows

    def client(self, login="client", pname="Carla Client", email="carla@panel.example"):
        return self._insert("clients", login=login, pname=pname, email=email)

    def domain(self, name="example.com", client=None):
        return self._insert("domains", name=name, cl_id=client)

    def domain_alias(self, domain, name, mail="true"):
        return self._insert("domainaliases", dom_id=domain, name=name, mail=mail)

    def mailbox(self, domain, name="info"):
        return self._insert("mail", dom_id=domain, mail_name=name)

    def mail_alias(self, mailbox, alias):
        return self._insert("mail_aliases", mn_id=mailbox, alias=alias)

    def responder(self, mailbox, **columns):
        return self._insert("mail_resp", mn_id=mailbox, **{**_RESPONDER, **columns})

    def forward(self, responder, address):
        return self._insert("resp_forward", rn_id=responder, address=address)

    def answered(self, responder, email, num=1, time_resp=Sql("now()")):
        """A frequency row: the sender was answered num times, first at time_resp."""
        return self._insert("resp_freq", rn_id=responder, email=email, num=num, time_resp=time_resp)

    def frequency_rows(self):
        """All frequency rows as (responder, address, number or None), oldest row first."""
        return [(int(rn_id), email.decode(), None if num is None else int(num))
                for rn_id, email, num in
                self.sql("select rn_id, email, num from resp_freq order by id")]

    def param(self, name, value):
        self.sql("replace into misc (param, val) values (%s, %s)", name, value)

    # Attachments

    def attachment(self, responder, filename, content=None):
        """An attachment row and, unless content is None, the file's bytes in the mailbox's folder."""
        if content is not None:
            path = self.attachment_folder(responder) / filename
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content)
        return self._insert("resp_attach", rn_id=responder, filename=filename)

    def attachment_folder(self, responder):
        """Where the program looks for the responder's files, with the default configuration."""
        domain, mailbox = self.sql(
            "select d.name, m.mail_name from mail_resp r join mail m on m.id = r.mn_id"
            " join domains d on d.id = m.dom_id where r.id = %s", responder)[0]
        return MAILNAMES / domain.decode() / mailbox.decode() / "@attachments"

    # Files

    def databytes(self, text):
        DATABYTES.write_text(text)

    def configuration(self, text):
        CONFIGURATION.write_text(text)

    def password_file(self, text):
        """The administrator's password file; None takes it away."""
        PASSWORD_FILE.unlink(missing_ok=True)
        if text is not None:
            PASSWORD_FILE.write_text(text)
            PASSWORD_FILE.chmod(0o600)

    def _connection(self):
        if self._database is None:
            self._database = database.Database()
        return self._database

    def _insert(self, table, **columns):
        return self._connection().insert(table, **columns)

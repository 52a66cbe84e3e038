"""A small client for the sandbox's MariaDB server: text queries over its Unix socket.

Speaks the client/server protocol that the MariaDB documentation describes, as far as a test needs it:
native password, COM_QUERY, text result sets. Values come back as bytes, or None for NULL.
"""

import hashlib
import socket
import struct

import server

_CAPABILITIES = 0x0001 | 0x0200 | 0x8000 | 0x80000 | 0x0008  # long password, 4.1, 4.1 password, plugin, database
_UTF8 = 33
_COM_QUERY = b"\x03"


class SqlError(Exception):
    """The server refused a statement."""


class Sql(str):
    """An SQL expression where a value is asked for, such as Sql("now() - interval 1 day")."""


class Database:
    """One connection to the panel's database. The session isn't strict, so that a test can store what it likes."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(30)
        self._socket.connect(server.SOCKET)
        self._log_in(self._receive())
        self.execute("set sql_mode=''")

    def close(self):
        self._socket.close()

    def execute(self, statement, *values):
        """Runs a statement, with each %s replaced by a value, and returns its rows as tuples (none: [])."""
        text = statement.encode()
        if values:
            pieces = text.split(b"%s")
            if len(pieces) != len(values) + 1:
                raise ValueError(f"{statement}: {len(values)} values")
            text = pieces[0] + b"".join(quoted(value) + piece
                                        for value, piece in zip(values, pieces[1:]))
        self._number = 255
        self._send(_COM_QUERY + text)
        return self._receive_result()

    def insert(self, table, **columns):
        """Inserts a row and returns its id."""
        names = ", ".join(f"`{name}`" for name in columns)
        marks = ", ".join(["%s"] * len(columns))
        self.execute(f"insert into {table} ({names}) values ({marks})", *columns.values())
        return int(self.execute("select last_insert_id()")[0][0])

    # The protocol

    def _log_in(self, greeting):
        salt_start = greeting.index(b"\0", 1) + 1 + 4
        salt = greeting[salt_start:salt_start + 8]
        rest = salt_start + 8 + 1 + 2 + 1 + 2 + 2 + 1 + 10
        salt += greeting[rest:rest + 12]
        self._send(struct.pack("<IIB23x", _CAPABILITIES, 1 << 24, _UTF8) + b"admin\0" + b"\x14"
                   + _scrambled(server.ADMIN_PASSWORD.encode(), salt)
                   + b"qrx\0mysql_native_password\0")
        self._refuse_error(self._receive())

    def _receive_result(self):
        first = self._receive()
        self._refuse_error(first)
        if first[0] == 0:
            return []
        while self._receive()[0] != 0xFE:
            pass  # the columns' descriptions
        rows = []
        while True:
            packet = self._receive()
            self._refuse_error(packet)
            if packet[0] == 0xFE and len(packet) < 9:
                return rows
            rows.append(_row(packet))

    @staticmethod
    def _refuse_error(packet):
        if packet[0] == 0xFF:
            raise SqlError(packet[9:].decode(errors="replace"))

    def _send(self, payload):
        self._number = (self._number + 1) % 256
        self._socket.sendall(struct.pack("<I", len(payload) | self._number << 24) + payload)

    def _receive(self):
        header = struct.unpack("<I", self._receive_bytes(4))[0]
        self._number = header >> 24
        return self._receive_bytes(header & 0xFFFFFF)

    def _receive_bytes(self, count):
        data = b""
        while len(data) < count:
            piece = self._socket.recv(count - len(data))
            if not piece:
                raise SqlError("the server closed the connection")
            data += piece
        return data


def quoted(value):
    """A value as SQL: None is NULL, text and bytes are taken as UTF-8."""
    if value is None:
        return b"NULL"
    if isinstance(value, Sql):
        return value.encode()
    if isinstance(value, (bool, int)):
        return str(int(value)).encode()
    data = value.encode() if isinstance(value, str) else value
    return b"_utf8 X'" + data.hex().encode() + b"'"


def _scrambled(password, salt):
    stage1 = hashlib.sha1(password).digest()
    stage2 = hashlib.sha1(salt + hashlib.sha1(stage1).digest()).digest()
    return bytes(a ^ b for a, b in zip(stage1, stage2))


def _row(packet):
    values, place = [], 0
    while place < len(packet):
        length, place = _length(packet, place)
        values.append(None if length is None else packet[place:place + length])
        place += length or 0
    return tuple(values)


def _length(packet, place):
    """A length-encoded integer and the place after it; None for NULL."""
    first = packet[place]
    if first == 0xFB:
        return None, place + 1
    size = {0xFC: 2, 0xFD: 3, 0xFE: 8}.get(first, 0)
    if size == 0:
        return first, place + 1
    return int.from_bytes(packet[place + 1:place + 1 + size], "little"), place + 1 + size

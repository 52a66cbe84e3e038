"""A database server of a few lines that says what a test wants: for what the real one can't be brought to say.

Each connection is greeted, its log-in accepted, and each of its statements answered with the packets that
the test has for it. See "Client/Server Protocol" in the MariaDB documentation.
"""

import os
import socket
import struct
import threading

import server

OK = b"\x00\x00\x00\x02\x00\x00\x00"
_CAPABILITIES = 0x0001 | 0x0008 | 0x0080 | 0x0200 | 0x2000 | 0x8000 | 0x80000  # 0x0080: LOAD DATA LOCAL
GREETING = (b"\x0a10.11.0-MariaDB\x00" + struct.pack("<I", 1) + b"saltsalt\x00"
            + struct.pack("<HBHHB", _CAPABILITIES & 0xFFFF, 33, 2, _CAPABILITIES >> 16, 21)
            + bytes(10) + b"saltsaltsalt\x00mysql_native_password\x00")
END = b"\xfe\x00\x00\x02\x00"
CLOSE = None


def error(number, text):
    return b"\xff" + struct.pack("<H", number) + b"#HY000" + text.encode()


def rows(columns, *values):
    """The packets of a result: rows of bytes, None for NULL."""
    column = b"\x03def" + b"\x00" * 3 + b"\x01c\x01c\x0c" + struct.pack("<HIBHB", 33, 1024, 0xFD, 0, 0) + bytes(2)
    return [bytes([columns]), *[column] * columns, END,
            *[b"".join(b"\xfb" if value is None else _text(value) for value in row) for row in values], END]


def _text(value):
    return (bytes([len(value)]) if len(value) < 251 else b"\xfc" + struct.pack("<H", len(value))) + value


class FakeServer:
    """Listens in the place of the real server until close().

    greeting: the first packet; answers: for each statement in turn a list of packets, CLOSE ending the
    connection; raw: bytes that are sent as they stand, and nothing else, before the connection ends.
    """

    def __init__(self, answers=(), greeting=GREETING, log_in=OK, raw=None):
        self.logged_in = b""  # what the client said to log in
        self.received = []    # what came after it: the packets' contents
        self._script = [[log_in], *answers]
        self._greeting = greeting
        self._raw = raw
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(server.SOCKET)
        self._listener.listen()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def close(self):
        """Stops listening, and returns when all that came has been noted."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(30)
        self._listener.close()
        os.unlink(server.SOCKET)

    def _serve(self):
        try:
            while True:
                connection, _ = self._listener.accept()
                with connection, connection.makefile("rb") as stream:
                    self._converse(connection, stream)
        except OSError:
            pass  # close() ends the waiting for a connection

    def _converse(self, connection, stream):
        try:
            if self._raw is not None:
                connection.sendall(self._raw)
                return
            connection.sendall(_packet(0, self._greeting))
            self.logged_in = _receive(stream)
            for answer in self._script:
                for number, packet in enumerate(answer, 2 if answer is self._script[0] else 1):
                    if packet is CLOSE:
                        return
                    connection.sendall(_packet(number, packet))
                self.received.append(_receive(stream))
        except (OSError, EOFError):
            pass  # the program has closed the connection


def _packet(number, content):
    return struct.pack("<I", len(content) | (number % 256) << 24) + content


def _receive(stream):
    header = stream.read(4)
    if len(header) < 4:
        raise EOFError
    return stream.read(struct.unpack("<I", header)[0] & 0xFFFFFF)

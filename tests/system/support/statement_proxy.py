"""A go-between on the way to the database server, which spoils one of its answers.

It takes the place of the server's socket and hands every packet on, either way, but for one exchange: the
greeting is exchange 0, the log-in 1, each statement one more. What happens there is the fault:

  "error"       the statement isn't carried out and is answered with an error
  "close"       it isn't carried out and the connection ends
  "silence"     it isn't carried out and never answered
  "late close"  it is carried out, and the connection ends in place of the answer
  "cut"         it is carried out, and the connection ends within the answer
  "stall"       it is carried out, and nothing more comes after a part of the answer
  "deaf"        it isn't even read
See "Client/Server Protocol" in the MariaDB documentation.
"""

import os
import select
import socket
import threading

import fake_server
import server

ERROR_TEXT = "spoiled by the test"
_BEHIND = server.SOCKET + ".behind"
_COM_QUIT = b"\x01"


class StatementProxy:
    """Stands in front of the server until close()."""

    def __init__(self):
        self.exchange = None  # the one to spoil
        self.fault = None
        self.spoiled = False  # whether it came to that
        os.rename(server.SOCKET, _BEHIND)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(server.SOCKET)
        self._listener.listen()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def spoil(self, exchange, fault):
        """For the next connection; None: nothing."""
        self.exchange, self.fault, self.spoiled = exchange, fault, False

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(30)
        self._listener.close()
        os.rename(_BEHIND, server.SOCKET)

    def _serve(self):
        try:
            while True:
                client, _ = self._listener.accept()
                with client, socket.socket(socket.AF_UNIX) as real:
                    real.connect(_BEHIND)
                    self._converse(client, real)
        except OSError:
            pass  # close() ends the waiting for a connection

    def _converse(self, client, real):
        """Statement by statement: the client waits for the whole answer before it goes on."""
        number, question = 0, b""
        try:
            while number != self.exchange:
                real.sendall(question)
                for piece in _answer(real, number):
                    client.sendall(piece)
                if self.fault == "deaf" and number + 1 == self.exchange:
                    return self._await_end(client)
                question = _receive_packet(client)
                if question[4:5] == _COM_QUIT and len(question) == 5:
                    return
                number += 1
            self._spoil(client, real, question)
        except (OSError, EOFError):
            pass  # the program has ended

    def _await_end(self, client):
        self.spoiled = True
        ends = select.poll()
        ends.register(client, select.POLLRDHUP)
        ends.poll()

    def _spoil(self, client, real, question):
        self.spoiled = True
        if self.fault in ("late close", "cut", "stall"):
            real.sendall(question)
            answer = b"".join(_answer(real, self.exchange))
            if self.fault != "late close":
                client.sendall(answer[:len(answer) // 2])
        elif self.fault == "error":
            client.sendall(_error_packet(question))
        if self.fault in ("error", "silence", "stall"):
            self._go_on(client, real)

    def _go_on(self, client, real):
        """After an error the conversation goes on; a silent server takes what comes without a word."""
        while True:
            question = _receive_packet(client)
            if question[4:5] == _COM_QUIT and len(question) == 5:
                return
            if self.fault == "error":
                real.sendall(question)
                for piece in _answer(real, None):
                    client.sendall(piece)


def _error_packet(question):
    """The error as the packet that follows the question; in place of the greeting there was none."""
    number = question[3] + 1 if question else 0
    content = fake_server.error(1105, ERROR_TEXT)
    if not question:
        content = content[:3] + content[9:]  # before the log-in an error has no state
    return len(content).to_bytes(3, "little") + bytes([number]) + content


def _answer(real, number):
    """The packets of one answer: one, or a result with its columns, its rows and the ends of both."""
    first = _receive_packet(real)
    yield first
    if number in (0, 1) or first[4] in (0x00, 0xFF):
        return
    ends = 0
    while ends < 2:
        packet = _receive_packet(real)
        yield packet
        if packet[4] == 0xFF:
            return
        ends += packet[4] == 0xFE and len(packet) < 4 + 9


def _receive_packet(connection):
    """A whole packet with its header."""
    header = _receive_bytes(connection, 4)
    return header + _receive_bytes(connection, int.from_bytes(header[:3], "little"))


def _receive_bytes(connection, count):
    data = b""
    while len(data) < count:
        piece = connection.recv(count - len(data))
        if not piece:
            raise EOFError
        data += piece
    return data

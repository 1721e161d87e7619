"""D-Bus messages as the service speaks them, as bytes: nothing here reads or writes a socket.

docs/protocol.md tells the wire. Arguments are int (8 bits), bool and bytes; in what comes there is int of 32 bits, too.
"""

from __future__ import annotations

import struct
import sys
from collections import deque
from dataclasses import dataclass
from typing import Iterator, Sequence, Union

from ._errors import ProtocolError

Argument = Union[bool, int, bytes]

CALL, REPLY, ERROR, EVENT = 1, 2, 3, 4

SERVICE_INTERFACE = "sdbus.Service"
CONTROL_INTERFACE = "sdbus.Control"

_MESSAGE_MAX = 128 << 20
_FIXED_HEADER = 16
_NATIVE = "<" if sys.byteorder == "little" else ">"
_ORDERS = {ord("l"): "<", ord("B"): ">"}

# Fields of a header.
_PATH, _INTERFACE, _MEMBER, _ERROR_NAME, _REPLY_SERIAL, _SIGNATURE = 1, 2, 3, 4, 5, 8

HANDSHAKE = b"\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"


@dataclass(frozen=True)
class Message:
    kind: int
    member: str
    answers: int  # the serial of the call that a reply or an error answers
    error: str
    arguments: Sequence[Argument]

    def text(self, index: int) -> bytes:
        value = self.arguments[index] if index < len(self.arguments) else None
        return value if isinstance(value, bytes) else b""

    def flag(self, index: int) -> bool:
        return index < len(self.arguments) and self.arguments[index] is True


# ---- To the wire ----


def _is_wire_text(text: bytes) -> bool:
    """Whether the bytes may travel as a D-Bus string."""
    try:
        decoded = text.decode()
    except UnicodeDecodeError:
        return False
    return not any(c == "\0" or "\ufdd0" <= c <= "\ufdef" or ord(c) & 0xFFFE == 0xFFFE for c in decoded)


class _Writer:
    def __init__(self) -> None:
        self.data = bytearray()

    def align(self, to: int) -> None:
        self.data.extend(bytes(-len(self.data) % to))

    def number(self, kind: str, value: int) -> None:
        self.align(struct.calcsize(kind))
        self.data += struct.pack(_NATIVE + kind, value)

    def text(self, text: bytes) -> None:
        self.number("I", len(text))
        self.data += text + b"\0"

    def signature(self, text: str) -> None:
        self.data += bytes([len(text)]) + text.encode() + b"\0"

    def argument(self, value: Argument) -> str:
        """Appends it and returns its signature."""
        if isinstance(value, bool):
            self.number("I", value)
            return "b"
        if isinstance(value, int):
            self.number("b", value)
            return "y"
        if _is_wire_text(value):
            self.text(value)
            return "s"
        self.number("I", len(value))
        self.data += value
        return "ay"

    def field(self, code: int, kind: str, text: str) -> None:
        self.align(8)
        self.data.append(code)
        self.signature(kind)
        self.signature(text) if kind == "g" else self.text(text.encode())


def call(serial: int, member: str, arguments: Sequence[Argument] = (), interface: str = SERVICE_INTERFACE) -> bytes:
    """A method call."""
    body = _Writer()
    signature = "".join([body.argument(argument) for argument in arguments])
    fields = _Writer()
    fields.field(_PATH, "o", "/")
    fields.field(_INTERFACE, "s", interface)
    fields.field(_MEMBER, "s", member)
    if signature:
        fields.field(_SIGNATURE, "g", signature)
    order = ord("l") if _NATIVE == "<" else ord("B")
    header = struct.pack(_NATIVE + "BBBBIII", order, CALL, 0, 1, len(body.data), serial, len(fields.data))
    message = header + fields.data
    return message + bytes(-len(message) % 8) + body.data


# ---- From the wire ----


class _Reader:
    def __init__(self, data: bytes, order: str) -> None:
        self.data, self.order, self.at = data, order, 0

    def align(self, to: int) -> None:
        self.at += -self.at % to

    def take(self, count: int) -> bytes:
        if count > len(self.data) - self.at:
            raise ProtocolError("a message ends within a value")
        self.at += count
        return self.data[self.at - count : self.at]

    def number(self, kind: str) -> int:
        size = struct.calcsize(kind)
        self.align(size)
        value: int = struct.unpack(self.order + kind, self.take(size))[0]
        return value

    def text(self) -> bytes:
        return self.take(self.number("I") + 1)[:-1]

    def signature(self) -> str:
        return self.take(self.number("B") + 1)[:-1].decode("ascii", "replace")

    def value(self, kind: str) -> Argument:
        if kind == "y":
            return self.number("b")
        if kind == "i":
            return self.number("i")
        if kind == "u":
            return self.number("I")
        if kind == "b":
            return self.number("I") != 0
        if kind in ("s", "o"):
            return self.text()
        if kind == "g":
            return self.signature().encode()
        if kind == "ay":
            return self.take(self.number("I"))
        if kind == "v" and (inner := self.signature()) != "v":
            return self.value(inner)
        raise ProtocolError(f"an argument of the kind {kind!r}")

    def arguments(self, signature: str) -> Iterator[Argument]:
        if signature == "av":  # stands for the arguments that it holds
            end = self.number("I") + self.at
            while self.at < end:
                yield self.value("v")
            return
        at = 0
        while at < len(signature):
            kind = signature[at : at + 2] if signature[at] == "a" else signature[at]
            at += len(kind)
            yield self.value(kind)


def _length(data: bytearray) -> int:
    """Of the message that begins there, whose fixed header has come."""
    order = _ORDERS.get(data[0])
    if order is None:
        raise ProtocolError("what came is no message")
    body, _, fields = struct.unpack_from(order + "III", data, 4)
    length: int = _FIXED_HEADER + fields + -fields % 8 + body
    if length > _MESSAGE_MAX:
        raise ProtocolError("a message is too long")
    return length


def _parse(data: bytes) -> Message:
    reader = _Reader(data, _ORDERS[data[0]])
    reader.at = _FIXED_HEADER - 4
    end = reader.number("I") + _FIXED_HEADER
    fields: dict[int, Argument] = {}
    while reader.at < end:
        reader.align(8)
        code = reader.number("B")
        fields[code] = reader.value("v")
    reader.align(8)

    def text(code: int) -> str:
        value = fields.get(code, b"")
        return value.decode("ascii", "replace") if isinstance(value, bytes) else ""

    answers = fields.get(_REPLY_SERIAL, 0)
    return Message(data[1], _plain_name(text(_MEMBER)), answers if isinstance(answers, int) else 0, text(_ERROR_NAME),
                   list(reader.arguments(text(_SIGNATURE))))


def _plain_name(member: str) -> str:
    """An event's name; one that is no D-Bus member name travels as hex."""
    if not member.startswith("_hex_"):
        return member
    try:
        return bytes.fromhex(member[5:]).decode()
    except ValueError:
        return member


class Incoming:
    """Makes messages of the bytes that come, in whatever pieces, once the handshake is done."""

    def __init__(self) -> None:
        self._data = bytearray()
        self.is_ready = False

    def feed(self, data: bytes) -> list[Message]:
        self._data += data
        if not self.is_ready and not self._finish_handshake():
            return []
        messages = []
        while len(self._data) >= _FIXED_HEADER and len(self._data) >= (length := _length(self._data)):
            messages.append(_parse(bytes(self._data[:length])))
            del self._data[:length]
        return messages

    def answers(self, data: bytes, events: deque[Message]) -> list[Message]:
        """What answers calls, of what these bytes complete; events go behind the others."""
        messages = self.feed(data)
        events.extend(message for message in messages if message.kind == EVENT)
        return [message for message in messages if message.kind in (REPLY, ERROR)]

    def _finish_handshake(self) -> bool:
        """The service asks for the identity, which the kernel tells it, and agrees: DATA, OK ID."""
        while b"\r\n" in self._data:
            line, _, rest = self._data.partition(b"\r\n")
            self._data = bytearray(rest)
            if line.startswith(b"OK "):
                self.is_ready = True
                return True
            if not line.startswith(b"DATA"):
                raise ProtocolError("the service refused the handshake")
        if len(self._data) > 1024:
            raise ProtocolError("what came is no handshake")
        return False

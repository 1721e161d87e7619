"""The client that waits."""

from __future__ import annotations

import os
import socket
import threading
import time
from collections import deque
from types import TracebackType
from typing import Any, Iterator, Optional, TypeVar

from . import _operations, _place, _wire
from ._errors import NoService
from ._keys import Key
from ._operations import Call, Change, Operation

T = TypeVar("T")

CALL_SECONDS = 5.0
APPEAR_SECONDS = 1.0  # for a service that is just starting
RETRY_SECONDS = 0.1
_PIECE = 1 << 16


class _Connection:
    """A socket, past its handshake, and what came over it."""

    def __init__(self, deadline: float) -> None:
        self._socket = _place.connect()
        self._incoming = _wire.Incoming()
        self._serial = 0
        self._process = os.getpid()
        self.events: deque[_wire.Message] = deque()
        try:
            self._send(_wire.HANDSHAKE, deadline)
            while not self._incoming.is_ready:
                self._receive(deadline)
        except (NoService, TimeoutError) as error:
            self.close()
            raise NoService(f"the service does not answer: {error}") from error

    def close(self) -> None:
        self._socket.close()

    def is_usable(self) -> bool:
        """Whether the service has not closed it, and it was not inherited: then nothing was sent, and a new one may be."""
        if self._process != os.getpid():
            return False
        self._socket.settimeout(0)
        try:
            return self._socket.recv(1, socket.MSG_PEEK) != b""
        except BlockingIOError:
            return True
        except OSError:
            return False

    def call(self, call: Call, deadline: float) -> _wire.Message:
        self._serial += 1
        self._send(_wire.call(self._serial, call.method, call.arguments, call.interface), deadline)
        while True:
            for message in self._receive(deadline):
                if message.answers != self._serial:
                    continue
                if message.kind == _wire.ERROR:
                    raise NoService(f"{call.method}: {message.error}")
                return message

    def wait(self, deadline: Optional[float]) -> None:
        """For events, until there are some or the point in time has passed."""
        while not self.events and (deadline is None or time.monotonic() < deadline):
            try:
                self._receive(deadline)
            except TimeoutError:
                return

    def _limit(self, deadline: Optional[float]) -> None:
        self._socket.settimeout(None if deadline is None else max(deadline - time.monotonic(), 0.001))

    def _send(self, data: bytes, deadline: float) -> None:
        try:
            self._limit(deadline)
            self._socket.sendall(data)
        except OSError as error:
            raise NoService(f"the service can't be asked: {error}") from error

    def _receive(self, deadline: Optional[float]) -> list[_wire.Message]:
        """What came, but for events, which are kept. Raises TimeoutError past the deadline."""
        self._limit(deadline)
        try:
            data = self._socket.recv(_PIECE)
        except TimeoutError:
            raise
        except OSError as error:
            raise NoService(f"the service can't be asked: {error}") from error
        if not data:
            raise NoService("the service closed the connection")
        return self._incoming.answers(data, self.events)


def _run(operation: Operation[T], connection: _Connection) -> T:
    deadline = time.monotonic() + CALL_SECONDS
    try:
        call = next(operation)
        while True:
            call = operation.send(connection.call(call, deadline))
    except StopIteration as end:
        value: T = end.value
        return value
    except TimeoutError:
        raise NoService(f"the service did not answer within {CALL_SECONDS:g} s") from None
    finally:
        operation.close()


class Settings:
    """The settings as the service has them. Any thread may call any operation; each is one call of at most 5 s.

    It connects with the first call, and again where the service was started again. As a context it closes at the end.
    Every operation raises NoService where there is no answer; the first one waits a second for a service to appear.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._connection: Optional[_Connection] = None

    def get(self, key: Key[T]) -> T:
        """The value, or the key's default where it has none, or none that can be read or fits."""
        return self._ask(_operations.get(key))

    def read(self, key: Key[T]) -> T:
        """The value. Raises Unset, Unreadable or Misfit where there is none."""
        return self._ask(_operations.read(key))

    def set(self, key: Key[T], value: T) -> None:
        """Stores a value; a secure one is on the disk then. Raises Misfit, with nothing sent, and Refused."""
        self._ask(_operations.set(key, value))

    def delete(self, key: Key[Any]) -> None:
        """Deletes what is stored. Raises Refused."""
        self._ask(_operations.delete(key))

    def is_governed(self, key: Key[Any]) -> bool:
        """Whether a policy has the say, so that setting the key has no effect."""
        return self._ask(_operations.is_governed(key))

    def changes(self, *keys: Key[Any], timeout: Optional[float] = None) -> Changes:
        """An iterator of changes of these keys, from now on; it ends when there was none for so many seconds."""
        return Changes(keys, timeout)

    def close(self) -> None:
        with self._lock:
            self._drop()

    def __enter__(self) -> Settings:
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def _drop(self) -> None:
        if self._connection:
            self._connection.close()
            self._connection = None

    def _ask(self, operation: Operation[T]) -> T:
        with self._lock:
            if self._connection and not self._connection.is_usable():
                self._drop()
            if not self._connection:
                self._connection = _connect()
            try:
                return _run(operation, self._connection)
            except NoService:
                self._drop()  # an answer that comes late answers nothing
                raise


def _connect() -> _Connection:
    """Waits for a service that is just starting. Raises NoService."""
    appear = time.monotonic() + APPEAR_SECONDS
    while True:
        try:
            return _Connection(time.monotonic() + CALL_SECONDS)
        except NoService:
            if time.monotonic() >= appear:
                raise
        time.sleep(RETRY_SECONDS)


class Changes(Iterator[Change[Any]]):
    """Changes of keys as they are told, over restarts of the service: what changed meanwhile is found afterwards.

    It begins with its making, and ends with close(), the end of the context that it is, or its timeout. One thread.
    """

    def __init__(self, keys: tuple[Key[Any], ...], timeout: Optional[float]) -> None:
        self._watch = _operations.Watch(keys)
        self._timeout = timeout
        self._found: deque[Change[Any]] = deque()
        self._closed = False
        self._connection: Optional[_Connection] = _connect()
        self._begin(self._connection)

    def __next__(self) -> Change[Any]:
        deadline = None if self._timeout is None else time.monotonic() + self._timeout
        while not self._found:
            if self._closed or (deadline is not None and time.monotonic() >= deadline):
                raise StopIteration
            try:
                self._step(deadline)
            except NoService:
                self._drop()
        return self._found.popleft()

    def close(self) -> None:
        """Ends the iteration; in the service, the registration too."""
        self._closed = True
        try:
            if self._connection:
                _run(self._watch.end(), self._connection)
        except NoService:
            pass  # it has forgotten of us
        self._drop()

    def __enter__(self) -> Changes:
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def _begin(self, connection: _Connection) -> None:
        self._found += _run(self._watch.begin(), connection)

    def _step(self, deadline: Optional[float]) -> None:
        if not self._connection:
            time.sleep(RETRY_SECONDS)
            self._connection = _Connection(time.monotonic() + CALL_SECONDS)
            return self._begin(self._connection)
        self._connection.wait(deadline)
        while self._connection.events:
            event = self._connection.events.popleft()
            if event.member == _operations.CHANGED:
                self._found += _run(self._watch.look(event.text(0)), self._connection)

    def _drop(self) -> None:
        if self._connection:
            self._connection.close()
            self._connection = None

"""The client that awaits, for asyncio. It is the other one's twin: see sdconfig.Settings."""

from __future__ import annotations

import asyncio
from collections import deque
from types import TracebackType
from typing import Any, AsyncIterator, Optional, TypeVar

from . import _operations, _place, _wire
from ._errors import NoService
from ._keys import Key
from ._operations import Call, Change, Operation
from ._settings import APPEAR_SECONDS, CALL_SECONDS, RETRY_SECONDS

__all__ = ["Changes", "Settings"]

T = TypeVar("T")

_PIECE = 1 << 16


class _Connection:
    def __init__(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self._reader, self._writer = reader, writer
        self._incoming = _wire.Incoming()
        self._serial = 0
        self.events: deque[_wire.Message] = deque()

    @staticmethod
    async def open() -> _Connection:
        self = _Connection(*await asyncio.open_unix_connection(sock=_place.connect()))
        self._writer.write(_wire.HANDSHAKE)
        try:
            while not self._incoming.is_ready:
                await asyncio.wait_for(self._receive(), CALL_SECONDS)
        except asyncio.TimeoutError as error:
            self.close()
            raise NoService("the service does not answer") from error
        except BaseException:
            self.close()
            raise
        return self

    def close(self) -> None:
        self._writer.close()

    def is_usable(self) -> bool:
        return not self._reader.at_eof() and not self._writer.is_closing()

    async def call(self, call: Call) -> _wire.Message:
        self._serial += 1
        serial = self._serial
        self._writer.write(_wire.call(serial, call.method, call.arguments, call.interface))
        while True:
            for message in await self._receive():
                if message.answers != serial:
                    continue  # of a call that was cancelled
                if message.kind == _wire.ERROR:
                    raise NoService(f"{call.method}: {message.error}")
                return message

    async def wait(self) -> None:
        """For events."""
        while not self.events:
            await self._receive()

    async def _receive(self) -> list[_wire.Message]:
        try:
            data = await self._reader.read(_PIECE)
        except OSError as error:
            raise NoService(f"the service can't be asked: {error}") from error
        if not data:
            raise NoService("the service closed the connection")
        return self._incoming.answers(data, self.events)


async def _connect() -> _Connection:
    appear = asyncio.get_running_loop().time() + APPEAR_SECONDS
    while True:
        try:
            return await _Connection.open()
        except NoService:
            if asyncio.get_running_loop().time() >= appear:
                raise
        await asyncio.sleep(RETRY_SECONDS)


async def _run(operation: Operation[T], connection: _Connection) -> T:
    async def steps() -> T:
        try:
            call = next(operation)
            while True:
                call = operation.send(await connection.call(call))
        except StopIteration as end:
            value: T = end.value
            return value

    try:
        return await asyncio.wait_for(steps(), CALL_SECONDS)
    except asyncio.TimeoutError:
        raise NoService(f"the service did not answer within {CALL_SECONDS:g} s") from None
    finally:
        operation.close()


class Settings:
    """As sdconfig.Settings, for one event loop: calls that are made at a time go one after the other."""

    def __init__(self) -> None:
        self._lock = asyncio.Lock()
        self._connection: Optional[_Connection] = None

    async def get(self, key: Key[T]) -> T:
        return await self._ask(_operations.get(key))

    async def read(self, key: Key[T]) -> T:
        return await self._ask(_operations.read(key))

    async def set(self, key: Key[T], value: T) -> None:
        await self._ask(_operations.set(key, value))

    async def delete(self, key: Key[Any]) -> None:
        await self._ask(_operations.delete(key))

    async def is_governed(self, key: Key[Any]) -> bool:
        return await self._ask(_operations.is_governed(key))

    def changes(self, *keys: Key[Any]) -> Changes:
        """Changes of these keys, from the first time that it is awaited or entered on."""
        return Changes(keys)

    async def close(self) -> None:
        async with self._lock:
            self._drop()

    async def __aenter__(self) -> Settings:
        return self

    async def __aexit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        await self.close()

    def _drop(self) -> None:
        if self._connection:
            self._connection.close()
            self._connection = None

    async def _ask(self, operation: Operation[T]) -> T:
        async with self._lock:
            if self._connection and not self._connection.is_usable():
                self._drop()
            if not self._connection:
                self._connection = await _connect()
            try:
                return await _run(operation, self._connection)
            except NoService:
                self._drop()
                raise


class Changes(AsyncIterator[Change[Any]]):
    """As sdconfig.Changes; a context, too, at whose end the service is told that nobody listens."""

    def __init__(self, keys: tuple[Key[Any], ...]) -> None:
        self._watch = _operations.Watch(keys)
        self._found: deque[Change[Any]] = deque()
        self._connection: Optional[_Connection] = None
        self._has_begun = False

    async def begin(self) -> None:
        """Raises NoService where there is no service; one that goes later is waited for."""
        if not self._has_begun:
            self._connection = await _connect()
            self._found += await _run(self._watch.begin(), self._connection)
            self._has_begun = True

    async def __anext__(self) -> Change[Any]:
        await self.begin()
        while not self._found:
            try:
                await self._step()
            except NoService:
                self._drop()
        return self._found.popleft()

    async def close(self) -> None:
        try:
            if self._connection:
                await _run(self._watch.end(), self._connection)
        except NoService:
            pass  # it has forgotten of us
        self._drop()

    async def __aenter__(self) -> Changes:
        await self.begin()
        return self

    async def __aexit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        await self.close()

    async def _step(self) -> None:
        if not self._connection:
            await asyncio.sleep(RETRY_SECONDS)
            self._connection = await _Connection.open()
            self._found += await _run(self._watch.begin(), self._connection)
            return
        await self._connection.wait()
        while self._connection.events:
            event = self._connection.events[0]
            if event.member == _operations.CHANGED:
                self._found += await _run(self._watch.look(event.text(0)), self._connection)
            self._connection.events.popleft()

    def _drop(self) -> None:
        if self._connection:
            self._connection.close()
            self._connection = None

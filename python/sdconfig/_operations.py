"""What is asked of the service, without saying how: each operation yields calls, is sent their answers, and returns.

The clients of both kinds run them: Settings waits for an answer, aio.Settings awaits it.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Generator, Generic, NamedTuple, Sequence, TypeVar

from ._errors import Misfit, Refused, Unreadable, Unset
from ._keys import Key, Store
from ._wire import CONTROL_INTERFACE, SERVICE_INTERFACE, Argument, Message

T = TypeVar("T")

CHANGED = "DM_CHANGED"
MOST_KEYS = 122  # in one call


class Call(NamedTuple):
    method: str
    arguments: Sequence[Argument] = ()
    interface: str = SERVICE_INTERFACE


Operation = Generator[Call, Message, T]


@dataclass(frozen=True)
class Change(Generic[T]):
    """That a key changed, and what it reads as now: value is the default where it has none, and is_set False."""

    key: Key[T]
    value: T
    is_set: bool


def undoubled(stored: bytes) -> bytes:
    """The bytes that were set of what a secure value or a policy's value reads back as.

    The stores take what is set for Latin-1 and keep UTF-8. What they can't have made is given as it is.
    """
    try:
        return stored.decode().encode("latin-1")
    except UnicodeError:
        return stored


def _name_of(key: Key[Any]) -> bytes:
    return key.name.encode(errors="surrogateescape")


def read(key: Key[T]) -> Operation[T]:
    """The value. Raises Unset, Unreadable or Misfit where there is none."""
    is_secure = key.store is Store.SECURE
    answer = yield Call("GET_SECURE" if is_secure else "GET_PROPERTY", [_name_of(key)])
    text = answer.text(0)
    if not text:
        if answer.flag(1):
            raise Unreadable(f"{key.name}: what is stored can't be opened")
        raise Unset(f"{key.name} has no value")
    return key.parse(undoubled(text) if is_secure else text)


def get(key: Key[T]) -> Operation[T]:
    """The value, or the default where there is none that can be read."""
    try:
        return (yield from read(key))
    except (Unset, Unreadable, Misfit):
        return key.default


def _change(key: Key[T]) -> Operation[Change[T]]:
    try:
        return Change(key, (yield from read(key)), True)
    except (Unset, Unreadable, Misfit):
        return Change(key, key.default, False)


def set(key: Key[T], value: T) -> Operation[None]:
    """Stores a value. Raises Misfit for one that the key does not allow, and Refused."""
    method = "SET_SECURE" if key.store is Store.SECURE else "SET_PROPERTY"
    answer = yield Call(method, [_name_of(key), key.print(value)])
    if not answer.flag(0):
        raise Refused(f"{key.name} was not stored: the service's log says why")


def delete(key: Key[Any]) -> Operation[None]:
    """Deletes what is stored of a key; one that has nothing is no failure, of a property that is set by no file."""
    method = "DEL_SECURE" if key.store is Store.SECURE else "DEL_PROPERTY"
    answer = yield Call(method, [_name_of(key)])
    if not answer.flag(0):
        raise Refused(f"{key.name} was not deleted: the service's log says why")


def is_governed(key: Key[Any]) -> Operation[bool]:
    """Whether a policy has the say, so that setting the key has no effect."""
    if key.store is not Store.SECURE:
        return False
    answer = yield Call("ISSTRONG_CONTROL", [_name_of(key)])
    return answer.flag(0)


class Watch:
    """Keys that are watched, and what they were last known to read as."""

    def __init__(self, keys: Sequence[Key[Any]]) -> None:
        self._keys = {_name_of(key): key for key in keys}
        self._known: dict[bytes, Change[Any]] = {}

    def begin(self) -> Operation[list[Change[Any]]]:
        """Subscribes, on the connection that is to have the events, and gives what changed since anything was known.

        A service that was started again knows of no registration; one that lost the connection alone still has it.
        """
        yield Call("Subscribe", [CHANGED.encode()], CONTROL_INTERFACE)
        names = list(self._keys)
        for at in range(0, len(names), MOST_KEYS):
            some = names[at : at + MOST_KEYS]
            listened = yield Call("ISALREADY_LISTHENED", [len(some), *some])
            if not listened.flag(0):
                yield Call("DM_REGISTER_LISTERNER", [len(some), *some, False])
        changes = []
        for name in names:
            changes += yield from self.look(name)
        return changes

    def look(self, name: bytes) -> Operation[list[Change[Any]]]:
        """What is new of a key, of whatever name: nothing for one that is not watched."""
        if name not in self._keys:
            return []
        now = yield from _change(self._keys[name])
        known, self._known[name] = self._known.get(name), now
        return [now] if known is not None and known != now else []

    def end(self) -> Operation[None]:
        for name in self._keys:
            yield Call("UNREG_LISTENER", [name, False])

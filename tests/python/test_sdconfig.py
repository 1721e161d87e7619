"""The module against a real service."""

import asyncio
import enum
import os
import random
import sqlite3
from datetime import timedelta
from pathlib import Path

import pytest

import sdconfig.aio
from sdconfig import Color, Json, Key, Misfit, NoService, Settings, Size, Store, Unreadable, Unset, _wire


class Mode(enum.Enum):
    OFF = "off"
    GREEN = "grün"


VALUES = [
    (bool, True, "true"), (int, -(2**63), "-9223372036854775808"), (int, 2**63 - 1, "9223372036854775807"),
    (float, 0.1, "0.1"), (float, -1e300, "-1e+300"), (float, 100000.0, "1e+05"), (str, "grün € 𝄞", "grün € 𝄞"),
    (str, os.fsdecode(b"gr\xfcn\xc3"), None), (Mode, Mode.GREEN, "grün"),
    (timedelta, timedelta(days=1, seconds=5400, milliseconds=7), "1d1h30m7ms"), (Size, Size(3 << 20), "3MiB"),
    (Path, Path("/srv/größe"), "/srv/größe"), (Color, Color("#00ff0080"), "#00ff0080"),
    (Json, Json({"ä": [1, None]}), '{"ä":[1,null]}'), (list[str], ["", 'ä "b"', "c\n"], '["","ä \\"b\\"","c\\n"]'),
    (list[int], [2**63 - 1, -1], "[9223372036854775807,-1]"), (list[timedelta], [timedelta(0)], '["0s"]'),
    (list[bool], [], "[]"),
]


@pytest.mark.parametrize("store", Store)
def test_every_type_comes_back_and_the_command_line_has_its_text(world, store):
    with Settings() as settings:
        for number, (kind, value, text) in enumerate(VALUES):
            key = Key(f"velmar.{number}", kind, value, store)
            settings.set(key, value)
            assert settings.read(key) == value and type(settings.read(key)) is type(value)
            if text is not None:
                secure = ["secure"] if store is Store.SECURE else []
                assert world.cli(*secure, "get", key.name) == text


@pytest.mark.parametrize("kind, text, value", [
    (bool, " YES ", True), (bool, "0", False), (int, "+7", 7), (float, ".5e1", 5.0), (Mode, "GRÜN", Mode.GREEN),
    (timedelta, "1.5 h", timedelta(minutes=90)), (timedelta, "1w 2D", timedelta(days=9)), (Size, "1.5KiB", 1536),
    (Size, "12", 12), (Color, "#ABCF", None), (Color, "#ABC", "#aabbcc"), (Color, "#AABBCCFF", "#aabbcc"),
    (list[int], "[1, 2]", [1, 2]), (bool, "maybe", None), (int, "1_0", None), (int, str(2**63), None),
    (float, "nan", None), (float, "1e999", None), (Mode, "on", None), (timedelta, "5", None), (timedelta, "1s 1h", None),
    (timedelta, "0.0001s", None), (Size, "9EiB", None), (Size, "1.0001KiB", None), (Json, "{", None), (Json, "[NaN]", None),
    (list[int], '["a"]', None), (list[str], "[[]]", None), (list[str], "a", None),
])
def test_what_is_read_as_a_value(kind, text, value):
    key = Key("k", kind, value)
    if value is not None:
        assert key.parse(text.encode()) == value
    else:
        with pytest.raises(Misfit):
            key.parse(text.encode())


def test_why_there_is_no_value(world):
    port = Key("port", int, 8080, Store.SECURE, minimum=1, maximum=65535)
    settings = Settings()
    with pytest.raises(Unset):
        settings.read(port)
    world.cli("secure", "set", "port", "70000")
    with pytest.raises(Misfit):
        settings.read(port)
    assert settings.get(port) == 8080
    assert settings.get(Key("port", int, 8080, Store.SECURE, maximum=65535, clamp=True)) == 65535
    for refused in (0, 2**64):
        with pytest.raises(Misfit):
            settings.set(port, refused)
    with pytest.raises(Misfit, match="reads as unset"):
        settings.set(Key("name", str, "someone"), "")
    with sqlite3.connect(world.folder / "data/sdconfig.db") as database:
        database.execute("UPDATE secure_v3 SET value = 'damaged' WHERE key = 'port'")
    with pytest.raises(Unreadable):
        settings.read(port)
    settings.delete(port)
    with pytest.raises(Unset):
        settings.read(port)
    world.kill()
    with pytest.raises(NoService):
        settings.get(port)
    world.start()
    assert settings.get(port) == 8080


def test_a_socket_of_others_is_not_trusted(world):
    (world.folder / "run/sdbus").chmod(0o770)
    with pytest.raises(NoService, match="open to others"):
        Settings().get(Key("k", str, ""))


def test_a_child_asks_for_itself(world):
    key = Key("k", str, "")
    with Settings() as settings:
        settings.set(key, "of the parent")
        if (child := os.fork()) == 0:
            os._exit(0 if settings.get(key) == "of the parent" else 1)
        assert os.waitpid(child, 0)[1] == 0
        assert settings.get(key) == "of the parent"


def test_changes_are_told_over_a_restart(world):
    name, port = Key("name", str, "", Store.SECURE), Key("port", int, 8080)
    with Settings() as settings, settings.changes(name, port) as changes:
        world.cli("policy", "set", "name", "jürgen", "10")
        world.cli("set", "port", "1")
        found = [next(changes), next(changes)]
        assert [(change.key, change.value, change.is_set) for change in found] == [(name, "jürgen", True), (port, 1, True)]
        assert settings.is_governed(name) and not settings.is_governed(port)
        world.kill()
        world.start()  # a property is gone with the service
        assert next(changes).value == 8080
        world.cli("policy", "delete", "name")
        assert next(changes).value == ""
    with settings.changes(port, timeout=0) as changes:
        assert list(changes) == []


def test_asyncio(world):
    port, name = Key("port", int, 8080), Key("name", str, "")

    async def main():
        async with sdconfig.aio.Settings() as settings, settings.changes(port, name) as changes:
            cancelled = asyncio.create_task(settings.set(name, "cancelled" * 100_000))
            await asyncio.sleep(0)
            await asyncio.sleep(0)
            cancelled.cancel()
            await asyncio.gather(*(settings.set(port, number) for number in (1, 2, 3)))
            assert await settings.get(port) == 3
            while (change := await anext(changes)).value != 3:
                pass
            assert change.key == port
            world.kill()
            with pytest.raises(NoService):
                await settings.get(port)
            world.start()
            while (change := await anext(changes)).key != port:
                pass
            assert change.value == 8080

    asyncio.run(main())


def test_any_bytes_of_a_service_are_safe():
    reply = _wire.call(7, "M", [b"\xc3\xbc", b"\xff", True, -3])
    incoming = _wire.Incoming()
    pieces = [incoming.feed(bytes([byte])) for byte in b"DATA\r\nOK 0\r\n" + reply * 2]
    assert [message.arguments for piece in pieces for message in piece] == [[b"\xc3\xbc", b"\xff", True, -3]] * 2
    dice = random.Random(1)
    for _ in range(5000):
        broken = bytearray(reply)
        for _ in range(dice.randint(1, 4)):
            broken[dice.randrange(len(broken))] = dice.randrange(256)
        other = _wire.Incoming()
        try:
            other.feed(b"OK 0\r\n" + bytes(broken))
        except sdconfig.ProtocolError:
            pass

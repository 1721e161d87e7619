"""One of those who exchange values of every type: exchange.py set|get WRITER"""

import enum
import sys
from datetime import timedelta
from pathlib import Path

import sdconfig
from sdconfig import Color, Json, Size

LEAST, MOST = -(2**63), 2**63 - 1
Mode = enum.Enum("Mode", {"OFF": "off", "GREEN": "grün"})
Number = enum.Enum("Number", {"ONE": "one", "TWO": "two"})
SECURE = ["string", "enum", "duration", "url", "path", "json", "strings", "durations"]
VALUES = {
    "bool": (bool, True), "short": (int, 65535), "int": (int, LEAST), "number": (float, -1e300),
    "string": (str, 'grün € 𝄞 "x"'), "plain": (str, ""), "enum": (Mode, Mode.GREEN),
    "duration": (timedelta, timedelta(days=30)), "size": (Size, Size(MOST)),
    "url": (str, "https://münchen.example/ä?b=%20"), "path": (Path, Path("/srv/größe")),
    "color": (Color, Color("#ff000080")), "json": (Json, Json({"ä": [1, None, "ö"]})),
    "strings": (list[str], ["", "ü\n"]), "ints": (list[int], [LEAST, MOST]),
    "durations": (list[timedelta], [timedelta(), timedelta(days=1, milliseconds=1)]),
    "enums": (list[Number], [Number.TWO, Number.ONE]),
}

with sdconfig.Settings() as settings:
    for name, (kind, value) in VALUES.items():
        store = sdconfig.Store.SECURE if name in SECURE else sdconfig.Store.PROPERTY
        key = sdconfig.Key(f"exchange.{sys.argv[2]}.{name}", kind, value, store)
        if sys.argv[1] == "set":
            settings.set(key, value)
        else:
            print(name, key.print(settings.read(key) if name != "plain" else settings.get(key)).decode())

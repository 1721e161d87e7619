"""How values of each type are written: the one form that is stored, and what else is read as one.

The same forms as those of the command line and of base/sdconfig_forms.h.
"""

from __future__ import annotations

import json
import math
import operator
import re
from datetime import timedelta
from decimal import Decimal
from enum import Enum
from pathlib import Path
from typing import Any, Callable, NamedTuple, get_args, get_origin

from ._errors import Misfit

_INT_MAX = (1 << 63) - 1
_MILLISECOND = timedelta(milliseconds=1)

_DURATIONS = {"w": 604_800_000, "d": 86_400_000, "h": 3_600_000, "m": 60_000, "s": 1_000, "ms": 1}
_SIZES = {"eib": 1 << 60, "pb": 10**15, "pib": 1 << 50, "tb": 10**12, "tib": 1 << 40, "gb": 10**9, "gib": 1 << 30,
          "mb": 10**6, "mib": 1 << 20, "kb": 1000, "kib": 1 << 10}
_SIZE_NAMES = {"eib": "EiB", "pb": "PB", "pib": "PiB", "tb": "TB", "tib": "TiB", "gb": "GB", "gib": "GiB",
               "mb": "MB", "mib": "MiB", "kb": "kB", "kib": "KiB"}
_BLANKS = " \t\n\r"
_INT = re.compile(r"\+?\d+|-\d+", re.ASCII)
_NUMBER = re.compile(r"[+-]?(\d+\.?\d*|\.\d+)(e[+-]?\d+)?", re.ASCII | re.IGNORECASE)
_PART = re.compile(r"(\d+)(?:\.(\d*))?\s*([a-z]*)\s*", re.ASCII | re.IGNORECASE)
_COLOR = re.compile(r"#([0-9a-f]{3}|[0-9a-f]{6}|[0-9a-f]{8})", re.ASCII | re.IGNORECASE)


class Size(int):
    """A number of bytes, 0 to 2**63 - 1."""


class Color(str):
    """#rrggbb or #rrggbbaa, in small letters."""


class Json:
    """A value of JSON: data is what the module json makes of its text."""

    def __init__(self, data: Any) -> None:
        self.data = data

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Json) and self.data == other.data

    def __repr__(self) -> str:
        return f"Json({self.data!r})"


class Form(NamedTuple):
    parse: Callable[[str], Any]
    print: Callable[[Any], str]
    stands_bare: bool = False  # in a list, without quotation marks


def _whole(number: int) -> int:
    if not -_INT_MAX - 1 <= number <= _INT_MAX:
        raise Misfit(f"{number} takes more than 64 bits")
    return number


def _positive(number: int) -> int:
    if number < 0:
        raise Misfit(f"{number} is negative")
    return _whole(number)


def _parse_bool(text: str) -> bool:
    word = text.strip(_BLANKS).lower()
    if word in ("true", "yes", "on", "1"):
        return True
    if word in ("false", "no", "off", "0"):
        return False
    raise Misfit(f"{text!r} is neither true nor false")


def _parse_int(text: str) -> int:
    if not _INT.fullmatch(text.strip(_BLANKS)):
        raise Misfit(f"{text!r} is no whole number")
    return _whole(int(text))


def _parse_number(text: str) -> float:
    if not _NUMBER.fullmatch(text.strip(_BLANKS)) or not math.isfinite(float(text)):
        raise Misfit(f"{text!r} is no number")
    return float(text)


def _print_number(value: float) -> str:
    if not math.isfinite(value):
        raise Misfit(f"{value!r} is no finite number")
    shortest = Decimal(repr(float(value))).normalize()
    sign, digits, exponent = shortest.as_tuple()
    exponent = int(exponent) + len(digits) - 1
    fraction = "".join(map(str, digits[1:]))
    scientific = f"{'-' * sign}{digits[0]}{'.' * bool(fraction)}{fraction}e{exponent:+03d}"
    return min(f"{shortest:f}", scientific, key=len)  # the first of two that are equally long


def _parse_parts(text: str, units: dict[str, int]) -> int:
    """Numbers with units, each unit smaller than the one before it."""
    total, at, names = 0, 0, list(units)
    text = text.strip(_BLANKS)
    while (part := _PART.match(text, at)) and part[3].lower() in names:
        unit = part[3].lower()
        fraction = part[2] or ""
        total += int(part[1]) * units[unit]
        share, rest = divmod(int(fraction or 0) * units[unit], 10 ** len(fraction))
        if rest:
            break
        total, at, names = total + share, part.end(), names[names.index(unit) + 1 :]
    if not text or at < len(text):
        raise Misfit(f"{text!r} is no number with a unit")
    return _whole(total)


def _parse_duration(text: str) -> timedelta:
    try:
        return timedelta(milliseconds=_parse_parts(text, _DURATIONS))
    except OverflowError:
        raise Misfit(f"{text!r} is longer than a timedelta can be") from None


def _print_duration(value: timedelta) -> str:
    if value < timedelta() or value % _MILLISECOND:
        raise Misfit(f"{value} is no whole number of milliseconds, or negative")
    rest = value // _MILLISECOND
    text = ""
    for unit, count in _DURATIONS.items():
        if unit != "w" and rest >= count:
            text += f"{rest // count}{unit}"
            rest %= count
    return text or "0s"


def _parse_size(text: str) -> Size:
    bare = text.strip(_BLANKS)
    part = _PART.fullmatch(bare)
    if not part:
        raise Misfit(f"{text!r} is no size")
    return Size(_parse_parts(bare, {"b": 1, "": 1} if part[3].lower() in ("", "b") else _SIZES))


def _print_size(value: int) -> str:
    _positive(value)
    for unit, count in _SIZES.items():
        if value and value % count == 0:
            return f"{value // count}{_SIZE_NAMES[unit]}"
    return f"{value}B"


def _parse_color(text: str) -> Color:
    if not (found := _COLOR.fullmatch(text.strip(_BLANKS))):
        raise Misfit(f"{text!r} is no color")
    digits = found[1].lower()
    if len(digits) == 3:
        digits = "".join(2 * digit for digit in digits)
    return Color("#" + (digits[:6] if digits[6:] == "ff" else digits))


def _no_constant(word: str) -> None:
    raise ValueError(f"{word} is no number of JSON")


def _parse_json(text: str) -> Json:
    try:
        return Json(json.loads(text, parse_constant=_no_constant))
    except (ValueError, RecursionError) as error:
        raise Misfit(f"{text!r} is no JSON: {error}") from None


def _print_json(value: Json) -> str:
    try:
        return json.dumps(value.data, ensure_ascii=False, allow_nan=False, separators=(",", ":"))
    except (TypeError, ValueError, RecursionError) as error:
        raise Misfit(f"no value of JSON: {error}") from None


def _print_int(value: int) -> str:
    return str(_whole(operator.index(value)))


_FORMS: dict[Any, Form] = {
    bool: Form(_parse_bool, lambda value: "true" if value else "false", True),
    int: Form(_parse_int, _print_int, True),
    float: Form(_parse_number, _print_number, True),
    str: Form(str, str),
    timedelta: Form(_parse_duration, _print_duration),
    Size: Form(_parse_size, _print_size),
    Path: Form(Path, str),
    Color: Form(_parse_color, lambda value: str(_parse_color(value))),
    Json: Form(_parse_json, _print_json),
}


def _form_of_enum(kind: type[Enum]) -> Form:
    def parse(text: str) -> Enum:
        word = text.strip(_BLANKS)
        for found in ([member for member in kind if member.value == word],
                      [member for member in kind if str(member.value).lower() == word.lower()]):
            if len(found) == 1:
                return found[0]
        raise Misfit(f"{text!r} is none of " + ", ".join(str(member.value) for member in kind))

    return Form(parse, lambda value: str(kind(value).value))


def _form_of_list(item: Form) -> Form:
    def text_of(part: Any) -> str:
        if isinstance(part, str):
            return part
        if isinstance(part, _Written):
            return part.text
        if isinstance(part, bool):
            return "true" if part else "false"
        raise Misfit("an item of a list is neither a text, a number nor a boolean")

    def parse(text: str) -> list[Any]:
        try:
            parts = json.loads(text, parse_int=_Written, parse_float=_Written, parse_constant=_Written)
        except (ValueError, RecursionError) as error:
            raise Misfit(f"{text!r} is no list: {error}") from None
        if not isinstance(parts, list):
            raise Misfit(f"{text!r} is no list")
        return [item.parse(text_of(part)) for part in parts]

    def print_list(value: list[Any]) -> str:
        texts = [item.print(one) for one in value]
        return "[" + ",".join(text if item.stands_bare else _json_text(text) for text in texts) + "]"

    return Form(parse, print_list)


class _Written:
    """A number as it is written, whose type is for the list's item to say."""

    def __init__(self, text: str) -> None:
        self.text = text


def _json_text(text: str) -> str:
    return json.dumps(text, ensure_ascii=False)


def form_of(kind: Any) -> Form:
    """The form of a type. Raises TypeError for one that no key can have."""
    if kind in _FORMS:
        return _FORMS[kind]
    if isinstance(kind, type) and issubclass(kind, Enum):
        return _form_of_enum(kind)
    if get_origin(kind) is list and get_args(kind):
        return _form_of_list(form_of(get_args(kind)[0]))
    raise TypeError(f"no key is of the type {kind}")

"""Keys: a name, the type of its values, the default, and the values that it allows."""

from __future__ import annotations

from dataclasses import dataclass, field
from enum import Enum
from typing import Any, Generic, Optional, TypeVar

from ._errors import Misfit
from ._forms import Form, form_of

T = TypeVar("T")


class Store(Enum):
    """Where a key's value is kept."""

    PROPERTY = "property"  # as long as the service runs, above what the build.prop files define
    SECURE = "secure"  # sealed, until it is deleted; a policy may override it


@dataclass(frozen=True)
class Key(Generic[T]):
    """A key and what is known of it.

    type is bool, int (64 bits), float, str, a subclass of Enum whose values are texts, datetime.timedelta (of whole
    milliseconds), Size, Color, pathlib.Path, Json, or a list[] of one of these. minimum and maximum bound values that
    compare; clamp: whether a stored value beyond them reads as the nearest bound, not as the default.
    """

    name: str
    type: type[T]
    default: T
    store: Store = Store.PROPERTY
    minimum: Optional[T] = None
    maximum: Optional[T] = None
    clamp: bool = False
    form: Form = field(init=False, repr=False, compare=False)

    def __post_init__(self) -> None:
        object.__setattr__(self, "form", form_of(self.type))
        if self._nearest(self.default) != self.default:
            raise ValueError(f"the default of {self.name} is out of its range")

    def parse(self, stored: bytes) -> T:
        """The value of a stored text. Raises Misfit."""
        value: T = self.form.parse(stored.decode(errors="surrogateescape"))
        nearest: T = self._nearest(value)
        if nearest != value and not self.clamp:
            raise Misfit(f"{self.name}: {value} is not between {self.minimum} and {self.maximum}")
        return nearest

    def print(self, value: T) -> bytes:
        """The text that is stored of a value. Raises Misfit for one that the key does not allow."""
        if self._nearest(value) != value:
            raise Misfit(f"{self.name}: {value} is not between {self.minimum} and {self.maximum}")
        text = self.form.print(value).encode(errors="surrogateescape")
        if not text and self.form.print(self.default):
            raise Misfit(f"{self.name}: an empty text is no value: it reads as unset, and so as the default")
        if b"\0" in text:
            raise Misfit(f"{self.name}: a value has no zero byte")
        return text

    def _nearest(self, value: Any) -> Any:
        if self.minimum is not None and value < self.minimum:
            return self.minimum
        if self.maximum is not None and value > self.maximum:
            return self.maximum
        return value

"""What can go wrong."""

from __future__ import annotations


class Error(Exception):
    """Of every failure here."""


class NoService(Error, ConnectionError):
    """The service could not be reached, or did not answer in time: a write may be stored all the same."""


class ProtocolError(NoService):
    """What answered speaks another language."""


class Unset(Error, LookupError):
    """The key has no value, and its default was not asked for."""


class Unreadable(Error):
    """What is stored of the key can't be opened, as under a locked key ring."""


class Misfit(Error, ValueError):
    """A text is no value of the key's type, or none that the key allows."""


class Refused(Error):
    """The service did not store it, or not delete it."""

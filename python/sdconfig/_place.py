"""Where the service listens, and who may have put that socket there."""

from __future__ import annotations

import os
import socket
import stat
import struct
from typing import Iterator

from ._errors import NoService

SERVICE = "sdconfig"


def _folders() -> Iterator[tuple[str, str, bool]]:
    """A folder, the name in it, and whether the folder has to be this user's: in the order in which they are tried."""
    user = os.geteuid()
    runtime = os.environ.get("XDG_RUNTIME_DIR")
    if runtime:
        yield runtime, "sdbus", True
        return
    yield "/tmp", f"sdbus-{user}", False
    yield f"/run/user/{user}", "sdbus", True


def _is_mine(status: os.stat_result, forbidden: int) -> bool:
    return status.st_uid == os.geteuid() and not status.st_mode & forbidden


def _check(parent: str, name: str, is_private: bool) -> str:
    """The folder of sockets, in which no link and no other user can stand between us and the service."""
    if not os.path.isabs(parent):
        raise NoService("XDG_RUNTIME_DIR is not an absolute path")
    path = os.path.join(parent, name)
    if is_private and not _is_mine(os.stat(parent), stat.S_IWGRP | stat.S_IWOTH):
        raise NoService(f"the runtime folder {parent} is another user's, or others may write to it")
    status = os.lstat(path)
    if not stat.S_ISDIR(status.st_mode) or not _is_mine(status, stat.S_IRWXG | stat.S_IRWXO):
        raise NoService(f"the folder {path} is another user's, or open to others")
    return path


def _check_owner(connection: socket.socket, path: str) -> None:
    peer = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    user = struct.unpack("3i", peer)[1]
    if user not in (0, os.geteuid()):
        raise NoService(f"{path} belongs to user {user}")


def connect() -> socket.socket:
    """A connected socket. Raises NoService where nobody listens, or somebody whom this user can't trust."""
    why = NoService("there is no service")
    for parent, name, is_private in _folders():
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            path = os.path.join(_check(parent, name, is_private), SERVICE)
            connection.connect(path)
            _check_owner(connection, path)
            return connection
        except NoService as error:
            connection.close()
            why = error
        except OSError as error:
            connection.close()
            if not isinstance(error, (FileNotFoundError, ConnectionRefusedError)):
                why = NoService(f"{os.path.join(parent, name)}: {error}")
    raise why

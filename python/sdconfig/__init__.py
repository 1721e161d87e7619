"""Settings, sealed values and policies of the desktop client, read and written through the user's service.

    PORT = sdconfig.Key("velmar.proxy.port", int, default=8080, minimum=1, maximum=65535)
    with sdconfig.Settings() as settings:
        settings.set(PORT, 3128)
        for change in settings.changes(PORT):
            print(change.key.name, change.value)

sdconfig.aio has the same for asyncio.
"""

from ._errors import Error, Misfit, NoService, ProtocolError, Refused, Unreadable, Unset
from ._forms import Color, Json, Size
from ._keys import Key, Store
from ._operations import Change
from ._settings import Changes, Settings

__all__ = ["Change", "Changes", "Color", "Error", "Json", "Key", "Misfit", "NoService", "ProtocolError", "Refused",
           "Settings", "Size", "Store", "Unreadable", "Unset"]

"""The three dialects of the network server: their names in the configuration and their topics."""
from dataclasses import dataclass

from .config import GW_MAC

_ID = GW_MAC.lower()


@dataclass(frozen=True)
class Dialect:
    name: str
    ns_type: str
    uplink: str
    downlink: str
    statistics: str
    ack: str = ""

    def __str__(self) -> str:
        return self.name


NATIVE = Dialect("native", "sarnivel", "gateway/rx", "gateway/tx", "gateway/stats")
V2 = Dialect(
    "chirpstack_v2", "chirpstack_v2", f"gateway/{_ID}/rx", f"gateway/{_ID}/tx", f"gateway/{_ID}/stats"
)
V3 = Dialect(
    "chirpstack_v3",
    "chirpstack",
    f"gateway/{_ID}/event/up",
    f"gateway/{_ID}/command/down",
    f"gateway/{_ID}/event/stats",
    f"gateway/{_ID}/event/ack",
)
DIALECTS = (NATIVE, V2, V3)

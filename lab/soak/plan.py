"""What a seed decides before a soak begins."""

from __future__ import annotations

from dataclasses import dataclass

from lab.demo.dialects import DIALECTS, Dialect

# In the order of which seed brings what: three seeds in a row have all dialects, one server and two, and alarms
# that are notified and alarms that are asked for.
_DIALECTS = ("native", "chirpstack_v2", "chirpstack_v3")
EVENTS_SECONDS = 5


@dataclass(frozen=True)
class Plan:
    seed: int
    dialect: Dialect
    has_two_servers: bool
    events_seconds: int  # between two looks at the agent's alarms; 0 waits for notifications

    @property
    def words(self) -> str:
        servers = (
            "a server each for network and operations" if self.has_two_servers else "one server for both"
        )
        alarms = (
            f"alarms asked for every {self.events_seconds} s" if self.events_seconds else "alarms notified"
        )
        return f"seed {self.seed}: dialect {self.dialect.name}, {servers}, {alarms}"


def plan_of(seed: int) -> Plan:
    return Plan(
        seed,
        DIALECTS[_DIALECTS[seed % 3]],
        has_two_servers=seed % 2 == 1,
        events_seconds=EVENTS_SECONDS if (seed // 2) % 2 else 0,
    )

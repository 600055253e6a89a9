"""What is broken, one row a kind. A fault is a generator: it breaks something up to its yield, and mends it behind."""

from __future__ import annotations

import os
import random
import signal
import socket
import time
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Callable, Protocol

from lab.soak import notifications
from lab.soak.explain import (
    AGENT,
    CHILDREN,
    CLOCK,
    CONNECTION,
    DESCRIPTORS,
    DISK,
    FULL,
    JUNK,
    LOAD,
    NOTHING,
    UNREADABLE,
    Words,
)
from lab.soak.gateway import DISKS, MAC, STATE, STATUS_PORT, TRAP_PORT, UDP_PORT, Gateway
from lab.soak.network import Network
from lab.soak.operations import CAPABILITIES_TOPIC, Operations
from lab.soak.servers import MqttServer
from lab.soak.uplinks import FIRST_TOKEN_OF_JUNK, Uplinks


class World(Protocol):
    gateway: Gateway
    network: Network
    servers: list[MqttServer]
    uplinks: Uplinks
    operations: Operations

    def publish_to_network(self, topic: str, payload: bytes) -> None:
        ...

    def publish_to_operations(self, topic: str, payload: bytes) -> None:
        ...

    def restart_forwarder(self) -> None:
        ...

    def bit(self, kind: str) -> None:
        """A fault that leaves no line tells that it has broken something."""

    def fail(self, words: str) -> None:
        ...

    downlink_topic: str


Fault = Callable[[World, random.Random], Iterator[None]]

# --- servers ---


def _server_killed(world: World, rng: random.Random) -> Iterator[None]:
    server = rng.choice(world.servers)
    server.kill()
    yield
    server.start()


def _server_frozen(world: World, rng: random.Random) -> Iterator[None]:
    server = rng.choice(world.servers)
    server.freeze()
    yield
    server.thaw()


def _server_with_another_certificate(world: World, rng: random.Random) -> Iterator[None]:
    server = rng.choice(world.servers)
    server.kill()
    server.start("foreign")
    began = time.monotonic()
    yield
    ends = []
    if server is world.servers[0]:
        ends.append(world.uplinks.last_round())
    if server is world.servers[-1]:
        ends.append(world.operations.last_answer())
    if max(ends) > began + 1:
        world.fail("the daemon talks to a server with another certificate")
    server.kill()
    server.start()


# Of a stream, a fetch, a script, a tunnel and a modem's change, some are refused or over soon.
_JOBS_AMID = 2


def _server_restarted_amid_work(world: World, rng: random.Random) -> Iterator[None]:
    """Everything is begun, and the planes restart in the middle of it."""
    world.operations.start_all_kinds()
    yield
    if len(world.gateway.children()) >= _JOBS_AMID:
        world.bit("restart amid work")
    for server in world.servers:
        server.kill()
        server.start()


# --- the way between ---


def _network_cut(world: World, _rng: random.Random) -> Iterator[None]:
    world.network.carry(loss=1)
    yield
    world.network.carry()


def _cable_pulled(world: World, _rng: random.Random) -> Iterator[None]:
    world.network.unplug()
    yield
    world.network.plug_in()


def _network_slow(world: World, rng: random.Random) -> Iterator[None]:
    world.network.carry(delay_ms=rng.randrange(100, 800), jitter_ms=rng.randrange(0, 400))
    yield
    world.network.carry()


def _network_lossy(world: World, rng: random.Random) -> Iterator[None]:
    world.network.carry(delay_ms=20, jitter_ms=20, loss=rng.uniform(0.05, 0.3))
    yield
    world.network.carry()


# --- the agent ---


def _agent_killed(world: World, _rng: random.Random) -> Iterator[None]:
    world.gateway.kill_agent()
    yield
    world.gateway.start_agent()


def _agent_silent(world: World, _rng: random.Random) -> Iterator[None]:
    assert world.gateway.agent
    world.gateway.agent.silence()
    yield
    world.gateway.agent.silence(False)


_LATEST_MS = 8000  # the daemon asks again after 3 s
_SLOW_OBJECTS = (
    "moduleName", "radioStatisticsNumTxPackets", "wmImsi", "hmAlarmCurrentStateId", "swVerName", "gpsLatitude",
)  # fmt: skip


def _agent_slow(world: World, rng: random.Random) -> Iterator[None]:
    assert world.gateway.agent
    for name in _SLOW_OBJECTS:
        world.gateway.agent.fault(name, late_ms=rng.randrange(500, _LATEST_MS))
    yield
    world.gateway.agent.clear_faults()


# --- the gateway ---


def _forwarder_restarted(world: World, _rng: random.Random) -> Iterator[None]:
    world.restart_forwarder()
    yield


def _disk_full(world: World, _rng: random.Random) -> Iterator[None]:
    for folder in DISKS:
        world.gateway.inside("sh", "-c", f"! cat /dev/zero >{folder}/filled")
    world.operations.start_all_kinds()
    yield
    for folder in DISKS:
        world.gateway.inside("rm", "-f", f"{folder}/filled")


def _state_read_only(world: World, _rng: random.Random) -> Iterator[None]:
    world.gateway.inside("mount", "--bind", STATE, STATE)
    world.gateway.inside("mount", "-o", "remount,bind,ro", STATE)
    world.gateway.inside("sh", "-c", f"! touch {STATE}/tried")
    world.operations.start_all_kinds()
    yield
    world.gateway.inside("umount", "-l", STATE)


def _descriptors_exhausted(world: World, rng: random.Random) -> Iterator[None]:
    before = world.gateway.descriptor_limit()
    world.gateway.set_descriptor_limit(world.gateway.descriptors() + rng.randrange(0, 3))
    world.operations.start_all_kinds()
    yield
    world.gateway.set_descriptor_limit(before)


def _restart_without_descriptors(world: World, rng: random.Random) -> Iterator[None]:
    before = world.gateway.descriptor_limit()
    world.gateway.set_descriptor_limit(rng.randrange(8, 20))
    for server in world.servers:
        server.kill()
        server.start()
    yield
    world.gateway.set_descriptor_limit(before)


def _clock_ahead(world: World, rng: random.Random) -> Iterator[None]:
    world.gateway.set_clock(rng.choice((61, 3600, 86400 * 400)))
    yield
    world.gateway.set_clock(0)


def _clock_back(world: World, rng: random.Random) -> Iterator[None]:
    world.gateway.set_clock(-rng.choice((61, 3600, 86400 * 400)))
    yield
    world.gateway.set_clock(0)


# Within so long a job of those that were begun has its child; programs are over sooner.
_CHILDREN_SECONDS = 5.0


def _children_killed(world: World, rng: random.Random) -> Iterator[None]:
    world.operations.start_all_kinds()
    end = time.monotonic() + _CHILDREN_SECONDS
    while not world.gateway.children() and time.monotonic() < end:
        time.sleep(0.05)
    yield
    for child in world.gateway.children():
        if rng.random() < 0.7:
            try:
                os.kill(child, signal.SIGKILL)
                world.bit("children killed")
            except ProcessLookupError:
                continue


# --- load ---

_FLOOD_DOWNLINKS, _FLOOD_COMMANDS, _FLOOD_JUNK, _FLOOD_CLIENTS = 3000, 150, 400, 30


def _flood_of_downlinks(world: World, _rng: random.Random) -> Iterator[None]:
    for topic, payload in world.uplinks.downlinks(_FLOOD_DOWNLINKS):
        world.publish_to_network(topic, payload)
    yield


def _flood_of_commands(world: World, _rng: random.Random) -> Iterator[None]:
    world.operations.flood(_FLOOD_COMMANDS)
    yield


def _junk(rng: random.Random) -> bytes:
    """Bytes, or JSON that is almost right."""
    size = rng.choice((1, 2, 12, 80, 1500, 30_000))
    return rng.choice(
        (
            rng.randbytes(size),
            b"{}",
            b"[" * size,
            b'{"rxpk":[null],"stat":null}',
            b'{"command":null,"requestId":null,"params":null,"mac":null}',
            b'{"command":"getBackups","requestId":{"a":[]},"params":[],"mac":7}',
            b'{"command":"fileUploadChunk","requestId":1,"params":{"data":"' + b"A" * size + b'"},"mac":""}',
            b'{"capabilities":{"bulk_cfg":1}}',
            b'{"capabilities":[1,null,"' + b"x" * size + b'"]}',
            b'{"timestamp":"soon","content":[]}',
            b'{"timestamp":1,"content":{"loraTrafficFilter":null}}',
            b'{"updateTs":1e300,"update":{"timestamp":-1}}',
            b'{"phyPayload":"' + b"A" * size + b'","txInfo":null}',
            b'{"updateTs":1,"requestId":"1","type":"GENERAL","contentType":null,"mac":"","content":"%%%"}',
        )
    )


def _datagram(rng: random.Random) -> bytes:
    token = rng.choices(range(FIRST_TOKEN_OF_JUNK >> 8, 0x100), k=2)
    header = bytes((rng.choice((0, 1, 2, 3)), *token, rng.choice((0, 1, 3, 5, 9))))
    return header + bytes.fromhex(MAC) + _junk(rng)[:1200]


def _junk_on_topics(world: World, rng: random.Random) -> Iterator[None]:
    for _ in range(_FLOOD_JUNK):
        world.publish_to_operations(rng.choice(world.operations.junk_topics), _junk(rng))
        world.publish_to_network(world.downlink_topic, _junk(rng))
    yield
    world.publish_to_operations(CAPABILITIES_TOPIC, world.operations.capabilities())


def _flood_port(world: World, port: int, datagrams: Iterator[bytes]) -> None:
    with world.gateway.connect(socket.SOCK_DGRAM, port) as sender:
        for datagram in datagrams:
            try:
                sender.send(datagram)
            except OSError:
                break  # nobody listens there


def _junk_on_ports(world: World, rng: random.Random) -> Iterator[None]:
    """No PULL_DATA, which would take the forwarder's downlinks."""
    _flood_port(world, UDP_PORT, (_datagram(rng) for _ in range(_FLOOD_JUNK)))
    of_traps = (notifications.notification, notifications.broken, notifications.broken, _datagram)
    _flood_port(world, TRAP_PORT, (rng.choice(of_traps)(rng) for _ in range(_FLOOD_JUNK)))
    clients = []
    for place in range(_FLOOD_CLIENTS):
        try:
            clients.append(world.gateway.connect(socket.SOCK_STREAM, STATUS_PORT))
            if place % 2:
                clients[-1].sendall(rng.randbytes(5000))
        except OSError:
            continue  # it need not hear all of them, nor all of one
    yield
    for client in clients:
        client.close()


@dataclass(frozen=True)
class Kind:
    name: str
    run: Fault
    seconds: tuple[float, float]  # how long it stays
    touches: str  # what need not go on while it stays: "connection", "agent" or nothing
    recovery: float  # within so many seconds of its end both planes are up
    explains: Words
    bites: tuple[str, ...]  # lines that show that it has broken something; none where nothing shows

    @property
    def touches_connection(self) -> bool:
        return self.touches == "connection"

    @property
    def may_lose(self) -> bool:
        """A connection."""
        return self.touches_connection or self.explains is DESCRIPTORS

    @property
    def may_restart(self) -> bool:
        """A service that cannot start asks for a restart as well as a lost connection does."""
        return self.may_lose or self.explains in (DISK, AGENT, JUNK)

    @property
    def carries(self) -> bool:
        """What is sent meanwhile arrives, unless the log tells that a connection was lost."""
        return not self.touches_connection or self.name == "network slow"

    @property
    def moves_clock(self) -> bool:
        return self.explains is CLOCK


# A plane that lost its server: up to 10 s to the next tick; up to 120 s for the longest wait of a command that
# still runs; 20 s of waiting; 30 s for an attempt that was under way; 10 s to the next one.
_RESTART = 200.0
# A silent agent costs each request that waits for it 18 s, one after the other.
_AGENT = 120.0
_BUSY = 60.0

_LOST = (r"mqtt connection lost.*",)
_REFUSED = (r".*certificate verify failed.*",)
_SILENT = (r"no response from SNMP agent",)

# fmt: off
KINDS = (
    Kind("flood of commands",       _flood_of_commands,               (2, 5),   "agent",      _AGENT,   LOAD,        ()),
    Kind("junk on topics",          _junk_on_topics,                  (2, 5),   "agent",      _RESTART, JUNK,        JUNK.now),
    Kind("flood of downlinks",      _flood_of_downlinks,              (2, 5),   "agent",      _BUSY,    LOAD,        ()),
    Kind("junk on ports",           _junk_on_ports,                   (2, 5),   "agent",      _BUSY,    JUNK,        JUNK.now),
    Kind("server killed",           _server_killed,                   (2, 90),  "connection", _RESTART, CONNECTION,  _LOST),
    Kind("server stopped",          _server_frozen,                   (2, 90),  "connection", _RESTART, CONNECTION,  _LOST),
    Kind("another certificate",     _server_with_another_certificate, (45, 80), "connection", _RESTART, CONNECTION,  _REFUSED),
    Kind("restart amid work",       _server_restarted_amid_work,      (1, 4),   "connection", _RESTART, CONNECTION,  ()),
    Kind("network cut",             _network_cut,                     (2, 90),  "connection", _RESTART, CONNECTION,  _LOST),
    Kind("cable pulled",            _cable_pulled,                    (2, 90),  "connection", _RESTART, CONNECTION,  _LOST),
    Kind("network slow",            _network_slow,                    (5, 30),  "connection", _RESTART, CONNECTION,  ()),
    Kind("network lossy",           _network_lossy,                   (5, 30),  "connection", _RESTART, CONNECTION,  ()),
    Kind("agent killed",            _agent_killed,                    (2, 60),  "agent",      _AGENT,   AGENT,       _SILENT),
    Kind("agent silent",            _agent_silent,                    (2, 60),  "agent",      _AGENT,   AGENT,       _SILENT),
    Kind("agent slow",              _agent_slow,                      (5, 20),  "agent",      _AGENT,   AGENT,       ()),
    Kind("forwarder restarted",     _forwarder_restarted,             (1, 2),   "",           _BUSY,    NOTHING,     ()),
    Kind("disk full",               _disk_full,                       (5, 30),  "",           _BUSY,    DISK,        FULL),
    Kind("state read-only",         _state_read_only,                 (5, 30),  "",           _BUSY,    DISK,        UNREADABLE),
    Kind("descriptors exhausted",   _descriptors_exhausted,           (5, 20),  "agent",      _RESTART, DESCRIPTORS, UNREADABLE),
    Kind("restart, no descriptors", _restart_without_descriptors,     (5, 60),  "connection", _RESTART, DESCRIPTORS, _LOST),
    Kind("clock ahead",             _clock_ahead,                     (5, 30),  "",           _BUSY,    CLOCK,       ()),
    Kind("clock back",              _clock_back,                      (5, 30),  "",           _BUSY,    CLOCK,       ()),
    Kind("children killed",         _children_killed,                 (0, 1),   "",           _BUSY,    CHILDREN,    ()),
)
# fmt: on
# It tells by itself whether it has broken something.
TELLS = ("children killed", "restart amid work", "clock ahead", "clock back")

# A fault may come while another one stays, but for those that would undo each other.
_SERVERS = ("server killed", "server stopped", "another certificate", "restart amid work")
_WAY = ("network cut", "cable pulled", "network slow", "network lossy")
_AGENTS = ("agent killed", "agent silent", "agent slow")
_CLOCKS = ("clock ahead", "clock back")
_LIMITS = ("descriptors exhausted", "restart, no descriptors")
_EXCLUSIVE = (_SERVERS, _WAY, _AGENTS, _CLOCKS, _LIMITS, (*_SERVERS, "restart, no descriptors"))


def go_together(one: Kind, other: Kind) -> bool:
    if one is other:
        return False
    return not any(one.name in group and other.name in group for group in _EXCLUSIVE)

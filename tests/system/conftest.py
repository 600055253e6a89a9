"""Fixtures: what a test starts is stopped, judged and cleaned up here, also when the test fails."""
import itertools
from pathlib import Path
from typing import Callable, Iterator, Optional

import pytest

from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import CONTROL_OFF, ControlPlane, Sections, gateway_config, merged, write_config
from harness.control import control_on
from harness.dialects import Dialect
from harness.forwarder import Forwarder
from harness.lab import LabAgent, start_agent
from harness.mqtt_peer import MqttPeer
from harness.road import Road

RunBridge = Callable[..., Bridge]


class Cleanup:
    """Closes what was started, newest first, and lets the first complaint through after all are closed."""

    def __init__(self) -> None:
        self._things: list[object] = []

    def add(self, thing: object) -> None:
        self._things.append(thing)

    def close(self) -> None:
        complaints: list[BaseException] = []
        for thing in reversed(self._things):
            try:
                thing.close()  # type: ignore[attr-defined]
            except BaseException as complaint:  # the others are closed all the same
                complaints.append(complaint)
        if complaints:
            raise complaints[0]


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Tests of a module that share a daemon stay in one worker, and long waits start first."""
    for item in items:
        if "roads" in getattr(item, "fixturenames", ()):
            item.add_marker(pytest.mark.xdist_group(item.path.stem))
    items.sort(key=lambda item: item.get_closest_marker("waits_long") is None)


@pytest.fixture
def cleanup() -> Iterator[Cleanup]:
    things = Cleanup()
    yield things
    things.close()


@pytest.fixture(scope="module")
def roads(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Callable[[Dialect], Road]]:
    """The module's own road for a dialect, started at its first use and shared by the module's tests."""
    things = Cleanup()
    started: dict[str, Road] = {}

    def road(dialect: Dialect) -> Road:
        if dialect.name not in started:
            made = Road(tmp_path_factory.mktemp("road"), dialect)
            things.add(made)
            started[dialect.name] = made.wait_ready()
        return started[dialect.name]

    yield road
    things.close()


@pytest.fixture
def own_road(tmp_path: Path, cleanup: Cleanup) -> Callable[..., Road]:
    """A road for this test alone, of the dialect and with the changes to the configuration that it asks for;
    not yet connected."""
    numbers = itertools.count()

    def road(
        dialect: Dialect,
        changes: Optional[Sections] = None,
        arguments: tuple[str, ...] = (),
        shares_geolocation: bool = False,
        control: ControlPlane = CONTROL_OFF,
    ) -> Road:
        work = tmp_path / f"road{next(numbers)}"
        made = Road(work, dialect, changes, arguments, shares_geolocation, control)
        cleanup.add(made)
        return made

    return road


@pytest.fixture
def run_bridge(tmp_path: Path, cleanup: Cleanup) -> RunBridge:
    """Starts a daemon with the arguments given."""

    def run(*arguments: str, env: Optional[dict[str, str]] = None, work: Path = tmp_path) -> Bridge:
        bridge = Bridge(work, list(arguments), env)
        cleanup.add(bridge)
        return bridge

    return run


@pytest.fixture
def run_config(tmp_path: Path, run_bridge: RunBridge) -> Callable[..., Bridge]:
    """Starts a daemon on a gateway's configuration with changes, logging everything to standard error."""

    def run(
        udp_port: int,
        changes: Optional[Sections] = None,
        *arguments: str,
        env: Optional[dict[str, str]] = None,
        control: ControlPlane = CONTROL_OFF,
    ) -> Bridge:
        config = gateway_config(udp_port, merged(control.changes, changes))
        path = write_config(tmp_path / "bridge.toml", config)
        return run_bridge("-c", str(path), "-d", "-v", "4", *control.arguments, *arguments, env=env)

    return run


@pytest.fixture
def agent(tmp_path: Path, cleanup: Cleanup) -> LabAgent:
    made = start_agent(tmp_path)
    cleanup.add(made)
    return made


@pytest.fixture
def control_plane(agent: LabAgent) -> ControlPlane:
    """Settings for tests in which the control plane runs."""
    return control_on(agent.address)


@pytest.fixture
def broker(tmp_path: Path, cleanup: Cleanup) -> Mosquitto:
    made = Mosquitto(tmp_path / "broker")
    cleanup.add(made)
    return made


@pytest.fixture
def make_broker(tmp_path: Path, cleanup: Cleanup) -> Callable[..., Mosquitto]:
    numbers = itertools.count()

    def make(**options: object) -> Mosquitto:
        made = Mosquitto(tmp_path / f"broker-{next(numbers)}", **options)  # type: ignore[arg-type]
        cleanup.add(made)
        return made

    return make


@pytest.fixture
def make_peer(cleanup: Cleanup) -> Callable[..., MqttPeer]:
    """A client at a server, subscribed to the topics given."""

    def make(server: Mosquitto, *topics: str, user: str = "", password: str = "") -> MqttPeer:
        peer = MqttPeer(server.port, user, password)
        cleanup.add(peer)
        peer.subscribe(*topics)
        return peer

    return make


@pytest.fixture
def make_forwarder(cleanup: Cleanup) -> Callable[..., Forwarder]:
    def make(port: int, host: str = "127.0.0.1") -> Forwarder:
        made = Forwarder(port, host)
        cleanup.add(made)
        return made

    return make

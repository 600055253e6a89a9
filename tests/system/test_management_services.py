"""Board upgrades and battery reports over time: their timers, and restarts of the control plane and of the daemon."""
import itertools
import os
import resource
import subprocess
from contextlib import contextmanager
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from command_outcome import POLLED, TABLES
from conftest import Cleanup
from harness import bridge as harness_bridge
from harness.bridge import Bridge, log_time
from harness.broker import Mosquitto
from harness.config import Sections
from harness.lab import LabAgent
from harness.ports import free_port
from harness.waiting import PATIENCE, wait_until
from management_services import (
    IDLE,
    INSTALLED,
    INSTALLING,
    NOTHING,
    SCHEDULED,
    SECOND,
    Battery,
    Upgrades,
)
from service_queue import QUEUE_LENGTH

Start = Callable[..., Upgrades]

PATIENT = 60.0  # a tick of the supervisor, and its wait before it starts again
SNMP_GIVES_UP = 40.0  # six requests of 3 s each
POLL_PERIOD, BATTERY_PERIOD, LATE = 30.0, 60.0, 5.0
QUIET = 300  # seconds between two looks at the alarms
EACH_MINUTE: Sections = {"performance_management": {"battery_reporting_period_mins": 1}}

ARMED = "Set timer to 30s, 0ns"
BATTERY_ARMED = "Set timer to 60s, 0ns"
STOPPED = "ctrlplane deinit complete"
MESSAGE_DONE = "capabilities subscription worker completed"


@pytest.fixture
def start(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Start:
    def run(**options: Any) -> Upgrades:
        made = Upgrades(tmp_path / "work", agent, **options)
        cleanup.add(made)
        return made

    return run


def come_back(upgrades: Upgrades, count: int) -> None:
    """The server, and with it the control plane for the `count`-th time."""
    upgrades.road.broker.start()
    upgrades.road.wait_ready(count, PATIENT)
    upgrades.road.new_peer()


def start_both(upgrades: Upgrades) -> None:
    """Both services, of which nothing is left."""
    upgrades.mark()
    upgrades.enable("performance_management")
    upgrades.wait_idle()
    upgrades.wait_for(Battery.waiting)
    assert upgrades.logged(BATTERY_ARMED) == 1
    assert upgrades.logged("already created") == 0


def works_again(upgrades: Upgrades) -> None:
    """Every service can be switched on, and does its work."""
    upgrades.utility.start_again()
    upgrades.mark()
    upgrades.enable("bulk_cfg", "performance_management")
    upgrades.wait_for("bulk configuration subscription succeeded")
    upgrades.wait_for(MESSAGE_DONE)
    upgrades.wait_idle()
    assert upgrades.states() == [IDLE]
    assert upgrades.logged("already created") == 0
    battery = Battery(upgrades.road)
    battery.tick()
    assert len(battery.reports()) == 1
    upgrades.mark()
    upgrades.request()
    assert upgrades.states() == [SCHEDULED]


def children_of(pid: int) -> list[int]:
    found = []
    for path in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text().rsplit(")", 1)[1].split()
        except OSError:  # it has ended
            continue
        if int(fields[1]) == pid:
            found.append(int(path.parent.name))
    return found


@contextmanager
def no_descriptor_left(pid: int) -> Iterator[None]:
    """So that no program can be run. Those that are open stay usable."""
    used = {int(path.name) for path in Path(f"/proc/{pid}/fd").iterdir()}
    first_free = next(number for number in itertools.count() if number not in used)
    limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (first_free, limits[1]))
    yield
    resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)


# --- timers ---


@pytest.mark.waits_long
def test_polls_and_battery_reports_come_when_it_is_time(start: Start) -> None:
    """Also behind a report for which the agent has been silent."""
    own = start(changes=EACH_MINUTE, polls=QUIET)
    own.road.bridge.wait_for_log(POLLED, count=TABLES)
    own.enable("performance_management")
    own.wait_idle()
    battery_armed = log_time(own.wait_for(BATTERY_ARMED))
    own.utility.tell(plan="in-progress\nok\n")
    own.mark()
    own.request()
    armed = log_time(own.wait_for(ARMED))
    battery = Battery(own.road)
    own.road.agent.silence()
    battery.put(battery.timer_message)
    battery.wait_for("failed to get properties for battery performance stats", SNMP_GIVES_UP)
    own.road.agent.silence(False)
    for number, state in enumerate((INSTALLING, INSTALLED), 1):
        fired = log_time(own.wait_for("bsp upgrade timer handler", POLL_PERIOD + PATIENCE, number))
        assert POLL_PERIOD - 0.1 <= fired - armed < POLL_PERIOD + LATE
        own.wait_idle(number + 1)
        assert own.states() == [SCHEDULED, INSTALLING, INSTALLED][: number + 1]
        armed = log_time(own.wait_for(ARMED, count=2))
    assert own.logged(ARMED) == 2
    fired = log_time(battery.wait_for("performance measure timer handler", PATIENT))
    assert BATTERY_PERIOD - 0.1 <= fired - battery_armed < BATTERY_PERIOD + LATE
    battery.wait_idle(2)
    assert len(battery.reports()) == 1


# --- restarts of the control plane ---


@pytest.mark.waits_long
def test_a_stop_waits_for_the_services_that_a_message_before_it_starts(start: Start) -> None:
    """One of them waits for the agent; the upgrades have lost their thread by then."""
    own = start()
    own.start()
    with no_descriptor_left(own.road.bridge.process.pid):
        own.post({"updateTs": SECOND * 1000, "update": {}})
        own.wait_for("Exiting bsp upgrade thread")
    assert "BSP UPGRADE UTILITY NOT REACHABLE" in own.published()[-1].text
    own.mark()
    own.road.agent.silence()
    own.enable("bulk_cfg", "performance_management")
    own.wait_for("reporting current configuration")
    own.road.broker.kill()
    own.wait_for("ctrlplane restart requested")
    assert own.logged(MESSAGE_DONE) == 0
    own.road.agent.silence(False)
    own.wait_for(STOPPED, PATIENT)
    order = [
        "Performance management launcher finished",
        MESSAGE_DONE,
        "stopping the bulk configuration service",
        "stopping bulk upgrade service",
        "stopping performance management service",
    ]
    lines = own.road.bridge.log.since(own.lines)
    places = [next(place for place, line in enumerate(lines) if text in line) for text in order]
    assert places == sorted(places)
    come_back(own, 2)
    works_again(own)


def stop_with_a_busy_utility(upgrades: Upgrades, lost: Mosquitto) -> None:
    """The operations server is still there, and switches on what is not to start any more."""
    upgrades.utility.tell(busy="-s")
    upgrades.put(upgrades.timer_message)
    upgrades.wait_busy("-s")
    upgrades.mark()
    lost.kill()
    upgrades.wait_for("stopping bulk upgrade service")
    upgrades.enable("bulk_cfg")
    upgrades.wait_for("Capabilities service is not running")
    assert upgrades.logged("stopping performance management service") == 0, "they stop in their order"
    upgrades.utility.let_go()
    upgrades.wait_for("stopping bsp upgrade thread")
    upgrades.wait_for("stopping performance management thread")
    upgrades.wait_for(STOPPED)
    assert upgrades.logged("starting bulk") == 0


def stop_with_a_silent_agent(upgrades: Upgrades) -> None:
    """With nobody to take reports, and one of the battery under way."""
    battery = Battery(upgrades.road)
    upgrades.road.broker.kill()
    upgrades.wait_for("mqtt connection to the server failed")
    upgrades.put(upgrades.timer_message)
    upgrades.wait_for("failed to send bsp upgrade response - MQTT publish failure")
    upgrades.road.agent.silence()
    battery.put(battery.timer_message)
    battery.wait_for("Performance measure to be published: battery")
    battery.wait_for("stopping performance management service")
    upgrades.road.agent.silence(False)
    battery.wait_for("failed to send battery performance measures")
    battery.wait_for(STOPPED)


@pytest.mark.waits_long
def test_two_restarts_in_a_row_find_the_upgrade_where_it_is(
    start: Start, make_broker: Callable[..., Mosquitto]
) -> None:
    """The first one in an install, the second one behind it."""
    ns = make_broker()
    own = start(changes={**EACH_MINUTE, "ns": {"url": ns.url}})
    own.utility.tell(clock="1000")
    own.enable("performance_management")
    own.wait_idle()
    own.wait_for(BATTERY_ARMED)
    own.request(999, {"timestamp": 1_000_000})
    own.wait_for(ARMED)
    stop_with_a_busy_utility(own, ns)
    ns.start()
    own.road.wait_ready(2, PATIENT)

    start_both(own)
    assert own.states() == [INSTALLING, INSTALLING], "of the start, and of a poll at once"
    assert own.logged(ARMED) == 1
    own.mark()
    own.utility.tell(clock="1020")
    own.poll()
    (report,) = own.reports()
    assert (report.state, report.installed) == (INSTALLED, report.changed)
    stop_with_a_silent_agent(own)
    come_back(own, 3)

    start_both(own)
    (report,) = own.reports()
    assert (report.state, report.installed) == (INSTALLED, 0)
    assert own.logged(ARMED) == 0
    own.mark()
    own.request(1021)
    assert own.states() == [NOTHING]


@pytest.mark.waits_long
def test_a_stop_finds_room_in_full_queues(start: Start, make_broker: Callable[..., Mosquitto]) -> None:
    """Of a service whose utility takes its time, and of one whose agent does."""
    full = "message queue {} is full at the stop: its oldest message is lost"
    ns = make_broker()
    own = start(changes={"ns": {"url": ns.url}})
    own.enable("performance_management")
    own.wait_idle()
    battery = Battery(own.road)
    own.utility.tell(busy="-t", requested=f"{SECOND + 99}\n")
    own.post({"updateTs": SECOND * 1000, "update": {}})
    own.wait_busy("-t")
    for number in range(1, QUEUE_LENGTH + 1):
        own.post({"updateTs": (SECOND + number) * 1000, "update": {}})
    own.wait_for("req update ts: ", count=QUEUE_LENGTH + 1)
    ns.kill()
    own.wait_for(full.format(own.queue))
    own.road.agent.silence()
    battery.put(battery.timer_message)
    battery.wait_for("Performance measure to be published: battery")
    for _ in range(QUEUE_LENGTH):
        battery.put(battery.timer_message)
    own.utility.let_go()
    own.wait_for("stopping bsp upgrade thread")
    ignored = "Ignored already processed bsp upgrade request (ts: {})"
    assert own.logged("Ignored already processed") == QUEUE_LENGTH
    assert own.logged(ignored.format(SECOND + 1)) == 0, "the oldest one that waited"
    battery.wait_for(full.format(battery.queue))
    own.road.agent.silence(False)
    battery.wait_for("stopping performance management thread")
    battery.wait_for(STOPPED)
    ns.start()
    own.road.wait_ready(2, PATIENT)
    works_again(own)


def test_the_utility_gets_nothing_of_the_daemons(start: Start) -> None:
    """What it leaves behind could hold a port that the next start of the control plane needs."""
    own = start(polls=0, trap_transport=f"udp:127.0.0.1:{free_port()}").start()
    own.utility.tell(busy="-t")
    own.post({"updateTs": SECOND * 1000, "update": {}})
    own.wait_busy("-t")
    (shell,) = children_of(own.road.bridge.process.pid)
    programs = [shell, *children_of(shell)]
    links = [os.readlink(path) for pid in programs for path in Path(f"/proc/{pid}/fd").iterdir()]
    own.utility.let_go()
    own.wait_idle()
    assert {link for link in links if not link.startswith("pipe:")} <= {"/dev/null", str(own.utility.program)}


# --- restarts of the daemon ---


def namespaces_of(pid: int) -> list[str]:
    return [os.readlink(f"/proc/{pid}/ns/{name}") for name in ("mnt", "ipc")]


@pytest.fixture
def stay(monkeypatch: pytest.MonkeyPatch) -> Iterator[Callable[[Bridge], None]]:
    """Lets the next daemons run where the given one does: they find the queues and files that it leaves."""
    keepers: list["subprocess.Popen[bytes]"] = []
    as_user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]

    def inside(pid: int, *command: str) -> list[str]:
        return ["nsenter", "-t", str(pid), *as_user, "--mount", "--ipc", "--", *command]

    def keep(bridge: Bridge) -> None:
        pid = bridge.process.pid
        keeper = subprocess.Popen(inside(pid, "cat"), stdin=subprocess.PIPE)
        keepers.append(keeper)
        wait_until(lambda: namespaces_of(keeper.pid) == namespaces_of(pid), "they have a keeper")

        def entered(_work: Path, binary: Path, arguments: list[str]) -> list[str]:
            return inside(keeper.pid, str(binary), *arguments)

        monkeypatch.setattr(harness_bridge, "sandboxed", entered)

    yield keep
    for keeper in keepers:
        keeper.communicate(timeout=PATIENCE)


def test_a_daemon_that_finds_its_own_queues_follows_the_install_to_its_end(
    start: Start, stay: Callable[[Bridge], None]
) -> None:
    own = start().start()
    own.enable("performance_management")
    own.wait_for(Battery.waiting)
    own.utility.tell(clock="1000")
    own.request(999, {"timestamp": 1_000_000})
    own.utility.tell(busy="-s")
    own.put(own.timer_message)
    own.wait_busy("-s")
    own.post({"updateTs": 1_000_000, "update": {}})
    own.wait_for("req update ts: 1000")
    stay(own.road.bridge)
    own.end_while_busy()
    own.run_again()

    own.enable("performance_management")
    own.wait_idle(2)
    own.wait_for(Battery.waiting)
    assert own.logged("message queue: ") == own.logged(" is already created") == 2
    assert own.states() == [INSTALLING, INSTALLING]
    assert own.logged("Ignored already processed bsp upgrade request (ts: 1000)") == 1, "it was still unread"
    own.mark()
    own.utility.tell(clock="1020")
    own.poll()
    assert own.states() == [INSTALLED]

"""One run of the main job: broker, agent, daemon and forwarder, and the loop that hands their events on."""

from __future__ import annotations

import os
import pwd
import re
import shutil
import signal
import socket
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path
from queue import Empty, SimpleQueue
from typing import Any, Callable

import paho.mqtt.client as mqtt

from lab.agent.process import MIBS, AgentControl, agent_command, control_port_of
from lab.demo.books import Books
from lab.demo.children import Child, ChildFailed, free_port
from lab.demo.build import Programs
from lab.demo.dialects import Dialect
from lab.demo.operations import Operations
from lab.demo.stop import Interrupted, StopRequest
from lab.demo.view import View
from lab.gateway import forwarder as semtech
from lab.gateway.devices import Radio, lab_devices
from lab.sandboxed import GATEWAY_PROGRAMS, has_namespaces, sandboxed

_MAC = "0016c001ff1a2b3c"
_CLIENT_ID = "demo-gateway"
_MOSQUITTO = shutil.which("mosquitto") or "/usr/sbin/mosquitto"  # often not on an ordinary user's path
_START_SECONDS = 20.0
_STRAGGLER_SECONDS = 10.0
_DAEMON_STOP_SECONDS = 45.0  # an MQTT connection attempt may take its 30 seconds first
_STAT_SECONDS = 5.0
_TOTALS_SECONDS = 10.0
_LOG_LINE = re.compile(r"\S+ [\d:.]{12}\S+ \[\d+\]\[(\w+) *\] (.*)")
_LOG_STYLES = {"ERROR": "bad", "WARN": "warn"}

_BROKER_CONFIG = """\
listener {port} 127.0.0.1
allow_anonymous true
user {user}
persistence false
set_tcp_nodelay true
log_dest stderr
log_timestamp false
log_type error
log_type warning
log_type subscribe
"""

_DAEMON_CONFIG = """\
[ns]
url = "tcp://127.0.0.1:{mqtt_port}"
type = "{type}"

[oam]
url = "tcp://127.0.0.1:{mqtt_port}"

[generic]
client_id = "{client_id}"
gw_mac = "{mac}"
semtech_udp_listen_port = {udp_port}
state_dir = "{state}/"
gw_events_interval = 0

[performance_management]
battery_reporting_period_mins = 1

[snmp]
agent_addr = "{agent}"
trap_transport = "{traps}"
community = "public"
mib_dir = "{mibs}"
"""


@dataclass(frozen=True)
class BrokerLine:
    text: str


@dataclass(frozen=True)
class AgentLine:
    text: str


@dataclass(frozen=True)
class DaemonLine:
    text: str


@dataclass(frozen=True)
class Subscribed:
    pass


@dataclass(frozen=True)
class Message:
    topic: str
    payload: bytes


def _private_environment() -> dict[str, str]:
    """The MQTT library would take a proxy of the environment even to this machine, and the SNMP library its
    settings."""
    kept = {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}
    return {**kept, "SNMPCONFPATH": os.devnull, "MIBS": ""}


class Session:
    def __init__(
        self, programs: Programs, dialect: Dialect, rate: float, stop: StopRequest, view: View
    ) -> None:
        self._programs = programs
        self._dialect = dialect
        self._rate = rate
        self._stop = stop
        self._view = view
        self._devices = lab_devices()
        self._books = Books(dialect, _MAC, self._devices, self._publish, view)
        self._events: SimpleQueue[Any] = SimpleQueue()
        self._folder = tempfile.TemporaryDirectory(prefix="snv-demo-")
        self._children: list[Child] = []
        self._agent: AgentControl | None = None
        self._agent_port = 0
        self._operations: Operations | None = None
        self._client: mqtt.Client | None = None
        self._forwarder: semtech.Forwarder | None = None
        self._subscribed = self._pull_acked = self._daemon_subscribed = self._pushing_stopped = False

    def run(self, seconds: float) -> bool:
        """Sends for so long, or until a stop signal. True when all that was sent has arrived."""
        try:
            self._start()
            self._send(seconds)
            self._wait_for_stragglers()
            return self._conclude()
        finally:
            self._end_everything()

    # Start.

    def _start(self) -> None:
        mqtt_port = self._start_broker()
        agent_address, trap_address = self._start_agent()
        self._connect_client(mqtt_port)
        udp_port = free_port(socket.SOCK_DGRAM)
        self._start_daemon(mqtt_port, udp_port, agent_address, trap_address)
        self._view.text(
            f"{len(self._devices)} devices -> packet forwarder {_MAC} -> UDP {udp_port} -> snv_mqtt_bridge"
            f" -> MQTT {mqtt_port}, {self._dialect.name} -> this view",
            "title",
        )
        if self._operations:
            self._view.text(f"operations server -> MQTT {mqtt_port} -> snv_mqtt_bridge -> SNMP agent", "title")
        else:
            self._view.text("no control plane: this machine lets nobody make a mount namespace", "warn")
        self._forwarder = semtech.Forwarder(
            ("127.0.0.1", udp_port), bytes.fromhex(_MAC), Radio(self._devices), self._events.put,
            rate=self._rate, stat_seconds=_STAT_SECONDS,
        )  # fmt: skip
        self._forwarder.start()
        self._wait_for_start(lambda: self._pull_acked and self._daemon_subscribed, self._children[-1])
        # Both have read their files by now, so that nothing can stay behind however the demo ends.
        self._folder.cleanup()

    def _config_file(self, name: str, text: str) -> str:
        path = Path(self._folder.name) / name
        path.write_text(text)
        return str(path)

    def _start_broker(self) -> int:
        """A port that was free may be taken a moment later: then the next one is tried."""
        user = pwd.getpwuid(os.geteuid()).pw_name
        for _ in range(5):
            port = free_port(socket.SOCK_STREAM)
            config = self._config_file("broker.conf", _BROKER_CONFIG.format(port=port, user=user))
            take_line = lambda line: self._events.put(BrokerLine(line))  # noqa: E731
            broker = Child("the MQTT server", [_MOSQUITTO, "-c", config], take_line)
            self._children = [broker]
            if self._listens(port, broker):
                return port
            broker.stop(signal.SIGTERM, 1.0)
        raise ChildFailed("the MQTT server does not start", broker)

    def _start_agent(self) -> tuple[str, str]:
        """The control plane works on folders with fixed paths: it runs only where those can be private."""
        if not has_namespaces():
            return "", ""
        agent, traps = (f"udp:127.0.0.1:{free_port(socket.SOCK_DGRAM)}" for _ in range(2))
        take_line = lambda line: self._events.put(AgentLine(line))  # noqa: E731
        command = agent_command(self._programs.agent, agent, trap_to=traps)
        child = Child("the SNMP agent", command, take_line, _private_environment())
        self._children.append(child)
        self._wait_for_start(lambda: self._agent_port > 0, child)
        self._agent = AgentControl(self._agent_port)
        self._operations = Operations(_MAC, self._agent, self._publish, self._view)
        return agent, traps

    def _listens(self, port: int, child: Child) -> bool:
        deadline = time.monotonic() + _START_SECONDS
        while child.status() is None and time.monotonic() < deadline:
            if self._stop.number:
                raise Interrupted
            try:
                socket.create_connection(("127.0.0.1", port), timeout=1.0).close()
                return True
            except OSError:
                time.sleep(0.02)
        return False

    def _wait_for_start(self, condition: Callable[[], bool], child: Child) -> None:
        if not self._pump(lambda: bool(self._stop.number) or condition(), _START_SECONDS):
            raise ChildFailed(f"{child.name} is not ready after {_START_SECONDS:.0f} s", child)
        if self._stop.number:
            raise Interrupted

    def _connect_client(self, port: int) -> None:
        names = self._dialect.topics(_MAC) + (self._operations.topics if self._operations else [])
        topics = [(topic, 1) for topic in names]
        self._client = mqtt.Client(client_id="demo-server")
        self._client.on_connect = lambda client, *_: client.subscribe(topics)
        self._client.on_subscribe = lambda *_: self._events.put(Subscribed())
        self._client.on_message = lambda _, __, message: self._events.put(
            Message(message.topic, message.payload)
        )
        self._client.connect("127.0.0.1", port)
        self._client.loop_start()
        self._wait_for_start(lambda: self._subscribed, self._children[0])

    def _start_daemon(self, mqtt_port: int, udp_port: int, agent: str, traps: str) -> None:
        text = _DAEMON_CONFIG.format(
            mqtt_port=mqtt_port, udp_port=udp_port, type=self._dialect.type, mac=_MAC, client_id=_CLIENT_ID,
            state="/var/lib" if agent else self._folder.name, agent=agent, traps=traps, mibs=MIBS,
        )  # fmt: skip
        arguments = ["--stderr", "--config", self._config_file("demo.toml", text)]
        environment = _private_environment()
        if agent:
            command = sandboxed(Path(self._folder.name), self._programs.daemon, arguments)
            environment |= {"PATH": f"{GATEWAY_PROGRAMS}:{environment['PATH']}", "SANDBOX_GATEWAY": "yes"}
        else:
            command = [str(self._programs.daemon), "--no-snmp", *arguments]
        take_line = lambda line: self._events.put(DaemonLine(line))  # noqa: E731
        self._children.append(Child("the daemon", command, take_line, environment))

    def _publish(self, topic: str, payload: bytes) -> None:
        assert self._client is not None
        self._client.publish(topic, payload, qos=1)

    # The run.

    def _send(self, seconds: float) -> None:
        assert self._forwarder is not None
        self._books.open_downlinks()
        if self._operations:
            self._operations.open()
        self._forwarder.start_pushing()
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            if self._pump(lambda: bool(self._stop.number), min(left, _TOTALS_SECONDS)):
                return
            if left > _TOTALS_SECONDS:
                self._view.remark("total", self._totals())

    def _wait_for_stragglers(self) -> None:
        assert self._forwarder is not None
        self._books.close_downlinks()
        if self._operations:
            self._operations.close()
        self._forwarder.stop_pushing()

        def done() -> bool:
            return self._stop.hurry() or (self._pushing_stopped and self._everything_arrived())

        if not self._pump(done, 1.0):
            self._view.remark("wait", f"up to {_STRAGGLER_SECONDS:.0f} s for what is still under way")
            self._pump(done, _STRAGGLER_SECONDS)

    def _everything_arrived(self) -> bool:
        asked = self._operations
        return self._books.everything_arrived() and (asked is None or asked.everything_arrived())

    def _totals(self) -> str:
        words = [self._books.totals(), *([self._operations.totals()] if self._operations else [])]
        return " | ".join(words)

    def _pump(self, until: Callable[[], bool], seconds: float) -> bool:
        """Handles events until the condition holds (true) or the time is over (false)."""
        end = time.monotonic() + seconds
        while not until():
            left = end - time.monotonic()
            if left <= 0:
                return False
            self._look_after_children()
            if self._operations:
                self._operations.tick()
            try:
                self._handle(self._events.get(timeout=min(left, 0.1)))
            except Empty:
                pass
        return True

    def _look_after_children(self) -> None:
        for child in self._children:
            if child.status() is not None:
                self._drain()
                raise ChildFailed(child.fate(), child)

    def _drain(self) -> None:
        while not self._events.empty():
            self._handle(self._events.get())

    def _handle(self, event: Any) -> None:
        match event:
            case Message(topic, payload):
                if self._operations and self._operations.takes(topic):
                    self._operations.message(topic, payload)
                else:
                    self._books.message(topic, payload)
            case AgentLine(text):
                if not self._agent_port:
                    self._agent_port = control_port_of(text)
            case DaemonLine(text):
                self._show_daemon_line(text)
            case BrokerLine(text):
                topic = self._dialect.downlink_topic.format(mac=_MAC)
                self._daemon_subscribed |= text.startswith(_CLIENT_ID) and text.endswith(topic)
            case Subscribed():
                self._subscribed = True
            case semtech.PullAcked():
                self._pull_acked = True
            case semtech.PushingStopped():
                self._pushing_stopped = True
            case _:
                self._books.forwarder_event(event)

    def _show_daemon_line(self, text: str) -> None:
        """The daemon's echo of its arguments is of no interest; its log lines are."""
        if line := _LOG_LINE.fullmatch(text):
            self._view.remark("daemon", f"{line[1]:<5} {line[2]}", _LOG_STYLES.get(line[1], "daemon"))

    # The end.

    def _conclude(self) -> bool:
        daemon = self._children[-1]
        status = daemon.stop(signal.SIGUSR2, _DAEMON_STOP_SECONDS, self._stop.hurry)
        self._drain()
        self._view.text()
        failures = self._books.failures()
        summary = self._books.summary()
        if self._operations:
            summary += self._operations.summary()
            failures += self._operations.failures()
        for line in summary:
            self._view.text(line, "title")
        if status == 0:
            self._view.text("daemon      stopped by SIGUSR2 with status 0", "title")
        else:
            failures.append(f"{daemon.fate()}, when asked by SIGUSR2")
        for line in failures:
            self._view.text(f"FAILED      {line}", "bad")
        if not failures:
            self._view.text("OK          everything that was sent has arrived", "up")
        return not failures

    def _end_everything(self) -> None:
        if self._forwarder:
            self._forwarder.stop()
        if self._agent:
            self._agent.hang_up()
        broker, *others = self._children or [None]
        for child in reversed(others):
            number = signal.SIGUSR2 if child.name == "the daemon" else signal.SIGTERM
            child.stop(number, _DAEMON_STOP_SECONDS, self._stop.hurry)
        if self._client:
            self._client.disconnect()
            self._client.loop_stop()
        if broker:
            broker.stop(signal.SIGTERM, 5.0)
        self._folder.cleanup()

"""One run of the main job: broker, daemon and forwarder, and the loop that hands their events on."""

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

from lab.demo.books import Books
from lab.demo.children import Child, ChildFailed, free_port
from lab.demo.dialects import Dialect
from lab.demo.stop import Interrupted, StopRequest
from lab.demo.view import View
from lab.gateway import forwarder as semtech
from lab.gateway.devices import Radio, lab_devices

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

# There is nothing here for the control plane to manage: only with a server of its own does --no-snmp switch
# it off in every dialect.
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
state_dir = "{folder}/"
"""


@dataclass(frozen=True)
class BrokerLine:
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
    """The MQTT library would take a proxy of the environment even to this machine."""
    return {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}


class Session:
    def __init__(self, daemon: Path, dialect: Dialect, rate: float, stop: StopRequest, view: View) -> None:
        self._daemon_path = daemon
        self._dialect = dialect
        self._rate = rate
        self._stop = stop
        self._view = view
        self._devices = lab_devices()
        self._books = Books(dialect, _MAC, self._devices, self._publish, view)
        self._events: SimpleQueue[Any] = SimpleQueue()
        self._folder = tempfile.TemporaryDirectory(prefix="snv-demo-")
        self._children: list[Child] = []
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
        self._connect_client(mqtt_port)
        udp_port = free_port(socket.SOCK_DGRAM)
        self._start_daemon(mqtt_port, udp_port)
        self._view.text(
            f"{len(self._devices)} devices -> packet forwarder {_MAC} -> UDP {udp_port} -> snv_mqtt_bridge"
            f" -> MQTT {mqtt_port}, {self._dialect.name} -> this view",
            "title",
        )
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
        topics = [(topic, 1) for topic in self._dialect.topics(_MAC)]
        self._client = mqtt.Client(client_id="demo-server")
        self._client.on_connect = lambda client, *_: client.subscribe(topics)
        self._client.on_subscribe = lambda *_: self._events.put(Subscribed())
        self._client.on_message = lambda _, __, message: self._events.put(
            Message(message.topic, message.payload)
        )
        self._client.connect("127.0.0.1", port)
        self._client.loop_start()
        self._wait_for_start(lambda: self._subscribed, self._children[0])

    def _start_daemon(self, mqtt_port: int, udp_port: int) -> None:
        text = _DAEMON_CONFIG.format(
            mqtt_port=mqtt_port, udp_port=udp_port, type=self._dialect.type, mac=_MAC, client_id=_CLIENT_ID,
            folder=self._folder.name,
        )  # fmt: skip
        config = self._config_file("demo.toml", text)
        command = [str(self._daemon_path), "--stderr", "--no-snmp", "--config", config]
        take_line = lambda line: self._events.put(DaemonLine(line))  # noqa: E731
        self._children.append(Child("the daemon", command, take_line, _private_environment()))

    def _publish(self, topic: str, payload: bytes) -> None:
        assert self._client is not None
        self._client.publish(topic, payload, qos=1)

    # The run.

    def _send(self, seconds: float) -> None:
        assert self._forwarder is not None
        self._books.open_downlinks()
        self._forwarder.start_pushing()
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            if self._pump(lambda: bool(self._stop.number), min(left, _TOTALS_SECONDS)):
                return
            if left > _TOTALS_SECONDS:
                self._view.remark("total", self._books.totals())

    def _wait_for_stragglers(self) -> None:
        assert self._forwarder is not None
        self._books.close_downlinks()
        self._forwarder.stop_pushing()

        def done() -> bool:
            return self._stop.hurry() or (self._pushing_stopped and self._books.everything_arrived())

        if not self._pump(done, 1.0):
            self._view.remark("wait", f"up to {_STRAGGLER_SECONDS:.0f} s for what is still under way")
            self._pump(done, _STRAGGLER_SECONDS)

    def _pump(self, until: Callable[[], bool], seconds: float) -> bool:
        """Handles events until the condition holds (true) or the time is over (false)."""
        end = time.monotonic() + seconds
        while not until():
            left = end - time.monotonic()
            if left <= 0:
                return False
            self._look_after_children()
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
                self._books.message(topic, payload)
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
        for line in self._books.summary():
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
        if len(self._children) > 1:
            self._children[1].stop(signal.SIGUSR2, _DAEMON_STOP_SECONDS, self._stop.hurry)
        if self._client:
            self._client.disconnect()
            self._client.loop_stop()
        if self._children:
            self._children[0].stop(signal.SIGTERM, 5.0)
        self._folder.cleanup()

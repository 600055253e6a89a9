"""A fleet on one machine: its MQTT server, its daemons, what they take, and the load's programs."""
import getpass
import json
import os
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from parts import BROKER_CONFIG, BUILD, ROOT, STOP_TIMEOUT_S, free_port, stop

sys.path.append(str(ROOT))

from lab.agent.process import MIBS, LabAgent  # noqa: E402
from lab.sandboxed import sandboxed  # noqa: E402

DAEMON = BUILD / "snv_mqtt_bridge"
AGENT = BUILD / "lab/agent/lab_agent"
LOAD = BUILD / "bench/bench_fleet_load"
STORM = BUILD / "bench/bench_fleet_storm"
FIRST_MAC = 0xAA555A0000000001
UDP_PORTS = range(10000, 32000)  # below those that the system hands out
# Ends with the benchmark, whatever ends that.
BOUND = ["setpriv", "--pdeathsig", "KILL", "--"]

Readings = dict[str, Any]

# A gateway writes its own topics and hears its own downlinks; the topics of the control plane carry no MAC.
ACCESS = """\
topic readwrite #
pattern write gateway/%c/#
pattern write api/#
pattern read gateway/%c/command/down
pattern read api/capabilities
pattern read api/v1/gateway/commands
"""

CONFIG = """\
[ns]
url = "{url}"
type = "chirpstack"
[generic]
client_id = "{mac}"
gw_mac = "{mac}"
semtech_udp_listen_port = {udp_port}
state_dir = "{state}"
gw_events_interval = {interval}
"""
CONTROL_CONFIG = """\
[oam]
url = "{url}"
[snmp]
agent_addr = "{agent}"
community = "public"
mib_dir = "{mibs}"
"""


@dataclass(frozen=True)
class Kind:
    """How the daemons of a fleet are set up."""

    control: bool = False
    tls: bool = False
    interval_s: int = 30  # between two looks at the alarms

    @property
    def name(self) -> str:
        return ("both planes" if self.control else "data plane") + (", TLS" if self.tls else "")


def mac_of(number: int) -> str:
    return f"{FIRST_MAC + number:016x}"


def make_certificate(folder: Path, name: str, *key: str) -> tuple[Path, Path]:
    """Certificate and key, each in a file."""
    certificate, secret = folder / f"{name}.crt", folder / f"{name}.key"
    subprocess.run(["openssl", "req", "-x509", *key, "-nodes", "-days", "30", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", str(secret),
                    "-out", str(certificate)], check=True, capture_output=True)
    return certificate, secret


def answers(port: int) -> bool:
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


class Server:
    """A private mosquitto with a plain listener and one for each kind of certificate. It can be killed and
    started again."""

    def __init__(self, folder: Path, pin: list[str]) -> None:
        self.port, ec_port, rsa_port = (free_port(socket.SOCK_STREAM) for _ in range(3))
        self.ports = {"": self.port, "ECDSA P-256": ec_port, "RSA 2048": rsa_port}
        ec = make_certificate(folder, "ec", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1")
        rsa = make_certificate(folder, "rsa", "-newkey", "rsa:2048")
        self.authority = ec[0]
        self.process: subprocess.Popen[bytes] | None = None
        self._pin = pin
        access = folder / "access"
        access.write_text(ACCESS)
        text = BROKER_CONFIG.format(port=self.port) + f"user {getpass.getuser()}\nacl_file {access}\n"
        for port, (certificate, key) in ((ec_port, ec), (rsa_port, rsa)):
            text += f"listener {port} 127.0.0.1\ncertfile {certificate}\nkeyfile {key}\n"
        self._config = folder / "mosquitto.conf"
        self._config.write_text(text)

    def url(self, tls: bool) -> str:
        return f"ssl://127.0.0.1:{self.ports['ECDSA P-256']}" if tls else f"tcp://127.0.0.1:{self.port}"

    def start(self) -> None:
        program = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin") or "mosquitto"
        command = [*self._pin, *BOUND, program, "-c", str(self._config)]
        self.process = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + STOP_TIMEOUT_S
        while not answers(self.port):
            if self.process.poll() is not None or time.monotonic() > deadline:
                sys.exit("mosquitto does not start")
            time.sleep(0.01)

    @property
    def pid(self) -> int:
        assert self.process
        return self.process.pid

    def close(self, number: signal.Signals = signal.SIGTERM) -> None:
        if self.process:
            stop(self.process, number)
            self.process = None


@contextmanager
def running_server(folder: Path, pin: list[str]) -> Iterator[Server]:
    server = Server(folder, pin)
    try:
        server.start()
        yield server
    finally:
        server.close()


# --- what a process takes ---


def cpu_s(pid: int) -> float:
    """User and system time of all threads."""
    return time.clock_gettime_ns((~pid << 3) | 2) / 1e9


def memory_kib(pid: int) -> dict[str, int]:
    """Rss counts shared pages in full, Pss divides them among those that share them."""
    lines = Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:]
    return {key.rstrip(":"): int(value) for key, value, *_ in (line.split() for line in lines)}


def thread_count(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/task"))


def reserve_udp_ports(count: int) -> list[socket.socket]:
    """Bound to so many ports in a row."""
    reserved: list[socket.socket] = []
    for port in UDP_PORTS:
        if len(reserved) == count:
            break
        probe = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            probe.bind(("", port))
            reserved.append(probe)
        except OSError:
            for each in (probe, *reserved):
                each.close()
            reserved.clear()
    if len(reserved) < count:
        sys.exit(f"no {count} UDP ports in a row are free")
    return reserved


# --- the daemons ---


class Fleet:
    """Daemons of one kind on neighbouring UDP ports. Grows; ends all at once. With `port`, they reach the
    server through that one."""

    def __init__(self, folder: Path, server: Server, kind: Kind, most: int, pin: list[str],
                 port: int = 0) -> None:
        self.kind = kind
        self._reserved = reserve_udp_ports(most)
        self.first_port: int = self._reserved[0].getsockname()[1]
        self.processes: list[subprocess.Popen[bytes]] = []
        self._folder, self._pin = folder, pin
        self._authority = server.authority
        self._url = f"tcp://127.0.0.1:{port}" if port else server.url(kind.tls)
        self._agent: LabAgent | None = None
        folder.mkdir()
        if kind.control:
            bound = folder / "agent"
            bound.write_text(f"#!/bin/sh\nexec {shlex.join([*BOUND, str(AGENT)])} \"$@\"\n")
            bound.chmod(0o700)
            self._agent = LabAgent(bound, free_port(socket.SOCK_DGRAM), folder / "agent.log")

    def _command(self, number: int) -> list[str]:
        work = self._folder / str(number)
        work.mkdir()
        text = CONFIG.format(url=self._url, mac=mac_of(number), udp_port=self.first_port + number,
                             state="/var/lib/" if self.kind.control else work, interval=self.kind.interval_s)
        if self._agent:
            text += CONTROL_CONFIG.format(url=self._url, agent=self._agent.address, mibs=MIBS)
        config = work / "bridge.toml"
        config.write_text(text)
        # Beside it: of its own folder's neighbours a daemon with both planes sees nothing.
        shutil.copy(self._authority, work / "authority.crt")
        options = ["-d", "-v", "2", "-c", str(config)]
        if self.kind.control:
            return list(sandboxed(work, DAEMON, options))
        return [str(DAEMON), *options]

    def start_one(self) -> None:
        number = len(self.processes)
        command = [*self._pin, *BOUND, *self._command(number)]
        work = self._folder / str(number)
        environment = {"PATH": os.environ["PATH"], "SNMPCONFPATH": os.devnull, "MIBS": "",
                       "SSL_CERT_FILE": str(work / "authority.crt")}
        self._reserved[number].close()
        with self.log(number).open("wb") as log:
            process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=log, env=environment)
        self.processes.append(process)

    def log(self, number: int) -> Path:
        return self._folder / str(number) / "log"

    def grow(self, count: int) -> None:
        while len(self.processes) < count:
            self.start_one()

    def check(self) -> None:
        for number, process in enumerate(self.processes):
            if process.poll() is not None:
                log = self.log(number).read_text(errors="replace")
                sys.exit(f"daemon {number} has ended with {process.returncode}:\n{log[-2000:]}")

    def cpu_s(self) -> float:
        return sum(cpu_s(process.pid) for process in self.processes)

    def mean_kib(self, key: str) -> float:
        return sum(memory_kib(process.pid)[key] for process in self.processes) / len(self.processes)

    def threads(self) -> int:
        return thread_count(self.processes[0].pid)

    def close(self) -> None:
        """A stop in the middle of an attempt to connect would take half a minute."""
        for reserved in self._reserved:
            reserved.close()
        for process in self.processes:
            process.kill()
        for process in self.processes:
            process.wait()
        if self._agent:
            self._agent.close()


@contextmanager
def running_fleet(folder: Path, server: Server, kind: Kind, most: int, pin: list[str],
                  port: int = 0) -> Iterator[Fleet]:
    fleet = Fleet(folder, server, kind, most, pin, port)
    try:
        yield fleet
    finally:
        fleet.close()


# --- the load ---


@dataclass
class Window:
    """What happened while the load ran."""

    load: Readings
    seconds: float
    server_cpu_s: float
    fleet_cpu_s: float = 0.0


class LoadFailed(Exception):
    """It has told why on standard error."""


def option_list(values: dict[str, float]) -> list[str]:
    return [word for name, value in values.items() for word in (f"--{name}", f"{value:g}")]


def run_load(pin: list[str], server: Server, fleet: Fleet | None, values: dict[str, float]) -> Window:
    """Runs the load until its end, and takes the CPU time of the others from when all gateways forward."""
    if fleet:
        values = {"first-port": fleet.first_port, "gateways": len(fleet.processes), **values}
    command = [*pin, *BOUND, str(LOAD), "--mqtt-port", str(server.port), *option_list(values)]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as load:
        try:
            assert load.stdout
            if load.stdout.readline() != b"measuring\n":
                raise LoadFailed
            begin, server_cpu = time.monotonic(), cpu_s(server.pid)
            fleet_cpu = fleet.cpu_s() if fleet else 0.0
            line = load.stdout.readline()
            if not line:
                raise LoadFailed
            return Window(json.loads(line), time.monotonic() - begin, cpu_s(server.pid) - server_cpu,
                          fleet.cpu_s() - fleet_cpu if fleet else 0.0)
        finally:
            load.kill()


@dataclass
class Storm:
    """A crowd of clients that connect at once, and what the server needs to hold them."""

    load: Readings
    server_cpu_s: float
    kib_each: float


def run_storm(folder: Path, pins: dict[str, list[str]], listener: str, count: int) -> Storm:
    with running_server(folder, pins["broker"]) as server:
        before_cpu, before = cpu_s(server.pid), memory_kib(server.pid)["Rss"]
        options = {"mqtt-port": server.ports[listener], "count": count, "tls": float(listener != "")}
        command = [*pins["bridge"], *BOUND, str(STORM), *option_list(options)]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as storm:
            try:
                assert storm.stdout
                line = storm.stdout.readline()
                if not line:
                    sys.exit("the connections have failed")
                return Storm(json.loads(line), cpu_s(server.pid) - before_cpu,
                             (memory_kib(server.pid)["Rss"] - before) / count)
            finally:
                storm.kill()

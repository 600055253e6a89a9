"""The operations server: it asks, starts jobs, sends documents, and keeps the books of what was answered."""

from __future__ import annotations

import base64
import itertools
import json
import random
import re
import threading
import time
from collections import Counter
from dataclasses import dataclass
from typing import Any, Callable, Protocol

from lab.agent.process import Refused
from lab.http.server import Fault, FileServer
from lab.operations.client import COMMAND_TOPIC, LATE_TOPIC, LateAnswers, is_answer, parsed
from lab.soak.gateway import MAC
from lab.soak.network import SERVERS
from lab.sshd import PASSWORD, USER

EVENTS_TOPIC = "api/v1/gateway/events"
CAPABILITIES_TOPIC = "api/capabilities"
OLDER_TOPIC = "api/v1/gateway/configuration"
_CAPABILITIES = {"capabilities": ["bulk_cfg", "bulk_upgr", "performance_management"]}
_PROBE = "getGatewayInfo"

Publish = Callable[[str, bytes], None]


class Work(Protocol):
    """What is done at the gateway itself. All raise OSError or Refused when it cannot be done."""

    def renew_upgrade(self) -> None:
        ...

    def move_alarm(self, number: int, is_raised: bool) -> None:
        ...


# What only asks. "reboot" is in no list: it ends the daemon, as it should.
_QUESTIONS: tuple[tuple[str, Any], ...] = (
    ("getRadioStatistics", {}),
    ("getBackups", {}),
    ("getGpsCoordinates", {}),
    ("getSoftwareVersions", {"verType": 0}),
    ("getSoftwareVersions", {"verType": 1}),
    ("getUpgradableSoftware", {}),
    ("getInstallableSoftware", {}),
    ("getInstallStatus", {}),
    ("getUpgradeStatus", {}),
    ("getBspStatus", {}),
    ("getBspStatusString", {}),
    ("getCurrentBspVersion", {}),
    ("getAvailableBspUpgrade", {}),
    ("getWmDeviceInformation", {}),
    ("getWmHomeNetworkBranch", {}),
    ("getWmRfInformation", {}),
    ("getWmActiveProfileParameters", {}),
    ("getWmCallStatistics", {}),
    ("getWmApns", {}),
    ("getWmStatusApn", {}),
    ("getWmPDP_Profiles", {}),
    ("getWmNetworkInfo", {}),
    ("getSimStatus", {}),
    ("getConnectivityTypes", {}),
    ("getAntennasCount", {}),
    ("getSpectralScanProgress", {}),
    ("getSpectralScanParams", {}),
    ("getFirewallConfiguration", {}),
    ("getPreferredPingIpAddress", {}),
    ("fopsScanDir", {"path": "logs"}),
    ("getSpectrumAnalyzerOutput", {"antenna": 0}),
    ("getSpectralScanResults", {}),
    ("getPublicKey", {}),
    ("fopsScanDir", {"path": "/"}),
    ("nobodyKnowsThis", {}),
)

_CHANGES: tuple[tuple[str, Any], ...] = (
    ("resetRadioStatisticsCounters", {}),
    ("createBackup", {"description": "of the soak"}),
    ("restoreBackup", {"index": 0}),
    ("addWmApn", {"name": "soak.example"}),
    ("updateWmApn", {"idx": 1, "name": "soak.example"}),
    ("deleteWmApn", 2),
    ("setWmPreferredNetwork", {"mcc": 228, "mnc": 2}),
    (
        "modifyWmPDP_Profiles",
        {"existingPDPs": [{"idx": 0, "cid": 1, "profileName": "first", "apnName": "iot.example", "authType": 1}]},
    ),
    (
        "setSpectrumAnalyzerParams",
        {
            "samplePeriod": 1000, "sampleCount": 64, "startFrequencykHz": 863000, "stopFrequencykHz": 870000,
            "binSpacingkHz": 200,
        },
    ),
    (
        "setFirewallConfiguration",
        {
            "enabled": True, "doSPrevention": {"enabled": True, "perMinLimit": 61, "burstLimit": 21}, "ssh": {"enabled": True},
            "ping": {"enabled": True, "limit": {"enabled": False, "pingPerMinLimit": 31, "pingBurstLimit": 11}},
            "filters": [],
        },
    ),
    ("ping", {"destination": "192.0.2.1", "packetsCount": 2}),
    ("setPreferredFallbackConnectivityType", {"preferredIdx": 1, "fallbackIdx": 3}),
    ("setPreferredPingIpAddress", {"ipAddr": "192.0.2.7", "connectionType": "TCP", "connectionPort": 443}),
    (
        "executeSpectralScan",
        {
            "samplePeriod": 1000, "num125kChan": 2, "startFreq125k": 867100, "stepFreq125k": 200,
            "num500kChan": 1, "startFreq500k": 868300, "stepFreq500k": 500, "antenna": 0,
        },
    ),
    ("reverseSsh", {"username": "u", "password": "p", "sshHost": "127.0.0.1", "sshRevPort": 2200, "sshPort": 9}),
    ("stopReverseSsh", {}),
    ("upgradeSoftware", {"packageToUpgrade": "snv-packet-forwarder"}),
    ("installSoftware", {"packageToInstall": "snv-tools"}),
    ("getLastInstallUpgradeStatus", {}),
)  # fmt: skip

# For the gateway's folder of scripts.
SCRIPTS = {"short.sh": b"#!/bin/sh\necho works\n", "long.sh": b"#!/bin/sh\nsleep 8\n"}
_UPLOAD_PIECE = 3000
# Alarms of the work's own, and those that a look at the services raises.
_ALARMS, _FIRST_ALARM_ASKED = (7, 8, 9), 1000
_SLOW_SECONDS = 0.3  # between the pieces of a slow transfer, which then takes some seconds


@dataclass
class _Asked:
    name: str
    at: float
    answers: int = 0
    late: int = 0


@dataclass(frozen=True)
class Service:
    name: str
    ask: Callable[[], object]
    has_answered: Callable[[], bool]
    finish: Callable[[], object] = lambda: None


class Operations:
    """`publish` drops what comes while its server is away. Callbacks on any thread; `tick` on one."""

    def __init__(
        self,
        seed: int,
        is_native: bool,
        publish: Publish,
        fail: Callable[[str], None],
        files: FileServer,
        gateway: Work,
        ssh_port: int | None = None,  # of a server that lets tunnels in
    ) -> None:
        self._gateway = gateway
        self._ssh_port = ssh_port
        files.pause = _SLOW_SECONDS
        self._rng = random.Random(seed)
        self._publish = publish
        self._fail = fail
        self._files = files
        self._lock = threading.Lock()
        self._numbers = itertools.count(1000)
        self._asked: dict[int, _Asked] = {}
        self._probes: dict[int, float] = {}
        self._answered_probes: list[tuple[float, float]] = []  # asked, answered
        self._late = LateAnswers()
        self._next_probe = self._next_work = time.monotonic()
        self.works = True
        topic = f"gateway/mac/{MAC.upper() if is_native else MAC}"
        self._configuration, self._firmware = f"{topic}/configuration", f"{topic}/firmware"
        self.topics = [
            COMMAND_TOPIC, LATE_TOPIC, EVENTS_TOPIC,
            f"{self._configuration}/reported", f"{self._firmware}/reported", f"{topic}/performance",
        ]  # fmt: skip
        self.junk_topics = [
            COMMAND_TOPIC, CAPABILITIES_TOPIC, OLDER_TOPIC,
            f"{self._configuration}/desired", f"{self._firmware}/desired",
        ]  # fmt: skip
        self._dated_topics = f"{self._firmware}/reported", f"{topic}/performance"
        self._dated: set[bytes] = set()  # what came on them, of which each has its time
        self.reports: Counter[str] = Counter()
        self.states: Counter[str] = Counter()  # of upgrades, as they were told
        self._told: dict[str, float] = {}  # when a topic got something last
        self._alarms: dict[int, float] = {}  # when an alarm was told last
        self._scripts: list[float] = []  # when those were asked for that have ended
        self._next_alarm = _FIRST_ALARM_ASKED
        self._upload: list[str] = []
        self._upload_number = 0
        self._jobs = (
            self._start_stream, self._start_fetch, self._start_script, self._stop_a_job, self._start_upload,
            self._retrieve_logs, self._desire_configuration, self._desire_upgrade, self._older_exchange,
            self._move_an_alarm, self._open_tunnel,
        )  # fmt: skip
        self._url = files.offer("/large.bin", self._rng.randbytes(300_000))
        self._ids: dict[str, int] = {}  # of the jobs that were started last

    # Asking.

    @staticmethod
    def capabilities() -> bytes:
        return json.dumps(_CAPABILITIES).encode()

    def ask(self, name: str, params: Any) -> int:
        number = next(self._numbers)
        with self._lock:
            self._asked[number] = _Asked(name, time.monotonic())
        body = {"command": name, "requestId": number, "params": params, "mac": MAC}
        self._publish(COMMAND_TOPIC, json.dumps(body).encode())
        return number

    def tick(self) -> None:
        now = time.monotonic()
        if now >= self._next_probe:
            self._next_probe = now + 1.0
            number = self.ask(_PROBE, {})
            with self._lock:
                self._probes[number] = now
        if self.works and now >= self._next_work:
            self._next_work = now + self._rng.uniform(0.2, 0.8)
            self.work()

    def work(self) -> None:
        choice = self._rng.random()
        if self._upload and choice < 0.5:
            self._go_on_with_upload()
        elif choice < 0.7:
            self.ask(*self._rng.choice(_QUESTIONS))
        elif choice < 0.8:
            self.ask(*self._rng.choice(_CHANGES))
        else:
            self._rng.choice(self._jobs)()

    def start_all_kinds(self) -> None:
        """One of each, at once."""
        for job in self._jobs:
            job()
        for change in _CHANGES:
            self.ask(*change)
        self._files.fault = Fault.SLOW

    def flood(self, count: int) -> None:
        for _ in range(count):
            self.ask(*self._rng.choice(_QUESTIONS))

    # Kinds of work.

    def _draw_pace(self) -> None:
        self._files.fault = self._rng.choice((Fault.NONE, Fault.SLOW, Fault.SLOW))

    def _start_stream(self) -> None:
        self._draw_pace()
        path, size = self._rng.choice((("logs/soak.log", 20_000), ("modem/large.bin", 300_000)))
        self.ask("fopsStreamStart", {"url": f"{self._files.url}/", "path": path, "offset": 0, "size": size})

    def _start_fetch(self) -> None:
        self._draw_pace()
        target = self._rng.choice(("modem/large.bin", "shm/large.bin"))
        self.ask("fopsFetchStart", {"path": target, "url": self._url})

    def _start_script(self) -> None:
        name = self._rng.choice(tuple(SCRIPTS))
        self.ask("fopsExecuteStart", {"path": f"scripts/{name}", "exeToken": "soak"})

    def _stop_a_job(self) -> None:
        kind, key = self._rng.choice((("Stream", "xferId"), ("Fetch", "xferId"), ("Execute", "exeId")))
        self.ask(f"fops{kind}Stop", {key: self._ids.get(f"fops{kind}Start", 1)})

    def _start_upload(self) -> None:
        content = self._rng.randbytes(self._rng.randrange(1000, 20000))
        pieces = [content[at : at + _UPLOAD_PIECE] for at in range(0, len(content), _UPLOAD_PIECE)]
        self._upload = [base64.b64encode(piece).decode() for piece in pieces]
        self._upload_number += 1
        params = {
            "isModemFw": self._rng.random() < 0.5,
            "name": f"soak-{self._upload_number % 3}.bin",
            "size": len(content),
            "b64ChunkLength": len(self._upload[0]),
            "b64TotalLength": sum(map(len, self._upload)),
        }
        self.ask("fileUploadStart", params)

    def _go_on_with_upload(self) -> None:
        if len(self._upload) > 1 or self._rng.random() < 0.5:
            self.ask("fileUploadChunk", {"data": self._upload.pop(0)})
        else:
            self._upload = []
            self.ask("fileUploadStop", {"decompress": False})

    def _retrieve_logs(self) -> None:
        if self._rng.random() < 0.5:
            self.ask("logRetrieveStart", {"requiredFiles": ["logs/soak.log"]})
        else:
            self.ask("logRetrieveStop", {})

    def _desire_configuration(self) -> None:
        rules = [
            {"ruleId": place + 1, "action": "ALLOW", "start": f"{place:X}00", "end": f"{place:X}FF"}
            for place in range(self._rng.randrange(40))
        ]
        sections: dict[str, Any] = {
            "networkServer": {"address": "192.0.2.9", "portUp": self._rng.randrange(1700, 1800)},
            "upgradeServer": {"ipkFeedURL": {"url": "http://192.0.2.1/feeds"}},
            "snmpAgent": {"enabled": True, "community": "public"},
            "networkConfiguration": {"interfacePreference": ["Ethernet", "Cellular"]},
            "loraTrafficFilter": {"devAddrList": rules},
        }
        chosen = {name: body for name, body in sections.items() if self._rng.random() < 0.5}
        body = {"timestamp": time.time_ns() // 1_000_000, "content": chosen}
        self._publish(f"{self._configuration}/desired", json.dumps(body).encode())

    def _open_tunnel(self) -> None:
        if self._ssh_port is None:
            return
        port = self._rng.randrange(20_000, 20_100)
        target = {"sshHost": SERVERS, "sshPort": self._ssh_port, "sshRevPort": port}
        self.ask("reverseSsh", {"username": USER, "password": PASSWORD, **target})

    def _move_an_alarm(self) -> None:
        self._at_gateway(
            lambda: self._gateway.move_alarm(self._rng.choice(_ALARMS), self._rng.random() < 0.6)
        )

    @staticmethod
    def _at_gateway(work: Callable[[], None]) -> bool:
        try:
            work()
        except (OSError, ValueError, Refused):
            return False  # a fault is in the way
        return True

    def _desire_upgrade(self) -> None:
        if self._rng.random() < 0.3:
            self._at_gateway(self._gateway.renew_upgrade)
        now = time.time_ns() // 1_000_000
        at = {"timestamp": now + self._rng.randrange(2000, 15000), "maxRandomDelay": 1000}
        body = {"updateTs": now, "update": {**at, "force": self._rng.random() < 0.5}}
        self._publish(f"{self._firmware}/desired", json.dumps(body).encode())

    def _older_exchange(self) -> None:
        text = base64.b64encode(b'{"gateway":{"region":"EU868"}}').decode()
        body = {
            "updateTs": time.time_ns() // 1_000_000, "requestId": "older", "type": "GENERAL",
            "contentType": "application/json", "mac": MAC, "content": text,
        }  # fmt: skip
        self._publish(OLDER_TOPIC, json.dumps(body).encode())

    # Answers.

    def message(self, topic: str, payload: bytes) -> None:
        if topic == LATE_TOPIC:
            with self._lock:
                bodies = list(self._late.take(payload))
            for body in bodies:
                self._late_answer(body)
        elif topic != COMMAND_TOPIC:
            self._report(topic, payload)
        else:
            body = parsed(payload)
            if isinstance(body, dict) and is_answer(body, body.get("requestId")):
                self._answer(body)

    def _report(self, topic: str, payload: bytes) -> None:
        now = time.monotonic()
        with self._lock:
            self.reports[topic.rpartition("/mac/")[2]] += 1
            self._told[topic] = now
            if topic == EVENTS_TOPIC:
                for number in re.findall(rb'"typeId":(\d+)', payload):
                    self._alarms[int(number)] = now
            elif topic == f"{self._firmware}/reported":
                self.states.update(state.decode() for state in re.findall(rb'"state":"([^"]+)"', payload))
        # Alarms that stand are told again and again, and one configuration may be like another.
        if topic in self._dated_topics:
            if payload in self._dated:
                self._fail(f"{topic} got this twice: {payload.decode(errors='replace')[:200]}")
            self._dated.add(payload)

    def _answer(self, body: dict[str, Any]) -> None:
        now = time.monotonic()
        with self._lock:
            asked = self._asked.get(body["requestId"]) if isinstance(body["requestId"], int) else None
            if asked is None:
                return  # to a request of the junk
            asked.answers += 1
            if asked.answers > 1 and "response" in body:
                self._fail(f"{asked.name}, request {body['requestId']}, was answered {asked.answers} times")
            self._note_job(asked.name, body.get("response"))
            at = self._probes.pop(body["requestId"], None)
            if at is not None and "response" in body:
                self._answered_probes = [*self._answered_probes[-50:], (at, now)]

    def _note_job(self, name: str, response: Any) -> None:
        if isinstance(response, dict):
            number = response.get("xferId", response.get("exeId"))
            if isinstance(number, int) and number > 0:
                self._ids[name] = number

    def _late_answer(self, body: Any) -> None:
        number = body.get("requestId") if isinstance(body, dict) else None
        with self._lock:
            asked = self._asked.get(int(number)) if str(number).isdigit() else None
            if asked is None:
                return
            asked.late += 1
            if asked.name == "fopsExecuteStart":
                self._scripts.append(asked.at)
            if asked.late > 1:
                self._fail(f"{asked.name}, request {number}, was answered late {asked.late} times")

    # The services beside the commands.

    def services(self) -> list[Service]:
        """Each is asked until it has answered."""
        begin, self._next_alarm = time.monotonic(), self._next_alarm + 1
        number = self._next_alarm

        def told(topic: str) -> Callable[[], bool]:
            return lambda: self._told.get(topic, 0.0) > begin

        return [
            Service("a configuration", self._desire_configuration, told(f"{self._configuration}/reported")),
            Service("a state of an upgrade", self._desire_upgrade, told(f"{self._firmware}/reported")),
            Service(
                "a battery report", lambda: None, told(f"{self._firmware.rpartition('/')[0]}/performance")
            ),
            Service(
                "the end of a script",
                self._start_short_script,
                lambda: max(self._scripts, default=0.0) > begin,
            ),
            Service(
                "an alarm",
                lambda: self._at_gateway(lambda: self._gateway.move_alarm(number, True)),
                lambda: number in self._alarms,
                lambda: self._at_gateway(lambda: self._gateway.move_alarm(number, False)),
            ),
        ]

    def _start_short_script(self) -> None:
        self.ask("fopsExecuteStart", {"path": "scripts/short.sh", "exeToken": "soak"})

    def first_answer_since(self, moment: float) -> float | None:
        """When the first probe that was asked after it was answered with the agent's values."""
        with self._lock:
            return min((done for at, done in self._answered_probes if at >= moment), default=None)

    def last_answer(self) -> float:
        with self._lock:
            return max((done for _, done in self._answered_probes), default=0.0)

    def figures(self) -> dict[str, int]:
        with self._lock:
            asked = list(self._asked.values())
        return {
            "asked": len(asked),
            "answered": sum(each.answers > 0 for each in asked),
            "late answers": sum(each.late for each in asked),
            "reports": sum(self.reports.values()),
        }

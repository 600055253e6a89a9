"""A gateway's configuration and upgrades by the command-line client, and how it waits for the services."""

import json
import re
import subprocess
import time
from pathlib import Path
from typing import Any, Iterator, Optional

import pytest

from conftest import Cleanup
from harness.bridge import REPOSITORY, Bridge
from harness.broker import Mosquitto
from harness.config import GW_MAC
from harness.control import CAPABILITIES, ControlRoad
from harness.lab import LabAgent, start_agent
from harness.waiting import PATIENCE
from managed_configuration import DESIRED, ManagedGateway, document, stamp
from upgrade_utility import UpgradeUtility

OAM = REPOSITORY / "lab" / "oam"
DONE, FAILED, MISUSED = 0, 1, 2
UPGRADE = f"gateway/mac/{GW_MAC}/firmware/desired"
WHOLE_READ = ["networkServer read", "connectivityCheck read", "ipkFeedURL read", "snmpAgent read"]
LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (.+), version (.+), available: (.+)")

IDLE = ("NO KNOWN BSP ACTIVITY", "3.4.0", "from 3.4.0 to 3.5.1")
SCHEDULED = ("UPDATE SCHEDULED", "3.4.0", "3.5.1")
INSTALLED = ("INSTALLED", "3.4.0", "from 3.4.0 to 3.5.1")

Done = subprocess.CompletedProcess[str]


class Managed(ManagedGateway):
    """A gateway with all stand-ins of its programs; its services are off."""

    def __init__(self, work: Path, agent: LabAgent) -> None:
        self.work = work
        self.utility = UpgradeUtility(work)
        self.utility.start_again()
        super().__init__(ControlRoad(work, agent, polls=300, env=self.utility.env))
        self.road.wait_ready()
        self.forget()

    def start_again(self) -> None:
        """The daemon alone."""
        self.road.bridge.close()
        arguments = ["-c", str(self.work / "bridge.toml"), "-d", "-v", "4"]
        self.road.bridge = Bridge(self.work, arguments, self.utility.env)

    def begin(self, *arguments: str, timeout: str = "20") -> "subprocess.Popen[str]":
        options = ["--port", str(self.road.broker.port), "--timeout", timeout, "--mac", GW_MAC]
        return subprocess.Popen(
            [str(OAM), *options, *arguments],
            cwd=self.work,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )

    def oam(self, *arguments: str, timeout: str = "20") -> Done:
        return finished(self.begin(*arguments, timeout=timeout))

    def configure(self, content: object, timestamp: Optional[int] = None, timeout: str = "20") -> Done:
        """With a file of sections."""
        (self.work / "sections.json").write_text(json.dumps(content))
        told = () if timestamp is None else ("--timestamp", str(timestamp))
        return self.oam("configure", "sections.json", *told, timeout=timeout)

    def published(self, topic: str, after: int = 0) -> list[Any]:
        """Every message there was, once an answer has come behind it."""
        self.road.command("isAnyoneThere")
        return [json.loads(each.payload) for each in self.road.peer.since(after) if each.topic == topic]

    def close(self) -> None:
        self.road.close()


def finished(process: "subprocess.Popen[str]") -> Done:
    out, error = process.communicate(timeout=90)
    return subprocess.CompletedProcess(process.args, process.returncode, out, error)


def states(done: Done) -> list[tuple[str, ...]]:
    """State, version and available updates of each line."""
    matches = [LINE.fullmatch(line) for line in done.stdout.splitlines()]
    assert all(matches), done.stdout
    return [match.groups() for match in matches if match]


def named(value: object) -> str:
    """A case's arguments name it."""
    return " ".join(map(str, value)) if isinstance(value, tuple) and isinstance(value[0], str) else ""


@pytest.fixture
def own(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Managed:
    """Whose services are off."""
    made = Managed(tmp_path / "work", agent)
    cleanup.add(made)
    return made


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Managed]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = Managed(tmp_path_factory.mktemp("road") / "work", agent)
    yield made
    made.close()
    agent.close()


@pytest.fixture
def gateway(shared: Managed) -> Managed:
    """Whose services are on, and which knows of nothing yet."""
    shared.road.publish(b'{"capabilities":["bulk_cfg","bulk_upgr"]}', CAPABILITIES)
    shared.road.bridge.wait_for_log("BSP upgrade thread waiting for the next message")
    shared.forget()
    shared.utility.start_again()
    return shared


# --- the command line ---


@pytest.mark.parametrize(
    "arguments, reason",
    [
        (("configuration",), "--mac is needed"),
        (("upgrade", "--in", "1"), "--mac is needed"),
        (("configure", "sections"), "--mac is needed"),
        (("--mac", "0016c0/#", "configuration"), "'0016c0/#' is no MAC"),
        (("--mac", "0016c0", "configure"), "the following arguments are required: FILE"),
        (("--mac", "0016c0", "configure", "missing"), "missing: No such file or directory"),
        (("--mac", "0016c0", "configure", "text"), "text is no JSON: Expecting value"),
        (("--mac", "0016c0", "configure", "bytes"), "bytes is no JSON: "),
        (("--mac", "0016c0", "configure", "list"), "list is no JSON object"),
        (("--mac", "0016c0", "configure", "stamp"), "stamp has a timestamp and no content"),
        (("--mac", "0016c0", "configure", "sections", "--timestamp", "x"), "invalid int value: 'x'"),
        (("--mac", "0016c0", "upgrade"), "the following arguments are required: --in"),
        (("--mac", "0016c0", "upgrade", "--in", "1d"), "'1d' is no time such as 30s, 5m, 2h or 30"),
        (("--mac", "0016c0", "upgrade", "--in", "-1"), "'-1' is no time such as 30s, 5m, 2h or 30"),
    ],
    ids=named,
)
def test_a_wrong_command_line_is_told(tmp_path: Path, arguments: tuple[str, ...], reason: str) -> None:
    files = {"text": b"what", "bytes": b"\xff\xfe\xfd", "list": b"[]", "stamp": b'{"timestamp":5}'}
    for name, content in {**files, "sections": b"{}"}.items():
        (tmp_path / name).write_bytes(content)
    done = subprocess.run([str(OAM), *arguments], cwd=tmp_path, capture_output=True, text=True, timeout=20)
    assert (done.returncode, done.stdout) == (MISUSED, "")
    assert reason in done.stderr


@pytest.mark.parametrize(
    "verb", [("configure", "a"), ("configuration",), ("upgrade", "--in", "1")], ids=named
)
def test_nothing_is_desired_while_no_gateway_answers(
    tmp_path: Path, broker: Mosquitto, verb: tuple[str, ...]
) -> None:
    (tmp_path / "a").write_text("{}")
    arguments = [str(OAM), "--port", str(broker.port), "--timeout", "0.5", "--mac", GW_MAC, *verb]
    done = subprocess.run(arguments, cwd=tmp_path, capture_output=True, text=True, timeout=20)
    assert (done.returncode, done.stdout) == (FAILED, "")
    assert done.stderr == "no gateway answers within 0.5 s, and nothing was desired of it\n"
    assert "/desired" not in broker.log_text()


# --- configurations ---


def test_a_document_waits_for_the_start_of_the_service_and_its_report(own: Managed) -> None:
    hold = own.switch("networkServer.hold")
    (own.work / "document.json").write_bytes(document(5, {"snmpAgent": {"a": 1}}))
    process = own.begin("configure", "document.json")
    own.road.bridge.wait_for_log("waiting 5 more sec for child process to complete...")
    assert not [each for each in own.road.peer.since(0) if each.topic == DESIRED]
    hold.unlink()
    done = finished(process)
    assert (done.returncode, done.stderr) == (DONE, "")
    assert done.stdout == '{\n  "content": {\n    "snmpAgent": {\n      "a": 1\n    }\n  }\n}\n'
    calls = own.wait_calls(6)
    assert [" ".join(each.split(" ")[:2]).strip() for each in calls] == [
        *WHOLE_READ,
        "snmpAgent write",
        "commit",
    ], "nothing is done twice"


def test_a_configuration_is_shown_as_it_is_and_as_it_was_applied(own: Managed) -> None:
    def shown() -> tuple[int, list[str], list[Any]]:
        done = own.oam("configuration")
        texts = [text for text in done.stdout.split("\n}\n") if text]
        return (
            done.returncode,
            done.stderr.splitlines(),
            [json.loads(text + "}")["content"] for text in texts],
        )

    now, applied = "as the gateway has it now:", "the last one that was applied:"
    code, told, (content,) = shown()
    assert (code, told) == (DONE, [now])
    assert content["snmpAgent"] == {"enabled": True, "community": "public"} and len(content) == 6
    code, (reason,), contents = shown()
    assert (code, contents) == (FAILED, [])
    assert reason.startswith("there is no report: the service was on already, so the gateway makes none now")
    assert own.configure({"snmpAgent": {"a": 1}}, 5).returncode == DONE
    assert shown() == (DONE, [applied], [{"snmpAgent": {"a": 1}}])
    own.start_again()
    own.road.wait_ready()
    code, told, (kept, content) = shown()
    assert (code, told, kept) == (DONE, [applied, now], {"snmpAgent": {"a": 1}})
    assert len(content) == 6


def test_the_timestamp_is_the_callers_or_the_files_or_now(gateway: Managed) -> None:
    def desired(name: str, *arguments: str) -> Any:
        mark = gateway.road.peer.mark()
        assert gateway.oam("configure", name, *arguments).returncode == DONE
        (body,) = gateway.published(DESIRED, mark)
        return body

    (gateway.work / "sections").write_text('{"geoLocation": {}}')
    (gateway.work / "content").write_text('{"content": {"geoLocation": {}}}')
    (gateway.work / "whole").write_bytes(document(5, {"geoLocation": {}}))
    content: dict[str, object] = {"geoLocation": {}}
    assert desired("whole") == {"timestamp": 5, "content": content}
    assert desired("whole", "--timestamp", "6") == {"timestamp": 6, "content": content}
    assert desired("sections", "--timestamp", "7") == {"timestamp": 7, "content": content}
    for name in ("content", "sections"):
        before = time.time_ns() // 1_000_000
        body = desired(name)
        assert before <= body["timestamp"] <= time.time_ns() // 1_000_000
        assert body["content"] == content


def test_a_document_of_an_older_timestamp_has_no_answer(gateway: Managed) -> None:
    gateway.stamp_file.write_bytes(stamp(5))
    done = gateway.configure({"geoLocation": {}}, 4, timeout="1")
    assert (done.returncode, done.stdout) == (FAILED, "")
    assert done.stderr == (
        "no answer within 1 s: a gateway answers neither a document with a timestamp older than its last "
        "one's nor one without a timestamp, and none for another MAC\n"
    )


def test_a_repeat_is_told_from_what_was_applied(gateway: Managed) -> None:
    gateway.configure({"networkServer": {"n": 7}}, 5)
    done = gateway.configure({"networkServer": {"n": 8}}, 5)
    assert json.loads(done.stdout)["content"]["networkServer"] == {"n": 7}
    assert "nothing was applied: the gateway has this timestamp already" in done.stderr
    assert done.returncode == DONE


@pytest.mark.parametrize(
    "content, silent, remarks",
    [
        ({"networkServer": {"n": 1}, "snmpAgent": {"s": 1}}, "nobody", []),
        (
            {"upgradeServer": {"ipkFeedURL": {}}, "snmpAgent": {"s": 1}},
            "ipkFeedURL",
            ["upgradeServer.ipkFeedURL: unable to write feed url info"],
        ),
        (
            {"networkServer": {"n": 1}, "snmpAgent": {"s": 1}},
            "networkServer",
            ["networkServer: came back empty", "snmpAgent: not applied"],
        ),
        ({"NetworkServer": {"n": 1}, "snmpAgent": {"s": 1}}, "nobody", ["NetworkServer: not applied"]),
        (
            {"networkConfiguration": {"cellular": {"pdpProfile": [], "simPin": [{"simSlot": 0}]}}},
            "nobody",
            [
                "networkConfiguration.cellular.pdpProfile: unable to write any pdp info",
                "networkConfiguration.cellular.simPin: unable to write simpin changes",
            ],
        ),
        (
            {"networkConfiguration": {"cellular": {"simPin": []}}},
            "nobody",
            ["networkConfiguration.cellular.simPin[0]: simpin current status"],
        ),
    ],
    ids=["all-applied", "item", "section", "misspelt", "two-items", "list"],
)
def test_what_was_not_applied_is_told(
    gateway: Managed, content: object, silent: str, remarks: list[str]
) -> None:
    gateway.switch(f"{silent}.forgets")
    done = gateway.configure(content, 5)
    assert (done.returncode, done.stderr.splitlines()) == (DONE, remarks)
    assert json.loads(done.stdout).keys() == {"content"}


def test_the_services_are_left_alone_on_demand(gateway: Managed) -> None:
    (gateway.work / "sections").write_text('{"geoLocation": {}}')
    gateway.utility.forget("available")
    mark = gateway.road.peer.mark()
    assert gateway.oam("configure", "sections", "--no-capabilities").returncode == DONE
    assert gateway.oam("configuration", "--no-capabilities").returncode == DONE
    assert len(states(gateway.oam("upgrade", "--in", "0", "--no-capabilities"))) == 1
    assert gateway.published(CAPABILITIES, mark) == []
    gateway.oam("configuration")
    assert {"capabilities": ["bulk_cfg"]} in gateway.published(CAPABILITIES, mark)


# --- upgrades ---


@pytest.mark.waits_long
def test_an_upgrade_is_followed_to_its_end(own: Managed) -> None:
    """The report at the start tells of an install before."""
    own.utility.tell(plan="ok\n")
    done = own.oam("upgrade", "--in", "0", timeout=str(30 + PATIENCE))
    assert states(done) == [INSTALLED, SCHEDULED, INSTALLED]
    assert (done.returncode, done.stderr) == (DONE, "")
    assert own.utility.calls() == ["-s", "-t", "-c", own.utility.calls()[3], "-s"]


def test_an_upgrade_is_followed_over_a_restart_of_the_gateway(own: Managed) -> None:
    process = own.begin("upgrade", "--in", "0")
    own.road.bridge.wait_for_log("Set timer to 30s, 0ns")
    own.utility.tell(plan="in-progress\nok\n")
    own.start_again()
    done = finished(process)
    assert states(done) == [
        IDLE,
        SCHEDULED,
        ("INSTALLING", *IDLE[1:]),
        INSTALLED,
    ]
    assert (done.returncode, done.stderr) == (DONE, "")


@pytest.mark.parametrize(
    "arguments, updates, downloads, delays, ending",
    [
        (("--in", "30s"), 30, None, (0, None), ""),
        (("--in", "1.5h", "--delay", "5m", "--force"), 5400, None, (300, None), " -f"),
        (("--in", "2m", "--download-in", "10"), 120, 10, (0, 0), ""),
        (
            ("--in", "2m", "--download-in", "10s", "--delay", "7", "--download-delay", "8s", "--force"),
            120,
            10,
            (7, 8),
            " -f",
        ),
    ],
    ids=named,
)
def test_times_are_told_from_now(
    gateway: Managed,
    arguments: tuple[str, ...],
    updates: int,
    downloads: Optional[int],
    delays: tuple[int, Optional[int]],
    ending: str,
) -> None:
    mark, before = gateway.road.peer.mark(), time.time()
    done = gateway.oam("upgrade", *arguments, "--updateTs", "1700000000999", timeout="1")
    after = time.time()
    assert states(done) == [SCHEDULED]
    assert (done.returncode, done.stderr) == (FAILED, "no report within 1 s\n")
    (body,) = gateway.published(UPGRADE, mark)
    assert body["updateTs"] == 1700000000999
    assert before + updates - 1 <= body["update"]["timestamp"] / 1000 <= after + updates
    call = f"-U {body['update']['timestamp'] // 1000},{delays[0]}{ending}"
    if downloads is not None:
        assert body["update"]["timestamp"] - body["download"]["timestamp"] == (updates - downloads) * 1000
        call = f"-G {body['download']['timestamp'] // 1000},{delays[1]} {call}"
    assert gateway.utility.calls() == ["-t", "-c", call]


def test_an_upgrade_that_cannot_be_is_told_and_not_taken_for_the_one_before(gateway: Managed) -> None:
    gateway.utility.forget("available")
    done = gateway.oam("upgrade", "--in", "0")
    assert states(done) == [("NO BSP UPGRADE AVAILABLE", "3.4.0", "None")]
    assert (done.returncode, done.stderr) == (FAILED, "")
    gateway.utility.tell(fail="-c")
    done = gateway.oam("upgrade", "--in", "0")
    assert states(done) == [("UNEXPECTED ERROR DURING BSP SCHEDULING", "3.4.0", "None")]
    assert (done.returncode, done.stderr) == (FAILED, "")


def test_a_request_older_than_the_gateways_last_has_no_answer(gateway: Managed) -> None:
    gateway.utility.tell(requested="1700000000\n")
    done = gateway.oam("upgrade", "--in", "0", "--updateTs", "1700000000999", timeout="1")
    assert (done.returncode, done.stdout) == (FAILED, "")
    assert done.stderr == (
        "no answer within 1 s: a gateway answers no request with an updateTs that is not newer than its last "
        "request, and none for another MAC\n"
    )

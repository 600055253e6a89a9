"""The examples of messages in the documents: each one is what the daemon takes or gives, byte for byte but
for line breaks."""
import base64
import json
import re
import sys
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

import test_configuration_exchange as exchange
from harness.bridge import REPOSITORY
from harness.config import GW_MAC
from harness.control import ASYNC_RESPONSES, CAPABILITIES, CONFIGURATION, EVENTS, ControlRoad, is_push
from harness.dialects import DIALECTS, V3, Dialect
from harness.lab import start_agent
from harness.mqtt_peer import Message, MqttPeer
from harness.road import Road
from harness.samples import DOWNLINKS, rxpk_v2, stat
from managed_configuration import DESIRED, REPORTED, ManagedGateway
from management_services import Battery, Upgrades, report_of
from test_battery_reports import TIMESTAMP, VALUES, object_of
from test_geolocation import RECORDS

sys.path.append(str(REPOSITORY / "tests"))

from documents.pages import Block, page  # noqa: E402

Roads = Callable[..., Road]

GUIDE, MESSAGES, COMMANDS, MANAGEMENT = (
    page(f"docs/{name}.md").examples for name in ("integration", "messages", "commands", "management")
)
EVERY_DIALECT = pytest.mark.parametrize("dialect", DIALECTS, ids=str)
WITH_DAEMON = pytest.mark.xdist_group("documents_examples")

# Of the forwarder: the gateway in the datagrams of each page, and the token of the acknowledged downlink.
PLACES = {"guide": (GUIDE, "aa555a0000000123", 51966), "messages": (MESSAGES, "0016c001ff1a2b3c", 4711)}
EVERY_PLACE = pytest.mark.parametrize("place", PLACES)


def shown(example: Block, text: str) -> None:
    """A failure shows both."""
    assert example.pattern.fullmatch(text), f"line {example.line}\n{example.joined}\nis in truth\n{text}"


def example_of(examples: dict[str, Block], dialect: Dialect, kind: str) -> Block:
    """Of the dialect, or of the one whose form it shares."""
    names = (f"{dialect} {kind}", f"native {kind}", kind)
    return next(examples[name] for name in names if name in examples)


def datagram(kind: int, mac: str, body: str, token: int = 1, version: int = 2) -> bytes:
    return bytes([version, *token.to_bytes(2, "little"), kind]) + bytes.fromhex(mac) + body.encode()


# --- data plane ---


UPLINKS = [
    ("guide", "forwarder uplink", 2),
    ("messages", "forwarder uplink", 2),
    ("messages", "forwarder uplink, version 1", 1),
]


@EVERY_DIALECT
@pytest.mark.parametrize("place, name, version", UPLINKS)
def test_uplinks(roads: Roads, dialect: Dialect, place: str, name: str, version: int) -> None:
    examples, mac, _ = PLACES[place]
    body = f'{{"rxpk":[{examples[name].joined}]}}'
    (message,) = roads(dialect).push_raw(datagram(0, mac, body, version=version)).published
    assert message.topic == dialect.uplink
    shown(example_of(examples, dialect, "uplink"), message.text)


@EVERY_DIALECT
@EVERY_PLACE
def test_statistics(roads: Roads, dialect: Dialect, place: str) -> None:
    examples, mac, _ = PLACES[place]
    body = f'{{"stat":{examples["forwarder statistics"].joined}}}'
    (message,) = roads(dialect).push_raw(datagram(0, mac, body)).published
    assert message.topic == dialect.statistics
    shown(example_of(examples, dialect, "statistics"), message.text)


@EVERY_DIALECT
@EVERY_PLACE
def test_downlinks(roads: Roads, dialect: Dialect, place: str) -> None:
    examples = PLACES[place][0]
    response = roads(dialect).downlink(examples[f"{dialect} downlink"].joined)
    assert response.body.endswith(b"}\0")
    shown(example_of(examples, dialect, "txpk"), response.body[:-1].decode())


@EVERY_PLACE
def test_acknowledgements_of_downlinks(roads: Roads, place: str) -> None:
    examples, mac, token = PLACES[place]
    (message,) = roads(V3).push_raw(datagram(5, mac, '{"txpk_ack":{"error":"NONE"}}', token)).published
    assert message.topic == V3.ack
    shown(examples["chirpstack_v3 acknowledgement"], message.text)


def test_geolocation(own_road: Callable[..., Road]) -> None:
    road = own_road(V3, shares_geolocation=True).wait_ready()
    road.bridge.wait_for_log("UDP bridge is connected to geoloc")
    outcome = road.push(f'{{"locpk":{GUIDE["forwarder geolocation"].joined}}}')
    assert [message.topic for message in outcome.published] == ["gateway/geoloc"]
    shown(GUIDE["geolocation"], outcome.published[0].text)


def test_the_guides_examples_are_the_tests_own() -> None:
    time = "2024-05-06T07:08:09.123456Z"
    assert json.loads(GUIDE["forwarder uplink"].joined) == rxpk_v2(time=time)
    assert json.loads(GUIDE["forwarder statistics"].joined) == stat()
    assert json.loads(GUIDE["forwarder geolocation"].joined) == json.loads(RECORDS)
    for dialect in DIALECTS:
        assert json.loads(GUIDE[f"{dialect} downlink"].joined) == DOWNLINKS[dialect.name]()


# --- commands and alarms ---


@pytest.fixture(scope="module")
def control(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    log = made.inside("var/log/forwarder.log")
    log.write_text("uplink, 17 B.\n")
    yield made
    made.close()
    agent.close()


def ask(road: ControlRoad, command: str, params: object, number: object) -> str:
    body = {"command": command, "requestId": number, "params": params, "mac": GW_MAC}
    road.publish(json.dumps(body).encode())
    return road.answer_to(number).text  # type: ignore[arg-type]


def number_in(example: Block) -> Any:
    return json.loads(example.joined)["requestId"]


def late_answer(road: ControlRoad, number: object) -> str:
    wanted = f'"requestId":{json.dumps(number)}'
    return road.peer.wait_for(lambda each: each.topic == ASYNC_RESPONSES and wanted in each.text).text


UPLOAD = {"isModemFw": False, "name": "notes", "size": 3, "b64ChunkLength": 4, "b64TotalLength": 4}
STREAM = {"url": "http://127.0.0.1:1/", "path": "logs/forwarder.log", "offset": 0, "size": 14}

PARAMS: dict[str, object] = {
    "fopsScanDir": {"path": "logs"},
    "fileUploadStop": {"decompress": False},
    "logRetrieveStart": {"requiredFiles": ["logs/forwarder.log"]},
    "removeWmPDP_Profiles": {"PDP_cids": ["1"]},
    "fopsStreamStart": STREAM,
}


@WITH_DAEMON
@pytest.mark.parametrize("name", [name for name in COMMANDS if name.startswith("answer ")])
def test_answers_of_commands(control: ControlRoad, name: str) -> None:
    command = name.removeprefix("answer ")
    example = COMMANDS[name]
    params = PARAMS.get(command, {})
    if f"request {command}" in COMMANDS:
        asked = json.loads(COMMANDS[f"request {command}"].joined)
        assert (asked["command"], asked["requestId"], asked["mac"]) == (command, number_in(example), GW_MAC)
        params = asked["params"]
    if command == "fileUploadStop":
        ask(control, "fileUploadStart", UPLOAD, 1)
        ask(control, "fileUploadChunk", {"data": base64.b64encode(b"abc").decode()}, 2)
    answer = ask(control, command, params, number_in(example))
    if command == "logRetrieveStart":
        ask(control, "logRetrieveStop", {}, 3)  # its watcher outlives the daemon
    shown(example, answer)


@WITH_DAEMON
@pytest.mark.parametrize("name", [name for name in COMMANDS if name.startswith("late answer ")])
def test_late_answers_of_commands(control: ControlRoad, name: str) -> None:
    command = name.removeprefix("late answer ")
    example = COMMANDS[name]
    number = number_in(example)
    ask(control, command, PARAMS.get(command, {}), int(number))
    process = re.compile(r'"xferId":\d+')
    pattern = process.sub(r'"xferId":\\d+', example.pattern.pattern)
    assert re.fullmatch(pattern, late_answer(control, number)), late_answer(control, number)


@WITH_DAEMON
def test_the_guides_requests_and_answers(control: ControlRoad) -> None:
    control.publish(GUIDE["request"].joined.encode())
    shown(GUIDE["answer"], control.answer_to(number_in(GUIDE["answer"])).text)
    unknown = GUIDE["answer to an unknown command"]
    shown(unknown, ask(control, "isAnyoneThere", {}, number_in(unknown)))
    late = GUIDE["late answer"]
    ask(control, "removeWmPDP_Profiles", {"PDP_cids": ["1"]}, number_in(late))
    shown(late, late_answer(control, number_in(late)))


@WITH_DAEMON
def test_alarms(control: ControlRoad) -> None:
    control.agent.do({"raise": "alarm", "id": 7, "severity": 1, "text": "Enclosure door is open"})
    for example, number in ((GUIDE["alarm"], 3), (COMMANDS["alarm"], 7)):
        message = control.wait_event(f'"typeId":{number},')
        assert (message.topic, message.payload[-1:]) == (EVENTS, b"\0")
        shown(example, message.text.rstrip("\0"))


@WITH_DAEMON
def test_the_older_exchange(control: ControlRoad) -> None:
    pushed = next(each for each in control.peer.since(0) if is_push(each))
    time = re.compile(r'"applyTs":\d+')
    for examples in (GUIDE, MANAGEMENT):
        assert time.sub("", examples["pushed document"].joined) == time.sub("", pushed.text.rstrip("\0"))
        asked = next(each for each in control.peer.since(0) if each.topic == exchange.REQUESTS)
        shown(examples["request for documents"], asked.text)
    payload = GUIDE["document"].joined
    assert json.loads(payload) == json.loads(exchange.document("GENERAL", exchange.GENERAL))
    mark = control.peer.mark()
    control.publish(payload.encode(), CONFIGURATION)
    answer = control.peer.wait_for(exchange.is_response, after=mark)
    shown(GUIDE["applied document"], answer.text.rstrip("\0"))


# --- services ---


@pytest.fixture(scope="module")
def services(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Upgrades]:
    """A gateway with all of its programs, before its services are switched on."""
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = Upgrades(tmp_path_factory.mktemp("road") / "work", agent)
    ManagedGateway(made.road).forget()
    yield made
    made.close()
    agent.close()


def retained_topics(road: ControlRoad) -> set[str]:
    """What the server keeps."""
    peer = MqttPeer(road.broker.port)
    peer.subscribe("#", "marker")
    peer.publish("marker", b"")
    peer.wait_for(lambda each: each.topic == "marker" and not each.retain)
    peer.close()
    return {each.topic for each in peer.messages if each.retain}


def wait_report(road: ControlRoad, topic: str, after: int) -> Message:
    message = road.peer.wait_for(lambda each: each.topic == topic, 60, after)
    assert message.payload.endswith(b"}\0")
    return message


@WITH_DAEMON
def test_services_and_what_the_server_keeps_of_them(services: Upgrades) -> None:
    road = services.road
    mark = road.peer.mark()
    assert json.loads(GUIDE["capabilities"].joined) == json.loads(MANAGEMENT["capabilities"].joined)
    road.publish(GUIDE["capabilities"].joined.encode(), CAPABILITIES)
    shown(GUIDE["whole configuration"], wait_report(road, REPORTED, mark).text.rstrip("\0"))
    told = report_of(wait_report(road, services.topic, mark))
    for examples in (GUIDE, MANAGEMENT):
        example = Message(services.topic, examples["reported upgrade"].joined.encode() + b"\0", 1, False)
        assert (report_of(example).content, report_of(example).installed) == (told.content, told.installed)
    assert retained_topics(road) == {services.topic}

    gateway = ManagedGateway(road)
    for time, examples in enumerate((GUIDE, MANAGEMENT)):
        desired = json.loads(examples["desired configuration"].joined)
        mark = road.peer.mark()
        road.publish(json.dumps({**desired, "timestamp": desired["timestamp"] + time}).encode(), DESIRED)
        shown(examples["reported configuration"], wait_report(road, REPORTED, mark).text.rstrip("\0"))
    assert gateway.stamp_file.exists()

    battery = Battery(road)
    battery.agent.set(
        {"spmDataTimestamp.0": TIMESTAMP, **{object_of(key): value for key, value in VALUES.items()}}
    )
    battery.tick()
    (report,) = battery.reports()
    for examples in (GUIDE, MANAGEMENT):
        shown(examples["battery"], report[:-1].decode())
    map_of_topics = next(each for each in page("docs/integration.md").tables if each.columns[0] == "Topic")
    kept = {row[0].strip("`").replace("<MAC>", GW_MAC) for row in map_of_topics.rows if row[4] == "**yes**"}
    assert retained_topics(road) == {REPORTED, services.topic, battery.topic} == (kept - {""}) | {REPORTED}


@WITH_DAEMON
def test_sections_of_a_configuration(tmp_path_factory: pytest.TempPathFactory) -> None:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    gateway = ManagedGateway(ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready())
    try:
        filters = gateway.road.inside("var/lib/sarnivel-lora-hal")
        filters.mkdir(parents=True)
        filters.joinpath("uplink-filter-list-lock").touch()
        filters.joinpath("uplink-filter-list").write_text("{}")
        gateway.start()
        wanted = json.loads(MANAGEMENT["reported filters"].joined)["loraTrafficFilter"]["value"]
        (report,) = gateway.desire({"loraTrafficFilter": wanted}, 5).reports
        shown(MANAGEMENT["reported filters"], report[len('{"content":') : -2].decode())

        step = json.loads(MANAGEMENT["profile step"].joined)
        profiles = [step["value"], {**step["value"], "pdpProfileName": "first", "setActive": "True"}]
        (report,) = gateway.desire(
            {"networkConfiguration": {"cellular": {"pdpProfile": profiles}}}, 6
        ).reports
        assert MANAGEMENT["profile step"].joined in report.decode(), report
    finally:
        gateway.road.close()
        agent.close()


@WITH_DAEMON
def test_a_desired_upgrade_is_taken(services: Upgrades) -> None:
    assert json.loads(GUIDE["desired upgrade"].joined) == json.loads(MANAGEMENT["desired upgrade"].joined)
    services.mark()
    services.road.publish(GUIDE["desired upgrade"].joined.encode(), services.desired)
    services.wait_idle()
    assert services.states() == ["UPDATE SCHEDULED"]
    assert "-G 1764003600,600 -U 1764010800,600" in services.utility.calls()


def test_every_example_is_compared_here() -> None:
    source = Path(__file__).read_text()
    by_dialect = re.compile(rf"(?:{'|'.join(map(str, DIALECTS))}) (\w+)$|(answer|late answer|request) \w+$")
    for examples in (GUIDE, MESSAGES, COMMANDS, MANAGEMENT):
        assert [name for name in examples if f'"{name}"' not in source and not by_dialect.match(name)] == []

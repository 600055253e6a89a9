"""The exchange of configuration documents with older operations servers: what the gateway sends at its start,
and what it makes of the server's documents."""

import base64
import json
import time
from typing import Any, Iterator, Optional

import pytest

from conftest import Cleanup
from harness.config import GW_MAC
from harness.control import CONFIGURATION, WORKER_DONE, ControlRoad, is_push
from harness.lab import LabAgent, start_agent
from harness.mqtt_peer import Message

pytestmark = pytest.mark.xdist_group("configuration_exchange")

REQUESTS = f"{CONFIGURATION}/request"
GENERAL = '{"gateway":{"region":"EU868"}}'
FILE = "/etc/default/config.json"
SERVERS = '[{"name":"base","type":"src/gz","address":"http://feeds.example/base"}]'
SUBSCRIBED = f"subscribing for [{CONFIGURATION}] topic"
BAD_PARAMETERS = "failed to de-serialize configuration params"
BAD_BASE64 = "failed to de-serialize base64 string"
NO_CONTENT = "content is missing, no configuration should be applied"


@pytest.fixture(scope="module")
def road(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent, polls=300).wait_ready()
    made.wait_event("ALARM")
    yield made
    made.close()
    agent.close()


@pytest.fixture
def server(road: ControlRoad) -> ControlRoad:
    road.agent.restore()
    return road


def encoded(text: str) -> str:
    return base64.b64encode(text.encode()).decode()


def pushes(road: ControlRoad) -> list[Message]:
    return [each for each in road.peer.since(0) if is_push(each)]


def requests(road: ControlRoad) -> list[Message]:
    return [each for each in road.peer.since(0) if each.topic == REQUESTS]


def document(kind: str, text: str, **changes: Any) -> bytes:
    """A document of the server's; a change to None takes its key out."""
    plain = {
        "updateTs": 1700000000123,
        "requestId": "17",
        "type": kind,
        "contentType": "base64/json",
        "mac": "any mac",
        "content": encoded(text),
    }
    told = {**plain, **changes}
    return json.dumps({key: value for key, value in told.items() if value is not None}).encode()


def expected(kind: str, text: str) -> bytes:
    """The response, with the document's terminator inside of its base64 text, and one behind it all."""
    content = encoded(text + "\0").replace("/", "\\/")
    return (
        f'{{"content":"{content}","applyTs":1700000000123,"type":"{kind}",'
        f'"contentType":"base64\\/json","mac":"any mac"}}\0'
    ).encode()


def is_response(message: Message) -> bool:
    return message.topic == CONFIGURATION and b'"applyTs"' in message.payload and not is_push(message)


def answered(road: ControlRoad, payload: bytes) -> bytes:
    mark = road.peer.mark()
    road.publish(payload, CONFIGURATION)
    return road.peer.wait_for(is_response, after=mark).payload


def dropped(road: ControlRoad, payload: bytes) -> list[str]:
    """Publishes what no response may follow; returns the texts of what the daemon logged as errors."""
    road.settle()
    messages, log = road.peer.mark(), road.bridge.log.mark()
    road.publish(payload, CONFIGURATION)
    road.bridge.wait_for_log(WORKER_DONE, after=log)
    lines = road.bridge.log.since(log)
    road.command("isAnyoneThere")
    assert not [each for each in road.peer.since(messages) if is_response(each)], "there is a response"
    return [line.split(" ", 5)[5] for line in lines if "[ERROR ]" in line and "bridge_configs" in line]


# --- start ---


def test_the_gateways_documents_go_out_at_the_start(road: ControlRoad) -> None:
    sent = pushes(road)
    now = int(time.time() * 1000)
    for message, kind, text in zip(sent, ("GENERAL", "UPGRADE_SERVERS"), (GENERAL, SERVERS), strict=True):
        pairs = json.loads(message.payload[:-1], object_pairs_hook=list)
        apply_ts = pairs[0][1]
        assert now - 600_000 < apply_ts <= now, "in milliseconds"
        # The content has no terminator inside, and its slashes are plain.
        content = encoded(text)
        assert message.payload == (
            f'{{"applyTs":{apply_ts},"type":"{kind}","mac":"{GW_MAC}","content":"{content}"}}\0'.encode()
        )
        assert (message.qos, message.retain) == (1, False)
    wrote = [
        line.rsplit("set property: ", 1)[1]
        for line in road.bridge.log.lines
        if "attempt to set property: [u" in line
    ][:2]
    assert wrote == [
        f"[utilConfigurationFileSelect.0] with value: [{FILE}]",
        "[upgradeServerListStatus.0] with value: [100]",
    ]


def test_the_latest_documents_are_asked_for_behind_them(road: ControlRoad) -> None:
    assert [each.payload for each in requests(road)[:2]] == [
        f'{{ "mac":"{GW_MAC}", "requestId": "0", "type":"GENERAL"}}'.encode(),
        f'{{ "mac":"{GW_MAC}", "requestId": "1", "type":"UPGRADE_SERVERS"}}'.encode(),
    ], "without a terminator"
    lines = road.bridge.log.lines
    order = [
        "config push worker thread starting",
        SUBSCRIBED,
        "requesting latest configuration",
        "ctrlplane is started",
    ]
    places = [next(place for place, line in enumerate(lines) if line.endswith(text)) for text in order]
    assert places == sorted(places)
    assert len(road.bridge.log.find("successfully sent configuration to OA&M")) == 2


@pytest.mark.parametrize(
    "name, fault, error, left",
    [
        (
            "utilConfigurationFileSelect.0",
            {"on": "set", "error": "genErr"},
            "failed to set gateway configuration",
            ["UPGRADE_SERVERS"],
        ),
        (
            "utilConfigurationFileContents.0",
            {"error": "genErr"},
            "failed to get configuration file contents",
            ["UPGRADE_SERVERS"],
        ),
        (
            "upgradeServerListStatus.0",
            {"on": "set", "error": "genErr"},
            "failed to start a query of upgrade servers information",
            ["GENERAL"],
        ),
    ],
)
def test_a_document_that_cannot_be_read_is_left_out(
    tmp_path: Any,
    agent: LabAgent,
    cleanup: Cleanup,
    name: str,
    fault: dict[str, Any],
    error: str,
    left: list[str],
) -> None:
    agent.fault(name, **fault)
    road = ControlRoad(tmp_path / "road", agent)
    cleanup.add(road)
    road.wait_ready()
    road.command("isAnyoneThere")
    assert [json.loads(each.payload[:-1])["type"] for each in pushes(road)] == left
    assert road.bridge.log.find(error)


def test_a_list_of_servers_ends_at_the_first_row_that_cannot_be_read(
    tmp_path: Any, agent: LabAgent, cleanup: Cleanup
) -> None:
    put_rows(agent, "one", "two")
    agent.fault("upgradeServerListType.2", error="genErr")
    road = ControlRoad(tmp_path / "road", agent)
    cleanup.add(road)
    road.wait_ready()
    road.command("isAnyoneThere")
    sent = pushes(road)[1]
    content = '[{"name":"one","type":"old","address":"old"}]'
    assert json.loads(sent.payload[:-1])["content"] == encoded(content)


@pytest.mark.parametrize(
    "text", ["", "x", "\u00e4?>/" * 3, "x" * 60_000], ids=["empty", "short", "slashes", "long"]
)
def test_any_text_of_the_gateways_file_goes_out(
    tmp_path: Any, agent: LabAgent, cleanup: Cleanup, text: str
) -> None:
    agent.set({"utilConfigurationFileContents.0": text})
    agent.do({"put_rows": "upgradeServerListTable", "rows": []})
    road = ControlRoad(tmp_path / "road", agent)
    cleanup.add(road)
    road.wait_ready()
    road.command("isAnyoneThere")
    contents = [json.loads(each.payload[:-1])["content"] for each in pushes(road)]
    assert contents == [encoded(text), encoded("[]")]


# --- the server's documents ---


def test_a_general_document_is_written_and_confirmed(server: ControlRoad) -> None:
    text = '{"gateway": {"region": "US915", "note": "a/b"}}'
    assert answered(server, document("GENERAL", text)) == expected("GENERAL", text)
    assert [each["variables"] for each in server.agent.sets()] == [
        [["utilConfigurationFileSelect.0", FILE], ["utilConfigurationFileContents.0", text]]
    ], "in one request"


def test_a_general_document_is_any_text_up_to_its_first_terminator(server: ControlRoad) -> None:
    assert answered(server, document("GENERAL", "no JSON\0 and more")) == expected("GENERAL", "no JSON")
    assert server.agent.get("utilConfigurationFileContents.0") == "no JSON"


def row(name: str, kind: str = "src", address: str = "http://a/b") -> dict[str, str]:
    return {"name": name, "type": kind, "address": address}


def rows_of(agent: Any) -> list[tuple[str, str, str]]:
    name, kind, address = "upgradeServerListName", "upgradeServerListType", "upgradeServerListAddress"
    return [(each[name], each[kind], each[address]) for each in agent.rows("upgradeServerListTable")]


def put_rows(agent: Any, *names: str) -> None:
    rows = [
        {"upgradeServerListName": name, "upgradeServerListType": "old", "upgradeServerListAddress": "old"}
        for name in names
    ]
    agent.do({"put_rows": "upgradeServerListTable", "rows": rows})


@pytest.mark.parametrize(
    "existing, servers, blank",
    [
        (["one"], [row("a")], 0),
        ([], [row("a"), row("b", "src/gz", "")], 0),
        (["one"], [row("a"), row("b"), row("c")], 0),
        (["one", "two", "three"], [row("a")], 2),
        (["one", "two"], [], 2),
    ],
    ids=["as-many", "into-none", "more", "fewer", "none"],
)
def test_a_list_of_servers_is_written_names_first_and_committed(
    server: ControlRoad, existing: list[str], servers: list[dict[str, str]], blank: int
) -> None:
    put_rows(server.agent, *existing)
    text = json.dumps(servers)
    mark = server.bridge.log.mark()
    assert answered(server, document("UPGRADE_SERVERS", text)) == expected("UPGRADE_SERVERS", text)
    whole = [(each["name"], each["type"], each["address"]) for each in servers] + [("", "", "")] * blank
    assert rows_of(server.agent) == whole
    written = server.agent.written()
    names = [[f"upgradeServerListName.{place + 1}", each[0]] for place, each in enumerate(whole)]
    assert written[: len(names)] == names, "the names go ahead of all"
    assert written[-1] == ["upgradeServerListStatus.0", 101]
    columns = ("upgradeServerListName", "upgradeServerListType", "upgradeServerListAddress")
    assert sorted(map(str, written[len(names) : -1])) == sorted(
        str([f"{column}.{place + 1}", value])
        for place, each in enumerate(whole)
        for column, value in zip(columns, each)
    )
    extended = [
        line for line in server.bridge.log.since(mark) if "null-extending upgrade servers table" in line
    ]
    assert len(extended) == blank
    server.bridge.wait_for_log(
        f"got existing servers count: {len(existing)}, new: {len(servers)}", after=mark
    )


@pytest.mark.parametrize("request_id", [None, "", "x" * 127, 5], ids=["missing", "empty", "long", "number"])
def test_the_requests_number_is_optional_and_never_echoed(
    server: ControlRoad, request_id: Optional[object]
) -> None:
    assert answered(server, document("GENERAL", "x", requestId=request_id)) == expected("GENERAL", "x")


def test_a_time_that_is_null_counts_as_zero(server: ControlRoad) -> None:
    payload = document("GENERAL", "x").replace(b"1700000000123", b"null")
    assert b"null" in payload
    assert answered(server, payload) == expected("GENERAL", "x").replace(b"1700000000123", b"0")


@pytest.mark.parametrize(
    "payload, errors",
    [
        (b"{", ["failed to parse incoming configuration"]),
        (b"null", ["failed to parse incoming configuration"]),
        (b"5", [BAD_PARAMETERS]),
        (b"[]", [BAD_PARAMETERS]),
        (b"{}", [BAD_PARAMETERS]),
        (document("GENERAL", "x", updateTs=None), [BAD_PARAMETERS]),
        (document("GENERAL", "x", type=None), [BAD_PARAMETERS]),
        (document("GENERAL", "x", contentType=None), [BAD_PARAMETERS]),
        (document("GENERAL", "x", mac=None), [BAD_PARAMETERS]),
        (document("GENERAL", "x", content=None), [NO_CONTENT]),
        (document("GENERAL", "x").replace(b'"content": "eA=="', b'"content": null'), [NO_CONTENT]),
        (document("GENERAL", "x").replace(b'"any mac"', b"null"), [BAD_PARAMETERS]),
        (document("GENERAL", "x").replace(b'"GENERAL"', b"null"), [BAD_PARAMETERS]),
        (document("GENERAL", "x").replace(b'"17"', b"null"), [BAD_PARAMETERS]),
        (document("x" * 32, "x"), [BAD_PARAMETERS]),
        (document("GENERAL", "x", contentType="x" * 32), [BAD_PARAMETERS]),
        (document("GENERAL", "x", mac="x" * 64), [BAD_PARAMETERS]),
        (document("GENERAL", "x", requestId="x" * 128), [BAD_PARAMETERS]),
        (document("GENERAL", "x", content=""), [BAD_BASE64]),
        (document("GENERAL", "x", content="x"), [BAD_BASE64]),
        (document("GENERAL", "x", content="!!!!"), [BAD_BASE64]),
        (document("GENERAL", "x", content={}), [BAD_BASE64]),
        (document("UPGRADE_SERVERS", "x"), ["failed to parse upgrade server JSON"]),
        (document("UPGRADE_SERVERS", "null"), ["failed to parse upgrade server JSON"]),
        (document("UPGRADE_SERVERS", "{}"), ["invalid type of incoming server list"]),
        (document("UPGRADE_SERVERS", '"name"'), ["invalid type of incoming server list"]),
        (document("NETWORK", "x"), []),
        (document("general", "x"), []),
        (document("", "x"), []),
    ],
    ids=lambda each: repr(each)[:100] if isinstance(each, bytes) else "",
)
def test_a_bad_document_has_no_response(server: ControlRoad, payload: bytes, errors: list[str]) -> None:
    assert dropped(server, payload) == errors
    assert server.agent.sets() == []


@pytest.mark.parametrize(
    "element", [None, 5, "name", [], {}, {"name": None}, {"name": "a", "type": "b"}], ids=str
)
def test_a_list_with_an_element_that_is_no_server_has_no_response(
    server: ControlRoad, element: object
) -> None:
    text = json.dumps([row("a"), element])
    assert dropped(server, document("UPGRADE_SERVERS", text))
    assert ["upgradeServerListStatus.0", 101] not in server.agent.written()


def test_a_document_of_no_content_type_is_ignored(server: ControlRoad) -> None:
    mark = server.bridge.log.mark()
    assert dropped(server, b'{"updateTs":1,"type":"GENERAL","contentType":null,"content":"eA=="}') == []
    server.bridge.wait_for_log("received empty config; ignoring", after=mark)
    assert server.agent.sets() == []


@pytest.mark.parametrize(
    "name, fault, payload, error",
    [
        (
            "utilConfigurationFileContents.0",
            {"on": "set", "error": "genErr"},
            document("GENERAL", "x"),
            f"failed to write config for {FILE}",
        ),
        (
            "upgradeServerListName",
            {"on": "set", "error": "genErr"},
            document("UPGRADE_SERVERS", SERVERS),
            "failed to set upgrade server fields for pre-allocation",
        ),
        (
            "upgradeServerListType",
            {"on": "set", "error": "genErr"},
            document("UPGRADE_SERVERS", SERVERS),
            "can't send upgrade server list",
        ),
        (
            "upgradeServerListStatus.0",
            {"on": "set", "error": "genErr"},
            document("UPGRADE_SERVERS", SERVERS),
            "failed to commit the upgrade servers list",
        ),
    ],
)
def test_a_document_that_the_agent_refuses_has_no_response(
    server: ControlRoad, name: str, fault: dict[str, Any], payload: bytes, error: str
) -> None:
    server.agent.fault(name, **fault)
    assert dropped(server, payload) == [error]

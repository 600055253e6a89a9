"""MQTT over TLS: the gateway shows its certificate, and verifies the server's unless it is told not to."""
import json
import re
import shutil
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable, Optional

import pytest

from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import Sections, gateway_config, merged, write_config
from harness.dialects import V3
from harness.forwarder import Forwarder
from harness.keys import Authority, Pair, openssl, rsa_key
from harness.mqtt_peer import MqttPeer
from harness.ports import free_port
from harness.samples import DATA, rxpk_v2, v3_downlink

RunConfig = Callable[..., Bridge]

KEYS = {"private_key": "gateway.key", "bridge_cert": "gateway.pem"}
NO_KEYS = {"private_key": None, "bridge_cert": None}
SKIP = {"skip_secure_cert": True}

LOOPBACK = "IP:127.0.0.1,DNS:localhost"
REFUSED = "failed to connect with MQTT code: [-1]"
NOT_VERIFIED = "certificate verify failed"


@dataclass(frozen=True)
class World:
    """Authorities, certificates of servers, and a pair that a daemon has made for itself."""

    known: Authority
    unknown: Authority
    server: Pair
    gateway: Pair


def made_by_a_first_start(work: Path) -> Pair:
    ns = {"url": f"ssl://127.0.0.1:{free_port()}", "type": V3.ns_type}
    path = write_config(work / "bridge.toml", gateway_config(free_port(), {"ns": ns, "security": KEYS}))
    bridge = Bridge(work, ["-c", str(path), "-d", "-v", "4"])
    try:
        bridge.wait_for_log(REFUSED)
    finally:
        bridge.close()
    return Pair(work / "gateway.key", work / "gateway.pem")


@pytest.fixture(scope="module")
def world(tmp_path_factory: pytest.TempPathFactory) -> World:
    folder = tmp_path_factory.mktemp("world")
    known = Authority(folder, "known")
    gateway = made_by_a_first_start(tmp_path_factory.mktemp("first"))
    return World(known, Authority(folder, "unknown"), known.server("broker", LOOPBACK), gateway)


class TlsBroker:
    """A server with a TLS listener, and a plain one for the test's own client."""

    def __init__(self, made: Mosquitto, port: int) -> None:
        self.made = made
        self.port = port
        self.url = f"ssl://127.0.0.1:{port}"

    def complaints(self) -> set[str]:
        return set(re.findall(r"OpenSSL Error\[0\]: \S+ routines::(.*)", self.made.log_text()))


@pytest.fixture
def start_broker(make_broker: Callable[..., Mosquitto]) -> Callable[..., TlsBroker]:
    def start(server: Pair, *lines: str, clients: Optional[Path] = None) -> TlsBroker:
        """With `clients`, a certificate of the client is required, and those in this file are trusted."""
        port = free_port()
        tls = [f"listener {port} 127.0.0.1", f"certfile {server.cert}", f"keyfile {server.key}", *lines]
        if clients:
            tls += [f"cafile {clients}", "require_certificate true"]
        return TlsBroker(make_broker(extra="\n".join(tls)), port)

    return start


@pytest.fixture
def start_gateway(tmp_path: Path, run_config: RunConfig, world: World) -> Callable[..., Bridge]:
    """A daemon with the pair of its first start. What it trusts, the environment says as to any program that
    uses the library's default."""

    def start(
        url: str,
        ns: Optional[dict[str, Any]] = None,
        changes: Optional[Sections] = None,
        env: Optional[dict[str, str]] = None,
        udp_port: int = 0,
    ) -> Bridge:
        shutil.copy(world.known.cert, tmp_path / "trusted.pem")
        for path in (world.gateway.key, world.gateway.cert):
            if not (tmp_path / path.name).exists():
                shutil.copy(path, tmp_path / path.name)
        base: Sections = {"ns": {"url": url, "type": V3.ns_type, **(ns or {})}, "security": KEYS}
        trust = {"SSL_CERT_FILE": "trusted.pem"} if env is None else env
        return run_config(udp_port or free_port(), merged(base, changes), env=trust)

    return start


StartBroker = Callable[..., TlsBroker]
StartGateway = Callable[..., Bridge]


def assert_refused(bridge: Bridge, *texts: str) -> None:
    bridge.wait_for_log(REFUSED)
    bridge.stop()
    assert not bridge.log.find("UDP bridge is connected to NS")
    for text in texts:
        assert bridge.log.find(re.compile(rf"\[ERROR \].*{text}")), text


def assert_traffic_passes(peer: MqttPeer, forwarder: Forwarder) -> None:
    forwarder.pull_data()
    forwarder.wait_push_ack(forwarder.push_data({"rxpk": [rxpk_v2()]}))
    uplink = peer.wait_for(lambda message: message.topic == V3.uplink)
    assert json.loads(uplink.payload)["phyPayload"] == DATA
    peer.publish(V3.downlink, json.dumps(v3_downlink()).encode())
    assert json.loads(forwarder.wait_pull_resp().body.rstrip(b"\0"))["txpk"]["data"] == DATA


@pytest.mark.parametrize("ns", [{}, SKIP], ids=["verified", "not verified"])
def test_traffic_passes_a_server_that_requires_the_gateways_certificate(
    world: World,
    start_broker: StartBroker,
    start_gateway: StartGateway,
    make_peer: Callable[..., MqttPeer],
    make_forwarder: Callable[..., Forwarder],
    ns: dict[str, Any],
) -> None:
    broker = start_broker(world.server, clients=world.gateway.cert)
    peer = make_peer(broker.made, "#")
    udp_port = free_port()
    bridge = start_gateway(broker.url, ns, udp_port=udp_port)
    bridge.wait_connected()
    assert bool(bridge.log.find("skipping server certificate validation")) == bool(ns)
    assert_traffic_passes(peer, make_forwarder(udp_port))


@pytest.mark.parametrize("version", ["tlsv1.2", "tlsv1.3"])
def test_certificate_is_accepted_by_both_versions_of_the_protocol(
    world: World, start_broker: StartBroker, start_gateway: StartGateway, version: str
) -> None:
    broker = start_broker(world.server, f"tls_version {version}", clients=world.gateway.cert)
    start_gateway(broker.url).wait_connected()


def test_every_endpoint_shows_the_certificate(
    world: World, start_broker: StartBroker, start_gateway: StartGateway
) -> None:
    ns, geoloc = (start_broker(world.server, clients=world.gateway.cert) for _ in range(2))
    bridge = start_gateway(ns.url, changes={"geoloc": {"url": geoloc.url}})
    bridge.wait_for_log("UDP bridge is connected to NS")
    bridge.wait_for_log("UDP bridge is connected to geoloc")


def test_pair_of_an_operators_own_authority_is_shown(
    tmp_path: Path, world: World, start_broker: StartBroker, start_gateway: StartGateway
) -> None:
    signed = world.unknown.sign("gateway", rsa_key(tmp_path / "gateway.key"))
    shutil.copy(signed.cert, tmp_path / "gateway.pem")
    broker = start_broker(world.server, "use_identity_as_username true", clients=world.unknown.cert)
    bridge = start_gateway(broker.url)
    bridge.wait_connected()
    assert not bridge.log.find("generating security keys")
    assert "u'gateway'" in broker.made.log_text()


def test_server_that_asks_for_no_certificate_needs_none(
    world: World, start_broker: StartBroker, start_gateway: StartGateway
) -> None:
    broker = start_broker(world.server)
    start_gateway(broker.url, changes={"security": NO_KEYS}).wait_connected()


REFUSED_GATEWAYS = {
    "no certificate": (NO_KEYS, "peer did not return a certificate", ()),
    "another certificate": (
        {**KEYS, "bridge_cert": "other.pem", "private_key": "other.key"},
        NOT_VERIFIED,
        (),
    ),
    "key of another certificate": ({**KEYS, "private_key": "other.key"}, "unexpected eof while reading", ()),
    "garbage for a key": (
        {**KEYS, "private_key": "trusted.pem"},
        "unexpected eof while reading",
        ("SSL_CTX_use_PrivateKey_file",),
    ),
    "garbage for a certificate": (
        {**KEYS, "bridge_cert": "bridge.toml"},
        "unexpected eof while reading",
        ("use_certificate_chain_file",),
    ),
}


@pytest.mark.parametrize("case", REFUSED_GATEWAYS)
def test_server_refuses_a_gateway_without_the_certificate_that_it_trusts(
    tmp_path: Path, world: World, start_broker: StartBroker, start_gateway: StartGateway, case: str
) -> None:
    security, complaint, texts = REFUSED_GATEWAYS[case]
    # The same name as in every certificate that a daemon makes.
    openssl(
        "req",
        "-x509",
        "-newkey",
        "rsa:2048",
        "-nodes",
        "-days",
        "2",
        "-subj",
        "/C=CA/CN=localhost/O=SARNIVEL",
        "-keyout",
        str(tmp_path / "other.key"),
        "-out",
        str(tmp_path / "other.pem"),
    )
    broker = start_broker(world.server, clients=world.gateway.cert)
    assert_refused(start_gateway(broker.url, changes={"security": security}), *texts)
    assert broker.complaints() == {complaint}


SERVERS: dict[str, Callable[[World], Pair]] = {
    "unknown authority": lambda world: world.unknown.server("stranger", LOOPBACK),
    "expired": lambda world: world.known.server("expired", LOOPBACK, days=-1),
    "another address": lambda world: world.known.server("elsewhere", "IP:127.0.0.9"),
    "a name instead of the address": lambda world: world.known.server("named", "DNS:localhost"),
    "signed by itself": lambda world: world.gateway,
}
UNVERIFIABLE = {"unknown authority", "expired", "signed by itself"}


@pytest.mark.parametrize("case", SERVERS)
def test_wrong_certificate_of_a_server_is_refused_with_verification_on(
    world: World, start_broker: StartBroker, start_gateway: StartGateway, case: str
) -> None:
    broker = start_broker(SERVERS[case](world), clients=world.gateway.cert)
    bridge = start_gateway(broker.url)
    assert_refused(bridge, *([NOT_VERIFIED] if case in UNVERIFIABLE else []))
    assert "New client connected" not in broker.made.log_text()


@pytest.mark.parametrize("case", SERVERS)
def test_any_certificate_of_a_server_is_taken_with_verification_off(
    world: World, start_broker: StartBroker, start_gateway: StartGateway, case: str
) -> None:
    broker = start_broker(SERVERS[case](world), clients=world.gateway.cert)
    start_gateway(broker.url, SKIP).wait_connected()


def test_name_in_the_url_is_held_against_the_certificate(
    world: World, start_broker: StartBroker, start_gateway: StartGateway
) -> None:
    broker = start_broker(world.known.server("named", "DNS:localhost"), clients=world.gateway.cert)
    start_gateway(f"ssl://localhost:{broker.port}").wait_connected()


def test_nothing_is_trusted_on_a_system_without_trusted_authorities(
    world: World, start_broker: StartBroker, start_gateway: StartGateway
) -> None:
    broker = start_broker(world.server, clients=world.gateway.cert)
    assert_refused(start_gateway(broker.url, env={}), NOT_VERIFIED)


def test_trusted_authorities_may_stand_in_a_directory(
    tmp_path: Path, world: World, start_broker: StartBroker, start_gateway: StartGateway
) -> None:
    (tmp_path / "certs").mkdir()
    shutil.copy(world.known.cert, tmp_path / "certs")
    openssl("rehash", str(tmp_path / "certs"))
    broker = start_broker(world.server, clients=world.gateway.cert)
    start_gateway(broker.url, env={"SSL_CERT_DIR": "certs"}).wait_connected()


def test_server_that_does_not_speak_tls_is_refused(
    make_broker: Callable[..., Mosquitto], start_gateway: StartGateway
) -> None:
    assert_refused(start_gateway(f"ssl://127.0.0.1:{make_broker().port}"))

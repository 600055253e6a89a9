"""The status port: one fixed reply for whoever connects, at once, and clients that misbehave."""
import ctypes
import os
import re
import signal
import socket
import struct
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, Callable, Optional

import pytest

from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import Sections
from harness.keys import public_key, rsa_key
from harness.ports import free_port
from harness.waiting import PATIENCE, wait_until

RunConfig = Callable[..., Bridge]

HEADER = b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: Closed\r\n\r\n"
KEY_MARK = b"@@public_key:\r\n\r\n"
CERT_MARK = b"\r\n@@certificate:\r\n\r\n"
EMPTY_REPLY = HEADER + KEY_MARK + CERT_MARK

LISTENING = "starting listening for a status requests"
CERT = "any text:\r\n the file is handed out as it stands\n"
QUEUE = 5  # clients that the system keeps waiting for the daemon
SEND_LIMIT = 5.0  # seconds of one send to a client that reads nothing


class StatusServer:
    """A connected daemon and its status port."""

    def __init__(self, bridge: Bridge, port: int) -> None:
        self.bridge = bridge
        self.port = port

    def connect(self, host: str = "127.0.0.1", receive_buffer: int = 0) -> socket.socket:
        client = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client.settimeout(PATIENCE)
        client.connect((host, self.port))
        return client

    def reply(self, host: str = "127.0.0.1", piece: int = 65536) -> bytes:
        """All that a client that sends nothing is given."""
        with self.connect(host) as client:
            return read_all(client, piece)


def read_all(client: socket.socket, piece: int = 65536) -> bytes:
    data = b""
    while True:
        more = client.recv(piece)
        if not more:
            return data
        data += more


def read_exactly(client: socket.socket, size: int) -> bytes:
    data = b""
    while len(data) < size:
        more = client.recv(size - len(data))
        assert more, f"closed after {data!r}"
        data += more
    return data


def close_with_reset(client: socket.socket) -> None:
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def listening_ports(bridge: Bridge) -> set[int]:
    """TCP ports on which the daemon itself listens."""
    folder = Path(f"/proc/{bridge.process.pid}")
    inodes = {
        link[len("socket:[") : -1]
        for each in (folder / "fd").iterdir()
        if (link := str(each.readlink())).startswith("socket:[")
    }
    rows = [line.split() for line in (folder / "net/tcp").read_text().splitlines()[1:]]
    return {int(row[1].split(":")[1], 16) for row in rows if row[3] == "0A" and row[9] in inodes}


def open_files(bridge: Bridge) -> int:
    return len(list(Path(f"/proc/{bridge.process.pid}/fd").iterdir()))


def errors(bridge: Bridge) -> list[str]:
    return [re.sub(r"^.*\[ERROR \] \S+ ", "", line) for line in bridge.log.find("[ERROR ]")]


def status_config(broker: Mosquitto, port: int, security: Optional[dict[str, Any]] = None) -> Sections:
    return {
        "ns": {"url": broker.url, "type": "chirpstack"},
        "generic": {"status_http_port": port},
        "security": security or {},
    }


def send_to_thread(bridge: Bridge, thread: int) -> None:
    libc = ctypes.CDLL(None, use_errno=True)
    assert libc.tgkill(bridge.process.pid, thread, signal.SIGUSR2) == 0, os.strerror(ctypes.get_errno())


@pytest.fixture
def start_status(run_config: RunConfig, broker: Mosquitto) -> Callable[..., StatusServer]:
    def start(security: Optional[dict[str, Any]] = None) -> StatusServer:
        port = free_port()
        bridge = run_config(free_port(), status_config(broker, port, security))
        bridge.wait_connected()
        return StatusServer(bridge, port)

    return start


@pytest.fixture
def own_keys(tmp_path: Path) -> dict[str, Any]:
    rsa_key(tmp_path / "own.key")
    (tmp_path / "own.pem").write_text(CERT, newline="")
    return {"private_key": "own.key", "bridge_cert": "own.pem"}


def full_reply(tmp_path: Path) -> bytes:
    return HEADER + KEY_MARK + public_key(tmp_path / "own.key").encode() + CERT_MARK + CERT.encode()


StartStatus = Callable[..., StatusServer]


def test_reply_without_keys_has_the_markers_with_nothing_between(start_status: StartStatus) -> None:
    assert start_status().reply() == EMPTY_REPLY


def test_reply_has_the_public_key_and_the_file_of_the_certificate(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    status = start_status(own_keys)
    assert status.reply() == full_reply(tmp_path)
    key_lines = public_key(tmp_path / "own.key").splitlines()
    status.bridge.wait_for_log("[DEBUG ] bridge_status.cpp")
    lines = status.bridge.log.lines
    at = next(i for i, line in enumerate(lines) if line.endswith("loaded public key:"))
    assert lines[at + 1 : at + 1 + len(key_lines)] == key_lines
    at = next(i for i, line in enumerate(lines) if line.endswith("loaded certificate:"))
    assert lines[at + 1 : at + 3] == CERT.rstrip("\n").split("\n")


def test_reply_has_the_pair_that_this_very_start_has_made(tmp_path: Path, start_status: StartStatus) -> None:
    status = start_status({"private_key": "gateway.key", "bridge_cert": "gateway.pem"})
    assert status.reply() == (
        HEADER
        + KEY_MARK
        + public_key(tmp_path / "gateway.key").encode()
        + CERT_MARK
        + (tmp_path / "gateway.pem").read_bytes()
    )


def test_reply_does_not_change_when_the_files_go(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    status = start_status(own_keys)
    expected = full_reply(tmp_path)
    (tmp_path / "own.key").unlink()
    (tmp_path / "own.pem").write_text("another\n")
    assert [status.reply(), status.reply()] == [expected, expected]


@pytest.mark.parametrize(
    "request_text",
    [b"GET / HTTP/1.1\r\nHost: gateway\r\n\r\n", b"\0", b"x" * 100_000],
    ids=["GET", "one byte", "much"],
)
def test_request_is_not_read(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any], request_text: bytes
) -> None:
    """A close with unread bytes ends in a reset, behind the reply."""
    with start_status(own_keys).connect() as client:
        data = b""
        try:
            client.sendall(request_text)
        except (BrokenPipeError, ConnectionResetError):
            pass
        try:
            while more := client.recv(65536):
                data += more
        except ConnectionResetError:
            pass
    assert data == full_reply(tmp_path)


def test_all_local_addresses_are_served(start_status: StartStatus) -> None:
    assert start_status().reply("127.0.0.2") == EMPTY_REPLY


def test_clients_that_reset_leave_the_others_their_reply(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    status = start_status(own_keys)
    expected = full_reply(tmp_path)
    for read in (0, 1, len(HEADER), len(expected) - 1):
        for _ in range(5):
            client = status.connect()
            if read:
                assert read_exactly(client, read) == expected[:read]
            close_with_reset(client)
        assert status.reply() == expected
    assert status.bridge.running()


def test_client_that_resets_a_long_reply_in_the_middle_ends_nothing(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    """The reply is longer than all buffers, so the daemon is within a send when the reset comes."""
    (tmp_path / "own.pem").write_bytes(b"c" * (16 << 20))
    status = start_status(own_keys)
    for _ in range(3):
        client = status.connect(receive_buffer=4096)
        assert read_exactly(client, len(HEADER)) == HEADER
        close_with_reset(client)
    client = status.connect()
    assert read_exactly(client, len(HEADER)) == HEADER
    close_with_reset(client)
    status.bridge.stop()


def test_slow_reader_gets_the_whole_reply_and_holds_nobody(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    status = start_status(own_keys)
    expected = full_reply(tmp_path)
    with status.connect(receive_buffer=2048) as slow:
        assert slow.recv(1) == expected[:1]
        assert [status.reply() for _ in range(3)] == [expected] * 3
        assert read_all(slow, piece=7) == expected[1:]


@pytest.mark.waits_long
def test_client_that_never_reads_a_long_reply_is_left_after_a_while(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    (tmp_path / "own.pem").write_bytes(b"c" * (16 << 20))
    status = start_status(own_keys)
    with status.connect(receive_buffer=4096) as silent, status.connect() as next_client:
        assert read_exactly(silent, len(HEADER)) == HEADER
        started = time.monotonic()
        next_client.settimeout(4 * SEND_LIMIT)
        assert read_exactly(next_client, len(HEADER)) == HEADER
        assert time.monotonic() - started > SEND_LIMIT / 2


@pytest.mark.waits_long
def test_stop_does_not_wait_for_a_client_that_never_reads(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    (tmp_path / "own.pem").write_bytes(b"c" * (16 << 20))
    status = start_status(own_keys)
    with status.connect(receive_buffer=4096) as silent:
        assert read_exactly(silent, len(HEADER)) == HEADER
        status.bridge.stop()


def test_two_hundred_clients_one_after_the_other(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    status = start_status(own_keys)
    expected = full_reply(tmp_path)
    assert status.reply() == expected
    files = open_files(status.bridge)
    assert [status.reply() for _ in range(200)] == [expected] * 200
    wait_until(lambda: open_files(status.bridge) == files, "no descriptor more than before")
    status.bridge.wait_for_log("got client socket: ", count=201)


def test_clients_that_come_together_are_served_in_turn(
    tmp_path: Path, start_status: StartStatus, own_keys: dict[str, Any]
) -> None:
    status = start_status(own_keys)
    with ThreadPoolExecutor(QUEUE) as pool:
        replies = list(pool.map(lambda _: status.reply(), range(10 * QUEUE)))
    assert replies == [full_reply(tmp_path)] * (10 * QUEUE)


def test_port_in_use_ends_the_start(run_config: RunConfig, broker: Mosquitto) -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        bridge = run_config(free_port(), status_config(broker, port))
        assert bridge.wait_exit() == 1
    assert bridge.log.find("[INFO  ] bridge_status.cpp:") == bridge.log.find(
        f"initializing a status server on port: {port}"
    )
    assert errors(bridge) == ["failed to bind to port", "unable to start a status server, aborting"]


def test_port_of_a_daemon_that_has_just_ended_is_free(
    start_status: StartStatus, run_config: RunConfig, broker: Mosquitto
) -> None:
    """The daemon closes first, so its side of the connections lingers."""
    status = start_status()
    assert status.reply() == EMPTY_REPLY
    status.bridge.stop()
    bridge = run_config(free_port(), status_config(broker, status.port))
    bridge.wait_connected()
    assert StatusServer(bridge, status.port).reply() == EMPTY_REPLY


def test_key_without_its_certificate_ends_the_start(
    tmp_path: Path, run_config: RunConfig, broker: Mosquitto
) -> None:
    rsa_key(tmp_path / "own.key")
    security = {"private_key": "own.key", "bridge_cert": "own.pem"}
    bridge = run_config(free_port(), status_config(broker, free_port(), security))
    assert bridge.wait_exit() == 1
    assert errors(bridge) == [
        "failed to open certificate file: own.pem",
        "failed to read certificate",
        "unable to start a status server, aborting",
    ]


def test_key_without_the_path_of_a_certificate_ends_the_start(
    tmp_path: Path, run_config: RunConfig, broker: Mosquitto
) -> None:
    rsa_key(tmp_path / "own.key")
    bridge = run_config(free_port(), status_config(broker, free_port(), {"private_key": "own.key"}))
    assert bridge.wait_exit() == 1
    assert errors(bridge) == ["empty certificate path is not allowed"] * 2 + [
        "failed to read certificate",
        "unable to start a status server, aborting",
    ]


def test_key_that_cannot_be_read_leaves_the_reply_empty(tmp_path: Path, start_status: StartStatus) -> None:
    (tmp_path / "own.key").write_text("no key\n")
    (tmp_path / "own.pem").write_text(CERT)
    assert start_status({"private_key": "own.key", "bridge_cert": "own.pem"}).reply() == EMPTY_REPLY


def test_key_that_could_not_be_made_leaves_the_reply_empty(start_status: StartStatus) -> None:
    status = start_status({"private_key": "keys/own.key", "bridge_cert": "own.pem"})
    assert status.reply() == EMPTY_REPLY
    status.bridge.wait_for_log("cannot read key file: keys/own.key with error: No such file or directory")


@pytest.mark.parametrize("port", [0, None], ids=["0", "no port"])
def test_without_a_port_there_is_neither_listener_nor_thread(
    run_config: RunConfig, broker: Mosquitto, port: Optional[int]
) -> None:
    bridge = run_config(
        free_port(), {"ns": {"url": broker.url, "type": "chirpstack"}, "generic": {"status_http_port": port}}
    )
    bridge.wait_connected()
    assert listening_ports(bridge) == set()
    bridge.stop()
    assert bridge.log.find("status") == bridge.log.find("status_http_port")


def test_with_a_port_the_daemon_listens_there_alone_and_waits_on_a_thread_of_its_own(
    start_status: StartStatus,
) -> None:
    status = start_status()
    line = status.bridge.wait_for_log(LISTENING)
    assert listening_ports(status.bridge) == {status.port}
    thread = re.search(r" \[(\d+)\]\[INFO  \] bridge_status", line)
    assert thread and int(thread.group(1)) != status.bridge.process.pid
    state = Path(f"/proc/{status.bridge.process.pid}/task/{thread.group(1)}/stat")
    wait_until(lambda: state.read_text().split(")")[1].split()[0] == "S", "the thread waits")


def test_stop_signal_ends_the_waiting_thread(start_status: StartStatus) -> None:
    status = start_status()
    assert status.reply() == EMPTY_REPLY
    status.bridge.stop()
    ends = [
        re.sub(r"^.*\[INFO  \] (\S+):\d+ ", r"\1 ", line)
        for line in status.bridge.log.find("stopping status thread")
    ]
    assert ends == ["main_bridge.cpp stopping status thread", "bridge_status.cpp stopping status thread"]
    assert status.bridge.log.find("got client socket: -1")
    with pytest.raises(ConnectionRefusedError):
        status.connect()


def test_stop_signal_that_the_status_thread_itself_takes_ends_the_daemon(start_status: StartStatus) -> None:
    """The wait for a client fails then, and so does every wait that follows the stop."""
    status = start_status()
    line = status.bridge.wait_for_log(LISTENING)
    thread = re.search(r" \[(\d+)\]", line)
    assert thread
    send_to_thread(status.bridge, int(thread.group(1)))
    status.bridge.wait_for_log("[INFO  ] bridge_status.cpp", count=3)
    status.bridge.stop()

"""The reverse tunnel: from a port of an SSH server to a port of the gateway, and back."""
import fcntl
import hashlib
import json
import os
import random
import re
import select
import signal
import socket
import struct
import termios
import threading
from contextlib import contextmanager, suppress
from functools import cache
from pathlib import Path
from typing import Any, Callable, Iterator, Optional

import pytest

from conftest import Cleanup
from harness.bridge import Bridge, log_time
from harness.broker import Mosquitto
from harness.config import Sections
from harness.control import Answer, ControlRoad, request
from harness.lab import LabAgent, start_agent
from harness.ports import free_port
from harness.sshd import PASSWORD, USER, SshServer, run_at
from harness.tcp import is_kept_alive
from harness.waiting import PATIENCE, wait_until

IN_PROGRESS = "Operation now in progress"
NO_SUCH_PROCESS = "No such process"
INVALID = "Invalid argument"

LARGE = 50_000_000
PIECE = 1 << 16
LONG_WAIT = 600  # seconds that a tunnel waits for a connection, where no test is to see the end of it
SHORT_WAIT = 1
LATE = 5.0
SOON = 5.0

OWN_LINE = re.compile(r"\[(\d+)\]\[(\w+) *\] bridge_cmd_revssh\.cpp:\d+ (.*)")
STARTED = re.compile(r"ssh child process started: (\d+)")
NEXT = "reverse SSH session closed, waiting for new connection..."
ENDED = "ssh: reverse session ended"
LOGIN = [("INFO", "revssh: starting client"), ("DEBUG", "ssh: starting reverse session")]
CONNECTED = ("DEBUG", "ssh: connection established")
NO_CONNECTION = "ssh: error waiting for incoming connection: No channel request of this type from server"

# A gateway has an account for its daemon; the sandbox's list of them is empty.
ACCOUNTS = "root:x:0:0:root:/root:/bin/sh\n"


@cache
def payload(size: int) -> bytes:
    return random.Random(size).randbytes(size)


def digest(data: bytes) -> bytes:
    return hashlib.sha256(data).digest()


def receive(peer: socket.socket, size: int) -> bytes:
    """What comes until `size` is reached or the peer has ended."""
    data = bytearray()
    while len(data) < size and (piece := peer.recv(min(PIECE, size - len(data)))):
        data += piece
    return bytes(data)


def reset(peer: socket.socket) -> None:
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()


def has_ended(pid: int) -> bool:
    """Ended, collected or not."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "Z"
    except FileNotFoundError:
        return True


def is_gone(pid: int) -> bool:
    return not Path(f"/proc/{pid}").exists()


def is_listening(port: int) -> bool:
    """Looked up, since a connection to a tunnel's port would take its place."""
    sockets = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return any(local.endswith(f":{port:04X}") and state == "0A" for _, local, _, state, *_ in sockets)


class Gate:
    """What listens at the gateway's own port: accepts when a test says so."""

    def __init__(self, port: int) -> None:
        self._listener = socket.create_server(("127.0.0.1", port), backlog=16)
        self._listener.settimeout(PATIENCE)

    def accept(self) -> socket.socket:
        peer, _ = self._listener.accept()
        peer.settimeout(PATIENCE)
        return peer

    def is_idle(self) -> bool:
        return not select.select([self._listener], [], [], 0)[0]

    def close(self) -> None:
        self._listener.close()


@contextmanager
def at_once(work: Callable[[], None]) -> Iterator[None]:
    """Runs `work` in a thread beside the block; its failure is the block's."""
    failures: list[BaseException] = []

    def run() -> None:
        try:
            work()
        except BaseException as failure:
            failures.append(failure)

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    yield
    thread.join(PATIENCE)
    assert not thread.is_alive(), "the other end is not done"
    if failures:
        raise failures[0]


class Tunnel:
    """Tunnels of one daemon, one after the other, to one server."""

    def __init__(self, road: ControlRoad, server: SshServer, local_port: int) -> None:
        self.road = road
        self.server = server
        self.local_port = local_port
        self.port = free_port()
        self.mark = road.bridge.log.mark()
        road.inside("etc/passwd").write_text(ACCOUNTS)

    def params(self, **changes: object) -> dict[str, object]:
        whole: dict[str, object] = {
            "username": USER,
            "password": PASSWORD,
            "sshHost": "127.0.0.1",
            "sshRevPort": self.port,
            "sshPort": self.server.port,
        }
        return {key: value for key, value in {**whole, **changes}.items() if value is not None}

    def start(self, **changes: object) -> Answer:
        """None takes a parameter out."""
        return self.road.command("reverseSsh", self.params(**changes))

    def stop(self) -> Answer:
        return self.road.command("stopReverseSsh")

    def open(self, **changes: object) -> "Tunnel":
        mark = self.server.log.mark()
        assert self.start(**changes).response == {"status": "ok"}
        self.server.log.wait_for(f"Local forwarding listening on 127.0.0.1 port {self.port}.", after=mark)
        wait_until(lambda: is_listening(self.port), "the server tells of the port just before it listens")
        return self

    def is_reachable(self) -> bool:
        try:
            self.connect().close()
        except ConnectionRefusedError:
            return False
        return True

    def connect(self) -> socket.socket:
        return socket.create_connection(("127.0.0.1", self.port), PATIENCE)

    @contextmanager
    def joined(self) -> Iterator[tuple[socket.socket, socket.socket]]:
        """A connection: its end at the server and its end at the gateway."""
        gate = Gate(self.local_port)
        try:
            with self.connect() as remote, gate.accept() as local:
                yield remote, local
        finally:
            gate.close()

    def children(self) -> list[int]:
        found = (STARTED.search(line) for line in self.road.bridge.log.since(self.mark))
        return [int(each[1]) for each in found if each]

    def child(self) -> int:
        return self.children()[-1]

    def wait_log(self, wanted: str, count: int = 1) -> str:
        return self.road.bridge.wait_for_log(wanted, after=self.mark, count=count)

    def wait_end(self) -> None:
        """The child leaves by itself."""
        self.wait_log(ENDED)
        wait_until(lambda: has_ended(self.child()), "the child has ended", SOON)

    def _lines(self, is_wanted: Callable[[int], bool]) -> list[tuple[str, str]]:
        found = (OWN_LINE.search(line) for line in self.road.bridge.log.since(self.mark))
        return [(each[2], each[3]) for each in found if each and is_wanted(int(each[1]))]

    def child_lines(self) -> list[tuple[str, str]]:
        """Levels and texts of the newest child."""
        return self._lines(lambda number: number == self.child())

    def lines(self) -> list[tuple[str, str]]:
        """Levels and texts of the daemon, without the children's numbers."""
        children = self.children()
        return [
            (level, re.sub(r"(started: |process \[)\d+", r"\1PID", text))
            for level, text in self._lines(lambda number: number not in children)
        ]

    def close(self) -> None:
        if self.road.bridge.running():
            self.stop()
            wait_until(
                lambda: self.road.command("isAnyoneThere") and all(map(is_gone, self.children())),
                "no child is left, not even as a zombie",
            )
        for child in self.children():
            if not has_ended(child):
                os.kill(child, signal.SIGKILL)


@pytest.fixture(scope="module")
def server(tmp_path_factory: pytest.TempPathFactory) -> Iterator[SshServer]:
    made = SshServer(tmp_path_factory.mktemp("server") / "sshd")
    yield made
    made.close()


def make_road(work: Path, agent: LabAgent, port: int, wait: int, **changes: dict[str, Any]) -> ControlRoad:
    return ControlRoad(work, agent, {"rev_ssh": {"local_port": port, "timeout": wait}, **changes})


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[tuple[ControlRoad, int]]:
    """A daemon without a tunnel, and the gateway's own port."""
    agent = start_agent(tmp_path_factory.mktemp("shared"))
    port = free_port()
    road = make_road(tmp_path_factory.mktemp("road"), agent, port, LONG_WAIT)
    yield road.wait_ready(), port
    road.close()
    agent.close()


@pytest.fixture
def tunnel(shared: tuple[ControlRoad, int], server: SshServer) -> Iterator[Tunnel]:
    road, port = shared
    made = Tunnel(road, server, port)
    yield made
    made.close()


# --- what goes through ---


def test_a_server_that_is_silent_is_asked_whether_it_lives(tunnel: Tunnel) -> None:
    tunnel.open()
    wait_until(lambda: is_kept_alive(tunnel.server.port), "a keep-alive")


def test_a_command_runs_on_the_gateway_through_the_tunnel(
    tunnel: Tunnel, tmp_path: Path, cleanup: Cleanup
) -> None:
    gateway = SshServer(tmp_path / "gateway", tunnel.local_port)
    cleanup.add(gateway)
    done = run_at(tmp_path, tunnel.open().port, "echo $SSH_CONNECTION; head -c 300000 /dev/zero; exit 7")
    assert done.returncode == 7, done.stderr.decode()
    where, _, zeros = done.stdout.partition(b"\n")
    assert where.split()[3].decode() == str(tunnel.local_port)
    assert zeros == bytes(300000)


def test_50_megabytes_go_to_the_gateway(tunnel: Tunnel) -> None:
    data = payload(LARGE)
    with tunnel.open().joined() as (remote, local), at_once(lambda: remote.sendall(data)):
        assert digest(receive(local, LARGE)) == digest(data)


def test_50_megabytes_come_from_the_gateway_before_it_closes(tunnel: Tunnel) -> None:
    data = payload(LARGE)

    with tunnel.open().joined() as (remote, local):

        def send() -> None:
            local.sendall(data)
            local.shutdown(socket.SHUT_WR)

        with at_once(send):
            assert digest(receive(remote, LARGE + 1)) == digest(data)


def test_50_megabytes_go_both_ways_at_once(tunnel: Tunnel) -> None:
    """The gateway's end answers while it reads: neither direction may wait for the other."""
    data = payload(LARGE)

    with tunnel.open().joined() as (remote, local):

        def echo() -> None:
            left = LARGE
            while left > 0 and (piece := local.recv(PIECE)):
                local.sendall(piece)
                left -= len(piece)

        with at_once(echo), at_once(lambda: remote.sendall(data)):
            assert digest(receive(remote, LARGE)) == digest(data)


def send_until_full(peer: socket.socket, data: bytes) -> int:
    """Until nothing has been taken for a while."""
    peer.settimeout(0.5)
    sent = 0
    try:
        while sent < len(data):
            sent += peer.send(data[sent : sent + PIECE])
    except TimeoutError:
        pass
    peer.settimeout(PATIENCE)
    return sent


@pytest.mark.parametrize("to_gateway", [True, False], ids=["to the gateway", "from the gateway"])
def test_an_end_that_does_not_read_holds_the_other_back_and_loses_nothing(
    tunnel: Tunnel, to_gateway: bool
) -> None:
    data = payload(LARGE)
    with tunnel.open().joined() as (remote, local):
        sender, receiver = (remote, local) if to_gateway else (local, remote)
        sent = send_until_full(sender, data)
        assert sent < LARGE, "the whole is buffered somewhere"
        with at_once(lambda: sender.sendall(data[sent:])):
            assert digest(receive(receiver, LARGE)) == digest(data)


@pytest.mark.parametrize("gateway_first", [True, False], ids=["gateway first", "client first"])
def test_ends_that_both_do_not_read_go_on_one_by_one(tunnel: Tunnel, gateway_first: bool) -> None:
    """A direction that is held up does not hold up the other."""
    data = payload(LARGE)
    with tunnel.open().joined() as (remote, local):
        ways = [(remote, local), (local, remote)]
        sent = [send_until_full(sender, data) for sender, _ in ways]
        assert max(sent) < LARGE
        for number in (0, 1) if gateway_first else (1, 0):
            assert digest(receive(ways[number][1], sent[number])) == digest(data[: sent[number]])
        for sender, receiver in ways:
            sender.sendall(b"and on")
            assert receive(receiver, 6) == b"and on"


def test_a_gateway_that_reads_late_gets_all_of_a_client_that_has_left(tunnel: Tunnel) -> None:
    data = payload(LARGE)
    with tunnel.open().joined() as (remote, local):
        sent = send_until_full(remote, data)
        remote.close()
        assert digest(receive(local, LARGE)) == digest(data[:sent])
    tunnel.wait_log(NEXT)


def test_what_the_gateway_sent_before_a_reset_arrives(tunnel: Tunnel) -> None:
    data = payload(50_000)
    with tunnel.open().joined() as (remote, local):
        os.kill(tunnel.child(), signal.SIGSTOP)
        try:
            local.sendall(data)
            reset(local)
        finally:
            os.kill(tunnel.child(), signal.SIGCONT)
        assert digest(receive(remote, len(data) + 1)) == digest(data)
    tunnel.wait_log(NEXT)
    assert ("WARN", "ssh: server disconnected") in tunnel.child_lines()


def unacknowledged(peer: socket.socket) -> int:
    """Bytes that have not reached the other end's system."""
    return int(struct.unpack("i", fcntl.ioctl(peer, termios.TIOCOUTQ, bytes(4)))[0])


def test_a_reset_while_the_client_does_not_read_costs_nothing_that_was_sent(tunnel: Tunnel) -> None:
    data = payload(LARGE)
    with tunnel.open().joined() as (remote, local):
        sent = send_until_full(local, data) - unacknowledged(local)
        reset(local)
        assert digest(receive(remote, LARGE)) == digest(data[:sent])
    tunnel.wait_log(NEXT)
    assert tunnel.child_lines().count(("WARN", "ssh: server disconnected")) == 1


def test_what_comes_for_a_gateway_that_has_left_disturbs_nobody(tunnel: Tunnel) -> None:
    data = payload(LARGE)
    tunnel.open()
    for number in range(1, 4):
        with tunnel.joined() as (remote, local):

            def send() -> None:
                with suppress(ConnectionError):
                    remote.sendall(data)

            with at_once(send):
                receive(local, PIECE)
                local.close()
        tunnel.wait_log(NEXT, count=number)
    with tunnel.joined() as (remote, local):
        remote.sendall(b"next")
        assert receive(local, 4) == b"next"


def test_a_client_that_ends_its_direction_ends_the_connection(tunnel: Tunnel) -> None:
    """The answer to such a client is lost, as there is no half of a connection in the tunnel."""
    with tunnel.open().joined() as (remote, local):
        remote.sendall(b"question")
        remote.shutdown(socket.SHUT_WR)
        assert receive(local, 100) == b"question"
        tunnel.wait_log(NEXT)
        assert receive(remote, 100) == b""


def test_connections_are_served_one_after_the_other(tunnel: Tunnel) -> None:
    tunnel.open()
    for number in range(1, 4):
        with tunnel.joined() as (remote, local):
            remote.sendall(b"number %d" % number)
            assert receive(local, 8) == b"number %d" % number
        tunnel.wait_log(NEXT, count=number)


def test_a_second_connection_waits_for_the_end_of_the_first(tunnel: Tunnel, cleanup: Cleanup) -> None:
    gate = Gate(tunnel.local_port)
    cleanup.add(gate)
    first = tunnel.open().connect()
    with first, gate.accept() as first_local, tunnel.connect() as second:
        second.sendall(b"second")
        for _ in range(20):  # round trips, behind which the second would have come
            first.sendall(b"?")
            assert receive(first_local, 1) == b"?"
        assert gate.is_idle()
        first.close()
        with gate.accept() as second_local:
            assert receive(second_local, 6) == b"second"


# --- start and stop ---


def test_the_log_of_a_tunnel(tunnel: Tunnel) -> None:
    with tunnel.open().joined() as (remote, local):
        local.close()
        assert receive(remote, 1) == b""
    tunnel.wait_log(NEXT)
    assert tunnel.stop().response == {"status": "ok"}
    assert tunnel.lines() == [
        ("INFO", "executing reverse SSH"),
        ("DEBUG", "ssh child process started: PID"),
        ("INFO", "trying to stop reverse SSH"),
    ]
    assert tunnel.child_lines() == [
        *LOGIN,
        CONNECTED,
        ("WARN", "ssh: eof on socket"),
        ("INFO", NEXT),
    ]


def test_a_second_start_is_refused_while_a_tunnel_runs(tunnel: Tunnel) -> None:
    tunnel.open()
    assert tunnel.start(sshRevPort=free_port()).response == {"status": IN_PROGRESS}
    assert ("ERROR", "reverse ssh process is still running") in tunnel.lines()
    assert len(tunnel.children()) == 1
    with tunnel.joined() as (remote, local):
        remote.sendall(b"still there")
        assert receive(local, 11) == b"still there"


def test_a_stop_without_a_tunnel(tunnel: Tunnel) -> None:
    answer = tunnel.stop()
    assert answer.text.endswith('"response":{"status":"No such process"}}')
    assert tunnel.lines() == [
        ("INFO", "trying to stop reverse SSH"),
        ("ERROR", "reverse SSH is not running"),
    ]


def test_a_stop_ends_a_connection_and_the_next_tunnel_gets_the_same_port(tunnel: Tunnel) -> None:
    with tunnel.open().joined() as (remote, _):
        assert tunnel.stop().response == {"status": "ok"}
        assert receive(remote, 1) == b""
    first = tunnel.child()
    wait_until(lambda: tunnel.road.command("isAnyoneThere") and is_gone(first), "no zombie is left")
    assert tunnel.stop().response == {"status": NO_SUCH_PROCESS}
    wait_until(lambda: not tunnel.is_reachable(), "the server has closed the port")
    with tunnel.open().joined() as (remote, local):
        remote.sendall(b"again")
        assert receive(local, 5) == b"again"


def test_the_child_holds_nothing_of_the_daemon(tunnel: Tunnel) -> None:
    folder = Path(f"/proc/{tunnel.open().child()}/fd")
    opened = {int(each.name): os.readlink(each) for each in folder.iterdir()}
    others = [target for number, target in opened.items() if number > 2]
    assert len(others) == 1 and others[0].startswith("socket:"), "only the connection to the server"


# --- parameters ---


def without(key: str) -> dict[str, Optional[object]]:
    return {key: None}


TOO_LONG = [{"username": "u" * 256}, {"password": "p" * 256}, {"sshHost": "h" * 256}]


@pytest.mark.parametrize(
    "changes",
    [*map(without, ("username", "password", "sshHost", "sshRevPort", "sshPort")), *TOO_LONG],
    ids=lambda each: str(each)[:30],
)
def test_parameters_that_cannot_be_read_are_refused(tunnel: Tunnel, changes: dict[str, object]) -> None:
    assert tunnel.start(**changes).response == {"status": INVALID}
    assert tunnel.lines() == [
        ("INFO", "executing reverse SSH"),
        ("ERROR", "failed to deserialize parameters"),
    ]


@pytest.mark.parametrize(
    "params",
    [
        "null",
        "[]",
        "1",
        '"text"',
        '{"username":null,"password":null,"sshHost":null,"sshPort":1,"sshRevPort":1}',
    ],
)
def test_parameters_of_another_kind_are_refused(tunnel: Tunnel, params: str) -> None:
    number = 77
    mark = tunnel.road.peer.mark()
    tunnel.road.publish(
        json.dumps(request("reverseSsh", "PARAMS", number)).replace('"PARAMS"', params).encode()
    )
    wait_until(lambda: tunnel.road.answers(mark), "an answer")
    assert tunnel.road.answers(mark)[0].response == {"status": INVALID}


def test_numbers_may_be_given_as_texts(tunnel: Tunnel) -> None:
    with tunnel.open(sshPort=str(tunnel.server.port), sshRevPort=str(tunnel.port)).joined() as (
        remote,
        local,
    ):
        remote.sendall(b"!")
        assert receive(local, 1) == b"!"


# --- failures of the child ---

NOT_FORWARDED = "ssh: Error opening remote port: Channel request tcpip-forward failed"
DENIED = "ssh: error authenticating with password: Access denied"

# What is wrong, whether the login succeeds, and how the error begins.
FAILURES = [
    ({"password": "wrong"}, False, DENIED),
    ({"password": ""}, False, DENIED),
    ({"password": "p" * 255}, False, DENIED),
    ({"password": 5}, False, DENIED),
    ({"username": "stranger"}, False, DENIED),
    ({"username": True}, False, DENIED),
    ({"sshHost": "no.such.host"}, False, "ssh: error connecting to no.such.host:{port}: "),
    ({"sshHost": "h" * 255}, False, f"ssh: error connecting to {'h' * 255}:{{port}}: "),
    ({"sshHost": ""}, False, "ssh: error connecting to :{port}: "),
    ({"sshPort": 1}, False, "ssh: error connecting to 127.0.0.1:1: Connection refused"),
    ({"sshPort": 0}, False, "ssh: error connecting to 127.0.0.1:0: "),
    ({"sshPort": "ssh"}, False, "ssh: error connecting to 127.0.0.1:0: "),
    ({"sshPort": []}, False, "ssh: error connecting to 127.0.0.1:0: "),
    ({"sshPort": -1}, False, "ssh: error connecting to 127.0.0.1:-1: "),
    ({"sshPort": 65536 + 22}, False, "ssh: error connecting to 127.0.0.1:65558: "),
    ({"sshPort": 2**32 + 22}, False, "ssh: error connecting to 127.0.0.1:4294967318: "),
    ({"sshRevPort": 80}, True, "ssh: Error opening remote port: "),
    ({"sshRevPort": -1}, True, "ssh: Error opening remote port: "),
    ({"sshRevPort": 65536 + 8022}, True, "ssh: Error opening remote port: "),
]


@pytest.mark.parametrize("changes, logs_in, error", FAILURES, ids=lambda each: str(each)[:30])
def test_a_tunnel_that_cannot_be_opened_is_told_in_the_log_alone(
    tunnel: Tunnel, changes: dict[str, object], logs_in: bool, error: str
) -> None:
    assert tunnel.start(**changes).response == {"status": "ok"}
    tunnel.wait_end()
    *begin, (level, text), end = tunnel.child_lines()
    assert begin == [*LOGIN, *([CONNECTED] if logs_in else [])]
    assert level == "ERROR" and text.startswith(error.format(port=tunnel.server.port)), text
    assert end == ("INFO", ENDED)


def test_a_start_finds_that_the_tunnel_before_has_ended(tunnel: Tunnel) -> None:
    tunnel.start(password="wrong")
    tunnel.wait_end()
    tunnel.open()
    assert ("DEBUG", "reverse ssh process [PID] is no longer running") in tunnel.lines()
    assert is_gone(tunnel.children()[0])


def test_a_stop_finds_that_the_tunnel_has_ended(tunnel: Tunnel) -> None:
    tunnel.start(password="wrong")
    tunnel.wait_end()
    assert tunnel.stop().response == {"status": "ok"}
    assert tunnel.lines()[-1] == ("DEBUG", "reverse SSH process already stopped")
    assert is_gone(tunnel.child())
    assert tunnel.stop().response == {"status": NO_SUCH_PROCESS}


def test_the_first_connection_to_a_closed_local_port_ends_the_tunnel(tunnel: Tunnel) -> None:
    with tunnel.open().connect() as remote:
        assert receive(remote, 1) == b""
    tunnel.wait_end()
    refused = f"ssh: failed to connect to local SSH port {tunnel.local_port}: Connection refused"
    assert tunnel.child_lines()[-3:] == [CONNECTED, ("ERROR", refused), ("INFO", ENDED)]


def test_a_server_that_is_killed_ends_a_tunnel_that_waits(
    shared: tuple[ControlRoad, int], tmp_path: Path, cleanup: Cleanup
) -> None:
    server = SshServer(tmp_path / "mortal")
    cleanup.add(server)
    tunnel = Tunnel(shared[0], server, shared[1])
    cleanup.add(tunnel)
    with tunnel.open().joined():
        pass
    tunnel.wait_log(NEXT)
    server.kill()
    tunnel.wait_end()
    level, text = tunnel.child_lines()[-2]
    assert level == "ERROR" and text.startswith("ssh: error waiting for incoming connection: ")


def test_a_server_that_is_killed_ends_a_connection_and_the_tunnel(
    shared: tuple[ControlRoad, int], tmp_path: Path, cleanup: Cleanup
) -> None:
    server = SshServer(tmp_path / "mortal")
    cleanup.add(server)
    tunnel = Tunnel(shared[0], server, shared[1])
    cleanup.add(tunnel)
    with tunnel.open().joined() as (_, local):
        server.kill()
        assert receive(local, 1) == b""
    tunnel.wait_end()
    (exception, *others) = tunnel.child_lines()[-4:]
    assert re.fullmatch(r"ssh: dopoll\(\) received exception \[\d+\]:.+, stopping reverse SSH", exception[1])
    assert exception[0] == "DEBUG"
    assert others == [("INFO", NEXT), ("ERROR", NO_CONNECTION), ("INFO", ENDED)]


# --- daemons of a test's own ---


def test_a_tunnel_to_which_nobody_comes_ends(
    tmp_path: Path, agent: LabAgent, server: SshServer, cleanup: Cleanup
) -> None:
    road = make_road(tmp_path / "road", agent, free_port(), SHORT_WAIT).wait_ready()
    cleanup.add(road)
    tunnel = Tunnel(road, server, free_port())
    cleanup.add(tunnel)
    tunnel.start()
    tunnel.wait_end()
    assert tunnel.child_lines()[-3:] == [CONNECTED, ("ERROR", NO_CONNECTION), ("INFO", ENDED)]
    waited = log_time(tunnel.wait_log(ENDED)) - log_time(tunnel.wait_log(CONNECTED[1]))
    assert SHORT_WAIT - 0.1 <= waited < SHORT_WAIT + LATE


def test_a_tunnel_outlives_its_daemon_and_leaves_all_ports_to_the_next(
    tmp_path: Path,
    agent: LabAgent,
    server: SshServer,
    cleanup: Cleanup,
    make_broker: Callable[..., Mosquitto],
) -> None:
    changes: Sections = {"ns": {"url": make_broker().url}, "generic": {"status_http_port": free_port()}}
    port = free_port()
    road = make_road(tmp_path / "road", agent, port, LONG_WAIT, **changes).wait_ready()
    cleanup.add(road)
    tunnel = Tunnel(road, server, port)
    cleanup.add(tunnel)
    road.bridge.wait_connected()
    tunnel.open()
    child = tunnel.child()
    road.bridge.signal(signal.SIGUSR2)
    assert road.bridge.process.wait(PATIENCE) == 0

    following = Bridge(tmp_path / "road", ["-c", str(tmp_path / "road" / "bridge.toml"), "-d", "-v", "4"])
    cleanup.add(following)
    following.wait_connected()
    with tunnel.joined() as (remote, local):
        remote.sendall(b"still there")
        assert receive(local, 11) == b"still there"
    os.kill(child, signal.SIGTERM)
    wait_until(lambda: has_ended(child), "the tunnel has ended")
    road.bridge.wait_exit()

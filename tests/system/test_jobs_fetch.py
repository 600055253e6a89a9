"""Files that the gateway takes from a server: what lies in its folders then, and what the OA&M server hears."""
import json
import os
import signal
import socket
import subprocess
import time
from contextlib import contextmanager
from pathlib import Path
from typing import Callable, Iterator

import pytest

from conftest import Cleanup
from file_jobs import (
    DENIED,
    FETCH,
    FIRMWARE,
    INVALID,
    IO_ERROR,
    LINK,
    MIB,
    NO_SUCH_FILE,
    NO_SUCH_PROCESS,
    RUNNING,
    SHM,
    STREAM,
    TOO_LONG,
    FileGateway,
    JobKind,
    children,
    content_of,
    file_gateway,
    is_ended,
    refusal,
    sockets,
)
from harness.control import COMMANDS, STARTED, control_on, request
from harness.dialects import NATIVE
from harness.http_server import Fault, FileServer, faulty, https_server, wait_request
from harness.lab import LabAgent
from harness.ports import free_port
from harness.road import Road
from harness.tcp import is_kept_alive
from harness.waiting import wait_until

STOP_WAIT_S = 3
MODEM = f"{SHM}/modem_downloads"
AUTHORITIES = "etc/ssl/certs/ca-certificates.crt"


@pytest.fixture(scope="module")
def gateway(tmp_path_factory: pytest.TempPathFactory) -> Iterator[FileGateway]:
    with file_gateway(tmp_path_factory) as made:
        yield made


def fetch(gateway: FileGateway, path: str, url: str) -> str:
    return gateway.run(FETCH, path=path, url=url)


# --- what lies there then ---


@pytest.mark.parametrize("size", [0, 1, 4095, 4096, 4097, 5 * MIB + 1])
def test_the_file_is_what_the_server_gives(gateway: FileGateway, size: int) -> None:
    content = content_of(size)
    mark = gateway.log
    url = gateway.http.offer(f"/files/{size}.bin", content)
    assert fetch(gateway, "shm/data.bin", url) == "ok"
    assert gateway.inside(f"{SHM}/data.bin").read_bytes() == content
    log = gateway.road.bridge
    log.wait_for_log("curl: starting file fetch to /dev/shm/data.bin", after=mark)
    log.wait_for_log(f"curl: new url: {url}", after=mark)
    assert "Authorization" not in gateway.http.requests[-1].headers


def test_a_hundred_megabytes_are_fetched(gateway: FileGateway) -> None:
    content = content_of(100 * MIB)
    assert fetch(gateway, "shm/large.bin", gateway.http.offer("/large.bin", content)) == "ok"
    file = gateway.inside(f"{SHM}/large.bin")
    assert file.read_bytes() == content
    file.unlink()


@pytest.mark.parametrize(
    "path, real",
    [
        ("shm/a", f"{SHM}/a"),
        ("firmware/image.bin", f"{FIRMWARE}/image.bin"),
        ("firmware/opkg/p.ipk", f"{FIRMWARE}/opkg/p.ipk"),
        ("modem/fw.bin", f"{MODEM}/fw.bin"),
        ("config/a.json", "etc/default/a.json"),
        ("config/mqtt-1.conf", "etc/default/mqtt-1.conf"),
        ("shm/../config/x-feed.conf", "etc/opkg/x-feed.conf"),
        ("config/awsiot-tunnel.token", "etc/awsiot/awsiot-tunnel.token"),
        ("config/cups.key", "etc/bstn/cups.key"),
    ],
)
def test_each_row_that_may_be_written_takes_a_file(gateway: FileGateway, path: str, real: str) -> None:
    file = gateway.inside(real)
    file.parent.mkdir(parents=True, exist_ok=True)
    assert fetch(gateway, path, gateway.http.offer("/a", b"content")) == "ok"
    assert file.read_bytes() == b"content"


@pytest.mark.parametrize(
    "name",
    ["two words", "größe-日本", "100%s%n", "-rf", ".hidden", 'say "it"', "line\nend", "n" * 254, "n" * 255],
    ids=lambda name: repr(name)[:20],
)
def test_a_file_may_have_any_name(gateway: FileGateway, name: str) -> None:
    assert fetch(gateway, f"shm/{name}", gateway.http.offer("/a", b"content")) == "ok"
    file = gateway.inside(f"{SHM}/{name}")
    assert file.read_bytes() == b"content"
    file.unlink()


def test_an_older_file_is_replaced_whole(gateway: FileGateway) -> None:
    file = gateway.put(f"{SHM}/data.bin", b"older and longer")
    file.chmod(0o640)
    assert fetch(gateway, "shm/data.bin", gateway.http.offer("/a", b"new")) == "ok"
    assert file.read_bytes() == b"new" and file.stat().st_mode & 0o777 == 0o640


@pytest.mark.parametrize("url", ["file:///etc/hosts", "FILE:///etc/hosts", "dict://127.0.0.1/x", "gopher://127.0.0.1/"])
def test_a_url_that_leads_to_no_server_of_files_is_refused(gateway: FileGateway, url: str) -> None:
    """Nothing outside the file tree comes into it from the gateway itself."""
    log = gateway.log
    assert gateway.run(FETCH, path="firmware/taken", url=url) == IO_ERROR
    gateway.road.bridge.wait_for_log("curl: failed to initialize URL object", after=log)
    assert gateway.inside(f"{FIRMWARE}/taken").read_bytes() == b""


def test_a_url_may_come_without_its_scheme(gateway: FileGateway) -> None:
    gateway.http.offer("/a", b"content")
    mark = gateway.log
    assert fetch(gateway, "shm/data.bin", f"{gateway.http.address}/a") == "ok"
    assert gateway.inside(f"{SHM}/data.bin").read_bytes() == b"content"
    gateway.road.bridge.wait_for_log(f"curl: new url: http://{gateway.http.address}/a", after=mark)


def test_a_url_of_4095_characters_fits(gateway: FileGateway) -> None:
    url = gateway.http.offer("/" + "u" * (4094 - len(gateway.http.url)), b"content")
    assert len(url) == 4095
    assert fetch(gateway, "shm/data.bin", url) == "ok"
    assert gateway.inside(f"{SHM}/data.bin").read_bytes() == b"content"


def test_the_steps_of_a_fetch_are_logged(gateway: FileGateway) -> None:
    url, mark = gateway.http.offer("/a", b"content"), gateway.log
    job = gateway.start(FETCH, path="shm/data.bin", url=gateway.http.address + "/a")
    assert gateway.outcome(job) == "ok"
    gateway.told_in_order(
        job,
        mark,
        "slave process started",
        "curl: starting file fetch to /dev/shm/data.bin",
        f"curl: fetch URL: {gateway.http.address}/a",
        f"curl: new url: {url}",
        "curl: perform request",
        "curl: done",
        f"sending async response: {gateway.late_texts(job)[0]}",
        "response handler done",
    )


# --- a place that cannot be written ---


@pytest.mark.parametrize(
    "path, status, complaint",
    [
        ("logs/a.log", DENIED, FETCH.refused_right),
        ("logs/a.txt", DENIED, FETCH.refused_right),
        ("logs_bkp/a.gz", DENIED, FETCH.refused_right),
        ("scripts/a.sh", DENIED, FETCH.refused_right),
        ("config/a.conf", NO_SUCH_FILE, "failed to get file entry for: "),
        ("firmware", NO_SUCH_FILE, "failed to get file entry for: "),
        ("shm/deep/a", NO_SUCH_FILE, "failed to get file entry for: "),
        ("../etc/passwd", NO_SUCH_FILE, "failed to get file entry for: "),
        ("", NO_SUCH_FILE, "failed to get file entry for: "),
    ],
)
def test_a_path_without_the_right_to_write_starts_nothing(
    gateway: FileGateway, path: str, status: str, complaint: str
) -> None:
    response, errors = gateway.refused(FETCH, {"path": path, "url": gateway.http.url})
    assert response == refusal(status)
    assert [line.partition("] ")[2].partition(" ")[2] for line in errors][-2:] == [
        complaint + path,
        FETCH.refused_start,
    ]


@pytest.mark.parametrize(
    "path, status",
    [
        ("shm/modem_downloads", "Is a directory"),
        ("config/no-such-folder.key", NO_SUCH_FILE),
        ("shm/" + "n" * 256, TOO_LONG),
        ("shm/link", LINK),
        ("shm/dangling", LINK),
    ],
    ids=lambda each: each[:30],
)
def test_a_file_that_cannot_be_opened_is_told_late(gateway: FileGateway, path: str, status: str) -> None:
    keys, away = gateway.inside("etc/bstn"), gateway.inside("etc/bstn.away")
    if keys.exists():
        keys.rename(away)
    for name, target in (("link", "/etc/hosts"), ("dangling", "/etc/made")):
        link = gateway.inside(f"{SHM}/{name}")
        if not link.is_symlink():
            link.symlink_to(target)
    hosts, mark = gateway.inside("etc/hosts").read_bytes(), gateway.log
    requests = len(gateway.http.requests)
    assert fetch(gateway, path, gateway.http.offer("/a", b"content")) == status
    gateway.road.bridge.wait_for_log(f"curl: failed to open file for writing: {status}", after=mark)
    assert len(gateway.http.requests) == requests, "the server is asked all the same"
    assert gateway.inside("etc/hosts").read_bytes() == hosts and not gateway.inside("etc/made").exists()
    if away.exists():
        away.rename(keys)


@contextmanager
def small_disk(gateway: FileGateway, path: str, size: str) -> Iterator[None]:
    """A file system of so many bytes in the daemon's own root."""
    enter = ["nsenter", "--target", str(gateway.pid), "--mount"]
    if os.geteuid() != 0:
        enter += ["--user", "--preserve-credentials"]
    subprocess.run([*enter, "mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", f"/{path}"], check=True)
    try:
        yield
    finally:
        subprocess.run([*enter, "umount", f"/{path}"], check=True)


def test_a_full_disk_fails_the_fetch_and_keeps_what_has_come(gateway: FileGateway) -> None:
    content = content_of(MIB)
    url = gateway.http.offer("/a", content)
    mark = gateway.log
    with small_disk(gateway, MODEM, "256k"):
        assert fetch(gateway, "modem/fw.bin", url) == IO_ERROR
        kept = gateway.inside(f"{MODEM}/fw.bin").read_bytes()
    assert 0 < len(kept) <= 256 * 1024 and kept == content[: len(kept)]
    gateway.road.bridge.wait_for_log("curl: easy_perform() failed: Failed writing received data", after=mark)


def test_the_last_bytes_that_find_no_room_fail_the_fetch_too(gateway: FileGateway) -> None:
    url = gateway.http.offer("/a", content_of(4096 + 10))
    with small_disk(gateway, MODEM, "4k"):
        assert fetch(gateway, "modem/fw.bin", url) == IO_ERROR


# --- servers ---


def test_what_has_come_of_a_broken_transfer_stays(gateway: FileGateway) -> None:
    content = content_of(MIB)
    url = gateway.http.offer("/a", content)
    mark = gateway.log
    with faulty(gateway.http, Fault.BREAKS):
        assert fetch(gateway, "shm/data.bin", url) == IO_ERROR
    assert gateway.inside(f"{SHM}/data.bin").read_bytes() == content[: MIB // 2]
    bridge = gateway.road.bridge
    bridge.wait_for_log("curl: easy_perform() failed: Transferred a partial file", after=mark)
    assert not bridge.log.find("deleteing incomplete file", after=mark)


def test_the_page_of_a_missing_file_is_taken_for_it(gateway: FileGateway) -> None:
    assert fetch(gateway, "shm/data.bin", f"{gateway.http.url}/missing") == "ok"
    assert gateway.inside(f"{SHM}/data.bin").read_bytes() == b"no such file\n"


@pytest.mark.parametrize(
    "url, words",
    [
        ("http://127.0.0.1:{free}/a", "curl: easy_perform() failed: Couldn't connect to server"),
        ("http://no.such.host.invalid/a", "curl: easy_perform() failed: Couldn't resolve host name"),
        ("", "curl: failed to initialize URL object"),
        ("http://", "curl: failed to initialize URL object"),
        ("http://a b/", "curl: failed to initialize URL object"),
    ],
)
def test_a_server_that_cannot_be_asked_fails_the_fetch_and_leaves_an_empty_file(
    gateway: FileGateway, url: str, words: str
) -> None:
    file, mark = gateway.put(f"{SHM}/data.bin", b"older"), gateway.log
    assert fetch(gateway, "shm/data.bin", url.format(free=free_port())) == IO_ERROR
    gateway.road.bridge.wait_for_log(words, after=mark)
    assert file.read_bytes() == b""


def test_a_server_of_https_must_be_trusted(gateway: FileGateway, tmp_path: Path, cleanup: Cleanup) -> None:
    server, other = https_server(tmp_path / "server"), https_server(tmp_path / "other")
    for each in (server, other):
        cleanup.add(each)
    assert server.certificate
    gateway.put(AUTHORITIES, server.certificate.read_bytes())
    assert fetch(gateway, "shm/data.bin", server.offer("/a", b"content")) == "ok"
    assert gateway.inside(f"{SHM}/data.bin").read_bytes() == b"content"
    mark = gateway.log
    assert fetch(gateway, "shm/data.bin", other.offer("/a", b"content")) == IO_ERROR
    gateway.road.bridge.wait_for_log("curl: easy_perform() failed: SSL peer certificate", after=mark)
    assert not other.requests and gateway.inside(f"{SHM}/data.bin").read_bytes() == b""


@pytest.mark.parametrize("kind", [STREAM, FETCH], ids=lambda kind: kind.start)
def test_a_server_that_is_silent_is_asked_whether_it_lives(gateway: FileGateway, kind: JobKind) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    url = gateway.http.offer("/a", content_of(MIB))
    with faulty(gateway.http, Fault.STALLS):
        requests = len(gateway.http.requests)
        job = gateway.start(kind, path="shm/data.bin", url=url, offset=0, size=7)
        wait_request(gateway.http, after=requests)
        wait_until(lambda: is_kept_alive(gateway.http.port), "a keep-alive")
        gateway.end(job)


# --- the library ---


def test_the_library_is_in_the_job_and_not_in_the_daemon(gateway: FileGateway) -> None:
    url = gateway.http.offer("/a", content_of(MIB))
    with faulty(gateway.http, Fault.STALLS):
        job = gateway.start(FETCH, path="shm/data.bin", url=url)
        wait_request(gateway.http)
        wait_until(lambda: "libcurl" in Path(f"/proc/{job.pid}/maps").read_text(), "the library in the job")
        assert "libcurl" not in Path(f"/proc/{gateway.pid}/maps").read_text()
        gateway.end(job)


@pytest.mark.parametrize("kind", [STREAM, FETCH], ids=lambda kind: kind.start)
def test_without_the_library_jobs_fail_and_the_daemon_goes_on(
    tmp_path: Path, cleanup: Cleanup, kind: JobKind
) -> None:
    gateway = FileGateway(tmp_path, {"LD_LIBRARY_PATH": "/tmp"})
    cleanup.add(gateway)
    gateway.put("tmp/libcurl.so.4", b"no library")
    file, mark = gateway.put(f"{SHM}/data.bin", b"content"), gateway.log
    assert gateway.run(kind, path="shm/data.bin", url=gateway.http.url, offset=0, size=7) == IO_ERROR
    gateway.road.bridge.wait_for_log("curl: failed to load library: ", after=mark)
    assert not gateway.http.requests
    assert file.read_bytes() == (b"" if kind is FETCH else b"content")
    assert gateway.road.command("isAnyoneThere").json["error"] == "not_supported"


# --- one at a time, and stopping ---


def test_a_fetch_in_the_middle_can_be_stopped_and_leaves_its_part(gateway: FileGateway) -> None:
    content = content_of(64 * MIB)
    url = gateway.http.offer("/slow", content)
    with faulty(gateway.http, Fault.SLOW):
        requests = len(gateway.http.requests)
        job = gateway.start(FETCH, path="shm/data.bin", url=url)
        wait_request(gateway.http, after=requests, sent=1)
        file = gateway.inside(f"{SHM}/data.bin")
        wait_until(lambda: file.stat().st_size, "the first bytes")
        response, errors = gateway.refused(FETCH, {"path": "shm/other", "url": url})
        assert response == refusal(RUNNING) and errors[-1].endswith(FETCH.still_running)
        mark = gateway.log
        assert gateway.stop(FETCH, job.pid + 1) == refusal(INVALID)
        gateway.road.bridge.wait_for_log(f"{FETCH.wrong_id}{job.pid + 1}", after=mark)
        assert not is_ended(job.pid)
        own, daemons = sockets(job.pid), sockets(gateway.pid)
        assert own and daemons and not own & daemons
        begin = time.monotonic()
        assert gateway.stop(FETCH, job.pid) == refusal("ok")
        assert time.monotonic() - begin >= STOP_WAIT_S
    kept = file.read_bytes()
    assert 0 < len(kept) < len(content) and content.startswith(kept)
    assert job.pid not in children(gateway.pid) and not gateway.late_texts(job)
    assert gateway.stop(FETCH, job.pid) == refusal(NO_SUCH_PROCESS)
    gateway.road.bridge.wait_for_log(FETCH.nothing_to_stop, after=mark)


def test_one_that_is_over_stops_at_once(gateway: FileGateway) -> None:
    job = gateway.start(FETCH, path="shm/data.bin", url=gateway.http.offer("/a", b"content"))
    assert gateway.outcome(job) == "ok"
    mark, begin = gateway.log, time.monotonic()
    assert gateway.stop(FETCH, job.pid) == refusal("ok")
    assert time.monotonic() - begin < STOP_WAIT_S
    gateway.road.bridge.wait_for_log(FETCH.over, after=mark)


def test_a_stream_may_run_beside_a_fetch(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/own.bin", b"content")
    url = gateway.http.offer("/a", b"other")
    with faulty(gateway.http, Fault.SILENT):
        requests = len(gateway.http.requests)
        waiting = gateway.start(FETCH, path="shm/data.bin", url=url)
        wait_request(gateway.http, after=requests)
    params = {"url": gateway.http.url, "path": "shm/own.bin", "offset": 0, "size": 7}
    assert gateway.run(STREAM, **params) == "ok"
    assert not is_ended(waiting.pid)
    gateway.end(waiting)
    mark = gateway.log
    assert fetch(gateway, "shm/data.bin", url) == "ok", "the one before has ended without an answer"
    gateway.road.bridge.wait_for_log(f"process [{waiting.pid}] was ended by signal 15", after=mark)


def test_many_jobs_leave_no_descriptor_and_no_process(gateway: FileGateway) -> None:
    url = gateway.http.offer("/a", b"content")
    assert fetch(gateway, "shm/data.bin", url) == "ok"
    before = (gateway.road.bridge.resources()[0], len(children(gateway.pid)))
    for _ in range(20):
        assert fetch(gateway, "shm/data.bin", url) == "ok"
    assert (gateway.road.bridge.resources()[0], len(children(gateway.pid))) == before


# --- bad requests ---

WHOLE: dict[str, object] = {"path": "shm/data.bin", "url": "127.0.0.1"}


@pytest.mark.parametrize(
    "given",
    [
        None,
        [],
        "text",
        {},
        {"path": "shm/data.bin"},
        {"url": "127.0.0.1"},
        WHOLE | {"path": None},
        WHOLE | {"url": None},
        WHOLE | {"url": "u" * 4096},
        WHOLE | {"path": "p" * 4096},
    ],
    ids=lambda given: str(given)[:40],
)
def test_a_request_that_lacks_something_starts_nothing(gateway: FileGateway, given: object) -> None:
    response, errors = gateway.refused(FETCH, given)
    assert response == refusal(INVALID)
    assert errors[-1].endswith(FETCH.refused_params)


@pytest.mark.parametrize("kind", [STREAM, FETCH], ids=lambda kind: kind.start)
def test_a_request_number_must_fit(gateway: FileGateway, kind: JobKind) -> None:
    params = {"url": "127.0.0.1", "path": "shm/data.bin", "offset": 0, "size": 1}
    for given in ("n" * 256, None):
        mark, log = gateway.road.peer.mark(), gateway.log
        gateway.road.publish(str_request(kind, params, given))
        gateway.road.peer.wait_for(lambda each: each.payload.endswith(b'"Invalid argument"}}\0'), after=mark)
        gateway.road.bridge.wait_for_log(kind.refused_params, after=log)


def str_request(kind: JobKind, params: object, number: object) -> bytes:
    return json.dumps(request(kind.start, params, number)).encode()


def test_a_text_ends_at_its_nul(gateway: FileGateway) -> None:
    url = gateway.http.offer("/a", b"content")
    _, response = gateway.ask(FETCH.start, {"path": "shm/cut\0off", "url": url})
    assert '"status":"ok"' in response
    file = gateway.inside(f"{SHM}/cut")
    wait_until(lambda: file.exists() and file.read_bytes() == b"content", "the file")
    job_pid = children(gateway.pid)[0]
    wait_until(lambda: is_ended(job_pid), "the job's end")


# --- the end of the daemon ---


def is_port_free(port: int) -> bool:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind(("0.0.0.0", port))
        except OSError:
            return False
    return True


@pytest.mark.parametrize("kind", [STREAM, FETCH], ids=lambda kind: kind.start)
def test_a_daemon_ends_at_once_while_a_job_goes_on_and_its_port_is_free(
    own_road: Callable[..., Road], agent: LabAgent, cleanup: Cleanup, kind: JobKind
) -> None:
    http = FileServer()
    cleanup.add(http)
    road = own_road(NATIVE, control=control_on(agent.address)).wait_ready()
    road.bridge.wait_for_log(STARTED)
    assert not is_port_free(road.udp_port)
    daemon = road.bridge.process
    Path(f"/proc/{daemon.pid}/root/{SHM}/data.bin").write_bytes(bytes(8 * MIB))
    http.fault = Fault.STALLS
    params = {"url": http.url, "path": "shm/data.bin", "offset": 0, "size": 8 * MIB}
    road.peer.publish(COMMANDS, json.dumps(request(kind.start, params, 1)).encode())
    wait_request(http)
    (job,) = children(daemon.pid)
    try:
        begin = time.monotonic()
        road.bridge.ask_to_stop()
        assert time.monotonic() - begin < STOP_WAIT_S
        assert is_port_free(road.udp_port)
        assert not is_ended(job)
    finally:
        os.kill(job, signal.SIGTERM)  # it holds the pipes of the daemon's lines
    assert road.bridge.wait_exit() == 0

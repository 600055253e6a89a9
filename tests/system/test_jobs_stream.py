"""Files that the gateway sends to a server: what arrives there, and what the OA&M server hears of it."""
import hashlib
import re
import signal
import time
from pathlib import Path
from typing import Iterator

import pytest

from conftest import Cleanup
from file_jobs import (
    DENIED,
    FIRMWARE,
    INVALID,
    IO_ERROR,
    LINK,
    LOGS,
    MIB,
    NO_SUCH_FILE,
    NO_SUCH_PROCESS,
    PARAMS_LOST,
    RUNNING,
    SHM,
    STREAM,
    TOO_LONG,
    FileGateway,
    Job,
    children,
    content_of,
    file_gateway,
    is_ended,
    refusal,
    sockets,
)
from harness.config import GW_MAC
from harness.control import PIPE
from harness.http_server import Fault, Request, faulty, https_server, wait_request
from harness.ports import free_port
from harness.waiting import wait_until

PAGE = 4096
STOP_WAIT_S = 3
TIMESTAMP = f"{FIRMWARE}/.snv_bridge.tmst"
AUTHORITIES = "etc/ssl/certs/ca-certificates.crt"


@pytest.fixture(scope="module")
def gateway(tmp_path_factory: pytest.TempPathFactory) -> Iterator[FileGateway]:
    with file_gateway(tmp_path_factory) as made:
        yield made


def params(gateway: FileGateway, path: str, size: int, offset: int = 0, url: str = "") -> dict[str, object]:
    return {"url": url or gateway.http.url, "path": path, "offset": offset, "size": size}


def streamed(gateway: FileGateway, path: str, size: int, offset: int = 0, url: str = "") -> Request:
    """What the server has got of a stream that ends well. It is never asked first whether it wants a file."""
    mark = len(gateway.http.requests)
    assert gateway.run(STREAM, **params(gateway, path, size, offset, url)) == "ok"
    (request,) = gateway.http.requests[mark:]
    assert request.whole, request.problem
    assert "Expect" not in request.headers
    return request


def begun(gateway: FileGateway, path: str, size: int) -> Job:
    """A job of which the server has seen the beginning."""
    mark = len(gateway.http.requests)
    job = gateway.start(STREAM, **params(gateway, path, size))
    wait_request(gateway.http, after=mark)
    return job


# --- what the server gets ---


@pytest.mark.parametrize(
    "length, offset, size",
    [
        (1, 0, 1),
        (4095, 0, 4095),
        (4096, 0, 4096),
        (4097, 0, 4097),
        (300, 100, 50),
        (100, 99, 1),
        (3 * PAGE, PAGE - 1, PAGE + 2),
        (3 * PAGE, 2 * PAGE, PAGE),
        (MIB + 1, 1, MIB),
    ],
)
def test_just_the_bytes_that_were_asked_for_arrive(
    gateway: FileGateway, length: int, offset: int, size: int
) -> None:
    content = content_of(length)
    gateway.put(f"{SHM}/data.bin", content)
    mark = gateway.log
    part = streamed(gateway, "shm/data.bin", size, offset).part("filedata")
    wanted = content[offset : offset + size]
    assert (part.size, part.sha256) == (size, hashlib.sha256(wanted).hexdigest())
    gateway.road.bridge.wait_for_log(
        f"curl: starting file stream shm/data.bin with offset [{offset}] and size [{size}]", after=mark
    )


def test_a_hundred_megabytes_arrive_without_a_question_beforehand(gateway: FileGateway) -> None:
    content = content_of(100 * MIB)
    file = gateway.put(f"{SHM}/large.bin", content)
    part = streamed(gateway, "shm/large.bin", len(content)).part("filedata")
    file.unlink()
    assert (part.size, part.sha256) == (len(content), hashlib.sha256(content).hexdigest())


def test_the_form_has_three_parts_in_their_order(gateway: FileGateway) -> None:
    gateway.put(f"{LOGS}/system.txt", b"content")
    request = streamed(gateway, "logs/../logs/system.txt", 7, url=f"{gateway.http.url}/place?token=a%20b")
    assert (request.method, request.path) == ("POST", "/place?token=a b")
    assert [(part.name, part.filename, part.text) for part in request.parts] == [
        ("filedata", "system.txt", "content"),
        ("mac", None, GW_MAC),
        ("filepath", None, "logs/../logs/system.txt"),
    ]
    assert request.headers["Content-Type"].startswith("multipart/form-data; boundary=")


@pytest.mark.parametrize(
    "name, told",
    [
        ("two words.txt", "two words.txt"),
        ("  ", "  "),
        ("größe-日本.bin", "größe-日本.bin"),
        ("100%s%n%d.txt", "100%s%n%d.txt"),
        ("-rf", "-rf"),
        (".hidden", ".hidden"),
        ("a;b&c=d#e?f", "a;b&c=d#e?f"),
        ('say "it"', "say %22it%22"),
        ("line\nend", "line%0Aend"),
        ("back\\slash", "back\\slash"),
        ("n" * 254, "n" * 254),
        ("n" * 255, "n" * 255),
    ],
    ids=lambda name: repr(name)[:20],
)
def test_any_name_of_a_file_arrives(gateway: FileGateway, name: str, told: str) -> None:
    file = gateway.put(f"{SHM}/{name}", b"content")
    request = streamed(gateway, f"shm/{name}", 7)
    file.unlink()
    assert (request.part("filedata").filename, request.part("filedata").text) == (told, "content")
    assert request.part("filepath").text == f"shm/{name}"


def test_a_url_may_come_without_its_scheme(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    request = streamed(gateway, "shm/data.bin", 7, url=f"{gateway.http.address}/up")
    assert (request.path, request.part("filedata").text) == ("/up", "content")


def test_a_url_of_255_characters_fits(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    url = f"{gateway.http.url}/".ljust(255, "u")
    assert streamed(gateway, "shm/data.bin", 7, url=url).path == url.removeprefix(gateway.http.url)


def test_a_late_answer_above_4096_bytes_comes_in_two_messages(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    path = "shm/" + "./" * 2040 + "data.bin"
    assert len(path) < 4096
    mark = len(gateway.road.async_responses())
    streamed(gateway, path, 7)
    pieces = gateway.road.async_responses()[mark:]
    assert [len(piece) for piece in pieces][0] == 4096 and len(pieces) == 2


# --- what is logged ---


def test_the_steps_of_a_stream_are_logged(gateway: FileGateway) -> None:
    gateway.put(f"{FIRMWARE}/image.bin", b"content")
    mark = gateway.log
    job = gateway.start(STREAM, **params(gateway, "firmware/image.bin", 7))
    assert gateway.outcome(job) == "ok"
    gateway.road.bridge.wait_for_log(f"launched process pid: [{job.pid}]", after=mark)
    gateway.told_in_order(
        job,
        mark,
        "slave process started",
        "curl: starting file stream firmware/image.bin with offset [0] and size [7]",
        "curl: requested updating timestamp: /lib/firmware/.snv_bridge.tmst",
        "curl: launched updater pid: [",
        "curl: add custom headerlist",
        "curl: perform request",
        "curl: done",
        "curl: killing [",
        f"sending async response: {gateway.late_texts(job)[0]}",
        "response handler done",
    )


def test_asking_about_a_job_is_logged(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", content_of(8 * MIB))
    mark = gateway.log
    with faulty(gateway.http, Fault.STALLS):
        job = begun(gateway, "shm/data.bin", 8 * MIB)
        gateway.refused(STREAM, params(gateway, "shm/data.bin", 1))
        gateway.end(job)
    assert gateway.stop(STREAM, job.pid) == refusal("ok")
    lines = gateway.road.bridge.log.find(
        re.compile(r"check running|process is (still running|finished)"), mark
    )
    asked = [line.rpartition("cpp:")[2].partition(" ")[2] for line in lines]
    about = f"check running: [{job.pid}]"
    assert asked[-4:] == [about, "process is still running", about, "process is finished"]


def test_without_the_pipe_a_job_ends_unheard(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    pipe, away = gateway.inside(PIPE), gateway.inside("tmp/away")
    mark = gateway.log
    pipe.rename(away)
    try:
        job = gateway.start(STREAM, **params(gateway, "shm/data.bin", 7))
        gateway.wait_ended(job)
    finally:
        away.rename(pipe)
    gateway.told_in_order(
        job,
        mark,
        f"failed to open pipe for sending async response: {NO_SUCH_FILE}",
        "failed to prepare and send async response",
    )
    assert streamed(gateway, "shm/data.bin", 7).part("filedata").text == "content"
    assert not gateway.late_texts(job)


# --- past the end of the file ---


@pytest.mark.parametrize("length, offset, size", [(100, 0, PAGE), (100, 100, 1), (PAGE + 1, PAGE, 2)])
def test_zeros_follow_the_end_of_the_file_up_to_its_last_page(
    gateway: FileGateway, length: int, offset: int, size: int
) -> None:
    content = content_of(length)
    gateway.put(f"{SHM}/data.bin", content)
    request = streamed(gateway, "shm/data.bin", size, offset)
    assert request.part("filedata").content == (content + bytes(size))[offset : offset + size]


@pytest.mark.parametrize(
    "length, offset, size", [(0, 0, 1), (100, 0, PAGE + 1), (100, PAGE, 1), (PAGE, PAGE, 1), (5, 10 * MIB, 5)]
)
def test_behind_that_page_the_job_dies_without_an_answer(
    gateway: FileGateway, length: int, offset: int, size: int
) -> None:
    gateway.put(f"{SHM}/data.bin", content_of(length))
    job = gateway.start(STREAM, **params(gateway, "shm/data.bin", size, offset))
    assert gateway.fate(job) == signal.SIGBUS


@pytest.mark.parametrize(
    "offset, size", [(2**63 - 1, 1), (0, 2**63 - 1), (2**63 - 1, 2**63 - 1), (0, 1e300)]
)
def test_more_than_an_address_space_is_told_as_the_lack_of_memory(
    gateway: FileGateway, offset: int, size: int
) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    assert gateway.run(STREAM, **params(gateway, "shm/data.bin", size, offset)) == "Cannot allocate memory"


# --- a file that cannot be read ---


def test_a_missing_file_is_told_late(gateway: FileGateway) -> None:
    mark = gateway.log
    assert gateway.run(STREAM, **params(gateway, "shm/missing", 1)) == NO_SUCH_FILE
    gateway.road.bridge.wait_for_log(f"curl: failed to open file for reading: {NO_SUCH_FILE}", after=mark)


def test_a_directory_cannot_be_streamed(gateway: FileGateway) -> None:
    gateway.inside(f"{SHM}/folder").mkdir()
    mark = gateway.log
    assert gateway.run(STREAM, **params(gateway, "shm/folder", 1)) == "No such device"
    gateway.road.bridge.wait_for_log("curl: failed to map a file: No such device", after=mark)


def test_a_name_above_255_bytes_is_told_late(gateway: FileGateway) -> None:
    assert gateway.run(STREAM, **params(gateway, "shm/" + "n" * 256, 1)) == TOO_LONG


def test_a_link_is_not_followed(gateway: FileGateway) -> None:
    link = gateway.inside(f"{SHM}/link")
    link.symlink_to("/etc/hosts")
    assert gateway.run(STREAM, **params(gateway, "shm/link", 9)) == LINK
    link.unlink()


@pytest.mark.parametrize(
    "path, status, complaint",
    [
        ("config/cups.key", DENIED, STREAM.refused_right),
        ("config/awsiot-tunnel.conf", DENIED, STREAM.refused_right),
        ("nowhere/a.log", NO_SUCH_FILE, "failed to get file entry for: "),
        ("logs/a.bin", NO_SUCH_FILE, "failed to get file entry for: "),
        ("logs", NO_SUCH_FILE, "failed to get file entry for: "),
        ("firmware/opkg", NO_SUCH_FILE, "failed to get file entry for: "),
        ("/", NO_SUCH_FILE, "failed to get file entry for: "),
        ("", NO_SUCH_FILE, "failed to get file entry for: "),
        ("shm/../../etc/hosts", NO_SUCH_FILE, "failed to get file entry for: "),
        ("shm/deep/a", NO_SUCH_FILE, "failed to get file entry for: "),
    ],
)
def test_a_path_without_the_right_to_read_starts_nothing(
    gateway: FileGateway, path: str, status: str, complaint: str
) -> None:
    response, errors = gateway.refused(STREAM, params(gateway, path, 1))
    assert response == refusal(status)
    assert any(line.endswith(complaint + path) for line in errors)
    assert errors[-1].endswith(STREAM.refused_start)


# --- servers ---


@pytest.mark.parametrize(
    "fault, failure",
    [
        (Fault.MISSING, ""),
        (Fault.BREAKS, r"curl: easy_perform\(\) failed: "),
    ],
    ids=lambda each: getattr(each, "name", ""),
)
def test_what_the_server_makes_of_it_is_not_told(gateway: FileGateway, fault: Fault, failure: str) -> None:
    gateway.put(f"{SHM}/data.bin", content_of(4 * MIB))
    mark = gateway.log
    with faulty(gateway.http, fault):
        assert gateway.run(STREAM, **params(gateway, "shm/data.bin", 4 * MIB)) == "ok"
    gateway.road.bridge.wait_for_log("curl: done", after=mark)
    assert bool(gateway.road.bridge.log.find("easy_perform() failed", after=mark)) == bool(failure)


@pytest.mark.parametrize(
    "url, failure",
    [
        ("http://127.0.0.1:{free}", "Couldn't connect to server"),
        ("http://no.such.host.invalid", "Couldn't resolve host name"),
    ],
)
def test_a_server_that_cannot_be_reached_is_told_in_the_log_alone(
    gateway: FileGateway, url: str, failure: str
) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    mark = gateway.log
    url = url.format(free=free_port())
    assert gateway.run(STREAM, **params(gateway, "shm/data.bin", 7, url=url)) == "ok"
    gateway.road.bridge.wait_for_log(f"curl: easy_perform() failed: {failure}", after=mark)


@pytest.mark.parametrize(
    "url", ["http://", "http://a b/", "nosuch://127.0.0.1", "http://127.0.0.1:99999", "://"]
)
def test_a_url_that_is_none_is_told(gateway: FileGateway, url: str) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    mark = gateway.log
    assert gateway.run(STREAM, **params(gateway, "shm/data.bin", 7, url=url)) == IO_ERROR
    gateway.road.bridge.wait_for_log("curl: failed to initialize URL object", after=mark)


def test_a_server_of_https_must_be_trusted(gateway: FileGateway, tmp_path: Path, cleanup: Cleanup) -> None:
    server, other = https_server(tmp_path / "server"), https_server(tmp_path / "other")
    for each in (server, other):
        cleanup.add(each)
    assert server.certificate
    gateway.put(f"{SHM}/data.bin", b"content")
    gateway.put(AUTHORITIES, server.certificate.read_bytes())
    assert gateway.run(STREAM, **params(gateway, "shm/data.bin", 7, url=server.url)) == "ok"
    assert server.requests[0].part("filedata").text == "content"
    mark = gateway.log
    assert gateway.run(STREAM, **params(gateway, "shm/data.bin", 7, url=other.url)) == "ok"
    gateway.road.bridge.wait_for_log("curl: easy_perform() failed: SSL peer certificate", after=mark)
    assert not other.requests


# --- one at a time, and stopping ---


def test_while_one_runs_no_other_starts_and_only_its_own_number_stops_it(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", content_of(8 * MIB))
    with faulty(gateway.http, Fault.STALLS):
        job = begun(gateway, "shm/data.bin", 8 * MIB)
        response, errors = gateway.refused(STREAM, params(gateway, "shm/data.bin", 1))
        assert response == refusal(RUNNING) and errors[-1].endswith(STREAM.still_running)
        mark = gateway.log
        assert gateway.stop(STREAM, job.pid + 1) == refusal(INVALID)
        gateway.road.bridge.wait_for_log(f"{STREAM.wrong_id}{job.pid + 1}", after=mark)
        assert not is_ended(job.pid)
        begin = time.monotonic()
        assert gateway.stop(STREAM, job.pid) == refusal("ok")
        assert STOP_WAIT_S <= time.monotonic() - begin < STOP_WAIT_S + 3
    assert job.pid not in children(gateway.pid), "it is not collected"
    assert not gateway.late_texts(job)
    assert gateway.stop(STREAM, job.pid) == refusal(NO_SUCH_PROCESS)
    gateway.road.bridge.wait_for_log(STREAM.nothing_to_stop, after=mark)


def test_one_that_is_over_stops_at_once(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    job = gateway.start(STREAM, **params(gateway, "shm/data.bin", 7))
    assert gateway.outcome(job) == "ok"
    assert children(gateway.pid) == [job.pid]
    mark, begin = gateway.log, time.monotonic()
    assert gateway.stop(STREAM, job.pid) == refusal("ok")
    assert time.monotonic() - begin < STOP_WAIT_S
    gateway.road.bridge.wait_for_log(STREAM.over, after=mark)
    assert children(gateway.pid) == []


@pytest.mark.parametrize("given", [{}, None, [], "xferId", 17], ids=str)
def test_a_stop_needs_the_number_of_the_job(gateway: FileGateway, given: object) -> None:
    mark = gateway.log
    assert gateway.ask(STREAM.stop, given)[1] == refusal(INVALID)
    gateway.road.bridge.wait_for_log(PARAMS_LOST, after=mark)


@pytest.mark.parametrize("given", [None, "text", [], -1, 2**63 - 1, 1e300], ids=str)
def test_no_odd_number_stops_a_job(gateway: FileGateway, given: object) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    job = gateway.start(STREAM, **params(gateway, "shm/data.bin", 7))
    assert gateway.stop(STREAM, given) == refusal(INVALID)
    assert gateway.outcome(job) == "ok"


# --- bad requests ---

WHOLE: dict[str, object] = {"url": "127.0.0.1", "path": "shm/data.bin", "offset": 0, "size": 1}


def without(key: str) -> dict[str, object]:
    return {name: value for name, value in WHOLE.items() if name != key}


@pytest.mark.parametrize(
    "given",
    [
        None,
        [],
        "text",
        {},
        *(without(key) for key in WHOLE),
        *(WHOLE | {key: None} for key in ("url", "path")),
        WHOLE | {"url": "u" * 256},
        WHOLE | {"path": "p" * 4096},
    ],
    ids=lambda given: str(given)[:40],
)
def test_a_request_that_lacks_something_starts_nothing(gateway: FileGateway, given: object) -> None:
    response, errors = gateway.refused(STREAM, given)
    assert response == refusal(INVALID)
    assert errors[-1].endswith(PARAMS_LOST)


@pytest.mark.parametrize(
    "offset, size",
    [(-1, 1), (0, 0), (0, -1), (-(2**63), 1), (0, -(2**63)), (None, None), (0, []), (0, "text")],
)
def test_offset_and_size_must_make_sense(gateway: FileGateway, offset: object, size: object) -> None:
    response, errors = gateway.refused(STREAM, WHOLE | {"offset": offset, "size": size})
    assert response == refusal(INVALID)
    assert errors[-1].endswith("invalid parameters received")


def test_the_number_of_the_request_comes_back_as_text(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    body = (
        '{"command":"fopsStreamStart","requestId":{"a":[1]},"mac":"A","params":'
        f'{{"url":"{gateway.http.url}","path":"shm/data.bin","offset":0,"size":7}}}}'
    )
    gateway.road.publish(body.encode())
    wanted = b'{"requestId":"{ \\"a\\": [ 1 ] }","mac":"'
    wait_until(lambda: any(each.startswith(wanted) for each in gateway.road.async_responses()), "the answer")
    daemon = gateway.road.bridge.process.pid
    wait_until(lambda: all(is_ended(pid) for pid in children(daemon)), "the end of the job behind it")


# --- the timestamp of the directory ---


def test_a_stream_keeps_the_timestamp_of_its_directory_fresh_and_no_longer(gateway: FileGateway) -> None:
    gateway.put(f"{FIRMWARE}/image.bin", content_of(8 * MIB))
    timestamp = gateway.inside(TIMESTAMP)
    mark = gateway.log
    with faulty(gateway.http, Fault.STALLS):
        job = begun(gateway, "firmware/image.bin", 8 * MIB)
        wait_until(timestamp.exists, "the timestamp")
        first = timestamp.stat().st_mtime
        wait_until(lambda: timestamp.stat().st_mtime > first, "a younger timestamp")
        gateway.road.bridge.wait_for_log(
            "curl: requested updating timestamp: /lib/firmware/.snv_bridge.tmst", after=mark
        )
        line = gateway.road.bridge.wait_for_log("curl: launched updater pid: ", after=mark)
        updater = int(line.partition("updater pid: [")[2].rstrip("]"))
        assert children(job.pid) == [updater]
        gateway.end(job)
    wait_until(lambda: is_ended(updater), "the updater's end with its parent's")


def test_the_updater_ends_with_the_upload(gateway: FileGateway) -> None:
    gateway.put(f"{FIRMWARE}/image.bin", b"content")
    mark = gateway.log
    streamed(gateway, "firmware/image.bin", 7)
    line = gateway.road.bridge.wait_for_log("curl: killing [", after=mark)
    updater = int(line.partition("curl: killing [")[2].rstrip("]"))
    wait_until(lambda: is_ended(updater), "the updater's end")


def test_a_directory_without_a_timestamp_gets_none(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    mark = gateway.log
    streamed(gateway, "shm/data.bin", 7)
    assert not gateway.road.bridge.log.find("updater", after=mark)
    assert not gateway.inside(f"{SHM}/.snv_bridge.tmst").exists()


# --- what a job leaves and holds ---


def test_a_job_holds_no_descriptor_of_the_daemon(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", content_of(8 * MIB))
    with faulty(gateway.http, Fault.STALLS):
        job = begun(gateway, "shm/data.bin", 8 * MIB)
        own, daemons = sockets(job.pid), sockets(gateway.pid)
        gateway.end(job)
    assert own and daemons and not own & daemons


def test_many_jobs_leave_no_descriptor_and_no_process(gateway: FileGateway) -> None:
    gateway.put(f"{SHM}/data.bin", b"content")
    streamed(gateway, "shm/data.bin", 7)
    before = gateway.road.bridge.resources()[0]
    for _ in range(20):
        streamed(gateway, "shm/data.bin", 7)
    assert gateway.road.bridge.resources()[0] == before
    assert len(children(gateway.pid)) == 1, "only the last one is left to be asked about"

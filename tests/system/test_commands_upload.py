"""Files that an OA&M server sends in chunks inside its requests."""
import base64
import gzip
import io
import os
import random
import re
import shutil
import stat
import subprocess
import tarfile
import zipfile
from contextlib import contextmanager
from pathlib import Path
from typing import Any, Callable, Iterator, Optional

import pytest

from command_outcome import Outcome, quiet_road, run
from harness.bridge import REPOSITORY, is_checked_for_leaks
from harness.control import ControlRoad
from harness.lab import start_agent

pytestmark = pytest.mark.xdist_group("commands_upload")

START: dict[str, Any] = {
    "isModemFw": False,
    "name": "file",
    "size": 3,
    "b64ChunkLength": 8,
    "b64TotalLength": 8,
}
ABC = {"data": "QUJD"}
STAY = {"decompress": False}
UNPACK = {"decompress": True}

OK = Outcome('{"status":"ok"}', [], [])
NO_FIELD = "WARN unable to retrieve field"
NO_TEXT = "WARN unable to fetch string"
TOO_LONG = "WARN not enough space for incoming string"
UNREAD = "ERROR failed to de-serialize params"

OLD_FIRMWARE = ("bsp", "gpio-fpga", "fe-fpga")


def failure(text: str, *complaints: str) -> Outcome:
    """Told in the answer, and in the log unless that has words of its own."""
    return Outcome(f'{{"status":"{text}"}}', list(complaints or [f"ERROR {text}"]), [])


CLOSED = failure("non-existing file transaction")


def refused(*complaints: str) -> Outcome:
    return Outcome("", list(complaints), [])


def start(road: ControlRoad, **changes: object) -> Outcome:
    return run(road, "fileUploadStart", {**START, **changes})


def chunk(road: ControlRoad, params: object = ABC) -> Outcome:
    return run(road, "fileUploadChunk", params)


def stop(road: ControlRoad, params: object = STAY) -> Outcome:
    return run(road, "fileUploadStop", params)


def staged(road: ControlRoad, name: str = "file") -> Path:
    return road.inside("dev/shm") / name


def firmware(road: ControlRoad) -> Path:
    return road.inside("lib/firmware")


def files_below(folder: Path) -> dict[str, bytes]:
    if not folder.is_dir():
        return {}
    found = (Path(at) / name for at, _, names in os.walk(folder) for name in names)
    return {str(each.relative_to(folder)): each.read_bytes() for each in found if not each.is_symlink()}


def send(road: ControlRoad, name: str, content: bytes, step: int = 65536) -> None:
    """Start and chunks, each in its turn."""
    pieces = [content[place : place + step] for place in range(0, len(content), step)]
    texts = [base64.b64encode(piece).decode() for piece in pieces]
    lengths = [len(text) for text in texts]
    params = {**START, "name": name, "size": len(content)}
    params |= {"b64ChunkLength": max(lengths), "b64TotalLength": sum(lengths)}
    assert road.command("fileUploadStart", params).response == {"status": "ok"}
    for text in texts:
        assert road.command("fileUploadChunk", {"data": text}).response == {"status": "ok"}


def empty(folder: Path) -> None:
    for each in folder.iterdir() if folder.is_dir() else ():
        shutil.rmtree(each) if each.is_dir() and not each.is_symlink() else each.unlink()


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    with quiet_road(tmp_path_factory) as road:
        yield road


@pytest.fixture
def road(shared: ControlRoad) -> Iterator[ControlRoad]:
    """No transaction is open, and nothing is where files go, before each test."""
    start(shared, name="the-last")
    assert stop(shared) == OK
    for path in ("dev/shm", "lib/firmware"):
        empty(shared.inside(path))
    for path in ("etc/bstn", "etc/awsiot"):
        target = shared.inside(path)
        shutil.rmtree(target) if target.is_dir() else target.unlink(missing_ok=True)
    staged(shared, "modem_downloads").mkdir()
    yield shared


# --- in the daemon's own mount namespace ---


def in_namespace(road: ControlRoad, *command: str) -> None:
    user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
    enter = ["nsenter", "--target", str(road.bridge.process.pid), *user, "--mount"]
    subprocess.run([*enter, *command], check=True, timeout=20)


@contextmanager
def stand_in(road: ControlRoad, program: str, script: str) -> Iterator[None]:
    """Runs the script in the program's place."""
    own = road.bridge.work / Path(program).name
    own.write_text(f"#!/bin/sh\n{script}\n")
    own.chmod(0o755)
    in_namespace(road, "mount", "--no-canonicalize", "--bind", str(own), program)
    try:
        yield
    finally:
        in_namespace(road, "umount", "--no-canonicalize", program)


@contextmanager
def small_staging(road: ControlRoad, size: str) -> Iterator[None]:
    """An empty one before the usual one."""
    in_namespace(road, "mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", "/dev/shm")
    try:
        yield
    finally:
        in_namespace(road, "umount", "/dev/shm")


# --- whole uploads ---


@pytest.mark.parametrize(
    "size, step",
    [
        (1, 4096),
        (2, 1),
        (300, 1),
        (4095, 4096),
        (4096, 4096),
        (4097, 4096),
        (4097, 1000),
        (65536, 65536),
        (100_000, 65537),
        (250_001, 7919),
        (3_000_000, 65536),
    ],
)
def test_a_file_arrives_byte_for_byte(road: ControlRoad, size: int, step: int) -> None:
    content = random.Random(size).randbytes(size)
    send(road, "image.bin", content, step)
    assert staged(road, "image.bin").read_bytes() == content
    assert stop(road) == OK
    assert files_below(staged(road, "")) == {"image.bin": content}
    assert stop(road) == CLOSED, "the transaction is over"


def test_an_upload_is_logged_step_by_step(road: ControlRoad) -> None:
    mark = road.bridge.log.mark()
    assert [start(road, name="bstn-cups.key"), chunk(road), stop(road)] == [OK, OK, OK]
    told = re.findall(r"\[(\w+) *\] bridge_cmd_upload.cpp:\d+ (.*)", "\n".join(road.bridge.log.since(mark)))
    assert told == [
        ("DEBUG", "starting uploading a file: /dev/shm/bstn-cups.key, chunk len: 8, overall size: 3"),
        ("TRACE", "received a file chunk"),
        ("TRACE", "trying to write a file: /dev/shm/bstn-cups.key"),
        ("INFO", "stopping a file upload"),
        ("INFO", "trying to finalize a file: /dev/shm/bstn-cups.key"),
        ("DEBUG", "trying to move: /dev/shm/bstn-cups.key to: /etc/bstn/cups.key"),
    ]


def test_what_comes_is_not_held_against_the_sizes_told(road: ControlRoad) -> None:
    assert start(road, size=1, b64TotalLength=1) == OK
    assert [chunk(road), chunk(road), stop(road)] == [OK, OK, OK]
    assert staged(road).read_bytes() == b"ABCABC"


NAMES = {
    "blanks": " two  blanks ",
    "letters": "größe-文件-🚀",
    "option": "-rf",
    "long option": "--help",
    "format": "%s%n%5$s",
    "shell": "$(touch x);`id`|&>'\"*?[a]~",
    "lines": "one\ntwo\ttabs\r",
    "backslash": "back\\slash",
    "dots": "...",
    "hidden": ".hidden",
    "254 bytes": "n" * 254,
    "254 bytes of letters": "ß" * 127,
    "number": 17,
    "list": [1],
    "object": {},
}


@pytest.mark.parametrize("name", NAMES.values(), ids=NAMES.keys())
def test_a_file_gets_the_name_that_was_sent(road: ControlRoad, name: object) -> None:
    assert [start(road, name=name), chunk(road), stop(road)] == [OK, OK, OK]
    shown = {"[1]": "[ 1 ]", "{}": "{ }"}.get(str(name), str(name))
    assert files_below(staged(road, "")) == {shown: b"ABC"}


def test_a_name_ends_at_a_nul(road: ControlRoad) -> None:
    assert [start(road, name="file\0/../x"), chunk(road), stop(road)] == [OK, OK, OK]
    assert files_below(staged(road, "")) == {"file": b"ABC"}


# --- start ---


@pytest.mark.parametrize("key", START)
def test_a_start_without_one_of_its_keys_gets_no_response(road: ControlRoad, key: str) -> None:
    params = {name: value for name, value in START.items() if name != key}
    assert run(road, "fileUploadStart", params) == refused(NO_FIELD, UNREAD)
    assert chunk(road) == CLOSED


@pytest.mark.parametrize(
    "params, complaints",
    [
        (None, [UNREAD]),
        ([], [NO_FIELD, UNREAD]),
        ([START], [NO_FIELD, UNREAD]),
        ("text", [NO_FIELD, UNREAD]),
        (5, [NO_FIELD, UNREAD]),
        ({}, [NO_FIELD, UNREAD]),
        ({**START, "name": None}, [NO_TEXT, UNREAD]),
        ({**START, "name": "n" * 255}, [TOO_LONG, UNREAD]),
        ({**START, "name": "ß" * 128}, [TOO_LONG, UNREAD]),
        ({**START, "name": "n" * 70_000}, [TOO_LONG, UNREAD]),
    ],
)
def test_a_start_that_cannot_be_read_gets_no_response(
    road: ControlRoad, params: object, complaints: list[str]
) -> None:
    assert run(road, "fileUploadStart", params) == refused(*complaints)
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("key", ["size", "b64ChunkLength", "b64TotalLength"])
@pytest.mark.parametrize("number", [0, -1, -(2**63), -(10**30), 0.5, None, False, [], {}, "0"], ids=str)
def test_lengths_below_1_are_refused(road: ControlRoad, key: str, number: object) -> None:
    assert start(road, **{key: number}) == refused("ERROR invalid parameters received")
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("key", ["size", "b64ChunkLength", "b64TotalLength"])
@pytest.mark.parametrize("text", ["", "x", "-", "\0008"], ids=repr)
def test_a_length_that_is_no_number_gets_no_response(road: ControlRoad, key: str, text: str) -> None:
    """The JSON library's later versions tell such a text from 0, earlier ones do not."""
    assert start(road, **{key: text}).response == ""
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("key", ["size", "b64ChunkLength", "b64TotalLength"])
@pytest.mark.parametrize("number", ["8", 8.9, "8 bytes", "8\0x"], ids=str)
def test_numbers_are_read_generously(road: ControlRoad, key: str, number: object) -> None:
    assert [start(road, **{key: number}), chunk(road)] == [OK, OK]


@pytest.mark.parametrize("key", ["size", "b64TotalLength"])
@pytest.mark.parametrize("number", [2**31, 2**63 - 1, 10**30], ids=str)
def test_a_file_may_be_announced_as_huge(road: ControlRoad, key: str, number: int) -> None:
    assert [start(road, **{key: number}), chunk(road)] == [OK, OK]


@pytest.mark.parametrize("number", [2**63 - 1, 10**30, "9" * 40], ids=str)
def test_a_chunk_that_no_memory_holds_is_refused(road: ControlRoad, number: object) -> None:
    assert start(road, b64ChunkLength=number) == failure("no memory for file transfer")
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("name", ["a/b", "/", "/etc/passwd", "../x", "x/", "a/\0b"])
def test_a_name_with_a_slash_gets_no_response(road: ControlRoad, name: str) -> None:
    shown = name.partition("\0")[0]
    assert start(road, name=name) == refused(f"ERROR invalid filename specified: {shown}")
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("name", ["", ".", "..", "\0file", "modem_downloads"])
def test_a_name_that_is_a_directory_gets_no_response(road: ControlRoad, name: str) -> None:
    assert start(road, name=name) == refused("ERROR failed to truncate a file: Is a directory")
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("truth", [True, 1, "yes", 0.5], ids=str)
def test_modem_firmware_is_not_supported(road: ControlRoad, truth: object) -> None:
    mark = road.bridge.log.mark()
    wanted = Outcome('{"error":"not_supported"}', [], [])
    assert start(road, isModemFw=truth, name="a/b", size=0) == wanted, "whatever else is told"
    assert [line for line in road.bridge.log.since(mark) if "modem firmware" in line][0].endswith(
        "upload modem firmware is not (yet) supported"
    )
    assert chunk(road) == CLOSED


@pytest.mark.parametrize("untruth", [False, 0, "", None, [], {}], ids=str)
def test_what_is_not_true_is_no_modem_firmware(road: ControlRoad, untruth: object) -> None:
    assert [start(road, isModemFw=untruth), chunk(road)] == [OK, OK]


def test_a_second_start_removes_what_the_first_has_staged(road: ControlRoad) -> None:
    mark = road.bridge.log.mark()
    assert [start(road, name="first"), chunk(road)] == [OK, OK]
    assert [start(road, name="second"), chunk(road), stop(road)] == [OK, OK, OK]
    assert files_below(staged(road, "")) == {"second": b"ABC"}
    deleted = [line for line in road.bridge.log.since(mark) if "deleting old" in line]
    assert [line.partition("deleting")[2] for line in deleted] == [" old transaction file: /dev/shm/first"]


def test_a_second_start_of_the_same_file_begins_anew(road: ControlRoad) -> None:
    assert [start(road), chunk(road), chunk(road)] == [OK, OK, OK]
    assert start(road) == OK
    assert not staged(road).exists()
    assert [chunk(road, {"data": "WFla"}), stop(road)] == [OK, OK]
    assert staged(road).read_bytes() == b"XYZ"


def test_a_start_empties_a_file_of_its_name(road: ControlRoad) -> None:
    staged(road).write_bytes(b"old")
    assert start(road) == OK
    assert staged(road).read_bytes() == b""


@pytest.mark.parametrize("name, size", [(".", 3), ("a/b", 3), ("other", 0), ("n" * 255, 3)])
def test_a_refused_start_leaves_the_open_transaction(road: ControlRoad, name: str, size: int) -> None:
    assert [start(road), chunk(road)] == [OK, OK]
    assert start(road, name=name, size=size).response == ""
    assert [chunk(road), stop(road)] == [OK, OK]
    assert files_below(staged(road, "")) == {"file": b"ABCABC"}


# --- chunk ---


def test_before_a_start_there_is_no_transaction(road: ControlRoad) -> None:
    assert [chunk(road), chunk(road, {}), chunk(road, None)] == [CLOSED] * 3
    assert [stop(road), stop(road, {}), stop(road, None)] == [CLOSED] * 3


@pytest.mark.parametrize(
    "params, complaints",
    [
        (None, [UNREAD]),
        ([], [NO_FIELD, UNREAD]),
        ("QUJD", [NO_FIELD, UNREAD]),
        ({}, [NO_FIELD, UNREAD]),
        ({"Data": "QUJD"}, [NO_FIELD, UNREAD]),
        ({"data": None}, [NO_TEXT, UNREAD]),
        ({"data": "QUJDQUJDQ"}, [TOO_LONG, UNREAD]),
        ({"data": "QUJD" * 50_000}, [TOO_LONG, UNREAD]),
        ({"data": ["QUJD", "QUJD"]}, [TOO_LONG, UNREAD]),
    ],
)
def test_a_chunk_that_cannot_be_read_leaves_the_transaction_as_it_is(
    road: ControlRoad, params: object, complaints: list[str]
) -> None:
    assert [start(road), chunk(road)] == [OK, OK]
    assert chunk(road, params) == refused(*complaints)
    assert [chunk(road), stop(road)] == [OK, OK]
    assert staged(road).read_bytes() == b"ABCABC"


@pytest.mark.parametrize(
    "data, content",
    [
        ("QUJDREVG", b"ABCDEF"),
        ("QUJDRA==", b"ABCD"),
        ("QUJDRA", b"ABCD"),
        ("QUJD\nREV", b"ABC"),
        ("QQ==QQ==", b"A"),
        ("QUJD\0!!!", b"ABC"),
        ("QUJD-_!", b"ABC"),
        (1234, b"\xd7\x6d\xf8"),
        (True, b"\xb6\xbb\x9e"),
    ],
)
def test_a_chunk_is_taken_up_to_what_is_no_base64(road: ControlRoad, data: object, content: bytes) -> None:
    assert [start(road), chunk(road, {"data": data}), stop(road)] == [OK, OK, OK]
    assert staged(road).read_bytes() == content


@pytest.mark.parametrize("data", ["", "=", "====", "Q", "Q===", "!QUJD", "\nQUJD", "é", "\0QUJD", {}, []])
def test_a_chunk_without_a_byte_in_it_ends_the_transaction(road: ControlRoad, data: object) -> None:
    assert [start(road), chunk(road)] == [OK, OK]
    assert chunk(road, {"data": data}) == failure("failed to write to a file")
    assert [chunk(road), stop(road)] == [CLOSED, CLOSED]


def test_what_was_staged_goes_with_a_failed_chunk(road: ControlRoad) -> None:
    assert start(road) == OK and chunk(road) == OK
    assert staged(road).exists()
    chunk(road, {"data": "="})
    assert not staged(road).exists()


def test_a_link_in_the_staging_directory_is_not_followed(road: ControlRoad) -> None:
    victim = road.inside("etc/victim")
    victim.write_bytes(b"kept")
    staged(road).symlink_to("/etc/victim")
    assert start(road).response == ""
    assert victim.read_bytes() == b"kept"
    staged(road).unlink()
    victim.unlink()


def test_a_pipe_in_the_staging_directory_is_not_waited_for(road: ControlRoad) -> None:
    os.mkfifo(staged(road))
    assert start(road).response == ""
    staged(road).unlink()
    assert start(road) == OK


def test_a_file_that_cannot_be_made_ends_the_transaction(road: ControlRoad) -> None:
    assert start(road) == OK
    staged(road).mkdir()
    assert chunk(road) == failure("failed to create a file")
    staged(road).rmdir()
    assert [chunk(road), stop(road)] == [CLOSED, CLOSED]


@pytest.mark.parametrize("room, size, fitting", [("128k", 90_000, 1), ("8k", 3000, 2)])
def test_a_full_staging_directory_ends_the_transaction_and_a_start_makes_room(
    road: ControlRoad, room: str, size: int, fitting: int
) -> None:
    content = random.Random(1).randbytes(size)
    params = {"data": base64.b64encode(content).decode()}
    with small_staging(road, room):
        assert start(road, b64ChunkLength=200_000) == OK
        assert [chunk(road, params) for _ in range(fitting)] == [OK] * fitting
        assert chunk(road, params) == failure("failed to write to a file")
        assert [chunk(road), stop(road)] == [CLOSED, CLOSED]
        assert [start(road), chunk(road), stop(road)] == [OK, OK, OK]
        assert staged(road).read_bytes() == b"ABC"


# --- stop ---


@pytest.mark.parametrize(
    "params, complaints",
    [
        (None, [UNREAD]),
        ([], [NO_FIELD, UNREAD]),
        ([True], [NO_FIELD, UNREAD]),
        ("decompress", [NO_FIELD, UNREAD]),
        ({}, [NO_FIELD, UNREAD]),
        ({"Decompress": True}, [NO_FIELD, UNREAD]),
    ],
)
def test_a_stop_that_cannot_be_read_leaves_the_transaction_open(
    road: ControlRoad, params: object, complaints: list[str]
) -> None:
    assert [start(road), chunk(road)] == [OK, OK]
    assert stop(road, params) == refused(*complaints)
    assert [chunk(road), stop(road)] == [OK, OK]
    assert staged(road).read_bytes() == b"ABCABC"


@pytest.mark.parametrize("untruth", [False, None, 0, "", [], {}], ids=str)
def test_what_is_not_true_unpacks_nothing(road: ControlRoad, untruth: object) -> None:
    assert [start(road), chunk(road), stop(road, {"decompress": untruth})] == [OK, OK, OK]
    assert staged(road).read_bytes() == b"ABC"


PLACES = [
    ("bstn-cups.key", "etc/bstn/cups.key", 0o600),
    ("bstn-cups.key.old", "etc/bstn/cups.key", 0o600),
    ("bstn", "etc/bstn/cups.key", 0o600),
    ("b", "etc/bstn/cups.key", 0o600),
    ("awsiot-tunnel.token", "etc/awsiot/awsiot-tunnel.token", 0o600),
    ("awsiot-tunnel.token.x", "etc/awsiot/awsiot-tunnel.token.x", 0o600),
    ("awsiot-tunnel.", "etc/awsiot/awsiot-tunnel.", 0o600),
    ("a", "etc/awsiot/a", 0o600),
    ("awsiot-tunnel.conf", "etc/awsiot/awsiot-tunnel.conf", 0o640),
    ("awsiot-tunnel.c", "etc/awsiot/awsiot-tunnel.c", 0o640),
    ("awsiot-tunnel.config", "etc/awsiot/awsiot-tunnel.config", 0o640),
]


@pytest.mark.parametrize("name, place, mode", PLACES, ids=[name for name, _, _ in PLACES])
def test_a_file_goes_where_the_beginning_of_its_name_says(
    road: ControlRoad, name: str, place: str, mode: int
) -> None:
    target = road.inside(place)
    for folder in (road.inside("etc/bstn"), road.inside("etc/awsiot")):
        assert not folder.exists()
    for data, content in (("QUJD", b"ABC"), ("WFla", b"XYZ")):  # the second file takes the first one's place
        assert [start(road, name=name), chunk(road, {"data": data}), stop(road)] == [OK, OK, OK]
        assert files_below(target.parent) == {target.name: content}
        assert stat.S_IMODE(target.stat().st_mode) == mode
        assert stat.S_IMODE(target.parent.stat().st_mode) == 0o755
        assert files_below(staged(road, "")) == {}


@pytest.mark.parametrize(
    "name", ["cups.key", "BSTN-CUPS.KEY", "bstn-cups.kex", "bstn_", "awsiot-tunnel.x", "aws-", " bstn"]
)
def test_any_other_file_stays_in_staging(road: ControlRoad, name: str) -> None:
    assert [start(road, name=name), chunk(road), stop(road)] == [OK, OK, OK]
    assert files_below(staged(road, "")) == {name: b"ABC"}
    assert not road.inside("etc/bstn").exists() and not road.inside("etc/awsiot").exists()


def not_moved(name: str, target: str) -> Outcome:
    return failure("failed to move a file", f"ERROR failed to move /dev/shm/{name} to {target}")


def test_a_file_that_cannot_be_moved_is_removed(road: ControlRoad) -> None:
    road.inside("etc/bstn").write_bytes(b"no directory")
    assert [start(road, name="bstn-cups.key"), chunk(road)] == [OK, OK]
    assert stop(road) == not_moved("bstn-cups.key", "/etc/bstn/cups.key")
    assert files_below(staged(road, "")) == {}
    assert stop(road) == CLOSED


def test_a_stop_without_a_chunk_finds_nothing_to_move(road: ControlRoad) -> None:
    assert [start(road), stop(road)] == [OK, OK]
    assert start(road, name="awsiot-tunnel.conf") == OK
    assert stop(road) == not_moved("awsiot-tunnel.conf", "/etc/awsiot/awsiot-tunnel.conf")


def test_a_file_whose_mode_cannot_be_set_is_refused(road: ControlRoad) -> None:
    assert [start(road, name="awsiot-tunnel.conf"), chunk(road)] == [OK, OK]
    with stand_in(road, "/usr/bin/mv", "exit 0"):
        assert stop(road) == failure("failed to set the file permission")
    assert stop(road) == CLOSED


# --- archives ---

FIRMWARE = {"bsp/image": b"new image", "readme": b"about", "deep/er/file": bytes(range(256))}


def tar_of(members: dict[str, bytes], links: Optional[dict[str, str]] = None) -> bytes:
    """Links come first."""
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode="w") as archive:
        for name, target in (links or {}).items():
            link = tarfile.TarInfo(name)
            link.type, link.linkname = tarfile.SYMTYPE, target
            archive.addfile(link)
        for name, content in members.items():
            member = tarfile.TarInfo(name)
            member.size = len(content)
            archive.addfile(member, io.BytesIO(content))
    return packed.getvalue()


def tar_gz_of(members: dict[str, bytes]) -> bytes:
    return gzip.compress(tar_of(members))


def zip_of(members: dict[str, bytes], links: Optional[dict[str, str]] = None) -> bytes:
    packed = io.BytesIO()
    with zipfile.ZipFile(packed, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, target in (links or {}).items():
            link = zipfile.ZipInfo(name)
            link.create_system, link.external_attr = 3, (stat.S_IFLNK | 0o777) << 16
            archive.writestr(link, target)
        for name, content in members.items():
            archive.writestr(name, content)
    return packed.getvalue()


ARCHIVES = [
    ("firmware.tar", tar_of),
    ("firmware.tar.gz", tar_gz_of),
    ("firmware", tar_gz_of),
    ("firmware.zip", zip_of),
    ("firmware.ZIP", zip_of),
    ("firmware.zIp", zip_of),
    (".zip", zip_of),
    ("-oq.zip", zip_of),
    ("firmware.zip.tar", tar_of),
    ("firmware.zip.zip", tar_of),
    ("firmware.zipped", tar_of),
    ("zip", tar_of),
    ("--to-command=reboot", tar_of),
    ("bstn-cups.key", tar_of),
]


@pytest.mark.parametrize("name, pack", ARCHIVES, ids=[name for name, _ in ARCHIVES])
def test_an_archive_is_unpacked_by_its_name_and_removed(
    road: ControlRoad, name: str, pack: Callable[[dict[str, bytes]], bytes]
) -> None:
    (firmware(road) / "readme").write_bytes(b"old")
    (firmware(road) / "kept").write_bytes(b"kept")
    send(road, name, pack(FIRMWARE))
    assert stop(road, UNPACK) == OK
    assert files_below(firmware(road)) == {**FIRMWARE, "kept": b"kept"}
    assert files_below(staged(road, "")) == {}
    assert not road.inside("etc/bstn").exists()
    assert stop(road, UNPACK) == CLOSED


def fill_with_old_firmware(road: ControlRoad) -> dict[str, bytes]:
    """Returns what stays of it."""
    for name in (*OLD_FIRMWARE, "opkg", "bsp2"):
        (firmware(road) / name / "old").mkdir(parents=True)
        (firmware(road) / name / "old" / "image").write_bytes(b"old")
    return {"opkg/old/image": b"old", "bsp2/old/image": b"old"}


def test_old_firmware_goes_before_the_new_comes(road: ControlRoad) -> None:
    kept = fill_with_old_firmware(road)
    send(road, "firmware.tar", tar_of(FIRMWARE))
    assert stop(road, UNPACK) == OK
    assert files_below(firmware(road)) == {**FIRMWARE, **kept}
    assert not (firmware(road) / "gpio-fpga").exists() and not (firmware(road) / "fe-fpga").exists()


@pytest.mark.parametrize("name", ["firmware.tar", "firmware.zip"])
@pytest.mark.parametrize(
    "content",
    [b"no archive", tar_gz_of(FIRMWARE)[:-30], zip_of(FIRMWARE)[:-30]],
    ids=["text", "tar.gz", "zip"],
)
def test_a_broken_archive_stays_in_staging(road: ControlRoad, name: str, content: bytes) -> None:
    kept = fill_with_old_firmware(road)
    send(road, name, content)
    assert stop(road, UNPACK) == failure("failed to un-compress a file")
    assert files_below(staged(road, "")) == {name: content}
    left = files_below(firmware(road))
    assert left.items() >= kept.items(), "what is not replaced stays"
    assert b"old" not in [left.get(f"{each}/old/image") for each in OLD_FIRMWARE]
    assert stop(road, UNPACK) == CLOSED


def test_a_stop_without_a_chunk_finds_nothing_to_unpack(road: ControlRoad) -> None:
    for name in ("firmware.tar", "firmware.zip"):
        assert start(road, name=name) == OK
        assert stop(road, UNPACK) == failure("failed to un-compress a file")


def test_all_old_firmware_is_tried_and_none_may_stay(road: ControlRoad) -> None:
    send(road, "firmware.tar", tar_of(FIRMWARE))
    told = road.bridge.work / "rm.told"
    with stand_in(road, "/usr/bin/rm", f'echo "$@" >>{told}; case $2 in */bsp) exit 1; esac'):
        assert stop(road, UNPACK) == failure("failed to clean target directory")
    assert told.read_text().splitlines() == [f"-rf /lib/firmware/{each}" for each in OLD_FIRMWARE]
    assert files_below(firmware(road)) == {}
    assert list(files_below(staged(road, ""))) == ["firmware.tar"]


@pytest.mark.parametrize(
    "program, command, name, words",
    [
        ("/usr/bin/mv", STAY, "bstn", "/dev/shm/bstn /etc/bstn/cups.key"),
        ("/usr/bin/tar", UNPACK, "-x.tar", "xf /dev/shm/-x.tar -C /lib/firmware/"),
        ("/usr/bin/unzip", UNPACK, "x.zip", "-oq /dev/shm/x.zip -d /lib/firmware/"),
    ],
)
def test_programs_are_run_with_these_words(
    road: ControlRoad, program: str, command: dict[str, bool], name: str, words: str
) -> None:
    told = road.bridge.work / "words.told"
    assert [start(road, name=name), chunk(road)] == [OK, OK]
    with stand_in(road, program, f'echo "$@" >{told}; exit 1'):
        assert stop(road, command).response != OK.response
    assert told.read_text() == words + "\n"


@pytest.mark.parametrize("ending", ["exit 1", "exit 255", "kill -9 $$", "kill -15 $$"])
def test_a_program_that_fails_or_is_killed_is_a_failure(road: ControlRoad, ending: str) -> None:
    assert [start(road), chunk(road)] == [OK, OK]
    with stand_in(road, "/usr/bin/tar", ending):
        assert stop(road, UNPACK) == failure("failed to un-compress a file")


def test_an_archive_that_is_gone_cannot_be_removed(road: ControlRoad) -> None:
    assert [start(road), chunk(road)] == [OK, OK]
    with stand_in(road, "/usr/bin/tar", "unlink $2"):
        assert stop(road, UNPACK) == failure("failed to remove an original file")
    assert stop(road) == CLOSED


HOSTILE = [
    ("upwards", {"good": b"1", "../canary": b"bad", "../../etc/canary": b"bad"}, {}),
    ("inner dots", {"good": b"1", "a/../../canary": b"bad"}, {}),
    ("absolute", {"good": b"1", "/etc/canary": b"bad", "//lib/canary": b"bad"}, {}),
    ("through a link", {"good": b"1", "link/canary": b"bad"}, {"link": "/etc"}),
    ("through a relative link", {"good": b"1", "link/canary": b"bad"}, {"link": ".."}),
    ("onto a link", {"good": b"1", "link": b"bad"}, {"link": "/etc/canary"}),
]


@pytest.mark.filterwarnings("ignore:Duplicate name")
@pytest.mark.parametrize("members, links", [row[1:] for row in HOSTILE], ids=[row[0] for row in HOSTILE])
@pytest.mark.parametrize("name, pack", [("firmware.tar", tar_of), ("firmware.zip", zip_of)])
def test_a_hostile_archive_writes_only_below_the_firmware(
    road: ControlRoad,
    name: str,
    pack: Callable[[dict[str, bytes], dict[str, str]], bytes],
    members: dict[str, bytes],
    links: dict[str, str],
) -> None:
    outside = [road.inside("etc"), road.inside("lib"), road.inside("tmp")]
    before = [sorted(each.iterdir()) for each in outside]
    send(road, name, pack(members, links))
    assert stop(road, UNPACK) in (OK, failure("failed to un-compress a file"))
    assert (firmware(road) / "good").read_bytes() == b"1"
    assert [sorted(each.iterdir()) for each in outside] == before


# --- the client of the lab ---


def oam(road: ControlRoad, *arguments: str) -> "subprocess.CompletedProcess[str]":
    command = [str(REPOSITORY / "lab" / "oam"), "--port", str(road.broker.port), *arguments]
    return subprocess.run(command, capture_output=True, text=True, timeout=30)


@pytest.mark.parametrize("size", [1, 49152, 49153, 500_000])
def test_the_client_sends_a_whole_file(road: ControlRoad, tmp_path: Path, size: int) -> None:
    content = random.Random(size).randbytes(size)
    (tmp_path / "key").write_bytes(content)
    done = oam(road, "upload", str(tmp_path / "key"), "--name", "bstn-cups.key")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith(f"bstn-cups.key: {size} bytes, ")
    assert road.inside("etc/bstn/cups.key").read_bytes() == content


def test_the_client_has_an_archive_unpacked(road: ControlRoad, tmp_path: Path) -> None:
    (tmp_path / "firmware.zip").write_bytes(zip_of(FIRMWARE))
    assert oam(road, "upload", str(tmp_path / "firmware.zip"), "--decompress").returncode == 0
    assert files_below(firmware(road)) == FIRMWARE
    failed = oam(road, "upload", str(tmp_path / "firmware.zip"), "--name", "x.tar", "--decompress")
    assert (failed.returncode, failed.stdout) == (1, "")
    assert "failed to un-compress a file" in failed.stderr


def test_the_client_tells_what_it_cannot_send(road: ControlRoad, tmp_path: Path) -> None:
    (tmp_path / "empty").touch()
    for name, reason in (("empty", "there is nothing in it"), ("missing", "No such file or directory")):
        failed = oam(road, "upload", str(tmp_path / name))
        assert failed.returncode == 1 and reason in failed.stderr


# --- many at once, and many in a row ---


def test_commands_that_cross_are_each_answered_and_keep_their_files_apart(road: ControlRoad) -> None:
    numbers = []
    for place in range(20):
        numbers.append(road.send("fileUploadStart", {**START, "name": f"file{place % 2}"}))
        numbers += [road.send("fileUploadChunk", ABC) for _ in range(2)]
        numbers.append(road.send("fileUploadStop", STAY))
    told = {road.answer_to(number).text.partition('"response":')[2][:-1] for number in numbers}
    assert told <= {OK.response, CLOSED.response} and OK.response in told
    content = files_below(staged(road, ""))
    assert set(content) <= {"file0", "file1"}
    assert all(
        set(each[place : place + 3] for place in range(0, len(each), 3)) <= {b"ABC"}
        for each in content.values()
    )


def test_two_starts_at_once_leave_one_transaction(road: ControlRoad) -> None:
    numbers = [road.send("fileUploadStart", {**START, "name": name}) for name in ("one", "two")]
    assert [road.answer_to(number).response for number in numbers] == [{"status": "ok"}] * 2
    assert [chunk(road), stop(road), stop(road)] == [OK, OK, CLOSED]
    assert list(files_below(staged(road, "")).values()) == [b"ABC"]


CHUNKS = 1000
MEMORY_KEPT = 8 << 20


def memory_of(road: ControlRoad) -> int:
    pages = Path(f"/proc/{road.bridge.process.pid}/statm").read_text().split()[1]
    return int(pages) * os.sysconf("SC_PAGE_SIZE")


def test_a_thousand_chunks_leave_nothing_behind(tmp_path_factory: pytest.TempPathFactory) -> None:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    road = ControlRoad(tmp_path_factory.mktemp("road"), agent, polls=3600, arguments=("-v", "2"))
    try:
        road.wait_ready()
        send_many(road, CHUNKS // 10)
        before, memory = road.bridge.resources(), memory_of(road)
        send_many(road, CHUNKS)
        assert road.bridge.resources() == before
        # A sanitizer keeps what was freed for a while.
        assert is_checked_for_leaks() or memory_of(road) - memory < MEMORY_KEPT
    finally:
        road.close()
        agent.close()


def send_many(road: ControlRoad, count: int) -> None:
    content = random.Random(count).randbytes(65536)
    text = base64.b64encode(content).decode()
    done = {"status": "ok"}
    assert road.command("fileUploadStart", {**START, "b64ChunkLength": len(text)}).response == done
    for _ in range(count):
        assert road.command("fileUploadChunk", {"data": text}).response == done
        road.peer.messages.clear()
    assert road.command("fileUploadStop", STAY).response == done
    assert staged(road).stat().st_size == count * len(content)

"""Whole transfers by the command-line client: both ends of a file, and what it tells of the way."""
import os
import pty
import re
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

from file_jobs import MIB, SHM, FileGateway, children, content_of, file_gateway, is_ended
from harness.bridge import REPOSITORY
from harness.waiting import wait_until

OAM = REPOSITORY / "lab" / "oam"
DONE, FAILED, MISUSED = 0, 1, 2
RATE = r"\d+\.\d s, \d+\.\d MB/s"

Done = subprocess.CompletedProcess[str]


@pytest.fixture(scope="module")
def gateway(tmp_path_factory: pytest.TempPathFactory) -> Iterator[FileGateway]:
    with file_gateway(tmp_path_factory) as made:
        yield made


def command(gateway: FileGateway, *arguments: str, timeout: str = "20") -> list[str]:
    return [str(OAM), "--port", str(gateway.road.broker.port), "--timeout", timeout, *arguments]


def oam(gateway: FileGateway, work: Path, *arguments: str, timeout: str = "20") -> Done:
    return subprocess.run(
        command(gateway, *arguments, timeout=timeout), cwd=work, capture_output=True, text=True, timeout=60
    )


@pytest.mark.parametrize("size", [1, 5 * MIB + 1])
def test_a_streamed_file_is_kept_under_its_own_name(gateway: FileGateway, tmp_path: Path, size: int) -> None:
    content = content_of(size)
    gateway.put(f"{SHM}/data two.bin", content)
    done = oam(gateway, tmp_path, "stream", "shm/data two.bin")
    assert (done.returncode, done.stderr) == (DONE, "")
    assert re.fullmatch(rf"shm/data two\.bin: {size} bytes, {RATE}\n", done.stdout)
    assert (tmp_path / "data two.bin").read_bytes() == content
    assert os.listdir(tmp_path) == ["data two.bin"]


def test_a_part_of_a_file_is_streamed_where_it_is_wanted(gateway: FileGateway, tmp_path: Path) -> None:
    content = content_of(1000)
    gateway.put(f"{SHM}/data.bin", content)
    arguments = ("--offset", "100", "--size", "50", "--to", "part")
    assert oam(gateway, tmp_path, "stream", "shm/data.bin", *arguments).returncode == DONE
    assert (tmp_path / "part").read_bytes() == content[100:150]
    assert oam(gateway, tmp_path, "stream", "shm/data.bin", "--offset", "990").returncode == DONE
    assert (tmp_path / "data.bin").read_bytes() == content[990:]


@pytest.mark.parametrize("size", [0, 1, 5 * MIB + 1])
def test_a_file_is_fetched_from_here(gateway: FileGateway, tmp_path: Path, size: int) -> None:
    content = content_of(size)
    (tmp_path / "my file").write_bytes(content)
    done = oam(gateway, tmp_path, "fetch", "shm/fetched.bin", "my file")
    assert (done.returncode, done.stderr) == (DONE, "")
    assert re.fullmatch(rf"shm/fetched\.bin: {size} bytes, {RATE}\n", done.stdout)
    assert gateway.inside(f"{SHM}/fetched.bin").read_bytes() == content


@pytest.mark.parametrize(
    "arguments, reason",
    [
        (("stream", "shm/missing"), "shm/missing: there is no such file"),
        (
            ("stream", "nowhere/a"),
            'nowhere/a: fopsScanDir: {"entries": [], "status": "No such file or directory"}',
        ),
        (("stream", "shm/empty"), "shm/empty: there is nothing to stream"),
        (("stream", "shm/missing", "--size", "1"), "shm/missing: No such file or directory"),
        (("stream", "config/a.key", "--size", "1"), 'fopsStreamStart: {"status": "Permission denied"}'),
        (("fetch", "logs/a.log", "here"), 'logs/a.log: fopsFetchStart: {"status": "Permission denied"}'),
        (("fetch", "shm/folder", "here"), "shm/folder: Is a directory"),
        (("fetch", "shm/a", "missing"), "[Errno 2] No such file or directory: 'missing'"),
    ],
    ids=lambda each: " ".join(each)[:40] if isinstance(each, tuple) else "",
)
def test_what_the_gateway_does_not_do_is_told(
    gateway: FileGateway, tmp_path: Path, arguments: tuple[str, ...], reason: str
) -> None:
    gateway.put(f"{SHM}/empty", b"")
    gateway.inside(f"{SHM}/folder").mkdir(exist_ok=True)
    (tmp_path / "here").write_bytes(b"content")
    done = oam(gateway, tmp_path, *arguments)
    assert (done.returncode, done.stdout) == (FAILED, "")
    assert done.stderr.endswith(f"{reason}\n")
    for job in children(gateway.pid):
        wait_until(lambda job=job: is_ended(job), "the job's end")  # type: ignore[misc]


@pytest.mark.parametrize("arguments", [("stream",), ("fetch", "shm/a"), ("stream", "a", "b")], ids=" ".join)
def test_a_wrong_command_line_is_told(
    gateway: FileGateway, tmp_path: Path, arguments: tuple[str, ...]
) -> None:
    assert oam(gateway, tmp_path, *arguments).returncode == MISUSED


def test_a_transfer_in_which_nothing_moves_is_ended_on_the_gateway(
    gateway: FileGateway, tmp_path: Path
) -> None:
    """The job waits for one who writes into a named pipe."""
    os.mkfifo(gateway.inside(f"{SHM}/pipe"))
    done = oam(gateway, tmp_path, "stream", "shm/pipe", "--size", "1", timeout="4")
    assert done.returncode == FAILED
    assert done.stderr == "ending the transfer\nshm/pipe: nothing has moved for 4 s\n"
    assert all(is_ended(job) for job in children(gateway.pid))


def test_progress_is_shown_to_a_person(gateway: FileGateway, tmp_path: Path) -> None:
    gateway.put(f"{SHM}/large.bin", content_of(50 * MIB))
    ours, theirs = pty.openpty()
    process = subprocess.Popen(
        command(gateway, "stream", "shm/large.bin"), cwd=tmp_path, stdout=subprocess.DEVNULL, stderr=theirs
    )
    os.close(theirs)
    shown = b""
    try:
        while piece := os.read(ours, 4096):
            shown += piece
    except OSError:  # the other side is closed
        pass
    assert process.wait(20) == DONE
    os.close(ours)
    lines = [line.strip() for line in shown.split(b"\r") if line.strip()]
    assert lines[0] == b"0.0 of 52.4 MB, 0 %" and lines[-1] == b"52.4 of 52.4 MB, 100 %"

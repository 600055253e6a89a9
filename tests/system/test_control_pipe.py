"""What the commands' service keeps outside the process: folders, the FIFO of late answers, state files."""
import json
import re
import stat
import threading
from pathlib import Path
from typing import Any, Callable, Iterator, Optional

import pytest

from conftest import Cleanup
from harness.control import ASYNC_RESPONSES, PIPE, STATE, ControlRoad
from harness.lab import LabAgent, start_agent
from harness.waiting import wait_until

READ_SIZE = 4096

FOLDERS = [
    "usr/share/snv-mqtt-bridge",
    "usr/share/snv-mqtt-bridge/scripts",
    "var/log",
    "var/log/.snv_bridge_bkp",
    "var/lib/logs",
    "var/lib/logs/.snv_bridge_bkp",
    "lib/firmware",
    "lib/firmware/opkg",
    "dev/shm/modem_downloads",
    "etc/default",
]


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("shared"))
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def start(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Callable[..., ControlRoad]:
    def run(**options: Any) -> ControlRoad:
        made = ControlRoad(tmp_path / "road", agent, **options)
        cleanup.add(made)
        return made

    return run


# --- folders ---


def test_the_folders_of_the_commands_are_there(shared: ControlRoad) -> None:
    kinds = {path: shared.inside(path).is_dir() for path in FOLDERS}
    assert kinds == dict.fromkeys(FOLDERS, True)
    assert stat.S_IMODE(shared.inside("var/lib/logs").stat().st_mode) == 0o755, "0775 and the umask"
    shared.bridge.wait_for_log("/var/log is already created")


# --- the pipe ---


def test_the_pipe_is_a_fifo_for_the_daemons_user_alone(shared: ControlRoad) -> None:
    mode = shared.inside(PIPE).stat().st_mode
    assert stat.S_ISFIFO(mode) and stat.S_IMODE(mode) == 0o600
    for text in (
        "creating async response pipe and threads",
        r"async pipe descriptor: \[\d+\]",
        "starting async pipe watch thread",
    ):
        shared.bridge.wait_for_log(re.compile(text))


@pytest.mark.parametrize(
    "text",
    [b'{"mac":"0102","requestId":7,"response":{"status":"ok"}}', b"x", b"\0", b"\xff\xfe", b"A" * READ_SIZE],
    ids=lambda each: repr(each[:12]),
)
def test_a_text_goes_out_as_it_was_written(shared: ControlRoad, text: bytes) -> None:
    mark, log = shared.peer.mark(), shared.bridge.log.mark()
    shared.write_pipe(text)
    message = shared.peer.wait_for(lambda each: each.topic == ASYNC_RESPONSES, after=mark)
    assert (message.payload, message.retain) == (text, False), "no terminator is added"
    shared.bridge.wait_for_log(f"read [{len(text)}] bytes from async pipe: ", after=log)


def collected(road: ControlRoad, mark: int, size: int) -> list[bytes]:
    def pieces() -> list[bytes]:
        return [each.payload for each in road.peer.since(mark) if each.topic == ASYNC_RESPONSES]

    wait_until(lambda: sum(map(len, pieces())) >= size, f"{size} bytes")
    return pieces()


@pytest.mark.parametrize("size", [READ_SIZE + 1, 2 * READ_SIZE, 50000])
def test_a_longer_text_goes_out_in_pieces(shared: ControlRoad, size: int) -> None:
    mark = shared.peer.mark()
    text = bytes(65 + place % 26 for place in range(size))
    shared.write_pipe(text)
    pieces = collected(shared, mark, size)
    assert b"".join(pieces) == text
    assert max(map(len, pieces)) <= READ_SIZE and len(pieces) >= 2


def test_texts_of_two_writers_stay_whole(shared: ControlRoad) -> None:
    """Two close ones may go out as one message, but none is cut by another."""
    mark = shared.peer.mark()
    texts = {
        name: [json.dumps({"of": name, "number": number, "fill": "x" * 200}) for number in range(100)]
        for name in ("first", "second")
    }

    def write(name: str) -> None:
        for text in texts[name]:
            shared.write_pipe(text.encode())

    writers = [threading.Thread(target=write, args=(name,)) for name in texts]
    for writer in writers:
        writer.start()
    for writer in writers:
        writer.join()
    size = sum(len(text) for each in texts.values() for text in each)
    joined = b"".join(collected(shared, mark, size)).decode()
    found = re.findall(r"\{.*?\}", joined)
    assert "".join(found) == joined, "nothing between the texts"
    for name, expected in texts.items():
        assert [text for text in found if f'"{name}"' in text] == expected


# --- state files ---

NONE = "setting install status to none"


@pytest.mark.parametrize(
    "content, messages",
    [
        (None, (NONE, "Read last sw cmd: 0, req id: 0")),
        ("", (NONE, "Read last sw cmd: 0, req id: 0")),
        ("nothing\n", (NONE, "Read last sw cmd: 0, req id: 0")),
        ("2:upgrade\n", ("read install status: 2", "Read last sw cmd: 2, req id: 0")),
        ("1:install", ("read install status: 1", "Read last sw cmd: 1, req id: 0")),
        ("1:install\n17:req\n", ("read install status: 1", "Read last sw cmd: 1, req id: 17")),
        ("1:other\n9223372036854775807:req\n", ("Read last sw cmd: 1, req id: 9223372036854775807",)),
        ("3:localupgrade\n0:req\n", ("read install status: 3", "Read last sw cmd: 3, req id: 0")),
    ],
    ids=repr,
)
def test_the_last_software_operation_is_read_at_start(
    start: Callable[..., ControlRoad], content: Optional[str], messages: tuple[str, ...]
) -> None:
    road = start(state=None if content is None else {"last_sw_status": content}).wait_ready()
    for text in ("de-serializing status from file idx: 0", *messages):
        assert len(road.bridge.log.find(text)) == 1, text
    names = {each.name: each.read_text() for each in road.state.iterdir()}
    assert names == {"last_sw_status": content or "", "last_wm_fw_status": ""}, "missing ones are made, empty"
    assert not road.bridge.log.find("Started polling BSP upgrade status worker")


def test_a_state_folder_that_is_a_file_keeps_the_control_plane_down(
    start: Callable[..., ControlRoad], tmp_path: Path
) -> None:
    path = tmp_path / "road" / STATE
    path.parent.mkdir()
    path.write_text("")
    road = start()
    road.bridge.wait_for_log(f"path for keeping bridge files {path} exists, but it isn't a directory")
    road.bridge.wait_for_log("ctrlplane initialization failed: restarting")
    path.unlink()
    road.wait_ready()
    assert path.is_dir() and stat.S_IMODE(path.stat().st_mode) == 0o755


def test_a_state_file_that_is_a_folder_keeps_the_control_plane_down(
    start: Callable[..., ControlRoad], tmp_path: Path
) -> None:
    path = tmp_path / "road" / STATE / "last_wm_fw_status"
    path.mkdir(parents=True)
    road = start()
    road.bridge.wait_for_log(f"state path {path} exists, but it isn't a regular file")
    road.bridge.wait_for_log("ctrlplane initialization failed: restarting")
    path.rmdir()
    road.wait_ready()
    assert path.is_file()

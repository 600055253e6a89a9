"""The gateway's folders as an OA&M server sees them, and the copies of logs made for it."""
import json
import os
import random
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path
from typing import Any, Iterator

import pytest

from command_outcome import Outcome, quiet_road, run
from harness.bridge import REPOSITORY
from harness.control import ControlRoad
from harness.lab import LabAgent
from harness.waiting import PATIENCE, wait_until

pytestmark = pytest.mark.xdist_group("commands_logs")

LOGS, OLD_LOGS = "var/log", "var/lib/logs"
COPIES, OLD_COPIES = f"{LOGS}/.snv_bridge_bkp", f"{OLD_LOGS}/.snv_bridge_bkp"
TIMESTAMPS = (f"{COPIES}.tmst", f"{OLD_COPIES}.tmst")
LIFETIME = 60

UNREAD = "ERROR failed to de-serialize scandir parameters"
NO_FIELD = "WARN unable to retrieve field"
NO_TEXT = "WARN unable to fetch string"
TOO_LONG = "WARN not enough space for incoming string"


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    with quiet_road(tmp_path_factory) as road:
        yield road


def write(road: ControlRoad, path: str, content: str = "content") -> Path:
    file = road.inside(path)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(content)
    return file


def remove_files(folder: Path) -> None:
    for each in folder.iterdir() if folder.is_dir() else ():
        if each.is_symlink() or not each.is_dir():
            each.unlink()


# --- listing ---

REAL_FOLDERS = (
    LOGS,
    OLD_LOGS,
    COPIES,
    OLD_COPIES,
    "lib/firmware",
    "lib/firmware/opkg",
    "dev/shm",
    "dev/shm/modem_downloads",
    "usr/share/snv-mqtt-bridge/scripts",
    "etc/default",
    "etc/opkg",
    "etc/awsiot",
    "etc/bstn",
)


@pytest.fixture
def road(shared: ControlRoad) -> Iterator[ControlRoad]:
    """Without a file in any folder of the tree, and no retrieval is running."""
    for folder in REAL_FOLDERS:
        remove_files(shared.inside(folder))
    yield shared


def scan(road: ControlRoad, path: object) -> Outcome:
    return run(road, "fopsScanDir", {"path": path})


def text_of(value: object) -> str:
    """As the daemon writes it, with slashes escaped."""
    return json.dumps(value, ensure_ascii=False).replace("/", "\\/")


def folder_entry(name: str) -> str:
    return f'{{"name":{text_of(name)},"type":"dir"}}'


def file_entry(name: str, access: str, size: int = 7) -> str:
    return f'{{"name":"{name}","access":"{access}","type":"file","size":{size}}}'


def listed(path: str, *entries: str) -> Outcome:
    """Keys in this order."""
    return Outcome(f'{{"entries":[{",".join(entries)}],"path":{text_of(path)},"status":"ok"}}', [], [])


def not_listed(status: str, *complaints: str) -> Outcome:
    return Outcome(f'{{"entries":[],"status":"{status}"}}', list(complaints), [])


def missing(path: str) -> Outcome:
    return not_listed(
        "No such file or directory",
        f"ERROR failed to fetch dirpath: {path}",
        "ERROR failed to scan a directory: -2",
    )


ROOT = [folder_entry(name) for name in ("logs", "logs_bkp", "firmware", "modem", "scripts", "config", "shm")]

# Virtual folder; real files that are listed, in the order of the folder's rows; their rights; and some that
# are not. Each row has one file here: the order within a row is the file system's.
FOLDERS: list[tuple[str, list[tuple[str, str]], list[str]]] = [
    (
        "logs",
        [(f"{LOGS}/messages.log", "r"), (f"{OLD_LOGS}/messages.1.gz", "r"), (f"{OLD_LOGS}/run.txt", "r")],
        [f"{LOGS}/wtmp", f"{LOGS}/x.gz", f"{LOGS}/x.txt", f"{OLD_LOGS}/x.log", f"{COPIES}/x.log"],
    ),
    (
        "logs_bkp",
        [(f"{COPIES}/messages.log", "r"), (f"{OLD_COPIES}/messages.1.gz", "r")],
        [f"{COPIES}/x.gz", f"{OLD_COPIES}/x.txt", f"{LOGS}/y.log"],
    ),
    ("firmware/opkg", [("lib/firmware/opkg/p.ipk", "rw")], ["lib/firmware/image"]),
    ("modem", [("dev/shm/modem_downloads/image", "rw")], ["dev/shm/other"]),
    ("scripts", [("usr/share/snv-mqtt-bridge/scripts/run.sh", "rx")], []),
    (
        "config",
        [
            ("etc/default/a.json", "rw"),
            ("etc/default/mqtt-1.conf", "rw"),
            ("etc/opkg/base-feed.conf", "rw"),
            ("etc/awsiot/awsiot-tunnel.token", "w"),
            ("etc/bstn/cups.key", "w"),
        ],
        ["etc/default/x.conf", "etc/opkg/x.conf", "etc/awsiot/awsiot", "etc/bstn/x.cert", "etc/hosts"],
    ),
    ("shm", [("dev/shm/.hidden", "rw")], ["dev/shm/modem_downloads/image"]),
]


@pytest.mark.parametrize("path, seen, unseen", FOLDERS, ids=[row[0] for row in FOLDERS])
def test_a_folder_lists_the_files_of_its_rows(
    road: ControlRoad, path: str, seen: list[tuple[str, str]], unseen: list[str]
) -> None:
    for size, (file, _) in enumerate(seen):
        write(road, file, "x" * size)
    for file in unseen:
        write(road, file)
    entries = [file_entry(Path(file).name, access, size) for size, (file, access) in enumerate(seen)]
    assert scan(road, path) == listed(path, *entries)


def test_the_root_lists_its_folders(road: ControlRoad) -> None:
    assert scan(road, "/") == listed("/", *ROOT)


def test_a_folder_of_the_tree_stands_before_the_files(road: ControlRoad) -> None:
    write(road, "lib/firmware/image")
    road.inside("lib/firmware/real-folder").mkdir()
    try:
        entries = [folder_entry("opkg"), file_entry("image", "rw")]
        assert scan(road, "firmware") == listed("firmware", *entries)
    finally:
        road.inside("lib/firmware/real-folder").rmdir()


@pytest.mark.parametrize(
    "path",
    ["/logs", "logs/", "//logs///", "./logs", "config/../logs", "nothing/../logs", "logs/x/..", "log", "lo"],
)
def test_a_folder_has_many_names_and_the_one_asked_for_comes_back(road: ControlRoad, path: str) -> None:
    write(road, f"{LOGS}/a.log")
    assert scan(road, path) == listed(path, file_entry("a.log", "r"))


def test_a_path_ends_at_a_nul(road: ControlRoad) -> None:
    write(road, f"{LOGS}/a.log")
    assert scan(road, "logs\0/../shm") == listed("logs", file_entry("a.log", "r"))


@pytest.mark.parametrize("path", ["/" * 4095, "/." * 2047, "/.." * 1000, "/logs/.."], ids=len)
def test_a_long_way_to_the_root_is_the_root(road: ControlRoad, path: str) -> None:
    assert scan(road, path) == listed(path, *ROOT)


@pytest.mark.parametrize(
    "path",
    [
        "",
        ".",
        "..",
        "../logs",
        "logs/../../logs",
        "logs/..",
        "nothing",
        "logsx",
        "LOGS",
        "logs/a.log",
        "logs/logs",
        "firmware/image",
        "/var/log",
        "/etc",
        "*",
        "lo*",
        "a" * 4095,
        "%s%n",
    ],
    ids=lambda each: str(each)[:20],
)
def test_what_is_no_folder_of_the_tree_is_not_there(road: ControlRoad, path: str) -> None:
    write(road, f"{LOGS}/a.log")
    write(road, "lib/firmware/image")
    assert scan(road, path) == missing(path)


def test_a_number_is_taken_by_its_text(road: ControlRoad) -> None:
    assert scan(road, 17) == missing("17")


@pytest.mark.parametrize(
    "params, complaints",
    [
        (None, [UNREAD]),
        ([], [NO_FIELD, UNREAD]),
        ("logs", [NO_FIELD, UNREAD]),
        ({}, [NO_FIELD, UNREAD]),
        ({"Path": "logs"}, [NO_FIELD, UNREAD]),
        ({"path": None}, [NO_TEXT, UNREAD]),
        ({"path": "/" * 4096}, [TOO_LONG, UNREAD]),
        ({"path": "/" * 100_000}, [TOO_LONG, UNREAD]),
    ],
    ids=lambda each: str(each)[:20],
)
def test_a_path_that_cannot_be_read(road: ControlRoad, params: object, complaints: list[str]) -> None:
    assert run(road, "fopsScanDir", params) == not_listed("Invalid argument", *complaints)


def test_a_real_folder_that_is_not_there_is_left_out(road: ControlRoad) -> None:
    shutil.rmtree(road.inside("etc/bstn"), ignore_errors=True)
    write(road, "etc/default/a.json")
    mark = road.bridge.log.mark()
    assert scan(road, "config") == listed("config", file_entry("a.json", "rw"))
    skipped = "can't access dir: /etc/bstn, skipping fetching files from it"
    assert [line for line in road.bridge.log.since(mark) if line.endswith(skipped)]


def test_links_are_listed_with_the_size_of_what_they_show(road: ControlRoad) -> None:
    write(road, "tmp/target", "x" * 23)
    road.inside(f"{LOGS}/link.log").symlink_to("/tmp/target")
    road.inside(f"{LOGS}/dangling.log").symlink_to("/tmp/nothing")
    assert scan(road, "logs") == listed("logs", file_entry("link.log", "r", 23))


def test_names_of_any_kind_are_listed(road: ControlRoad) -> None:
    names = ['quo"te.log', "back\\slash.log", "line\nend.log", "größe.log", " .log", ".log", "%n.log"]
    for name in names:
        write(road, f"{LOGS}/{name}")
    found = json.loads(scan(road, "logs").response)["entries"]
    assert sorted(each["name"] for each in found) == sorted(names)


def test_a_thousand_files_are_listed(road: ControlRoad) -> None:
    for number in range(1000):
        write(road, f"{LOGS}/{number:0100}.log", "")
    found = json.loads(scan(road, "logs").response)
    assert sorted(int(each["name"].removesuffix(".log")) for each in found["entries"]) == list(range(1000))
    assert list(found) == ["entries", "path", "status"]


# --- retrieval of logs ---

RUNNING = "log retrieval is already started"
BEGUN = '{"backupDir":"logs_bkp","status":"ok"}'
ENDED = Outcome('{"status":"ok"}', [], [])
NOT_RUNNING = Outcome('{"status":"Invalid argument"}', ["ERROR log retrieval is not running"], [])
WATCHER = re.compile(r"bridge_fileops_watch.cpp:\d+ launched process pid: \[(\d+)\]")
FILES = ["logs/a.log", "logs/b.gz", "logs/c.log"]


def begin(road: ControlRoad, files: object) -> Outcome:
    return run(road, "logRetrieveStart", {"requiredFiles": files})


def end(road: ControlRoad) -> Outcome:
    return run(road, "logRetrieveStop", {})


def not_begun(status: str, *complaints: str) -> Outcome:
    return Outcome(f'{{"backupDir":"logs_bkp","status":"{status}"}}', list(complaints), [])


def is_alive(process: int) -> bool:
    """A process that has ended and waits to be asked for its status does not count."""
    try:
        return Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


def watchers(road: ControlRoad, mark: int = 0) -> list[int]:
    return [int(found.group(1)) for found in map(WATCHER.search, road.bridge.log.since(mark)) if found]


def copies(road: ControlRoad) -> list[str]:
    return sorted(
        each.name
        for folder in (COPIES, OLD_COPIES)
        for each in road.inside(folder).iterdir()
        if each.is_file() and each.suffix in (".log", ".gz")
    )


def make_old(timestamp: Path, seconds: int) -> int:
    """Returns the second that it now tells."""
    told = int(time.time()) - seconds
    os.utime(timestamp, (told, told))
    return told


def expire(road: ControlRoad, watcher: int) -> None:
    """The watcher clears all and ends."""
    for path in TIMESTAMPS:
        make_old(road.inside(path), LIFETIME)
    wait_until(lambda: not is_alive(watcher), "the watcher ends")


@pytest.fixture
def logs(road: ControlRoad) -> Iterator[ControlRoad]:
    """With three logs to retrieve. A retrieval that a test leaves ends with it."""
    for path in (f"{LOGS}/a.log", f"{OLD_LOGS}/b.gz", f"{LOGS}/c.log"):
        write(road, path, path)
    yield road
    for process in watchers(road):
        if is_alive(process):
            expire(road, process)
    assert end(road) in (ENDED, NOT_RUNNING)


def test_a_whole_retrieval(logs: ControlRoad) -> None:
    mark = logs.bridge.log.mark()
    assert begin(logs, FILES) == Outcome(BEGUN, [], [])
    (watcher,) = watchers(logs, mark)
    assert is_alive(watcher)
    assert "slave process started" in logs.bridge.wait_for_log(f"[{watcher}][INFO  ]", after=mark)
    for log, copy in ((f"{LOGS}/a.log", COPIES), (f"{OLD_LOGS}/b.gz", OLD_COPIES)):
        assert logs.inside(log).samefile(logs.inside(copy) / Path(log).name)
    for path in TIMESTAMPS:
        status = logs.inside(path).stat()
        assert status.st_size == 0 and status.st_mode & 0o7777 == 0o700
    again = Outcome('{"status":"Operation now in progress"}', [f"ERROR {RUNNING}"], [])
    assert begin(logs, FILES) == again and begin(logs, None) == again

    logs.inside(f"{LOGS}/a.log").unlink()  # as its rotation does
    found = json.loads(scan(logs, "logs_bkp").response)
    size = len(f"{LOGS}/a.log")
    assert {"name": "a.log", "access": "r", "type": "file", "size": size} in found["entries"]
    assert [each["name"] for each in found["entries"]][-1] == "b.gz" and len(found["entries"]) == 3

    mark = logs.bridge.log.mark()
    assert end(logs) == ENDED
    assert not is_alive(watcher) and not Path(f"/proc/{watcher}").exists()
    assert copies(logs) == []
    assert logs.inside(f"{LOGS}/c.log").exists() and logs.inside(f"{OLD_LOGS}/b.gz").exists()
    assert all(logs.inside(path).exists() for path in TIMESTAMPS)
    assert end(logs) == NOT_RUNNING
    told = [line for line in logs.bridge.log.since(mark) if "log retrieval" in line and "[INFO" in line]
    assert len(told) == 2 and told[0].endswith("stopping log retrieval")


def test_a_watcher_holds_nothing_of_the_daemons(logs: ControlRoad) -> None:
    mark = logs.bridge.log.mark()
    assert begin(logs, FILES).response == BEGUN
    (watcher,) = watchers(logs, mark)
    held = Path(f"/proc/{watcher}/fd")
    wait_until(lambda: {each.name for each in held.iterdir()} == {"0", "1", "2"}, "it drops the daemon's")


def test_copies_stay_for_a_minute_and_each_folder_goes_by_its_own_timestamp(logs: ControlRoad) -> None:
    kept = [write(logs, f"{COPIES}/kept.txt"), write(logs, f"{OLD_COPIES}/kept.log", "")]
    mark = logs.bridge.log.mark()
    assert begin(logs, FILES).response == BEGUN
    (watcher,) = watchers(logs, mark)
    first, second = (logs.inside(path) for path in TIMESTAMPS)
    logs.inside(COPIES).joinpath("late.log").write_text("")

    told = make_old(first, LIFETIME - 3)
    wait_until(lambda: not first.exists(), "the first folder's time passes")
    assert time.time() >= told + LIFETIME
    assert copies(logs) == ["b.gz", "kept.log"]
    assert second.exists() and is_alive(watcher)

    make_old(second, LIFETIME)
    wait_until(lambda: not is_alive(watcher), "the watcher ends")
    assert copies(logs) == ["kept.log"] and all(each.exists() for each in kept)
    assert not second.exists()
    assert all(logs.inside(path).exists() for path in (f"{LOGS}/a.log", f"{LOGS}/c.log", f"{OLD_LOGS}/b.gz"))
    done = f"[{watcher}][INFO  ] bridge_fileops_watch.cpp"
    assert [line for line in logs.bridge.log.find(done) if "no more files in watched dirs, exiting" in line]

    assert begin(logs, FILES).response == '{"status":"Operation now in progress"}', "until it is stopped"
    assert end(logs) == ENDED
    assert not Path(f"/proc/{watcher}").exists()


def test_a_retrieval_after_another_clears_the_copies_and_starts_a_new_watcher(logs: ControlRoad) -> None:
    processes: list[int] = []
    none: list[str] = []
    for files in (FILES[:1], FILES[1:], none):
        mark = logs.bridge.log.mark()
        write(logs, f"{COPIES}/old.log")
        assert begin(logs, files).response == BEGUN
        processes += watchers(logs, mark)
        assert copies(logs) == sorted(Path(each).name for each in files)
        expire(logs, processes[-1])
        assert end(logs) == ENDED
    assert len(set(processes)) == 3


@pytest.mark.parametrize("place", range(3))
def test_of_the_required_files_all_are_copied_or_none(logs: ControlRoad, place: int) -> None:
    files = [*FILES]
    files[place] = "logs/missing.log"
    foreign = write(logs, f"{COPIES}/foreign.txt")
    mark = logs.bridge.log.mark()
    assert begin(logs, files) == not_begun(
        "No such file or directory",
        "ERROR link failed with error: No such file or directory",
        "WARN cleaning previously created links (if any)",
    )
    assert copies(logs) == [] and foreign.exists()
    removed = [line for line in logs.bridge.log.since(mark) if "removing real file: " in line]
    assert len(removed) == place
    assert watchers(logs, mark) == []
    assert end(logs) == NOT_RUNNING


CLEANED = "WARN cleaning previously created links (if any)"


def not_in_tree(path: str) -> list[str]:
    return [f"ERROR {path} is not found in the tree", CLEANED]


@pytest.mark.parametrize(
    "element, status, complaints",
    [
        (None, "Cannot allocate memory", ["ERROR failed to de-serialize file name", CLEANED]),
        ("", "Cannot allocate memory", ["ERROR failed to extract segment from path", CLEANED]),
        ("..", "Cannot allocate memory", ["ERROR failed to extract segment from path", CLEANED]),
        (17, "No such file or directory", not_in_tree("17")),
        (["logs/a.log"], "No such file or directory", not_in_tree('[ "logs\\/a.log" ]')),
        ("a.log", "No such file or directory", not_in_tree("a.log")),
        ("logs", "No such file or directory", not_in_tree("logs")),
        ("../logs/a.log", "No such file or directory", not_in_tree("../logs/a.log")),
        ("/var/log/a.log", "No such file or directory", not_in_tree("/var/log/a.log")),
        ("logs/d.txt", "No such file or directory", not_in_tree("logs_bkp/d.txt")),
        ("logs/c.log", "File exists", ["ERROR link failed with error: File exists", CLEANED]),
        (
            "shm/e.log",
            "Invalid cross-device link",
            ["ERROR link failed with error: Invalid cross-device link", CLEANED],
        ),
        (
            "logs/" + "l" * 300 + ".log",
            "File name too long",
            ["ERROR link failed with error: File name too long", CLEANED],
        ),
    ],
    ids=lambda each: str(each)[:20],
)
def test_a_file_that_cannot_be_copied(
    logs: ControlRoad, element: object, status: str, complaints: list[str]
) -> None:
    for path in ("tmp/canary.log", f"{OLD_LOGS}/d.txt", "dev/shm/e.log"):
        write(logs, path)
    assert begin(logs, ["logs/c.log", "logs/b.gz", element]) == not_begun(status, *complaints)
    assert copies(logs) == []
    assert end(logs) == NOT_RUNNING


def test_a_path_too_long_to_resolve(logs: ControlRoad) -> None:
    path = "logs/" + "l/" * 2100 + "a.log"
    complaints = [f"ERROR path {path} is too long to normalize", CLEANED]
    assert begin(logs, [path]) == not_begun("Invalid argument", *complaints)


@pytest.mark.parametrize(
    "params",
    [
        None,
        [],
        ["logs/a.log"],
        "text",
        5,
        {},
        {"requiredfiles": FILES},
        {"requiredFiles": None},
        {"requiredFiles": "logs/a.log"},
        {"requiredFiles": {"0": "logs/a.log"}},
        {"requiredFiles": 5},
        {"requiredFiles": True},
    ],
    ids=str,
)
def test_required_files_are_an_array(logs: ControlRoad, params: object) -> None:
    old = write(logs, f"{COPIES}/old.log")
    wanted = not_begun("Invalid argument", "ERROR failed to parse incoming parameters")
    assert run(logs, "logRetrieveStart", params) == wanted
    assert old.exists(), "nothing is cleared yet"
    assert end(logs) == NOT_RUNNING


@pytest.mark.parametrize("params", [None, [], "text", {"requiredFiles": 5}], ids=str)
def test_a_stop_asks_for_no_params(logs: ControlRoad, params: object) -> None:
    assert run(logs, "logRetrieveStop", params) == NOT_RUNNING


def test_a_timestamp_that_cannot_be_made(logs: ControlRoad) -> None:
    for path in TIMESTAMPS:
        logs.inside(path).unlink(missing_ok=True)
    hidden = logs.inside(OLD_LOGS).rename(logs.inside("var/lib/hidden"))
    mark = logs.bridge.log.mark()
    try:
        reason = "No such file or directory"
        wanted = not_begun(reason, f"ERROR failed to create timestamp file: {reason}")
        assert begin(logs, ["logs/a.log"]) == wanted
    finally:
        hidden.rename(logs.inside(OLD_LOGS))
    assert logs.inside(TIMESTAMPS[0]).exists() and not logs.inside(TIMESTAMPS[1]).exists()
    assert watchers(logs, mark) == []
    assert end(logs) == NOT_RUNNING


def test_of_many_starts_at_once_one_begins(logs: ControlRoad) -> None:
    files = [f"logs/{number}.log" for number in range(300)]
    for file in files:
        write(logs, f"{LOGS}/{Path(file).name}", "")
    mark = logs.bridge.log.mark()
    numbers = [logs.send("logRetrieveStart", {"requiredFiles": files}) for _ in range(10)]
    told: list[Any] = [logs.answer_to(number).response for number in numbers]
    assert sorted(each["status"] for each in told) == ["Operation now in progress"] * 9 + ["ok"]
    assert len(watchers(logs, mark)) == 1
    assert len(copies(logs)) == len(files)


def test_the_client_of_the_lab_brings_all_logs(logs: ControlRoad, tmp_path: Path) -> None:
    content = random.Random(1).randbytes(3_000_000)
    logs.inside(f"{LOGS}/big.log").write_bytes(content)
    write(logs, f"{LOGS}/empty.log", "")
    write(logs, f"{OLD_LOGS}/run.txt")
    command = [str(REPOSITORY / "lab" / "oam"), "--port", str(logs.broker.port), "logs", str(tmp_path)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")
    names = ["a.log", "b.gz", "big.log", "c.log", "empty.log"]
    assert done.stdout.splitlines()[-1].startswith("logs: 5 files, ")
    assert sorted(each.name for each in tmp_path.iterdir()) == names
    assert (tmp_path / "big.log").read_bytes() == content
    assert (tmp_path / "b.gz").read_text() == f"{OLD_LOGS}/b.gz"
    assert copies(logs) == [] and end(logs) == NOT_RUNNING


def test_the_watcher_outlives_the_daemon_as_long_as_the_copies(
    tmp_path_factory: pytest.TempPathFactory,
) -> None:
    with quiet_road(tmp_path_factory) as road:
        write(road, f"{LOGS}/a.log")
        assert begin(road, ["logs/a.log"]).response == BEGUN
        (watcher,) = watchers(road)
        own = Path(f"/proc/{watcher}/root")
        road.bridge.signal(signal.SIGUSR2)
        road.bridge.process.wait(PATIENCE)
        assert is_alive(watcher) and (own / COPIES / "a.log").exists()
        for path in TIMESTAMPS:
            make_old(own / path, LIFETIME)
        wait_until(lambda: not is_alive(watcher), "the watcher ends")
        assert road.bridge.wait_exit() == 0


@pytest.mark.waits_long
@pytest.mark.xdist_group("commands_logs_restart")
def test_a_restart_ends_the_watcher_and_clears_what_has_expired(tmp_path: Path, agent: LabAgent) -> None:
    road = ControlRoad(tmp_path / "road", agent).wait_ready()
    try:
        write(road, f"{LOGS}/a.log")
        assert begin(road, ["logs/a.log"]).response == BEGUN
        (watcher,) = watchers(road)
        upload = {"isModemFw": False, "name": "f", "size": 1, "b64ChunkLength": 4, "b64TotalLength": 4}
        assert road.command("fileUploadStart", upload).response == {"status": "ok"}
        road.broker.kill()
        road.bridge.wait_for_log("stopping command services")
        wait_until(lambda: not Path(f"/proc/{watcher}").exists(), "the watcher is stopped")
        assert copies(road) == ["a.log"], "its time has not passed"
        for path in TIMESTAMPS:
            make_old(road.inside(path), LIFETIME)
        road.broker.start()
        road.wait_ready(count=2, timeout=60)
        road.new_peer()
        assert copies(road) == [] and not any(road.inside(path).exists() for path in TIMESTAMPS)
        answer = road.command("fileUploadChunk", {"data": "QUJD"})
        assert answer.response == {"status": "non-existing file transaction"}
        assert road.command("logRetrieveStop").response == {"status": "Invalid argument"}
    finally:
        road.close()

"""Scripts that the OA&M server has the gateway run: what they find, where their output goes, and what is heard
of their end."""
import os
import re
import signal
import time
from pathlib import Path
from typing import Iterator

import pytest

from file_jobs import (
    DENIED,
    EXECUTE,
    INVALID,
    LINK,
    LOGS,
    NO_SUCH_FILE,
    NO_SUCH_PROCESS,
    PARAMS_LOST,
    RUNNING,
    SCRIPTS,
    SHM,
    FileGateway,
    Job,
    children,
    content_of,
    file_gateway,
    is_ended,
    refusal,
    state,
)
from harness.waiting import wait_until

STOP_WAIT_S = 3
LONGEST_NAME = 254 - len("1700000000-.txt")


@pytest.fixture(scope="module")
def gateway(tmp_path_factory: pytest.TempPathFactory) -> Iterator[FileGateway]:
    with file_gateway(tmp_path_factory) as made:
        yield made


def put_script(gateway: FileGateway, body: str, name: str = "script.sh", first: str = "#!/bin/sh\n") -> str:
    """Writes a script that replaces the one before, and returns its virtual path."""
    for log in gateway.inside(LOGS).glob("*.txt"):
        log.unlink()
    gateway.put(f"{SCRIPTS}/{name}", (first + body).encode())
    return f"scripts/{name}"


def start(gateway: FileGateway, path: str) -> Job:
    return gateway.start(EXECUTE, path=path, exeToken="token")


def run(gateway: FileGateway, body: str, name: str = "script.sh", first: str = "#!/bin/sh\n") -> str:
    return gateway.run(EXECUTE, path=put_script(gateway, body, name, first), exeToken="token")


def only_log(gateway: FileGateway) -> Path:
    (log,) = gateway.inside(LOGS).glob("*.txt")
    return log


# --- how a script ends ---


@pytest.mark.parametrize(
    "body, status",
    [
        ("exit 0", "ok"),
        ("exit 1", "Operation not permitted"),
        ("exit 3", NO_SUCH_PROCESS),
        ("exit 115", RUNNING),
        ("exit 255", "Unknown error 255"),
        ("kill -KILL $$", "Unknown error -9"),
        ("kill -TERM $$", "Unknown error -15"),
        ("no-such-command", "Key has expired"),
    ],
)
def test_the_end_of_a_script_is_told_as_an_error_number(gateway: FileGateway, body: str, status: str) -> None:
    assert run(gateway, body) == status


def test_the_steps_of_a_script_are_logged(gateway: FileGateway) -> None:
    path, mark = put_script(gateway, "echo $$; exit 3"), gateway.log
    job = start(gateway, path)
    assert gateway.outcome(job) == NO_SUCH_PROCESS
    gateway.told_in_order(
        job,
        mark,
        "slave process started",
        f"launched script process pid: [{only_log(gateway).read_text().strip()}]",
        f"script return code: [{3 << 8}]",
        f"sending async response: {gateway.late_texts(job)[0]}",
        "response handler done",
    )


# --- its output ---


def test_the_output_goes_into_a_log_named_by_time_and_script(gateway: FileGateway) -> None:
    begin = int(time.time()) - 1  # the daemon's clock moves in steps
    assert run(gateway, "echo out; echo err >&2; echo again", "my script.sh") == "ok"
    log = only_log(gateway)
    found = re.fullmatch(r"(\d+)-my script\.sh\.txt", log.name)
    assert found and begin <= int(found.group(1)) <= time.time()
    assert log.read_text() == "out\nerr\nagain\n"
    umask = os.umask(0o022)
    os.umask(umask)
    assert log.stat().st_mode & 0o777 == 0o664 & ~umask


def test_a_megabyte_of_output_is_kept_whole(gateway: FileGateway) -> None:
    content = content_of(1 << 20)
    gateway.put(f"{SHM}/output.bin", content)
    assert run(gateway, "cat /dev/shm/output.bin") == "ok"
    assert only_log(gateway).read_bytes() == content


def test_a_script_that_ran_in_the_same_second_keeps_its_log(gateway: FileGateway) -> None:
    path, now = put_script(gateway, "echo second"), int(time.time())
    logs = [gateway.put(f"{LOGS}/{now + ahead}-script.sh.txt", b"first\n") for ahead in range(20)]
    assert gateway.run(EXECUTE, path=path, exeToken="token") == "ok"
    written = [log.read_text() for log in logs if log.stat().st_size != len("first\n")]
    assert written == ["first\nsecond\n"]


def test_the_log_is_there_for_a_later_stream(gateway: FileGateway) -> None:
    assert run(gateway, "echo kept") == "ok"
    name = only_log(gateway).name
    _, response = gateway.ask("fopsScanDir", {"path": "logs"})
    assert f'{{"name":"{name}","access":"r","type":"file","size":5}}' in response


@pytest.mark.parametrize(
    "name",
    ["two words.sh", "größe-日本", "100%s%n", "-rf", ".hidden", 'say "it"', "x" * LONGEST_NAME],
    ids=repr,
)
def test_a_script_may_have_any_name(gateway: FileGateway, name: str) -> None:
    assert run(gateway, "echo done", name) == "ok"
    log = only_log(gateway)
    assert log.name.partition("-")[2] == f"{name}.txt" and log.read_text() == "done\n"


def test_a_name_that_leaves_no_room_for_the_log_ends_the_job_alone(gateway: FileGateway) -> None:
    job = start(gateway, put_script(gateway, "echo done", "x" * (LONGEST_NAME + 1)))
    gateway.wait_ended(job)
    gateway.road.bridge.wait_for_log("failed to prepare log file name")
    assert gateway.fate(job) == signal.SIGABRT
    assert run(gateway, "exit 0") == "ok"


def test_without_a_folder_for_logs_nothing_runs(gateway: FileGateway) -> None:
    logs, away = gateway.inside(LOGS), gateway.inside("var/lib/away")
    path, mark = put_script(gateway, "touch /dev/shm/has-run"), gateway.log
    logs.rename(away)
    try:
        assert gateway.run(EXECUTE, path=path, exeToken="token") == NO_SUCH_FILE
    finally:
        away.rename(logs)
    gateway.road.bridge.wait_for_log(
        re.compile(rf"failed open log file /var/lib/logs/\d+-script\.sh\.txt: {NO_SUCH_FILE}"), after=mark
    )
    assert not gateway.inside(f"{SHM}/has-run").exists()


# --- what a script finds ---


def test_a_script_is_made_executable_first(gateway: FileGateway) -> None:
    path = put_script(gateway, "exit 0")
    script = gateway.inside(f"{SCRIPTS}/script.sh")
    script.chmod(0o600)
    assert gateway.run(EXECUTE, path=path, exeToken="token") == "ok"
    assert script.stat().st_mode & 0o7777 == 0o755


def test_a_script_gets_its_own_path_and_no_argument(gateway: FileGateway) -> None:
    assert run(gateway, 'echo "$0 $#"') == "ok"
    assert only_log(gateway).read_text() == "/usr/share/snv-mqtt-bridge/scripts/script.sh 0\n"


def test_a_script_holds_the_standard_descriptors_alone_and_nothing_to_read(gateway: FileGateway) -> None:
    assert run(gateway, "ls /proc/$$/fd; wc -c") == "ok"
    assert only_log(gateway).read_text().split() == ["0", "1", "10", "2", "0"], "10 is the script itself"


def test_no_signal_is_ignored_or_blocked_for_a_script(gateway: FileGateway) -> None:
    """But for what whoever started these tests has ignored; the interpreter gives back what it ignores itself."""
    status = re.search(r"SigIgn:\s+(\w+)", Path("/proc/self/status").read_text())
    assert status
    ignored = int(status.group(1), 16)
    for number in (signal.SIGPIPE, signal.SIGXFSZ):
        ignored &= ~(1 << (number - 1))
    assert run(gateway, "exec grep -E '^Sig(Blk|Ign)' /proc/self/status") == "ok"
    assert only_log(gateway).read_text().split() == ["SigBlk:", "0" * 16, "SigIgn:", f"{ignored:016x}"]


@pytest.mark.parametrize("first", ["", "#!/no/such/interpreter\n"], ids=["no interpreter", "a missing one"])
def test_what_cannot_be_run_is_told_by_a_status_and_the_log(gateway: FileGateway, first: str) -> None:
    assert run(gateway, "exit 0", first=first) == "Key has expired"  # the number 127
    assert "execute: exec() failed: " in only_log(gateway).read_text()


def test_a_missing_script_is_told_so_too(gateway: FileGateway) -> None:
    mark = gateway.log
    put_script(gateway, "")
    assert gateway.run(EXECUTE, path="scripts/missing", exeToken="token") == "Key has expired"
    wanted = f"unable to set permissions for /usr/share/snv-mqtt-bridge/scripts/missing: {NO_SUCH_FILE}"
    gateway.road.bridge.wait_for_log(wanted, after=mark)
    assert f"execute: exec() failed: {NO_SUCH_FILE}" in only_log(gateway).read_text()


def test_a_link_is_not_followed(gateway: FileGateway) -> None:
    put_script(gateway, "")
    target = gateway.put(f"{SHM}/program", b"#!/bin/sh\ntouch /dev/shm/has-run\n")
    target.chmod(0o600)
    gateway.inside(f"{SCRIPTS}/link").symlink_to("/dev/shm/program")
    assert gateway.run(EXECUTE, path="scripts/link", exeToken="token") == LINK
    assert target.stat().st_mode & 0o777 == 0o600
    assert not gateway.inside(f"{SHM}/has-run").exists()


# --- what starts nothing ---


@pytest.mark.parametrize(
    "path, result, complaint",
    [
        ("shm/program", -13, EXECUTE.refused_right),
        ("firmware/image.bin", -13, EXECUTE.refused_right),
        ("config/a.json", -13, EXECUTE.refused_right),
        ("nowhere/a", -2, "failed to get file entry for: "),
        ("scripts", -2, "failed to get file entry for: "),
        ("scripts/deep/a", -2, "failed to get file entry for: "),
        ("scripts/../../bin/true", -2, "failed to get file entry for: "),
        ("", -2, "failed to get file entry for: "),
    ],
)
def test_a_failed_start_is_an_ok_with_a_negative_number(
    gateway: FileGateway, path: str, result: int, complaint: str
) -> None:
    response, errors = gateway.refused(EXECUTE, {"path": path, "exeToken": ""})
    assert response == f'{{"exeId":{result},"status":"ok"}}'
    assert [line.partition("] ")[2].partition(" ")[2] for line in errors][-2:] == [
        complaint + path,
        EXECUTE.refused_start,
    ]
    mark = gateway.log
    assert gateway.stop(EXECUTE, result) == refusal(NO_SUCH_PROCESS)
    gateway.road.bridge.wait_for_log(EXECUTE.nothing_to_stop, after=mark)


WHOLE: dict[str, object] = {"path": "scripts/script.sh", "exeToken": "token"}


@pytest.mark.parametrize(
    "given",
    [
        None,
        [],
        "text",
        {},
        {"path": "scripts/script.sh"},
        {"exeToken": "token"},
        WHOLE | {"path": None},
        WHOLE | {"exeToken": None},
        WHOLE | {"exeToken": "t" * 256},
        WHOLE | {"path": "p" * 4096},
    ],
    ids=lambda given: str(given)[:40],
)
def test_a_request_that_lacks_something_starts_nothing(gateway: FileGateway, given: object) -> None:
    response, errors = gateway.refused(EXECUTE, given)
    assert response == refusal(INVALID)
    assert errors[-1].endswith(PARAMS_LOST)


# --- one at a time, and stopping ---


def test_a_script_without_an_end_is_stopped_with_its_job(gateway: FileGateway) -> None:
    path = put_script(gateway, "echo $$; while :; do sleep 0.01; done")
    job = start(gateway, path)
    log = wait_until(lambda: list(gateway.inside(LOGS).glob("*.txt")), "the log")[0]
    script = int(wait_until(lambda: log.read_text().strip(), "the script's number"))
    assert children(job.pid) == [script]
    response, errors = gateway.refused(EXECUTE, {"path": path, "exeToken": ""})
    assert response == refusal(RUNNING) and errors[-1].endswith(EXECUTE.still_running)
    mark = gateway.log
    assert gateway.stop(EXECUTE, job.pid + 1) == refusal(INVALID)
    gateway.road.bridge.wait_for_log(f"{EXECUTE.wrong_id}{job.pid + 1}", after=mark)
    assert not is_ended(script)
    begin = time.monotonic()
    assert gateway.stop(EXECUTE, job.pid) == refusal("ok")
    assert time.monotonic() - begin >= STOP_WAIT_S
    assert is_ended(script) and is_ended(job.pid)
    assert job.pid not in children(gateway.pid) and not gateway.late_texts(job)
    assert gateway.stop(EXECUTE, job.pid) == refusal(NO_SUCH_PROCESS)


def test_a_job_that_starts_while_another_is_stopped_keeps_its_place(gateway: FileGateway) -> None:
    path = put_script(gateway, "exec sleep 1000")
    first = start(gateway, path)
    stopping = gateway.road.send("fopsExecuteStop", {"exeId": first.pid})
    wait_until(lambda: is_ended(first.pid), "the first one's end")
    second = start(gateway, path)
    assert gateway.road.answer_to(stopping).response == {"status": "ok"}
    assert gateway.stop(EXECUTE, second.pid) == refusal("ok")
    assert is_ended(second.pid)


def test_a_job_that_ends_long_after_its_stop_is_collected(gateway: FileGateway) -> None:
    job = start(gateway, put_script(gateway, "exec sleep 1000"))
    wait_until(lambda: children(job.pid), "the script")
    os.kill(job.pid, signal.SIGSTOP)
    wait_until(lambda: state(job.pid) == "T", "that it stands still: the stop's signal would go before")
    assert gateway.stop(EXECUTE, job.pid) == refusal("ok")
    assert not is_ended(job.pid)
    os.kill(job.pid, signal.SIGCONT)
    wait_until(lambda: children(gateway.pid) == [], "that it has ended and is collected")


def test_one_that_is_over_stops_at_once(gateway: FileGateway) -> None:
    job = start(gateway, put_script(gateway, "exit 0"))
    assert gateway.outcome(job) == "ok"
    mark, begin = gateway.log, time.monotonic()
    assert gateway.stop(EXECUTE, job.pid) == refusal("ok")
    assert time.monotonic() - begin < STOP_WAIT_S
    gateway.road.bridge.wait_for_log(EXECUTE.over, after=mark)


def test_a_job_that_was_killed_is_told_when_the_next_one_starts(gateway: FileGateway) -> None:
    job = start(gateway, put_script(gateway, "exec sleep 1000"))
    wait_until(lambda: children(job.pid), "the script")
    (script,) = children(job.pid)
    os.kill(job.pid, signal.SIGKILL)
    wait_until(lambda: is_ended(script), "the script's end with its job's")
    gateway.wait_ended(job)
    mark = gateway.log
    assert run(gateway, "exit 0") == "ok"
    gateway.road.bridge.wait_for_log(f"process [{job.pid}] was ended by signal 9", after=mark)
    assert not gateway.late_texts(job)


def test_many_scripts_leave_no_descriptor_and_no_process(gateway: FileGateway) -> None:
    assert run(gateway, "exit 0") == "ok"
    before = (gateway.road.bridge.resources()[0], len(children(gateway.pid)))
    for _ in range(20):
        assert run(gateway, "exit 0") == "ok"
    assert (gateway.road.bridge.resources()[0], len(children(gateway.pid))) == before

"""A gateway whose files an OA&M server moves: the jobs, what they answer, and their processes."""
import itertools
import json
import os
import random
import re
import signal
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Optional
from unittest.mock import patch

import pytest

from harness.config import GW_MAC
from harness.control import ControlRoad, request
from harness.http_server import FileServer
from harness.lab import start_agent
from harness.waiting import PATIENCE, wait_until

SHM = "dev/shm"
SCRIPTS = "usr/share/snv-mqtt-bridge/scripts"
LOGS = "var/lib/logs"
FIRMWARE = "lib/firmware"
MIB = 1 << 20
FIRST_REQUEST = 100000

NO_SUCH_FILE = "No such file or directory"
NO_SUCH_PROCESS = "No such process"
IO_ERROR = "Input/output error"
DENIED = "Permission denied"
INVALID = "Invalid argument"
LINK = "Too many levels of symbolic links"
RUNNING = "Operation now in progress"
TOO_LONG = "File name too long"

OWN_ANSWER = "command string is missing"  # the daemon hears its answers, and they name no command
PARAMS_LOST = "failed to de-serialize params"


@dataclass(frozen=True)
class JobKind:
    start: str
    stop: str
    id_key: str
    refused_right: str
    refused_params: str
    refused_start: str
    still_running: str
    nothing_to_stop: str
    wrong_id: str
    over: str


STREAM = JobKind(
    "fopsStreamStart",
    "fopsStreamStop",
    "xferId",
    "insufficient permissions to read a file: ",
    PARAMS_LOST,
    "failed to start streaming",
    "file streaming is still running",
    "file streaming is not running, nothing to stop",
    "invalid xfer ID received: ",
    "file streaming is not running anymore",
)
FETCH = JobKind(
    "fopsFetchStart",
    "fopsFetchStop",
    "xferId",
    "insufficient permissions to write a file: ",
    "failed to de-serialize request",
    "failed to start fetching",
    "file fetching is still running",
    "file fetching is not running, nothing to stop",
    "invalid xfer ID received: ",
    "file fetching is not running anymore",
)
EXECUTE = JobKind(
    "fopsExecuteStart",
    "fopsExecuteStop",
    "exeId",
    "insufficient permissions to execute a file: ",
    PARAMS_LOST,
    "failed to start script execution",
    "file executing is still running",
    "file execution is not running, nothing to stop",
    "invalid exe ID received: ",
    "file execution is not running anymore",
)


@dataclass(frozen=True)
class Job:
    kind: JobKind
    number: int  # of the request
    pid: int
    path: str


def as_text(value: object) -> str:
    """JSON as the daemon writes it."""
    return json.dumps(value, ensure_ascii=False, separators=(",", ":")).replace("/", "\\/")


def refusal(status: str) -> str:
    return as_text({"status": status})


def state(pid: int) -> Optional[str]:
    """The letter of a process, or None when it is gone."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return None


def is_ended(pid: int) -> bool:
    """With all its threads: a process that still ends cannot be collected yet."""
    if state(pid) not in (None, "Z"):
        return False
    try:
        return len(os.listdir(f"/proc/{pid}/task")) <= 1
    except FileNotFoundError:
        return True


def children(pid: int) -> list[int]:
    """Those not yet collected too."""
    return [
        int(child)
        for task in Path(f"/proc/{pid}/task").iterdir()
        for child in (task / "children").read_text().split()
    ]


def sockets(pid: int) -> set[str]:
    """The sockets and pipes that a process holds, but the standard ones."""
    links = {os.readlink(entry) for entry in Path(f"/proc/{pid}/fd").iterdir() if int(entry.name) > 2}
    return {link for link in links if link.startswith(("socket:", "pipe:"))}


def content_of(size: int, seed: int = 1) -> bytes:
    return random.Random(seed).randbytes(size)


def sanitizer_options() -> dict[str, str]:
    """A job's bus error is its own, and its transfer may start a thread."""
    more = {"ASAN_OPTIONS": "handle_sigbus=0", "TSAN_OPTIONS": "handle_sigbus=0:die_after_fork=0"}
    return {name: f"{os.environ.get(name, '')}:{options}" for name, options in more.items()}


class FileGateway:
    """A daemon, its agent, and what an OA&M server does with files."""

    def __init__(self, work: Path, env: Optional[dict[str, str]] = None) -> None:
        self.agent = start_agent(work / "agent")
        with patch.dict(os.environ, sanitizer_options()):
            self.road = ControlRoad(work / "road", self.agent, env=env)
        self.road.wait_ready()
        self.http = FileServer()
        self._numbers = itertools.count(FIRST_REQUEST)

    def close(self) -> None:
        try:
            self.road.close()
        finally:
            self.http.close()
            self.agent.close()

    @property
    def log(self) -> int:
        return self.road.bridge.log.mark()

    @property
    def pid(self) -> int:
        return self.road.bridge.process.pid

    def inside(self, path: str) -> Path:
        return self.road.inside(path)

    def put(self, path: str, content: bytes) -> Path:
        file = self.inside(path)
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)
        return file

    def ask(self, command: str, params: object) -> tuple[int, str]:
        """The request's number, and the response as text."""
        number = next(self._numbers)
        self.road.publish(json.dumps(request(command, params, number)).encode())
        answer = self.road.answer_to(number)
        start = f'{{"mac":"{GW_MAC}","requestId":{number},"response":'
        assert answer.text.startswith(start), answer.text
        return number, answer.text[len(start) : -1]

    def start(self, kind: JobKind, **params: object) -> Job:
        """Starts a job, which must be possible."""
        number, response = self.ask(kind.start, params)
        found = re.fullmatch(rf'{{"{kind.id_key}":(\d+),"status":"ok"}}', response)
        assert found, response
        return Job(kind, number, int(found.group(1)), str(params["path"]))

    def refused(self, kind: JobKind, params: object) -> tuple[str, list[str]]:
        """The response to a start that fails, and the errors in the log."""
        mark = self.log
        _, response = self.ask(kind.start, params)
        lines = self.road.bridge.log.find("[ERROR", after=mark)
        return response, [line for line in lines if not line.endswith(OWN_ANSWER)]

    def stop(self, kind: JobKind, job_id: object) -> str:
        return self.ask(kind.stop, {kind.id_key: job_id})[1]

    def late_texts(self, job: Job) -> list[str]:
        wanted = f'{{"requestId":"{job.number}",'
        texts = b"".join(self.road.async_responses()).decode()
        return [text for text in re.findall(r'\{"requestId".*?\}\}', texts) if text.startswith(wanted)]

    def outcome(self, job: Job, timeout: float = PATIENCE) -> str:
        """The status of a job's late answer, whose text is what it must be. The job is over then."""
        text = wait_until(lambda: self.late_texts(job), f"the answer of {job}", timeout)[0]
        start = as_text(
            {
                "requestId": str(job.number),
                "mac": GW_MAC,
                "response": {"filepath": job.path, job.kind.id_key: job.pid},
            }
        )
        start = start[:-2] + ',"status":"'
        assert text.startswith(start) and text.endswith('"}}'), text
        self.wait_ended(job)
        return str(json.loads(text[len(start) - 1 : -2]))

    def told_in_order(self, job: Job, mark: int, *texts: str) -> None:
        """The job itself has logged the texts in this order."""
        lines = self.road.bridge.log.find(f"[{job.pid}][", after=mark)
        places = [next((at for at, line in enumerate(lines) if text in line), None) for text in texts]
        assert None not in places and places == sorted(places, key=lambda at: at or 0), (places, lines)

    def wait_ended(self, job: Job) -> None:
        wait_until(lambda: is_ended(job.pid), f"the end of {job}")

    def run(self, kind: JobKind, **params: object) -> str:
        return self.outcome(self.start(kind, **params))

    def end(self, job: Job) -> None:
        """Ends a job from outside, where a test is not about stopping it."""
        if not is_ended(job.pid):
            os.kill(job.pid, signal.SIGTERM)
        self.wait_ended(job)

    def fate(self, job: Job) -> int:
        """The signal that has ended the job, as the daemon sees it when it is asked."""
        self.wait_ended(job)
        mark = self.log
        assert self.stop(job.kind, job.pid) == refusal("ok")
        line = self.road.bridge.wait_for_log(f"process [{job.pid}] was ended by signal ", after=mark)
        assert not self.late_texts(job), "it has answered"
        return int(line.rpartition(" ")[2])


@contextmanager
def file_gateway(folders: pytest.TempPathFactory) -> Iterator[FileGateway]:
    made = FileGateway(folders.mktemp("files"))
    try:
        yield made
    finally:
        made.close()

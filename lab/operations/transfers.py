"""Whole transfers of files: what the gateway streams or fetches, this side takes or serves over HTTP."""

from __future__ import annotations

import argparse
import json
import posixpath
import sys
import time
from pathlib import Path
from typing import IO, Any, Callable, Optional

from lab.http.multipart import Part
from lab.http.server import FileServer

from .client import COMMAND_TOPIC, LATE_TOPIC, Client, LateAnswers, answers, is_answer

MB = 1e6
LOOK_S = 0.2
STILL_ENDING_S = 5.0  # of a job whose end has been told
BUSY = {"status": "Operation now in progress"}
DONE, FAILED = 0, 1


class Failed(Exception):
    """The gateway does not do it, or not to the end."""


class Busy(Failed):
    """Another job of the kind runs there."""


class Progress:
    """A line that is written over, where a person looks on."""

    def __init__(self, total: int) -> None:
        self.total = total
        self.begin = time.monotonic()
        self._shown = sys.stderr.isatty()
        self.show(0)

    def show(self, count: int) -> None:
        if self._shown:
            share = 100 * count // self.total if self.total else 100
            text = f"{count / MB:.1f} of {self.total / MB:.1f} MB, {share} %"
            print(f"\r{text:40}", end="", file=sys.stderr, flush=True)

    def end(self) -> str:
        seconds = time.monotonic() - self.begin
        self.show(self.total)
        if self._shown:
            print(file=sys.stderr)
        return f"{seconds:.1f} s, {self.total / MB / seconds:.1f} MB/s"


class Exchange:
    """Requests of one client. Their numbers are texts, as late answers of jobs carry them."""

    def __init__(self, options: argparse.Namespace) -> None:
        self._mac, self._timeout = options.mac, options.timeout
        self._early: dict[str, str] = {}  # ends told before their own request's answer
        self._client = Client(
            options.host,
            options.port,
            options.server_user,
            options.server_password,
            [COMMAND_TOPIC, LATE_TOPIC],
        )

    def close(self) -> None:
        self._client.close()

    def ask(self, command: str, params: dict[str, Any]) -> tuple[str, dict[str, Any]]:
        """The request's number and its response, which says that all is well."""
        number = str(time.time_ns() // 1000)
        body = {"command": command, "requestId": number, "params": params, "mac": self._mac}
        payload = json.dumps(body).encode()
        self._client.publish(COMMAND_TOPIC, payload)
        for topic, answer in answers(self._client, payload, number, self._timeout):
            response = answer.get("response")
            if topic == LATE_TOPIC:
                self._early[number] = response["status"]
                continue
            if isinstance(response, dict) and response.get("status") == "ok":
                return number, response
            reason = Busy if response == BUSY else Failed
            raise reason(f"{command}: {json.dumps(answer.get('error', response))}")
        raise Failed(f"{command}: no answer within {self._timeout:g} s")

    def wait_end(self, number: str, moved: Callable[[], int], progress: Progress) -> str:
        """The status in the late answer, which is waited for as long as something moves."""
        if number in self._early:
            return self._early[number]
        late, count = LateAnswers(), moved()
        end = time.monotonic() + self._timeout
        while time.monotonic() < end:
            for message in self._client.messages(LOOK_S):
                bodies = late.take(message.payload) if message.topic == LATE_TOPIC else ()
                for body in bodies:
                    if is_answer(body, number):
                        return str(body["response"]["status"])
            if moved() != count:
                count, end = moved(), time.monotonic() + self._timeout
            progress.show(count)
        raise Failed(f"nothing has moved for {self._timeout:g} s")


class Job:
    """Ends on the gateway with this block, if it has not ended by itself."""

    def __init__(self, exchange: Exchange, kind: str, params: dict[str, Any]) -> None:
        self._exchange, self._kind = exchange, kind
        self.number, response = self._start(params)
        self._id = response["xferId"]
        self.is_over = False

    def _start(self, params: dict[str, Any]) -> tuple[str, dict[str, Any]]:
        end = time.monotonic() + STILL_ENDING_S
        while True:
            try:
                return self._exchange.ask(f"fops{self._kind}Start", params)
            except Busy:
                if time.monotonic() > end:
                    raise
                time.sleep(LOOK_S)

    def __enter__(self) -> "Job":
        return self

    def __exit__(self, *_: object) -> None:
        if not self.is_over:
            print("ending the transfer", file=sys.stderr)
            self._exchange.ask(f"fops{self._kind}Stop", {"xferId": self._id})

    def wait_end(self, moved: Callable[[], int], progress: Progress) -> None:
        status = self._exchange.wait_end(self.number, moved, progress)
        self.is_over = True
        if status != "ok":
            raise Failed(status)


def size_of(exchange: Exchange, path: str) -> int:
    folder, name = posixpath.split(path)
    _, response = exchange.ask("fopsScanDir", {"path": folder or "/"})
    for entry in response["entries"]:
        if entry["name"] == name and entry["type"] == "file":
            return int(entry["size"])
    raise Failed("there is no such file")


def part_taken(server: FileServer) -> Optional[Part]:
    parts = [part for request in server.requests for part in request.parts if part.name == "filedata"]
    return parts[0] if parts else None


def take(exchange: Exchange, options: argparse.Namespace) -> str:
    size = options.size or size_of(exchange, options.path) - options.offset
    if size <= 0:
        raise Failed("there is nothing to stream")
    with open(options.to or posixpath.basename(options.path), "wb") as target:
        return take_into(target, exchange, options, size)


def take_into(target: IO[bytes], exchange: Exchange, options: argparse.Namespace, size: int) -> str:
    server = FileServer(
        host=options.listen, sink=lambda part, piece: target.write(piece) if part.name == "filedata" else 0
    )

    def taken() -> int:
        part = part_taken(server)
        return part.size if part else 0

    params = {"url": f"{server.url}/", "path": options.path, "offset": options.offset, "size": size}
    try:
        progress = Progress(size)
        with Job(exchange, "Stream", params) as job:
            job.wait_end(taken, progress)
        told = progress.end()
    finally:
        server.close()
    if taken() != size:
        raise Failed(f"{taken()} of {size} bytes have come")
    return f"{size} bytes, {told}"


def give(exchange: Exchange, options: argparse.Namespace) -> str:
    file = Path(options.file)
    server = FileServer(host=options.listen)
    params = {"path": options.path, "url": server.offer(f"/{file.name}", file)}
    try:
        progress = Progress(file.stat().st_size)
        with Job(exchange, "Fetch", params) as job:
            job.wait_end(lambda: sum(request.sent for request in server.requests), progress)
        return f"{progress.total} bytes, {progress.end()}"
    finally:
        server.close()


def transfer(options: argparse.Namespace, run: Callable[[Exchange], str]) -> int:
    exchange = Exchange(options)
    try:
        print(f"{options.path}: {run(exchange)}")
        return DONE
    except Failed as reason:
        print(f"{options.path}: {reason}", file=sys.stderr)
    except OSError as reason:
        print(reason, file=sys.stderr)
    except KeyboardInterrupt:
        pass
    finally:
        exchange.close()
    return FAILED


def stream(options: argparse.Namespace) -> int:
    return transfer(options, lambda exchange: take(exchange, options))


def fetch(options: argparse.Namespace) -> int:
    return transfer(options, lambda exchange: give(exchange, options))


def add_verbs(commands: Any) -> None:
    taking = commands.add_parser("stream", help="have a file streamed here, and keep it")
    taking.add_argument("--to", metavar="FILE", help="where to keep it (its own name, here)")
    taking.add_argument("--offset", type=int, default=0, help="where to begin (0)")
    taking.add_argument("--size", type=int, default=0, help="how much of it (the rest)")
    taking.set_defaults(command=stream)
    giving = commands.add_parser("fetch", help="have the gateway fetch a file from here")
    giving.set_defaults(command=fetch)
    for parser in (taking, giving):
        parser.add_argument("path", metavar="PATH", help="on the gateway, as fopsScanDir lists it")
        parser.add_argument(
            "--listen",
            metavar="ADDRESS",
            default="127.0.0.1",
            help="of this side, for the gateway (127.0.0.1)",
        )
    giving.add_argument("file", metavar="FILE", help="to give")

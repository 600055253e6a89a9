"""An HTTP server for whole files, which can also misbehave."""

from __future__ import annotations

import re
import socket
import ssl
import sys
import threading
import time
from dataclasses import dataclass, field
from email.message import Message
from enum import Enum, auto
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from io import BytesIO
from pathlib import Path
from typing import BinaryIO, Callable, Iterator, Optional
from urllib.parse import quote, unquote

from .certificate import server_context
from .multipart import Broken, FormReader, Part

PIECE = 256 * 1024
SLOW_PIECE = 16 * 1024
STALLED_BUFFER = 64 * 1024

Content = bytes | Path


class Fault(Enum):
    NONE = auto()
    MISSING = auto()  # answers 404, after the whole request
    BREAKS = auto()  # closes the connection when half has gone
    SILENT = auto()  # takes the request and never answers
    STALLS = auto()  # takes no more than the head, and never answers
    SLOW = auto()  # pauses between small pieces
    DRAINS = auto()  # takes a body at full speed without a look at it


@dataclass
class Request:
    """Grows while it comes; `whole` at its end. A body that is no form leaves its `problem`."""

    method: str
    path: str
    headers: Message
    parts: list[Part] = field(default_factory=list)
    received: int = 0
    sent: int = 0
    whole: bool = False
    problem: str = ""
    begun: float = field(default_factory=time.monotonic)
    ended: float = 0.0

    @property
    def names(self) -> list[Optional[str]]:
        return [part.name for part in self.parts]

    def part(self, name: str) -> Part:
        return next(part for part in self.parts if part.name == name)


class _Handler(BaseHTTPRequestHandler):
    server: "_Listener"
    protocol_version = "HTTP/1.1"
    rbufsize = PIECE

    def setup(self) -> None:
        if isinstance(self.request, ssl.SSLSocket):
            self.request.do_handshake()
        super().setup()

    def log_message(self, *_: object) -> None:
        pass

    def _begin(self) -> Request:
        request = Request(self.command, unquote(self.path), self.headers)
        self.server.owner.began(request)
        return request

    def _body(self, request: Request, limit: int) -> Iterator[bytes]:
        """Pieces of the body, up to the limit."""
        size = SLOW_PIECE if self._fault is Fault.SLOW else PIECE
        while request.received < limit:
            piece = self.rfile.read1(min(size, limit - request.received))  # type: ignore[attr-defined]
            if not piece:
                return
            request.received += len(piece)
            yield piece
            self._pause()

    @property
    def _fault(self) -> Fault:
        return self.server.owner.fault

    def _pause(self) -> None:
        if self._fault is Fault.SLOW:
            self.server.owner.closing.wait(self.server.owner.pause)

    def _never_answer(self) -> None:
        self.server.owner.closing.wait()
        self.close_connection = True

    def _answer(self, status: int, content: bytes = b"") -> None:
        self.send_response(status)
        self.send_header("Content-Length", str(len(content)))
        self.end_headers()
        self.wfile.write(content)

    def _read_form(self, request: Request, length: int) -> None:
        found = re.search(r'boundary="?([^";]+)', self.headers.get("Content-Type", ""))
        if not found:
            raise Broken("no boundary")
        body = self._body(request, length)
        reader = FormReader(lambda: next(body, b""), found.group(1).encode())
        for part in reader.parts(self.server.owner.take):
            request.parts.append(part)
        for _ in body:
            raise Broken("there is more behind the last boundary")

    def _drain(self, request: Request, length: int) -> None:
        room = bytearray(4 * PIECE)
        while request.received < length:
            count = self.rfile.readinto1(room)  # type: ignore[attr-defined]
            if not count:
                return
            request.received += count

    def do_POST(self) -> None:
        request = self._begin()
        length = int(self.headers.get("Content-Length", "0"))
        if self._fault is Fault.STALLS:
            return self._never_answer()
        if self._fault is Fault.BREAKS:
            for _ in self._body(request, length // 2):
                continue
            self.close_connection = True
            return
        try:
            if self._fault is Fault.DRAINS:
                self._drain(request, length)
            else:
                self._read_form(request, length)
        except Broken as reason:
            request.problem = str(reason)
            self.close_connection = True
            return
        request.ended = time.monotonic()
        request.whole = request.received == length
        if self._fault is Fault.SILENT:
            return self._never_answer()
        if self._fault is Fault.MISSING:
            return self._answer(404, b"no such place\n")
        self._answer(200, b"taken\n")

    def do_GET(self) -> None:
        request = self._begin()
        content = self.server.owner.content(request.path)
        if self._fault in (Fault.SILENT, Fault.STALLS):
            return self._never_answer()
        if content is None or self._fault is Fault.MISSING:
            return self._answer(404, b"no such file\n")
        with content.open("rb") if isinstance(content, Path) else BytesIO(content) as source:
            self._send(request, source)

    def _send(self, request: Request, source: BinaryIO) -> None:
        length = source.seek(0, 2)
        source.seek(0)
        limit = length // 2 if self._fault is Fault.BREAKS else length
        self.send_response(200)
        self.send_header("Content-Length", str(length))
        self.end_headers()
        size = SLOW_PIECE if self._fault is Fault.SLOW else PIECE
        while request.sent < limit:
            piece = source.read(min(size, limit - request.sent))
            self.wfile.write(piece)
            request.sent += len(piece)
            self._pause()
        request.whole = limit == length
        self.close_connection = not request.whole


class _Listener(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False

    def __init__(self, owner: "FileServer", host: str, port: int) -> None:
        self.owner = owner
        super().__init__((host, port), _Handler)

    def get_request(self) -> tuple[socket.socket, object]:
        """The handshake is for the connection's own thread."""
        connection, address = super().get_request()
        if self.owner.fault is Fault.STALLS:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, STALLED_BUFFER)
        if self.owner.context:
            connection = self.owner.context.wrap_socket(
                connection, server_side=True, do_handshake_on_connect=False
            )
        return connection, address

    def handle_error(self, *_: object) -> None:
        self.owner.problems.append(repr(sys.exc_info()[1]))


class FileServer:
    """Serves from the constructor to `close`. Set `fault` for the requests that follow."""

    def __init__(
        self,
        certificate_folder: Optional[Path] = None,
        host: str = "127.0.0.1",
        port: int = 0,
        sink: Optional[Callable[[Part, bytes], object]] = None,
    ) -> None:
        """With a folder for its certificate it talks https. `sink` gets the contents too, as they come."""
        self.context: Optional[ssl.SSLContext] = None
        self.certificate: Optional[Path] = None
        if certificate_folder:
            self.context, self.certificate = server_context(certificate_folder, host)
        self.fault = Fault.NONE
        self.pause = 0.05
        self.requests: list[Request] = []
        self.problems: list[str] = []
        self.closing = threading.Event()
        self._files: dict[str, Content] = {}
        self._sink = sink
        self._listener = _Listener(self, host, port)
        self.port: int = self._listener.server_address[1]
        self.address = f"{host}:{self.port}"
        self.url = f"{'https' if self.context else 'http'}://{self.address}"
        self._thread = threading.Thread(target=self._listener.serve_forever, args=(0.05,), daemon=True)
        self._thread.start()

    def offer(self, path: str, content: Content) -> str:
        """Serves the content under the path, and returns its URL."""
        self._files[path] = content
        return self.url + quote(path)

    def content(self, path: str) -> Optional[Content]:
        return self._files.get(path)

    def began(self, request: Request) -> None:
        self.requests.append(request)

    def take(self, part: Part, piece: bytes) -> None:
        part.take(piece)
        if self._sink:
            self._sink(part, piece)

    def close(self) -> None:
        self.closing.set()
        self._listener.shutdown()
        self._listener.server_close()
        self._thread.join()

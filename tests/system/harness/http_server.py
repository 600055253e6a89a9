"""The lab's HTTP server, on a port of its own for as long as a test needs it."""
import sys
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator, Optional

from .bridge import REPOSITORY
from .waiting import PATIENCE, wait_until

sys.path.append(str(REPOSITORY))

from lab.http.server import Fault, FileServer, Request  # noqa: E402

__all__ = ["Fault", "FileServer", "Request", "faulty", "wait_request"]


def wait_request(server: FileServer, after: int = 0, received: int = 0, sent: int = 0) -> Request:
    """The request behind the first `after` ones, once so much of its body, or of its answer's, has gone."""

    def look() -> Optional[Request]:
        found = server.requests[after:]
        return found[0] if found and found[0].received >= received and found[0].sent >= sent else None

    return wait_until(look, f"a request at {server.url}", PATIENCE)


@contextmanager
def faulty(server: FileServer, fault: Fault) -> Iterator[None]:
    """The fault holds for requests that begin meanwhile."""
    server.fault = fault
    try:
        yield
    finally:
        server.fault = Fault.NONE


def https_server(folder: Path) -> FileServer:
    folder.mkdir(parents=True, exist_ok=True)
    return FileServer(folder)

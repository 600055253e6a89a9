"""Ports of 127.0.0.1 that stay the test's own, also while the server on them is down."""
import os
import random
import re
import socket

FIRST, LAST = 10240, 32000  # below the range from which the system gives ports to clients
WORKERS = 32

_given: set[int] = set()


def _worker_number() -> int:
    match = re.search(r"\d+", os.environ.get("PYTEST_XDIST_WORKER", "gw0"))
    return int(match.group()) % WORKERS if match else 0


def _is_free(port: int) -> bool:
    for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
        with socket.socket(socket.AF_INET, kind) as probe:
            try:
                probe.bind(("0.0.0.0", port))
            except OSError:
                return False
    return True


def free_port() -> int:
    """A port that is free for TCP and UDP, and that no other worker of this run is ever given."""
    for _ in range(1000):
        port = random.randrange(FIRST // WORKERS, LAST // WORKERS) * WORKERS + _worker_number()
        if port not in _given and _is_free(port):
            _given.add(port)
            return port
    raise AssertionError("no free port found")

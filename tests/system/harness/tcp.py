"""Connections of this machine, as the kernel lists them."""
from pathlib import Path

_KEEPALIVE = "02"


def is_kept_alive(remote_port: int) -> bool:
    """Whether an idle connection to the port asks, at times, if the other end still lives."""
    for line in Path("/proc/net/tcp").read_text().splitlines()[1:]:
        words = line.split()
        if int(words[2].rpartition(":")[2], 16) == remote_port and words[5].startswith(f"{_KEEPALIVE}:"):
            return True
    return False

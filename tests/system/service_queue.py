"""Messages into a queue of the daemon's own, as its timers send them."""
import ctypes
import os
import struct
import subprocess
import sys
from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:  # the process that sends does without
    from harness.bridge import Bridge

QUEUE_LENGTH = 10
_WRITING, _CREATED = os.O_WRONLY, os.O_WRONLY | os.O_CREAT


class _Attributes(ctypes.Structure):
    _fields_ = [
        ("flags", ctypes.c_long),
        ("length", ctypes.c_long),
        ("size", ctypes.c_long),
        ("used", ctypes.c_long),
        ("reserved", ctypes.c_long * 4),
    ]


def send(bridge: "Bridge", queue: str, message: bytes, create: bool = False) -> None:
    """Puts the message into the queue; `create` makes the queue first, and there must be none."""
    pid = str(bridge.process.pid)
    as_user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
    command = ["nsenter", "-t", pid, *as_user, "--ipc", "--", sys.executable, "-B", str(Path(__file__))]
    mode = "create" if create else "open"
    subprocess.run([*command, mode, queue, message.hex()], check=True, timeout=20)


def _send_here(mode: str, queue: str, message: bytes) -> None:
    libc = ctypes.CDLL(None, use_errno=True)
    attributes = _Attributes(length=QUEUE_LENGTH, size=len(message))
    flags = _CREATED | os.O_EXCL if mode == "create" else _WRITING
    opened = libc.mq_open(queue.encode(), flags, 0o660, ctypes.byref(attributes))
    if opened < 0 or (message and libc.mq_send(opened, message, len(message), 0) < 0):
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), queue)


def upgrade_message(action: int) -> bytes:
    """One without a request in it."""
    return struct.pack("<i4xQQI4xQI???x", action, 0, 0, 0, 0, 0, False, False, False)


def performance_message(action: int, measure: int) -> bytes:
    return struct.pack("<ii", action, measure)


if __name__ == "__main__":
    _send_here(sys.argv[1], sys.argv[2], bytes.fromhex(sys.argv[3]))

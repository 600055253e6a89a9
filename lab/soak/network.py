"""The two networks of a soak: the servers', in which it runs itself, and the gateway's, with the cable between them."""

from __future__ import annotations

import ctypes
import fcntl
import os
import struct
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from typing import Callable, TypeVar

SERVERS = "10.83.0.1"
GATEWAY = "10.83.0.2"
_MTU = 1500
_TUNSETIFF = 0x400454CA
_IFF_TUN, _IFF_NO_PI = 0x0001, 0x1000
_CLONE_NEWNET = 0x40000000

Result = TypeVar("Result")


def _run(*command: str) -> None:
    subprocess.run(command, check=True)


def _make_device(name: str, own: str, other: str) -> int:
    """A TUN device in the calling thread's network, which has a route through it. The descriptor is its far side."""
    device = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(device, _TUNSETIFF, struct.pack("16sH22x", name.encode(), _IFF_TUN | _IFF_NO_PI))
    _run("ip", "address", "add", own, "peer", other, "dev", name)
    _run("ip", "link", "set", name, "mtu", str(_MTU), "up")
    _run("ip", "link", "set", "lo", "up")
    return device


def _enter_network_of_its_own() -> None:
    if ctypes.CDLL(None, use_errno=True).unshare(_CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "no network namespace")


class Network:
    """The gateway's network is that of one thread: what runs there makes its sockets and processes there. The
    thread lives as long as they do, since processes that end with their parent end with its thread."""

    def __init__(self, seed: int) -> None:
        self._servers_end = _make_device("servers", SERVERS, GATEWAY)
        self._gateway = ThreadPoolExecutor(1, "gateway", _enter_network_of_its_own)
        self._gateway_end = self.in_gateway(lambda: _make_device("uplink", GATEWAY, SERVERS))
        ends = self._servers_end, self._gateway_end
        self._cable = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", sys.executable, "-B", "-m", "lab.soak.cable"]
            + [str(number) for number in (*ends, seed)],
            stdin=subprocess.PIPE,
            pass_fds=ends,
            text=True,
        )

    def in_gateway(self, work: Callable[[], Result]) -> Result:
        return self._gateway.submit(work).result()

    def carry(self, delay_ms: float = 0, jitter_ms: float = 0, loss: float = 0) -> None:
        """How the cable carries from now on; like a good one without arguments."""
        assert self._cable.stdin
        self._cable.stdin.write(f"{delay_ms} {jitter_ms} {loss}\n")
        self._cable.stdin.flush()

    def unplug(self) -> None:
        self.in_gateway(lambda: _run("ip", "link", "set", "uplink", "down"))

    def plug_in(self) -> None:
        self.in_gateway(lambda: _run("ip", "link", "set", "uplink", "up"))

    def close(self) -> None:
        assert self._cable.stdin
        self._cable.stdin.close()
        self._cable.wait()
        self._gateway.shutdown()
        os.close(self._servers_end)
        os.close(self._gateway_end)

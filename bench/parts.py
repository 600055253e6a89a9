"""What the benchmarks have in common: the build, the MQTT server, the machine."""
import os
import platform
import shutil
import signal
import socket
import subprocess
import sys
import time
from contextlib import ExitStack
from pathlib import Path
from types import FrameType

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build-bench"
MAC = "AA555A0000000101"
BUSY = 1.0
STOP_TIMEOUT_S = 10

BROKER_CONFIG = """\
listener {port} 127.0.0.1
allow_anonymous true
persistence false
set_tcp_nodelay true
max_inflight_messages 0
max_queued_messages 0
sys_interval 0
log_dest none
"""


def build(targets: list[str]) -> None:
    configure = ["cmake", "-G", "Ninja", "-B", BUILD, "-S", ROOT, "-DCMAKE_BUILD_TYPE=Release",
                 "-DBRIDGE_BENCH=ON", "-DBRIDGE_TESTS=OFF"]
    for command in (configure, ["ninja", "-C", BUILD, *targets]):
        done = subprocess.run(command, check=False, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        if done.returncode != 0:
            sys.exit(done.stdout)


def free_port(kind: socket.SocketKind) -> int:
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def stop(process: subprocess.Popen[bytes], number: signal.Signals) -> None:
    if process.poll() is None:
        process.send_signal(number)
    try:
        process.wait(STOP_TIMEOUT_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def start_broker(folder: Path, pin: list[str], cleanup: ExitStack) -> tuple[subprocess.Popen[bytes], int]:
    """A private MQTT server and its port."""
    port = free_port(socket.SOCK_STREAM)
    config = folder / "mosquitto.conf"
    config.write_text(BROKER_CONFIG.format(port=port))
    program = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin") or "mosquitto"
    broker = subprocess.Popen([*pin, program, "-c", str(config)])
    cleanup.callback(stop, broker, signal.SIGTERM)
    deadline = time.monotonic() + STOP_TIMEOUT_S
    while True:
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return broker, port
        except OSError:
            if broker.poll() is not None or time.monotonic() > deadline:
                sys.exit("mosquitto does not start")
            time.sleep(0.01)


def first_line(*command: str) -> str:
    return subprocess.run(command, check=False, capture_output=True, text=True).stdout.partition("\n")[0]


def describe_machine(split: bool) -> str:
    models = [line.partition(":")[2].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
              if line.startswith("model name")]
    model = models[0] if models else platform.machine()
    packages = ("libpaho-mqtt1.3", "libjson-c5", "mosquitto", "libc6")
    versions = [f"{name} {first_line('dpkg-query', '-W', '-f', '${Version}', name)}" for name in packages]
    load = os.getloadavg()[0]
    if load > BUSY:
        print(f"the machine is busy (load average {load:.2f}): these will be no figures", file=sys.stderr)
    pinned = "the bridge on CPU 0, server and load on CPU 1" if split else "no pinning"
    return (f"{model}, {os.cpu_count()} CPUs, Linux {platform.release()}, {first_line('c++', '--version')}, "
            f"{', '.join(versions)}; {pinned}; load average at the start {load:.2f}")


def pinning(split: bool) -> dict[str, list[str]]:
    """The bridge apart from server and load, where there is more than one CPU."""
    return {role: ["taskset", "-c", cpu] if split else []
            for role, cpu in (("bridge", "0"), ("broker", "1"), ("load", "1"))}


def interrupted(_number: int, _frame: FrameType | None) -> None:
    sys.exit(1)

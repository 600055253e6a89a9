"""The daemon under test, in a sandbox of its own."""
import os
import re
import signal
import subprocess
import sys
import time
from datetime import datetime
from functools import cache
from pathlib import Path
from typing import Optional

from .log_reader import LogReader, Wanted
from .waiting import PATIENCE

REPOSITORY = Path(__file__).resolve().parents[3]
sys.path.append(str(REPOSITORY))

from lab.sandboxed import sandboxed  # noqa: E402

BINARY = Path(os.environ.get("SNV_BRIDGE", REPOSITORY / "build" / "snv_mqtt_bridge")).resolve()

SANITIZER_REPORTS = re.compile(r"ERROR: \w+Sanitizer|WARNING: \w+Sanitizer|runtime error:")
SIGNAL_AGAIN = 0.5

CONNECTED = "UDP bridge is connected to NS"
TICKED = "bridge main loop: ticking and reporting to sysmon"
TIMESTAMP = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})")


@cache
def is_checked_for_leaks() -> bool:
    return b"__asan_init" in BINARY.read_bytes()


def leak_options() -> dict[str, str]:
    """The sandbox's list of leaks that are not ours; only whole stacks, through libraries without frame
    pointers, are recognised in it."""
    if not is_checked_for_leaks():
        return {}
    given = os.environ.get("ASAN_OPTIONS", "")
    return {
        "ASAN_OPTIONS": f"{given}:fast_unwind_on_malloc=0",
        "LSAN_OPTIONS": "suppressions=/run/leaks:print_suppressions=0",
    }


def environment(work: Path, extra: Optional[dict[str, str]] = None) -> dict[str, str]:
    """No proxy, no locale, no time zone, no SNMP set-up of the host; the sanitizers' options pass."""
    kept = {key: value for key, value in os.environ.items() if key.endswith("SAN_OPTIONS")}
    snmp = {"SNMPCONFPATH": str(work / "no-snmp-configuration"), "MIBS": ""}
    own = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", **snmp}
    return {**own, **kept, **leak_options(), **(extra or {})}


def log_time(line: str) -> float:
    """When the daemon wrote the line, in seconds."""
    match = TIMESTAMP.match(line)
    assert match, f"no timestamp in: {line}"
    return datetime.strptime(match.group(1), "%Y-%m-%d %H:%M:%S.%f").timestamp()


class Bridge:
    """One run of the daemon. Its lines on standard error are in `log`, those on standard output in `out`."""

    def __init__(
        self,
        work: Path,
        arguments: list[str],
        extra_env: Optional[dict[str, str]] = None,
        binary: Path = BINARY,
    ) -> None:
        assert BINARY.exists(), f"no daemon at {BINARY}: build it, or set SNV_BRIDGE"
        self.work = work
        self.process = subprocess.Popen(
            sandboxed(work, binary, arguments),
            cwd=work,
            env=environment(work, extra_env),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        assert self.process.stdout and self.process.stderr
        self.log = LogReader(self.process.stderr)
        self.out = LogReader(self.process.stdout)
        self.ended_as_expected = False

    def wait_for_log(self, wanted: Wanted, timeout: float = PATIENCE, after: int = 0, count: int = 1) -> str:
        return self.log.wait_for(wanted, timeout, after, count)

    def wait_connected(self, timeout: float = PATIENCE, after: int = 0) -> None:
        self.wait_for_log(CONNECTED, timeout, after)

    def resources(self) -> tuple[int, int]:
        """How many descriptors and threads the daemon holds."""
        of = Path(f"/proc/{self.process.pid}")
        return len(list((of / "fd").iterdir())), len(list((of / "task").iterdir()))

    def running(self) -> bool:
        return self.process.poll() is None

    def signal(self, number: int) -> None:
        assert self.running(), f"the daemon ended early, with {self.process.returncode}:\n{self.tail()}"
        self.process.send_signal(number)

    def wait_exit(self, timeout: float = PATIENCE) -> int:
        """The exit status of a daemon that ends by itself or after a signal of the test's own."""
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the daemon did not end within {timeout} s:\n{self.tail()}") from None
        self.log.join()
        self.out.join()
        self.ended_as_expected = True
        return status

    def ask_to_stop(self, timeout: float = PATIENCE) -> None:
        """Returns when the process has ended, or the time is over. A stop signal just before a sleep of the loop
        does not end that sleep, so it is sent until then."""
        end = time.monotonic() + timeout
        while self.running() and time.monotonic() < end:
            self.process.send_signal(signal.SIGUSR2)
            try:
                self.process.wait(SIGNAL_AGAIN)
            except subprocess.TimeoutExpired:
                continue

    def stop(self, timeout: float = PATIENCE) -> None:
        """The stop signal and the clean end that follows."""
        self.ask_to_stop(timeout)
        status = self.wait_exit(timeout=0.1)
        assert status == 0, f"the daemon ended with {status}:\n{self.tail()}"

    def close(self) -> None:
        """At the end of every test: stops the daemon if it runs, and judges how it ended."""
        try:
            if self.running():
                self.stop()
            assert (
                self.ended_as_expected
            ), f"the daemon ended unexpectedly, with {self.process.wait()}:\n{self.tail()}"
            report = self.sanitizer_report()
            assert not report, "sanitizer report:\n" + "\n".join(report)
        finally:
            if self.running():
                self.process.kill()
                self.process.wait()

    def sanitizer_report(self) -> list[str]:
        """The lines from the first report on, or none."""
        lines = self.log.lines
        first = next(
            (place for place, line in enumerate(lines) if SANITIZER_REPORTS.search(line)), len(lines)
        )
        return lines[first : first + 200]

    def tail(self) -> str:
        return "\n".join((self.sanitizer_report() or self.log.lines[-60:]) + self.out.lines[-5:])

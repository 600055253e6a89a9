"""What a soak judges while it runs: the lines of the log, restarts, and what goes on beside a fault."""

from __future__ import annotations

from dataclasses import dataclass

from lab.soak import explain
from lab.soak.faults import Kind
from lab.soak.gateway import LogLine
from lab.soak.report import Report
from lab.soak.uplinks import Uplinks

# What nothing touches never rests longer: a command may wait for others that wait for the agent.
UPLINK_SILENCE_SECONDS = 20.0
ANSWER_SILENCE_SECONDS = 90.0
# A line may tell of a fault that has just gone; some lines, of what one has begun, take longer.
SHORT_ECHO_SECONDS = 5.0
ECHO_SECONDS = 60.0
# A connection may be found broken so long after what has broken it.
LATE_BREAK_SECONDS = 45.0
# The daemon's time of day is another one when it differs by more.
_CLOCK_SECONDS = 30.0
_FOREVER = float("inf")
_LOST = "mqtt connection lost"
_RECONNECTED = "dataplane partial restart requested"
_CONTROL_STOPPED = (
    "ctrlplane restart requested",
    "control plane restart is requested before data plane connection could be established",
)
_STOPPED = (*_CONTROL_STOPPED, "dataplane restart requested")
_STARTED = "dataplane is started"
# What else asks for a restart, and is acted on with the next tick, or behind the commands that still run.
_CAUSES = (
    r"failed to start the (bulk configuration|bulk upgrade|performance management) service",
    r"failed to publish (status )?response",
    r"failed to publish configuration",
    r"Failed to publish to topic .*",
    r"failed to send (fileops response|bsp upgrade response.*|battery performance measures.*)",
    r"can't publish event",
    r"send to (NS|GeoLoc) has failed: initiating service restart",
)
_CAUSE_SECONDS = 150.0


def _tells_a_restart(line: LogLine) -> bool:
    return line.text.startswith((_LOST, _RECONNECTED, *_STOPPED))


def follow_connection(line: LogLine, uplinks: Uplinks) -> None:
    """Tells the books what a line says of the connection to the network server."""
    if line.text.startswith(_LOST):
        uplinks.broke("connection lost")
    elif line.text.startswith(_RECONNECTED):
        uplinks.broke("restart")
    elif line.text.startswith(_STOPPED):
        uplinks.stopping()
    elif line.text == _STARTED:
        uplinks.started()


@dataclass
class Stay:
    """A fault in its time, which ends when both planes are up again."""

    kind: Kind
    begin: float
    end: float = _FOREVER

    def covers(self, moment: float, echo: float) -> bool:
        return self.begin <= moment <= self.end + echo


class Judge:
    """On one thread. Moments are monotonic seconds, and lines come in their order."""

    def __init__(self, report: Report, begin: float) -> None:
        self._report = report
        self._stays: list[Stay] = []
        self._restart_since: float | None = None  # a restart may bring lines of its own from then on
        self._restart_until = 0.0
        self._cause_at = float("-inf")  # of a line that tells why a restart is asked for
        self.has_resting_service = False  # it needs a restart of the control plane
        # Since when nothing touches them.
        self._free = {"connection": begin, "agent": begin}

    def begin(self, kind: Kind, moment: float) -> Stay:
        stay = Stay(kind, moment)
        self._stays.append(stay)
        return stay

    def end(self, stays: list[Stay], moment: float) -> None:
        """Both planes are up again, or waited for no longer."""
        for stay in stays:
            stay.end = moment
        self._restart_until = moment + SHORT_ECHO_SECONDS

    def stopping(self, moment: float) -> None:
        self._restart_begins(moment)

    def _restart_begins(self, moment: float) -> None:
        self._restart_since, self._restart_until = moment, _FOREVER

    def bit(self, kind: str) -> None:
        """The last fault of this kind has broken something."""
        self._report.bit(kind, max(stay.begin for stay in self._stays if stay.kind.name == kind))

    def take(self, line: LogLine) -> None:
        self._follow_restart(line)
        if line.text.startswith(_CONTROL_STOPPED):
            self.has_resting_service = False
        elif explain.explains(explain.RESTS, line.text):
            self.has_resting_service = True
        for stay in self._stays:
            if not stay.covers(line.at, SHORT_ECHO_SECONDS):
                continue
            is_off = stay.kind.moves_clock and abs(line.beside) > _CLOCK_SECONDS
            if is_off or explain.explains(stay.kind.bites, line.text):
                self._report.bit(stay.kind.name, stay.begin)
        if line.level == "ERROR" or (not line.level and explain.explains((explain.BROKEN,), line.text)):
            self._report.error_lines += 1
            if not self._is_explained(line):
                beside = [stay.kind.name for stay in self._stays if stay.covers(line.at, ECHO_SECONDS)]
                self._report.unexplained(line.text, beside)

    def _is_explained(self, line: LogLine) -> bool:
        patterns = set(explain.ALWAYS)
        for stay in self._stays:
            if stay.covers(line.at, SHORT_ECHO_SECONDS):
                patterns.update(stay.kind.explains.now)
            if stay.covers(line.at, ECHO_SECONDS):
                patterns.update(stay.kind.explains.late)
        if self._restart_since is not None and line.at >= self._restart_since:
            patterns.update(explain.RESTART)
        return explain.explains(patterns, line.text)

    def _follow_restart(self, line: LogLine) -> None:
        """A restart is one that a fault explains, and explains lines itself until the planes are up."""
        if self._restart_since is not None and line.at > self._restart_until:
            self._restart_since = None
        if explain.explains(_CAUSES, line.text):
            self._cause_at = line.at
        is_under_way = self._restart_since is not None and self._restart_until == _FOREVER
        if not _tells_a_restart(line) or is_under_way:
            return
        self._restart_begins(line.at)
        is_asked = line.text.startswith(_STOPPED) and line.at <= self._cause_at + _CAUSE_SECONDS
        causes = [stay.kind for stay in self._stays if stay.covers(line.at, LATE_BREAK_SECONDS)]
        if not any(kind.may_lose or (kind.may_restart and is_asked) for kind in causes):
            self._report.fail(f"a restart that nothing explains: {line.text}")
        self._report.restarts[line.text.partition(" due to")[0]] += 1

    def check_silence(self, now: float, last_uplink: float, last_answer: float) -> None:
        """What no fault touches goes on, also while one stays."""
        touched = {stay.kind.touches for stay in self._stays if stay.end == _FOREVER}
        if self._restart_since is not None:
            touched.add("connection")
        if "connection" in touched:
            touched.add("agent")
        for name in self._free:
            if name in touched:
                self._free[name] = now
        if now - max(last_uplink, self._free["connection"]) > UPLINK_SILENCE_SECONDS:
            self._report.fail(
                f"no uplink came through for {UPLINK_SILENCE_SECONDS:.0f} s, and nothing is in its way"
            )
        if now - max(last_answer, self._free["agent"]) > ANSWER_SILENCE_SECONDS:
            self._report.fail(
                f"no command was answered for {ANSWER_SILENCE_SECONDS:.0f} s, and nothing is in its way"
            )

"""What was sent through the data plane, and what became of it."""

from __future__ import annotations

import base64
import bisect
import random
import threading
import time
from collections import Counter
from dataclasses import dataclass, field
from typing import Callable, Iterator

from lab.demo.dialects import Dialect, Statistics, TxAck, Uplink
from lab.gateway import forwarder as semtech
from lab.gateway.lorawan import UNCONFIRMED_DOWN, build_frame, parse_frame

# What is acknowledged so shortly before a connection breaks may be under way in it, and lost with it.
MARGIN_SECONDS = 1.0
# The forwarder waits no longer for one.
_ACK_SECONDS = 1.0
# What has waited behind a slow network goes on its way within so long.
_JAM_ECHO_SECONDS = 5.0
# Tokens of TX_ACK from here on are those of junk, in either order of their bytes.
FIRST_TOKEN_OF_JUNK = 0xF000
# From the acknowledgement to the server, over a slow cable too.
LATE_SECONDS = 20.0


@dataclass
class _Sent:
    at: float
    acked: float = 0.0
    arrived: float = 0.0


@dataclass
class _Downlink:
    at: float
    times: int = 0  # that it reached the forwarder


@dataclass
class Span:
    """While the connection to the network server was whole, or, with a reason, was not."""

    begin: float
    end: float = float("inf")
    reason: str = ""


@dataclass
class UplinkFigures:
    sent: int = 0
    acknowledged: int = 0
    published: int = 0
    unanswered: int = 0
    lost: int = 0  # acknowledged on a whole connection
    ignored: int = 0  # sent on a whole connection, and never acknowledged
    excused: dict[str, int] = field(default_factory=dict)  # acknowledged, not published, by the reason


class Uplinks:
    """Books of the packet forwarder's side and of the network server's. Any thread."""

    def __init__(self, dialect: Dialect, mac: str, seed: int, fail: Callable[[str], None]) -> None:
        self._dialect = dialect
        self._mac = mac
        self._fail = fail
        self._rng = random.Random(seed)
        self._lock = threading.Lock()
        self._sent: dict[bytes, _Sent] = {}
        # The connection is whole from the arrival of an uplink that was sent after the last break.
        self._spans = [Span(time.monotonic(), reason="start")]
        self._is_touched = self._is_stopping = False
        self._jams: list[tuple[float, float]] = []  # while less is carried than is sent
        self._proof_from = time.monotonic()
        self._broken_at = 0.0
        self._last: Uplink | None = None
        self._arrivals: list[
            tuple[float, float]
        ] = []  # sent, arrived; of the last ones that were acknowledged too
        self.downlinks_sent = self.downlinks_received = self.tx_acks = self.statistics = 0
        self._downlinks: dict[bytes, _Downlink] = {}
        self._tx_acks_due: Counter[int] = Counter()  # by token, where the dialect has them
        self._statistics_due: Counter[Statistics] = Counter()
        self._delivered: list[tuple[float, float]] = []  # sent, received; of the last ones that came
        self._token = 0
        self._fcnt_down = 0

    # The connection.

    def touched(self, reason: str) -> None:
        """A fault begins to touch the connection, which counts as broken until `released`."""
        with self._lock:
            self._break(reason)
            self._is_touched = True

    def jammed(self) -> None:
        """Until `released` and a little longer, what is sent may find no room and get no acknowledgement."""
        with self._lock:
            self._jams.append((time.monotonic(), float("inf")))

    def released(self) -> None:
        with self._lock:
            if self._jams and self._jams[-1][1] == float("inf"):
                self._jams[-1] = self._jams[-1][0], time.monotonic() + _JAM_ECHO_SECONDS
            self._is_touched = False
            self._proof_from = time.monotonic()

    def broke(self, reason: str) -> None:
        """The daemon has lost its connection, or takes it down."""
        with self._lock:
            self._break(reason)
            self._proof_from = self._broken_at = time.monotonic()

    def stopping(self) -> None:
        """The data plane goes on while the control plane is stopped, then stops itself without a word; what comes
        through in between proves nothing."""
        self.broke("restart")
        with self._lock:
            self._is_stopping = True

    def started(self) -> None:
        """The data plane is up again."""
        with self._lock:
            self._is_stopping = False
            self._proof_from = time.monotonic()

    def _break(self, reason: str) -> None:
        now, last = time.monotonic(), self._spans[-1]
        if not last.reason:
            last.end = max(now - MARGIN_SECONDS, last.begin)
            self._spans.append(Span(last.end, reason=reason))
        elif reason not in last.reason:
            last.reason += f", {reason}"

    def broken_at(self) -> float:
        """When the daemon last lost or took down its connection."""
        with self._lock:
            return self._broken_at

    # The forwarder's side.

    def forwarder_event(self, event: semtech.Event) -> None:
        now = time.monotonic()
        with self._lock:
            match event:
                case semtech.UplinksSent(frames):
                    self._sent.update({frame: _Sent(now) for frame in frames})
                case semtech.PushAcked(frames, _):
                    for frame in frames:
                        self._sent[frame].acked = now
                        self._note_round(self._sent[frame])
                case semtech.DownlinkReceived(txpk, token):
                    self._tx_acks_due[token] += 1
                    self._downlink_received(base64.b64decode(str(txpk.get("data", ""))), now)
                case semtech.StatisticsSent(sent):
                    told = Statistics(sent["rxnb"], sent["rxok"], sent["dwnb"], sent["txnb"])
                    self._statistics_due[told] += 1

    def _downlink_received(self, frame: bytes, now: float) -> None:
        self.downlinks_received += 1
        if downlink := self._downlinks.get(frame):
            downlink.times += 1
            self._delivered = [*self._delivered[-50:], (downlink.at, now)]
            if downlink.times > 1:
                self._fail(f"downlink {frame.hex()} reached the forwarder {downlink.times} times")

    def _note_round(self, sent: _Sent) -> None:
        if sent.acked and sent.arrived:
            self._arrivals = [*self._arrivals[-50:], (sent.at, max(sent.acked, sent.arrived))]

    def first_round_since(self, moment: float) -> float | None:
        """When the first uplink that was sent after it was both acknowledged and published."""
        with self._lock:
            return min((done for at, done in self._arrivals if at >= moment), default=None)

    def first_downlink_since(self, moment: float) -> float | None:
        """When the first downlink that was sent after it reached the forwarder."""
        with self._lock:
            return min((done for at, done in self._delivered if at >= moment), default=None)

    def last_round(self) -> float:
        with self._lock:
            return max((done for _, done in self._arrivals), default=0.0)

    # The server's side.

    def message(self, topic: str, payload: bytes) -> None:
        try:
            message = self._dialect.read(topic, payload, self._mac)
        except (KeyError, IndexError, TypeError, ValueError) as problem:
            self._fail(f"message on {topic}: {problem!r}")
            return
        with self._lock:
            match message:
                case Uplink():
                    self._arrived(message)
                case Statistics():
                    self.statistics += 1
                    self._statistics_due[message] -= 1
                case TxAck():
                    self.tx_acks += 1
                    self._tx_acks_due[message.token] -= 1

    def _arrived(self, uplink: Uplink) -> None:
        sent = self._sent.get(uplink.frame)
        if sent is None:
            self._fail("an uplink was published that nobody sent")
            return
        if sent.arrived:
            self._fail(f"uplink {uplink.frame.hex()} was published twice")
            return
        now = time.monotonic()
        sent.arrived = now
        self._last = uplink
        self._note_round(sent)
        is_open = self._is_touched or self._is_stopping
        if self._spans[-1].reason and not is_open and sent.at > self._proof_from:
            self._spans[-1].end = now
            self._spans.append(Span(now))

    def downlinks(self, count: int) -> Iterator[tuple[str, bytes]]:
        """Topics and payloads of answers to the last uplink."""
        with self._lock:
            uplink = self._last
        if uplink is None:
            return
        for _ in range(count):
            self._token = (self._token + 1) % FIRST_TOKEN_OF_JUNK
            self._fcnt_down += 1
            size = self._rng.choice((4, 12, 51))
            frame = build_frame(
                UNCONFIRMED_DOWN, parse_frame(uplink.frame).dev_addr, 0, self._fcnt_down, 1, size
            )
            self.downlinks_sent += 1
            with self._lock:
                self._downlinks[frame] = _Downlink(time.monotonic())
            yield self._dialect.write_downlink(uplink, frame, 1, self._token, self._mac)

    # The verdict.

    def check_doubles(self) -> None:
        """Once nothing is under way: the forwarder tells what it has sent a moment later."""
        with self._lock:
            for statistics, due in self._statistics_due.items():
                if due < 0:
                    self._fail(f"{statistics} were published {-due} times more than they were sent")
            for token, due in self._tx_acks_due.items():
                if due < 0 and token < FIRST_TOKEN_OF_JUNK:
                    self._fail(f"TX_ACK of token {token} was published {-due} times more than it was sent")

    def _was_whole(self, moment: float) -> bool:
        place = bisect.bisect_right(self._spans, moment, key=lambda span: span.begin) - 1
        return place >= 0 and not self._spans[place].reason and moment + _ACK_SECONDS < self._spans[place].end

    def figures(self) -> UplinkFigures:
        """Of all that was sent long enough ago."""
        with self._lock:
            limit = time.monotonic() - LATE_SECONDS
            spans = self._spans
            told = UplinkFigures()
            place = 0
            for sent in sorted(
                (each for each in self._sent.values() if each.at < limit), key=lambda s: s.acked
            ):
                told.sent += 1
                told.published += bool(sent.arrived)
                told.acknowledged += bool(sent.acked)
                told.unanswered += not sent.acked
                if not sent.acked:
                    is_jammed = any(begin <= sent.at < end for begin, end in self._jams)
                    told.ignored += self._was_whole(sent.at) and not is_jammed
                if not sent.acked or sent.arrived:
                    continue
                while spans[place].end <= sent.acked:
                    place += 1
                if reason := spans[place].reason:
                    told.excused[reason] = told.excused.get(reason, 0) + 1
                else:
                    told.lost += 1
            return told

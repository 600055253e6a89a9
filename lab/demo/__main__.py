"""The demo: builds the daemon, runs the main job end to end and shows it."""

from __future__ import annotations

import argparse
import os
import signal
import sys
from pathlib import Path

from lab.demo.build import BuildFailed, build_programs
from lab.demo.children import ChildFailed
from lab.demo.dialects import DIALECTS
from lab.demo.own_config import run_own_config
from lab.demo.stop import Interrupted, StopRequest
from lab.demo.view import View

_ROOT = Path(__file__).resolve().parent.parent.parent


def _positive(text: str) -> float:
    value = float(text)
    if not 0 < value < float("inf"):
        raise ValueError
    return value


_positive.__name__ = "positive number"


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/demo",
        description="Builds the daemon and runs its main job end to end: simulated devices and packet"
        " forwarder, an SNMP agent, the daemon, a private MQTT server, and a view of what arrives there."
        " Ctrl-C ends it.",
    )
    parser.add_argument(
        "--dialect", choices=sorted(DIALECTS, reverse=True), help="of the network server (native)"
    )
    parser.add_argument("--rate", type=_positive, metavar="N", help="uplinks per second (2)")
    parser.add_argument(
        "--seconds", type=_positive, metavar="N",
        help="end after N seconds, with status 0 if every uplink sent was received",
    )  # fmt: skip
    parser.add_argument("--config", metavar="FILE", help="run the daemon on this configuration instead")
    args = parser.parse_args()
    if args.config and (args.dialect or args.rate or args.seconds):
        parser.error("--config runs the daemon alone, without the simulated peers of the other options")
    return args


def _report_failure(failure: ChildFailed, view: View) -> None:
    view.text(f"\nFAILED      {failure}; its last lines:", "bad")
    for line in failure.child.tail:
        view.text(f"    {line}")


def _run(args: argparse.Namespace, stop: StopRequest) -> int:
    from lab.demo.session import Session  # needs a package that --help does without

    view = View()
    try:
        programs = build_programs(_ROOT, stop)
        if args.config:
            return run_own_config(programs.daemon, args.config, stop)
        session = Session(programs, DIALECTS[args.dialect or "native"], args.rate or 2.0, stop, view)
        complete = session.run(args.seconds or float("inf"))
    except Interrupted:
        return 128 + stop.number
    except BuildFailed as failure:
        view.text(f"FAILED      {failure}", "bad")
        return 1
    except ChildFailed as failure:
        _report_failure(failure, view)
        return 1
    if args.seconds and stop.number:
        return 128 + stop.number  # cut short
    return 0 if complete else 1


def main() -> int:
    args = _arguments()
    try:
        return _run(args, StopRequest())
    except BrokenPipeError:
        # The reader has gone, and so has everything that the demo started.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 128 + signal.SIGPIPE


if __name__ == "__main__":
    sys.exit(main())

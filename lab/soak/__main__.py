"""The soak: the whole gateway under load for a time, broken at random and watched."""

from __future__ import annotations

import argparse
import os
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

from lab.demo.build import BuildFailed, Programs, build_programs
from lab.demo.stop import Interrupted, StopRequest

_ROOT = Path(__file__).resolve().parent.parent.parent
_INSIDE = "SOAK_INSIDE"


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/soak",
        description="Runs the daemon among an agent, MQTT servers, a packet forwarder and an operations server, and"
        " breaks one thing after the other. Status 0 when all held.",
    )
    parser.add_argument("minutes", type=float, metavar="MINUTES")
    parser.add_argument(
        "--seed", type=int, default=1, metavar="N", help="decides what is broken when, and the set-up (1)"
    )
    parser.add_argument("--json", type=Path, metavar="FILE", help="writes the figures there")
    parser.add_argument("--keep", type=Path, metavar="FOLDER", help="keeps the logs there")
    return parser.parse_args()


def _run_in_namespaces(folder: Path) -> int:
    """Again, in namespaces whose end is the end of everything in them, and which end with this process. The shell is
    their first process: it collects what the daemon's children leave behind."""
    as_user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    command = [
        "setpriv",
        "--pdeathsig",
        "KILL",
        "--",
        "unshare",
        *as_user,
        "--net",
        "--mount",
        "--pid",
        "--fork",
    ]
    command += ["--kill-child", "--mount-proc", "--", "/bin/sh", "-c", '"$@"; exit $?', "sh"]
    command += [sys.executable, "-B", "-m", "lab.soak", *sys.argv[1:]]
    environment = {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}
    own = {"SNMPCONFPATH": os.devnull, "MIBS": "", _INSIDE: str(folder)}
    return subprocess.run(command, env={**environment, **own}, check=False).returncode


def _soak(args: argparse.Namespace, folder: Path) -> int:
    from lab.soak.plan import plan_of
    from lab.soak.soak import Soak

    binary = os.environ.get("SNV_BRIDGE")
    build = _ROOT / "build"
    programs = Programs(
        Path(binary).resolve() if binary else build / "snv_mqtt_bridge",
        Path(os.environ.get("SNV_LAB_AGENT") or build / "lab" / "agent" / "lab_agent").resolve(),
    )
    report = Soak(programs, plan_of(args.seed), folder, args.minutes).run()
    report.show()
    if args.json:
        report.write(args.json)
    return 0 if report.is_clean() else 1


def _end(number: int, _frame: object) -> None:
    sys.exit(128 + number)


def main() -> int:
    args = _arguments()
    if inside := os.environ.get(_INSIDE):
        return _soak(args, Path(inside))
    try:
        if not os.environ.get("SNV_BRIDGE"):
            build_programs(_ROOT, StopRequest())
    except Interrupted:
        return 130
    except BuildFailed as failure:
        print(f"FAILED      {failure}", file=sys.stderr)
        return 1
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _end)
    if args.keep:
        args.keep.mkdir(parents=True, exist_ok=True)
        return _run_in_namespaces(args.keep.resolve())
    with tempfile.TemporaryDirectory(prefix="snv-soak-") as folder:
        return _run_in_namespaces(Path(folder).resolve())


if __name__ == "__main__":
    sys.exit(main())

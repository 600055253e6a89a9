"""The stages of scripts/test. Each runs whatever became of the others, and the last line counts them all."""

from __future__ import annotations

import argparse
import json
import os
import re
import shlex
import subprocess
import sys
import time
import xml.etree.ElementTree as xml
from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from hardening import TRAITS, lacks

ROOT = Path(__file__).resolve().parent.parent
JOBS = str(os.cpu_count() or 2)
SYSTEM_WORKERS = "4"  # system tests wait more than they work
LINES_WANTED = 90.0  # per cent of src that the unit tests reach


@dataclass(frozen=True)
class Variant:
    """A way to build and run."""

    folder: str
    sanitizers: str
    environment: dict[str, str]
    # ThreadSanitizer's shadow memory collides with a strongly randomised address space.
    prefix: tuple[str, ...] = ()
    kind: str = "RelWithDebInfo"
    coverage: bool = False
    tests: bool = True


# The daemon of the system tests, and the one that the checks look at.
PLAIN = Variant("build", "", {}, kind="Release", tests=False)
# The unit tests.
COVERAGE = Variant("build-coverage", "", {}, kind="Coverage", coverage=True)
ASAN = Variant(
    "build-asan",
    "address,undefined",
    {
        "ASAN_OPTIONS": "detect_stack_use_after_return=1:strict_string_checks=1",
        "UBSAN_OPTIONS": "print_stacktrace=1",
    },
)
TSAN = Variant(
    "build-tsan",
    "thread",
    # See tests/sanitizers.
    {"TSAN_OPTIONS": "second_deadlock_stack=1:die_after_fork=0"},
    ("setarch", "-R"),
)


@dataclass
class Outcome:
    stage: str
    passed: int
    failed: int
    seconds: float
    remark: str = ""


def announce(words: str) -> None:
    print(f"\n=== {words}", flush=True)


def run(command: list[str], environment: dict[str, str] | None = None) -> int:
    """Output goes straight through. The child ends with this process."""
    whole = ["setpriv", "--pdeathsig", "TERM", "--", *command]
    return subprocess.run(
        whole, cwd=ROOT, stdin=subprocess.DEVNULL, env={**os.environ, **(environment or {})}
    ).returncode


def sources(*folders: str) -> list[str]:
    found = [path for folder in folders for path in (ROOT / folder).rglob("*")]
    return sorted(str(path.relative_to(ROOT)) for path in found if path.suffix in (".cpp", ".h"))


def count_cases(report: Path) -> tuple[int, int]:
    """Passed and failed test cases of a JUnit report. Only a case that ran to its end has passed: a skipped
    test, or one that could not be started, counts as failed."""
    if not report.exists():
        return 0, 0
    cases = list(xml.parse(report).getroot().iter("testcase"))
    passed = sum(1 for case in cases if case.get("status", "run") == "run" and not _has_verdict(case))
    return passed, len(cases) - passed


def _has_verdict(case: xml.Element) -> bool:
    return any(case.find(verdict) is not None for verdict in ("failure", "error", "skipped"))


def outcome_of_report(stage: str, report: Path, status: int, started: float) -> Outcome:
    """A runner that complains although all its cases passed, or that ran none, is a failure too."""
    passed, failed = count_cases(report)
    remark = ""
    if passed + failed == 0:
        failed, remark = 1, "nothing ran"
    elif status != 0 and failed == 0:
        failed, remark = 1, f"the runner ended with status {status}"
    return Outcome(stage, passed, failed, time.monotonic() - started, remark)


class Build:
    def __init__(self, variant: Variant) -> None:
        self.variant = variant
        self.folder = ROOT / variant.folder
        self.daemon = self.folder / "snv_mqtt_bridge"

    def configure(self) -> bool:
        announce(f"configuring {self.variant.folder}")
        command = ["cmake", "-S", ".", "-B", self.variant.folder, f"-DCMAKE_BUILD_TYPE={self.variant.kind}"]
        if not (self.folder / "CMakeCache.txt").exists():
            command += ["-G", "Ninja"]
        command += [f"-DBRIDGE_TESTS={self.variant.tests}", f"-DBRIDGE_COVERAGE={self.variant.coverage}"]
        command += [f"-DBRIDGE_SANITIZE={self.variant.sanitizers}"]
        # With sanitizers the compiler warns of what they themselves put in.
        command += [f"-DCMAKE_COMPILE_WARNING_AS_ERROR={not self.variant.sanitizers}"]
        return run(command) == 0

    def build(self, target: str) -> bool:
        announce(f"building {self.variant.folder}: {target}")
        command = ["cmake", "--build", self.variant.folder, "--target", target, "--", "-k", "0"]
        return run([*self.variant.prefix, *command]) == 0

    def report(self, stage: str) -> Path:
        """An old report must not speak for a run that wrote none."""
        path = self.folder / f"report-{stage}.xml"
        path.unlink(missing_ok=True)
        return path


def unit_stage(build: Build, left_out: str = "") -> list[Outcome]:
    """`left_out` is a regular expression of names."""
    started = time.monotonic()
    complete = build.build("all")
    if build.variant.coverage:
        forget_counts(build)
    announce("unit tests")
    report = build.report("unit")
    command = ["ctest", "--test-dir", build.variant.folder, "-j", JOBS, "--output-on-failure"]
    command += ["--no-tests=error", "--timeout", "120", "--output-junit", str(report)]
    command += ["-E", left_out] if left_out else []
    status = run([*build.variant.prefix, *command], build.variant.environment)
    outcomes = [outcome_of_report("unit tests", report, status, started)]
    if not complete:
        outcomes.append(Outcome("build of the unit tests", 0, 1, 0.0))
    return outcomes


def forget_counts(build: Build) -> None:
    """Runs add to them."""
    for path in build.folder.rglob("*.gcda"):
        path.unlink()


def coverage_stage(build: Build) -> Outcome:
    """Of src by the unit tests that have just run."""
    started = time.monotonic()
    announce("coverage")
    summary = build.folder / "coverage.json"
    summary.unlink(missing_ok=True)
    command = ["gcovr", "--root", ".", "--filter", "src/", "--object-directory", build.variant.folder]
    command += ["--exclude-throw-branches", "-j", JOBS, "--json-summary", str(summary)]
    command += ["--txt", f"{build.variant.folder}/coverage.txt", build.variant.folder]
    if run(command) != 0 or not summary.exists():
        return Outcome("coverage", 0, 1, time.monotonic() - started, "it cannot be told")
    figures = json.loads(summary.read_text())
    for each in figures["files"]:
        if each["line_percent"] < LINES_WANTED:
            tell_coverage(each, each["filename"])
    lines, branches = figures["line_percent"], figures["branch_percent"]
    tell_coverage(figures, f"src; {build.variant.folder}/coverage.txt has all files")
    failed = int(lines < LINES_WANTED)
    remark = f"{lines} % of lines, {branches} % of branches"
    return Outcome("coverage", 1 - failed, failed, time.monotonic() - started, remark)


def tell_coverage(figures: dict[str, Any], name: str) -> None:
    branches = figures["branch_percent"] if figures["branch_total"] else 100.0
    print(f"{figures['line_percent']:>6} % of lines {branches:>6} % of branches  {name}", flush=True)


def system_stage(build: Build) -> list[Outcome]:
    started = time.monotonic()
    if not build.build("snv_mqtt_bridge") or not build.build("lab_agent"):
        return [Outcome("system tests", 0, 1, time.monotonic() - started, "the programs do not build")]
    environment = {**build.variant.environment, "SNV_BRIDGE": str(build.daemon)}
    return [system_tests(build, "system tests", ["tests/system"], environment)]


def system_tests(
    build: Build,
    stage: str,
    selected: Sequence[str],
    environment: dict[str, str],
    workers: str = SYSTEM_WORKERS,
) -> Outcome:
    started = time.monotonic()
    announce(stage)
    report = build.report(stage.replace(" ", "-"))
    command = ["/usr/bin/python3", "-B", "-m", "pytest", *selected, "-n", workers]
    command += ["--dist", "loadgroup", "-p", "no:cacheprovider", f"--junitxml={report}"]
    status = run([*build.variant.prefix, *command], environment)
    return outcome_of_report(stage, report, status, started)


def run_clang_tidy(command: list[str]) -> int:
    """Its count of suppressed findings in system headers, a line for each source, says nothing to anybody."""
    done = subprocess.run(
        command,
        cwd=ROOT,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    noise = re.compile(r"\d+ warnings? generated\.|Enabled checks:|clang-tidy\S* .* -quiet |\s*$")
    for line in re.sub(r"\x1b\[[\d;]*m", "", done.stdout).splitlines():
        if not noise.match(line):
            print(line, flush=True)
    return done.returncode


def hardening_stage(build: Build) -> Outcome:
    started = time.monotonic()
    announce("hardening")
    if not build.build("snv_mqtt_bridge"):
        return Outcome("hardening", 0, 1, time.monotonic() - started, "the daemon does not build")
    missing = lacks(build.daemon)
    for trait in missing:
        print(f"{build.variant.folder}/snv_mqtt_bridge: not so: {trait.name}", flush=True)
    return Outcome("hardening", len(TRAITS) - len(missing), len(missing), time.monotonic() - started)


def clang_commands(build: Build) -> list[list[str]]:
    """How each file of src is compiled, but by clang, which makes nothing of it but warnings."""
    database = json.loads((build.folder / "compile_commands.json").read_text())
    texts = {each["file"]: each["command"] for each in database if each["file"].startswith(f"{ROOT}/src/")}
    commands = []
    for file in sorted(texts):
        words = shlex.split(texts[file])
        options = words[next(i for i, word in enumerate(words) if word.startswith("-")) :]
        output = options.index("-o")
        commands.append(["clang++", "-fsyntax-only", "-Werror", *options[:output], *options[output + 2 :]])
    return commands


def run_clang(build: Build) -> int:
    def complain(command: list[str]) -> bool:
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        print(done.stdout, end="", flush=True)
        return done.returncode != 0

    with ThreadPoolExecutor(int(JOBS)) as threads:
        return sum(threads.map(complain, clang_commands(build)))


def check_stage(build: Build) -> list[Outcome]:
    tidy_files = f"^{re.escape(str(ROOT))}/src/"
    format_files = sources("src", "tests", "bench", "fuzz", "lab")
    cppcheck = [
        "cppcheck", "--quiet", "--error-exitcode=1", "-j", JOBS, "--std=c++20", "--language=c++",
        "--enable=warning,performance,portability", "--inline-suppr", "--library=posix",
        "--suppressions-list=scripts/cppcheck.suppressions", "-I", "src", "src",
    ]  # fmt: skip
    checks: dict[str, Callable[[], int]] = {
        "clang-format": lambda: run(["clang-format", "--dry-run", "-Werror", *format_files]),
        "clang's warnings": lambda: run_clang(build),
        "clang-tidy": lambda: run_clang_tidy(
            ["run-clang-tidy", "-quiet", "-j", JOBS, "-p", build.variant.folder, tidy_files]
        ),
        "cppcheck": lambda: run(cppcheck),
    }
    outcomes = []
    for name, check in checks.items():
        announce(name)
        started = time.monotonic()
        failed = int(check() != 0)
        outcomes.append(Outcome(name, 1 - failed, failed, time.monotonic() - started))
    return [*outcomes, hardening_stage(build)]


def summarise(outcomes: list[Outcome]) -> int:
    announce("summary")
    for outcome in outcomes:
        counts = f"{outcome.passed:>5} passed {outcome.failed:>4} failed"
        print(f"{outcome.stage:<24} {counts} {outcome.seconds:>6.0f} s  {outcome.remark}".rstrip())
    failed = sum(outcome.failed for outcome in outcomes)
    print(f"{sum(outcome.passed for outcome in outcomes)} passed, {failed} failed", flush=True)
    return 1 if failed else 0


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/test",
        description="Builds everything and runs the unit tests, the system tests and the static checks, or"
        " only the stages that are named. The last line counts what passed and what failed.",
    )
    variant = parser.add_mutually_exclusive_group()
    variant.add_argument("--asan", action="store_true", help="with the address and undefined sanitizers")
    variant.add_argument("--tsan", action="store_true", help="with the thread sanitizer")
    parser.add_argument("--unit", action="store_true", help="the unit tests, and what of src they reach")
    parser.add_argument("--system", action="store_true", help="the system tests")
    parser.add_argument("--checks", action="store_true", help="clang-format, clang-tidy and the like")
    return parser.parse_args()


def main() -> int:
    args = arguments()
    variant = ASAN if args.asan else TSAN if args.tsan else PLAIN
    every = not (args.unit or args.system or args.checks)
    build = Build(variant)
    unit_build = build if variant.sanitizers else Build(COVERAGE)
    checked = args.checks or (every and not variant.sanitizers)
    outcomes = []
    needed = [build] if args.system or checked or every else []
    needed += [unit_build] if (args.unit or every) and unit_build not in needed else []
    for each in needed:
        if not each.configure():
            outcomes.append(Outcome(f"configuration of {each.variant.folder}", 0, 1, 0.0))
    if args.unit or every:
        outcomes += unit_stage(unit_build)
        if unit_build.variant.coverage:
            outcomes.append(coverage_stage(unit_build))
    if args.system or every:
        outcomes += system_stage(build)
    if checked:
        outcomes += check_stage(build)
    return summarise(outcomes)


if __name__ == "__main__":
    sys.exit(main())

"""The stages of scripts/cross: a gateway of 32 bits in an emulator. Each runs whatever became of the
others."""

from __future__ import annotations

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

from test_stages import (
    PLAIN,
    ROOT,
    Build,
    Outcome,
    Variant,
    announce,
    hardening_stage,
    run,
    summarise,
    system_tests,
    unit_stage,
)

ARMHF = Variant("build-armhf", "", {})
TOOLS = "arm-linux-gnueabihf-"
SIZE_LIMIT = 1 << 20
GUEST_START = 1 << 44  # where the daemon's 4 GiB lie in the emulator: far from all else in it

# What the daemon and its unit tests are built on, for the gateway's processor.
PACKAGES = (
    "libpaho-mqtt-dev", "libjson-c-dev", "libssl-dev", "libtomlplusplus-dev", "libsnmp-dev",
    "libcurl4-openssl-dev", "libssh-dev", "libgtest-dev", "libgmock-dev", "libc6-dev", "libstdc++-12-dev",
)  # fmt: skip

# Unit tests that are left out, and why.
UNIT_LEFT_OUT = {
    "ForkedChildren.OfSeveralThreadsAtOnceLogAndLeave": "of some ten thousands of children of threads that fork at"
    " once, one hangs within the emulator, at a lock of its own",
}

KEY_IS_SLOW = "the emulator can take longer for a key of the daemon's own than a test is patient"
SLOW_END = "what an emulated job says last comes well before its end, and the next one is asked for at once"

# System tests that are left out, and why.
SYSTEM_LEFT_OUT = {
    "test_lab_agent.py": "of the gateway's agent, which is the host's",
    "test_soak.py": "of the lab; and its clock is a library of the host's, which no other daemon can load",
    "test_key_manager.py": f"{KEY_IS_SLOW}; the unit tests make some",
    "test_status_port.py::test_reply_has_the_pair_that_this_very_start_has_made": KEY_IS_SLOW,
    "test_status_port.py::test_key_that_could_not_be_made_leaves_the_reply_empty": KEY_IS_SLOW,
    "test_reverse_ssh.py::test_a_start_finds_that_the_tunnel_before_has_ended": SLOW_END,
    "test_reverse_ssh.py::test_a_stop_finds_that_the_tunnel_has_ended": SLOW_END,
    "test_commands_logs.py::test_the_client_of_the_lab_brings_all_logs": SLOW_END,
    "test_oam_files.py": SLOW_END,
    "test_jobs_execute.py::test_no_signal_is_ignored_or_blocked_for_a_script": "the emulator does not hand on"
    " which signals are ignored",
}
WAITS = {"marked waits_long": "they hold real waits of the daemon's, as long as on any processor"}

# They make one pair of keys for all, with nothing else at work.
KEYED = "test_mqtt_tls.py"


class CrossBuild(Build):
    def __init__(self, agent: Path) -> None:
        super().__init__(ARMHF)
        self.agent = agent
        self.sysroot = self.folder / "sysroot"
        # The emulator prefers what is here to the host's files: the loader and the libraries, no more.
        self.emulated = self.folder / "emulated"

    def configure(self) -> bool:
        announce(f"configuring {self.variant.folder}")
        command = ["cmake", "-S", ".", "-B", self.variant.folder, "-DCMAKE_BUILD_TYPE=Release"]
        if not (self.folder / "CMakeCache.txt").exists():
            command += ["-G", "Ninja", "-DCMAKE_TOOLCHAIN_FILE=scripts/armhf.cmake"]
        # A warning here is one that the other build does not give: about a width.
        command += ["-DCMAKE_COMPILE_WARNING_AS_ERROR=ON", "-DBRIDGE_TESTS=ON"]
        # The gateway's agent is the host's.
        command += ["-DBRIDGE_LAB=OFF", f"-DBRIDGE_LAB_AGENT={self.agent}"]
        # The daemon is built as for a gateway, its tests for a short build.
        command += ["-DBRIDGE_TEST_OPTIONS=-O1"]
        return run(command) == 0

    def wrapper(self) -> Path:
        """The daemon in the emulator, as one program."""
        path = self.folder / "snv_mqtt_bridge.armhf"
        path.write_text(
            f'#!/bin/sh\nexec qemu-arm-static -L "{self.emulated}" -B {GUEST_START:#x} "{self.daemon}" "$@"\n'
        )
        path.chmod(0o755)
        return path


def package_sources() -> list[str]:
    """The host's own sources of its release, without those of later fixes: a mirror may lack this
    processor's."""
    command = ["apt-get", "indextargets", "--format", "deb $(REPO_URI) $(CODENAME) $(COMPONENT)"]
    command += ["Created-By: Packages", "Origin: Debian", "Codename: bookworm"]
    listed = subprocess.run(command, stdout=subprocess.PIPE, text=True).stdout
    return sorted(set(listed.splitlines()))


def extract(folder: Path) -> bool:
    """Nothing of the host is touched, and nothing of the packages is run."""
    command = ["mmdebstrap", "--mode=chrootless", "--variant=extract", "--architectures=armhf"]
    command += [f"--include={','.join(PACKAGES)}"]
    sources = "\n".join(package_sources()) + "\n"
    return subprocess.run([*command, "bookworm", str(folder), "-"], input=sources, text=True).returncode == 0


def make_sysroot(build: CrossBuild) -> list[Outcome]:
    started = time.monotonic()
    stamp = build.folder / "sysroot.packages"
    packages = "\n".join(PACKAGES) + "\n"
    if not build.sysroot.exists() or not stamp.exists() or stamp.read_text() != packages:
        announce("making the sysroot")
        build.folder.mkdir(exist_ok=True)
        stamp.unlink(missing_ok=True)
        shutil.rmtree(build.sysroot, ignore_errors=True)
        if not extract(build.sysroot):
            shutil.rmtree(build.sysroot, ignore_errors=True)
            return [Outcome("sysroot", 0, 1, time.monotonic() - started)]
        stamp.write_text(packages)
    link_libraries(build)
    return [Outcome("sysroot", 1, 0, time.monotonic() - started)]


def link_libraries(build: CrossBuild) -> None:
    for name in ("lib/arm-linux-gnueabihf", "lib/ld-linux-armhf.so.3", "usr/lib/arm-linux-gnueabihf"):
        link = build.emulated / name
        link.parent.mkdir(parents=True, exist_ok=True)
        if not link.is_symlink():
            link.symlink_to(os.path.relpath(build.sysroot / name, link.parent))


def stripped_size(daemon: Path, tools: str = "") -> int:
    stripped = daemon.with_suffix(".stripped")
    subprocess.run([f"{tools}strip", "-o", str(stripped), str(daemon)], check=True)
    size = stripped.stat().st_size
    stripped.unlink()
    return size


def daemon_stage(build: CrossBuild, native: Build) -> list[Outcome]:
    started = time.monotonic()
    if not build.build("snv_mqtt_bridge"):
        return [Outcome("build of the daemon", 0, 1, time.monotonic() - started)]
    outcomes = [Outcome("build of the daemon", 1, 0, time.monotonic() - started), hardening_stage(build)]
    announce("size of the daemon")
    size = stripped_size(build.daemon, TOOLS)
    beside = stripped_size(native.daemon) if native.build("snv_mqtt_bridge") else 0
    print(f"stripped: armhf {size} bytes, {native_name()} {beside} bytes; the limit is {SIZE_LIMIT}")
    fits = size < SIZE_LIMIT
    return [*outcomes, Outcome("size of the daemon", int(fits), int(not fits), 0.0, f"{size} bytes")]


def native_name() -> str:
    return os.uname().machine


def emulated_unit_stage(build: CrossBuild, native: Build) -> list[Outcome]:
    native.build("lab_agent")  # without it the tests of the agent's client fail, and tell why
    outcomes = unit_stage(build, "|".join(map(re.escape, UNIT_LEFT_OUT)))
    tell_left_out(UNIT_LEFT_OUT)
    return outcomes


def tell_left_out(tests: dict[str, str]) -> None:
    for name, reason in tests.items():
        print(f"left out: {name}: {reason}", flush=True)


def emulated_system_stage(build: CrossBuild, native: Build) -> list[Outcome]:
    started = time.monotonic()
    if not build.build("snv_mqtt_bridge") or not native.build("lab_agent"):
        return [Outcome("system tests", 0, 1, time.monotonic() - started, "the programs do not build")]
    environment = {"SNV_BRIDGE": str(build.wrapper()), "SNV_LAB_AGENT": str(agent_of(native))}
    most = ["tests/system", "-m", "not waits_long"]
    most += [f"--deselect={name}" for name in (*SYSTEM_LEFT_OUT, KEYED)]
    outcomes = [
        system_tests(build, "system tests", most, environment),
        system_tests(build, "system tests of TLS", [f"tests/system/{KEYED}"], environment, workers="0"),
    ]
    tell_left_out({**SYSTEM_LEFT_OUT, **WAITS})
    return outcomes


def agent_of(native: Build) -> Path:
    return native.folder / "lab" / "agent" / "lab_agent"


def memory_stage(build: CrossBuild, native: Build) -> list[Outcome]:
    """A figure, no limit: it fails when it cannot be had."""
    started = time.monotonic()
    announce("resident memory")
    wanted = [(build, "snv_mqtt_bridge"), (native, "snv_mqtt_bridge"), (native, "lab_agent")]
    if not all(each.build(target) for each, target in wanted):
        return [Outcome("resident memory", 0, 1, time.monotonic() - started, "the programs do not build")]
    try:
        here = resident(native, native.daemon)
        there = resident(native, build.wrapper(), f"{GUEST_START:#x}")
    except subprocess.CalledProcessError:
        return [Outcome("resident memory", 0, 1, time.monotonic() - started, "the daemon does not come up")]
    print("KiB of a daemon with both planes up, after 100 uplinks; of the emulated one, the guest's own:")
    print(f"{'':<12}{'armhf':>8}{native_name():>8}")
    for name in here:
        print(f"{name:<12}{there[name]:>8}{here[name]:>8}")
    return [Outcome("resident memory", 1, 0, time.monotonic() - started, f"{there['all']} KiB")]


def resident(native: Build, daemon: Path, *window: str) -> dict[str, int]:
    environment = {**os.environ, "SNV_BRIDGE": str(daemon), "SNV_LAB_AGENT": str(agent_of(native))}
    command = ["/usr/bin/python3", "-B", "scripts/resident.py", *window]
    done = subprocess.run(command, cwd=ROOT, env=environment, stdout=subprocess.PIPE, text=True, check=True)
    figures: dict[str, int] = json.loads(done.stdout)
    return {**figures, "all": sum(figures.values())}


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/cross",
        description="Builds the daemon for a gateway's processor, tells its size and its resident memory, and"
        " runs the unit tests and most system tests in an emulator; or only the stages that are named. The"
        " last line counts what passed and what failed.",
    )
    parser.add_argument("processor", choices=["armhf"])
    parser.add_argument("--build", action="store_true", help="the daemon and its size")
    parser.add_argument("--unit", action="store_true", help="the unit tests")
    parser.add_argument("--system", action="store_true", help="the system tests, and the resident memory")
    return parser.parse_args()


def main() -> int:
    args = arguments()
    every = not (args.build or args.unit or args.system)
    native = Build(PLAIN)
    build = CrossBuild(agent_of(native))
    outcomes = make_sysroot(build)
    for each in (build, native):
        if not each.configure():
            outcomes.append(Outcome(f"configuration of {each.variant.folder}", 0, 1, 0.0))
    if args.build or every:
        outcomes += daemon_stage(build, native)
    if args.unit or every:
        outcomes += emulated_unit_stage(build, native)
    if args.system or every:
        outcomes += emulated_system_stage(build, native)
        outcomes += memory_stage(build, native)
    return summarise(outcomes)


if __name__ == "__main__":
    sys.exit(main())

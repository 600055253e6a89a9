"""Scratch roots of Debian for a package to be installed in, and containers that boot them."""

from __future__ import annotations

import contextlib
import hashlib
import os
import shutil
import signal
import subprocess
import tempfile
import time
import uuid
from pathlib import Path
from typing import Callable, Optional, TypeVar

REPOSITORY = Path(__file__).resolve().parents[2]

# What the package depends on; what it recommends and a root of no gateway lacks; peers and tools of the
# tests.
DEPENDENCIES = (
    "libcurl4", "libjson-c5", "libpaho-mqtt1.3", "libsnmp40", "libssh-4", "libssl3",
)  # fmt: skip
OTHERS = (
    "systemd",
    "systemd-sysv",
    "dbus",
    "logrotate",
    "unzip",
    "mosquitto",
    "iputils-ping",
    "procps",
    "iproute2",
    "man-db",
)

PATIENCE = 60.0
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8", "TERM": "dumb"}

T = TypeVar("T")
Done = subprocess.CompletedProcess[str]


def wait_until(look: Callable[[], Optional[T]], what: str, timeout: float = PATIENCE, step: float = 0.1) -> T:
    """Looks until there is something true, and returns it."""
    end = time.monotonic() + timeout
    while True:
        if result := look():
            return result
        assert time.monotonic() < end, f"not within {timeout:g} s: {what}"
        time.sleep(step)


def run(
    *command: str | Path, check: bool = True, text: str = "", env: Optional[dict[str, str]] = None
) -> Done:
    words = [str(word) for word in command]
    done = subprocess.run(words, input=text, capture_output=True, text=True, env=env, check=False)
    assert not check or done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done


# ---- the base of all roots ----


def package_sources() -> str:
    """The host's own sources of its release."""
    form = "deb $(REPO_URI) $(CODENAME) $(COMPONENT)"
    listed = run("apt-get", "indextargets", "--format", form, "Created-By: Packages", "Origin: Debian").stdout
    return "\n".join(sorted(set(listed.splitlines()))) + "\n"


def base_root(folder: Path) -> Path:
    """Debian with the packages named above, made once and then only read."""
    packages = ",".join((*DEPENDENCIES, *OTHERS))
    path = folder / f"root-{hashlib.sha256(packages.encode()).hexdigest()[:12]}"
    if not path.exists():
        made = folder / f"{path.name}.{os.getpid()}"
        folder.mkdir(parents=True, exist_ok=True)
        command = [
            "mmdebstrap",
            "--quiet",
            "--variant=apt",
            f"--include={packages}",
            "bookworm",
            str(made),
            "-",
        ]
        try:
            run(*command, text=package_sources())
            made.rename(path)
        finally:
            shutil.rmtree(made, ignore_errors=True)
    return path


# ---- containers ----


class ControlGroup:
    """A group of this test's own: the container makes others in it, which are removed with it."""

    def __init__(self, name: str) -> None:
        self.folders: list[Path] = []
        for line in Path("/proc/self/cgroup").read_text().splitlines():
            number, controllers, path = line.split(":", 2)
            if number == "0" or controllers == "name=systemd":
                folder = self._mount(controllers) / path.strip("/") / name
                folder.mkdir()
                self.folders.append(folder)

    @staticmethod
    def _mount(controllers: str) -> Path:
        kind = "cgroup" if controllers else "cgroup2"
        for line in Path("/proc/self/mountinfo").read_text().splitlines():
            before, after = line.split(" - ")
            found, _, options = after.split(" ")
            if found == kind and (not controllers or controllers in options.split(",")):
                return Path(before.split(" ")[4])
        raise AssertionError(f"no mount of {kind} {controllers}")

    def enter(self) -> None:
        for folder in self.folders:
            (folder / "cgroup.procs").write_text("0")

    def _is_removed(self) -> bool:
        for folder in self.folders:
            for path, _, _ in os.walk(folder, topdown=False):
                try:
                    os.rmdir(path)
                except OSError:
                    return False
        return True

    def close(self) -> None:
        wait_until(self._is_removed, "the container's processes are gone")


class Machine:
    """A booted container: systemd as process 1, a network of its own with nothing but the loop."""

    def __init__(self, root: Path) -> None:
        name = f"snv-package-{uuid.uuid4().hex[:12]}"
        # Where a systemd runs the host, it gives the container a group.
        self._group = None if Path("/run/systemd/system").exists() else ControlGroup(name)
        keep = ["--keep-unit"] if self._group else []
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", "systemd-nspawn", "--quiet", "--boot", f"--directory={root}",
             f"--machine={name}", "--register=no", *keep, "--private-network", "--capability=CAP_SYSLOG",
             "--resolv-conf=off", "--timezone=off", "--link-journal=no", "--console=pipe"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            preexec_fn=self._group.enter if self._group else None,
        )  # fmt: skip
        try:
            self.leader = wait_until(self._find_leader, "the container has a process")
            wait_until(self._is_up, "the container is up")
        except BaseException:
            self.close()
            raise

    def _find_leader(self) -> Optional[int]:
        assert self._process.poll() is None, f"no container: {self._process.communicate()[0]!r}"
        for task in Path(f"/proc/{self._process.pid}/task").glob("*/children"):
            for child in task.read_text().split():
                if (
                    "systemd" in Path(f"/proc/{child}/cmdline").read_text()
                    and "init" not in Path(f"/proc/{child}/comm").read_text()
                ):
                    return int(child)
        return None

    def _is_up(self) -> bool:
        return self.run("systemctl", "is-system-running", check=False).stdout.strip() in (
            "running",
            "degraded",
        )

    def enter(self, *command: str | Path, namespaces: tuple[str, ...] = ("--all",)) -> list[str]:
        return ["nsenter", f"--target={self.leader}", *namespaces, "--", *map(str, command)]

    def run(self, *command: str | Path, check: bool = True) -> Done:
        return run(*self.enter(*command), check=check, env=ENVIRONMENT)

    def from_outside(self, *command: str | Path, check: bool = True) -> Done:
        """A program of the host in the container's network."""
        return run(*self.enter(*command, namespaces=("--net",)), check=check)

    # ---- the service ----

    def show(self, *names: str) -> dict[str, str]:
        wanted = ",".join(names)
        lines = self.run(
            "systemctl", "show", "snv-mqtt-bridge.service", "--property", wanted
        ).stdout.splitlines()
        return dict(line.split("=", 1) for line in lines)

    def pid(self) -> int:
        return int(self.show("MainPID")["MainPID"])

    def log(self) -> str:
        return self.run("journalctl", "--quiet", "--output=cat", "--unit=snv-mqtt-bridge.service").stdout

    def wait_for_log(self, text: str, count: int = 1, timeout: float = PATIENCE) -> None:
        def look() -> bool:
            return self.log().count(text) >= count

        try:
            wait_until(look, f"{count} times in the log: {text}", timeout)
        except AssertionError as late:
            raise AssertionError(f"{late}\n{self.log()[-4000:]}") from None

    def close(self) -> None:
        """Nothing of a scratch root is worth an orderly end."""
        leader = getattr(self, "leader", None)
        if leader and self._process.poll() is None:
            os.kill(leader, signal.SIGKILL)
        else:
            self._process.terminate()
        try:
            self._process.communicate(timeout=PATIENCE)
        finally:
            self._process.kill()
            if self._group:
                self._group.close()


# ---- a daemon by hand ----


class Daemon:
    """A program, or the only child of one that starts it elsewhere, and what it prints."""

    def __init__(self, command: list[str]) -> None:
        self._log = tempfile.TemporaryFile("w+")
        self._process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log, env=ENVIRONMENT
        )

    def text(self) -> str:
        return os.pread(self._log.fileno(), 1 << 24, 0).decode(errors="replace")

    def wait_for(self, text: str) -> None:
        def look() -> bool:
            assert text in self.text() or self._process.poll() is None, self.text()
            return text in self.text()

        wait_until(look, f"{text} in:\n{self.text()}")

    def child(self) -> int:
        """The process itself, where nothing else has started it."""
        children = Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children").read_text().split()
        return int(children[0]) if children else self._process.pid

    def stop(self) -> int:
        """Its exit status. A signal just before a wait of the daemon does not end that, so it comes again."""

        def look() -> bool:
            if self._process.poll() is None:
                os.kill(self.child(), signal.SIGUSR2)
            return self._process.poll() is not None

        wait_until(look, "the daemon has stopped", step=0.5)
        return self._process.returncode

    def close(self) -> None:
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        self._log.close()


# ---- roots ----


class Root:
    """A copy of the base, for one test to change."""

    def __init__(self, base: Path, work: Path) -> None:
        self._work = work
        work.mkdir(parents=True)
        run("mount", "-t", "tmpfs", "tmpfs", work)
        for name in ("upper", "work", "root"):
            (work / name).mkdir()
        self.path = work / "root"
        layers = f"lowerdir={base},upperdir={work}/upper,workdir={work}/work"
        run("mount", "-t", "overlay", "overlay", "-o", layers, self.path)
        self._started: list[Machine | Daemon] = []

    def boot(self) -> Machine:
        machine = Machine(self.path)
        self._started.append(machine)
        return machine

    def enter(self, *command: str | Path) -> list[str]:
        """Without a systemd that runs. Its network has nothing, not even the loop."""
        whole = [
            "unshare",
            "--mount",
            "--net",
            "--ipc",
            "--pid",
            "--fork",
            "--kill-child",
            "--propagation=private",
        ]
        inside = (
            f'mount -t proc proc {self.path}/proc && mount -t tmpfs tmpfs {self.path}/dev/shm && exec "$@"'
        )
        return [*whole, "--", "sh", "-c", inside, "sh", "chroot", str(self.path), *map(str, command)]

    def run(self, *command: str | Path, check: bool = True) -> Done:
        return run(*self.enter(*command), check=check, env=ENVIRONMENT)

    def start(self, *command: str | Path) -> Daemon:
        daemon = Daemon(self.enter(*command))
        self._started.append(daemon)
        return daemon

    def copy_in(self, source: Path, target: str) -> str:
        path = self.path / target.lstrip("/")
        path.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(source, path)
        return target

    def write(self, target: str, text: str, mode: int = 0o644) -> None:
        path = self.path / target.lstrip("/")
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        path.chmod(mode)

    def _is_unmounted(self) -> bool:
        return run("umount", "--recursive", self._work, check=False).returncode == 0

    def close(self) -> None:
        with contextlib.ExitStack() as closing:
            # The kernel takes down a container's mounts after its processes.
            closing.callback(wait_until, self._is_unmounted, "the root is free")
            for thing in self._started:
                closing.callback(thing.close)

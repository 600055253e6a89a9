"""An OpenSSH server with an account of its own, in namespaces of its own: the host's accounts, logs and
processes are neither read nor written, and no process of the server outlives it. Needs root."""
import os
import signal
import subprocess
from pathlib import Path
from typing import Optional

from .log_reader import LogReader
from .ports import free_port

USER = "operator"
PASSWORD = "open:Sesame 7"
USER_ID = 61999

CONFIG = """\
Port {port}
ListenAddress 127.0.0.1
HostKey {work}/host_key
PidFile none
LogLevel DEBUG1
UsePAM no
UseDNS no
StrictModes no
PermitRootLogin no
PasswordAuthentication yes
KbdInteractiveAuthentication no
PubkeyAuthentication no
PrintMotd no
PrintLastLog no
AllowTcpForwarding yes
GatewayPorts no
"""

# What sshd opens under fixed paths is its own: the accounts, its folder, the records of logins.
PREPARE = """\
set -e
for folder in /etc /run /var/log; do mount -t tmpfs tmpfs "$folder"; done
mkdir -m 755 /run/sshd
cp -r "$1"/etc/. /etc
exec /usr/sbin/sshd -D -e -f "$1/sshd_config"
"""


def _crypted(password: str) -> str:
    done = subprocess.run(
        ["openssl", "passwd", "-6", "-stdin"], input=password, capture_output=True, text=True, check=True
    )
    return done.stdout.strip()


def _write_accounts(etc: Path) -> None:
    etc.mkdir()
    (etc / "passwd").write_text(
        "root:x:0:0::/:/bin/false\n"
        "sshd:x:61998:61998::/run/sshd:/bin/false\n"
        f"{USER}:x:{USER_ID}:{USER_ID}::/:/bin/sh\n"
    )
    (etc / "group").write_text(f"root:x:0:\nsshd:x:61998:\n{USER}:x:{USER_ID}:\n")
    (etc / "shadow").write_text(f"root:*:1::::::\nsshd:*:1::::::\n{USER}:{_crypted(PASSWORD)}:19000::::::\n")
    (etc / "hosts").write_text("127.0.0.1 localhost\n")


class SshServer:
    """Starts at once; its lines on standard error are in `log`."""

    def __init__(self, work: Path, port: Optional[int] = None) -> None:
        work.mkdir(parents=True)
        self.work = work
        self.port = free_port() if port is None else port
        key = ["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(work / "host_key")]
        subprocess.run(key, check=True, stdin=subprocess.DEVNULL)
        _write_accounts(work / "etc")
        (work / "sshd_config").write_text(CONFIG.format(port=self.port, work=work))
        self.process = subprocess.Popen(
            [
                *("unshare", "--mount", "--propagation", "private"),
                *("--pid", "--fork", "--mount-proc", "--kill-child=KILL", "--"),
                *("/bin/sh", "-c", PREPARE, "sh", str(work)),
            ],
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        assert self.process.stderr
        self.log = LogReader(self.process.stderr)
        self.log.wait_for("Server listening on 127.0.0.1")

    def _listener(self) -> int:
        """The first process of the namespace, with which all others of it end."""
        pid = self.process.pid
        return int(Path(f"/proc/{pid}/task/{pid}/children").read_text())

    def kill(self) -> None:
        """The server and its connections end at once."""
        os.kill(self._listener(), signal.SIGKILL)
        self.process.wait()
        self.log.join()

    def close(self) -> None:
        if self.process.poll() is None:
            self.kill()


def client_command(port: int, *arguments: str) -> list[str]:
    """The ssh client, for a login at a port of the loopback."""
    options = (
        "UserKnownHostsFile=/dev/null",
        "GlobalKnownHostsFile=/dev/null",
        "StrictHostKeyChecking=no",
        "NumberOfPasswordPrompts=1",
        "LogLevel=ERROR",
    )
    given = [f"-o{option}" for option in options]
    return ["ssh", "-F", "none", *given, "-p", str(port), *arguments, f"{USER}@127.0.0.1"]


def client_environment(work: Path) -> dict[str, str]:
    """It is asked for the password by a program."""
    asker = work / "ask-password"
    asker.write_text(f"#!/bin/sh\necho '{PASSWORD}'\n")
    asker.chmod(0o700)
    return {"PATH": os.environ["PATH"], "SSH_ASKPASS": str(asker), "SSH_ASKPASS_REQUIRE": "force"}


def run_at(work: Path, port: int, command: str, timeout: float = 60) -> "subprocess.CompletedProcess[bytes]":
    return subprocess.run(
        [*client_command(port), command],
        env=client_environment(work),
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=timeout,
    )

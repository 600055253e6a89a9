"""An OpenSSH server with an account of its own, in namespaces of its own: the host's accounts, logs and
processes are neither read nor written, and no process of the server outlives it. Needs root."""

from __future__ import annotations

import subprocess
from pathlib import Path

USER = "operator"
PASSWORD = "open:Sesame 7"
USER_ID = 61999

_CONFIG = """\
Port {port}
ListenAddress {address}
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
_PREPARE = """\
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


def prepare_server(work: Path, port: int, address: str = "127.0.0.1") -> list[str]:
    """Makes the folder with what the server needs. The command's first child is the first process of the server's
    namespace, with which all others of it end; it tells of itself on standard error."""
    work.mkdir(parents=True)
    key = ["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(work / "host_key")]
    subprocess.run(key, check=True, stdin=subprocess.DEVNULL)
    _write_accounts(work / "etc")
    (work / "sshd_config").write_text(_CONFIG.format(port=port, address=address, work=work))
    return [
        *("unshare", "--mount", "--propagation", "private"),
        *("--pid", "--fork", "--mount-proc", "--kill-child=KILL", "--"),
        *("/bin/sh", "-c", _PREPARE, "sh", str(work)),
    ]

"""Key pairs and certificates, made and read by the openssl command."""
import re
import subprocess
from dataclasses import dataclass
from pathlib import Path


def openssl(*arguments: str) -> str:
    """Its standard output; it must succeed."""
    done = subprocess.run(["openssl", *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert done.returncode == 0, f"openssl {' '.join(arguments)}:\n{done.stderr}"
    return done.stdout


def rsa_key(path: Path) -> Path:
    """A key of an operator's own, in the form that the daemon writes too."""
    openssl("genrsa", "-traditional", "-out", str(path), "2048")
    path.chmod(0o600)
    return path


def public_key(key: Path) -> str:
    """In PKCS#1 form."""
    return openssl("rsa", "-in", str(key), "-RSAPublicKey_out")


def public_exponent(key: Path) -> int:
    match = re.search(r"publicExponent: (\d+)", openssl("rsa", "-in", str(key), "-text", "-noout"))
    assert match
    return int(match.group(1))


def is_prime(number: int) -> bool:
    return "is prime" in openssl("prime", str(number))


@dataclass(frozen=True)
class Pair:
    key: Path
    cert: Path


class Authority:
    """Signs what others trust when they trust `cert`."""

    def __init__(self, folder: Path, name: str) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        self.folder = folder
        self.key, self.cert = folder / f"{name}.key", folder / f"{name}.pem"
        openssl(
            "req",
            "-x509",
            "-newkey",
            "ec",
            "-pkeyopt",
            "ec_paramgen_curve:P-256",
            "-nodes",
            "-days",
            "2",
            "-subj",
            f"/CN={name}",
            "-keyout",
            str(self.key),
            "-out",
            str(self.cert),
        )

    def sign(self, name: str, key: Path, *extensions: str, days: int = 2) -> Pair:
        """A certificate for a key that exists; with a negative number of days it has expired."""
        pair, request = Pair(key, self.folder / f"{name}.pem"), str(self.folder / f"{name}.csr")
        added = [word for extension in extensions for word in ("-addext", extension)]
        openssl("req", "-new", "-key", str(key), "-subj", f"/CN={name}", *added, "-out", request)
        openssl(
            "x509",
            "-req",
            "-in",
            request,
            "-copy_extensions",
            "copy",
            "-days",
            str(days),
            "-CA",
            str(self.cert),
            "-CAkey",
            str(self.key),
            "-out",
            str(pair.cert),
        )
        return pair

    def server(self, name: str, alternative_names: str, days: int = 2) -> Pair:
        key = self.folder / f"{name}.key"
        openssl("ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", str(key))
        return self.sign(name, key, f"subjectAltName={alternative_names}", days=days)

"""A certificate that nobody else trusts."""

from __future__ import annotations

import ssl
import subprocess
from pathlib import Path


def make_certificate(folder: Path, host: str = "127.0.0.1") -> tuple[Path, Path]:
    """Certificate and key, each in a file."""
    certificate, key = folder / "http.crt", folder / "http.key"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
        + ["-days", "30", "-subj", f"/CN={host}", "-addext", f"subjectAltName=IP:{host}"]
        + ["-keyout", str(key), "-out", str(certificate)],
        check=True,
        capture_output=True,
    )
    return certificate, key


def server_context(folder: Path, host: str) -> tuple[ssl.SSLContext, Path]:
    certificate, key = make_certificate(folder, host)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    return context, certificate

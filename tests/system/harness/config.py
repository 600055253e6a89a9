"""Configuration files: a test says only what differs from a plain gateway."""
import itertools
import json
import os
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional

Sections = dict[str, dict[str, Any]]

GW_MAC = "0102030405ABCDEF"

_numbers = itertools.count()


@dataclass(frozen=True)
class ControlPlane:
    """What in the configuration and on the command line decides on the control plane."""

    changes: Sections
    arguments: tuple[str, ...] = ()


# Only with a server of its own does --no-snmp keep the control plane off in every dialect.
CONTROL_AS_CONFIGURED = ControlPlane({})
CONTROL_OFF = ControlPlane({"oam": {"url": "tcp://127.0.0.1:1"}}, ("--no-snmp",))


def next_client_id() -> str:
    return f"gw-{os.getpid()}-{next(_numbers)}"


def toml_text(sections: Sections) -> str:
    """JSON's numbers, booleans, texts and arrays of texts are also TOML's."""
    lines: list[str] = []
    for section, entries in sections.items():
        lines.append(f"[{section}]")
        lines += [f"{key} = {json.dumps(value)}" for key, value in entries.items() if value is not None]
    return "\n".join(lines) + "\n"


def merged(base: Sections, changes: Optional[Sections]) -> Sections:
    """A value of None takes its key out."""
    result = {section: dict(entries) for section, entries in base.items()}
    for section, entries in (changes or {}).items():
        result.setdefault(section, {}).update(entries)
    return result


def gateway_config(udp_port: int, changes: Optional[Sections] = None) -> Sections:
    base: Sections = {
        "generic": {"client_id": next_client_id(), "gw_mac": GW_MAC, "semtech_udp_listen_port": udp_port}
    }
    return merged(base, changes)


def write_config(path: Path, sections: Sections) -> Path:
    path.write_text(toml_text(sections))
    return path

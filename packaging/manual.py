#!/usr/bin/python3
"""Writes the manual page of the configuration file, in Markdown for go-md2man, out of the document that
explains its keys: each row of a table becomes an entry of a list, and links become plain text."""

from __future__ import annotations

import re
import sys

HEAD = """\
% snv_mqtt_bridge.toml 5 "" "snv_mqtt_bridge {version}" "File formats"

# NAME

snv_mqtt_bridge.toml - configuration of the bridge between a packet forwarder and MQTT servers

# DESCRIPTION
"""
TAIL = """
# FILES

**/etc/snv-mqtt-bridge/bridge.toml**
: The configuration that the service uses. Only root may read it: it holds passwords.

# SEE ALSO

**snv_mqtt_bridge**(8)
"""


def plain(text: str) -> str:
    return re.sub(r"\[((?:[^\[\]`]|`[^`]*`)+)\]\([^)]*\)", r"\1", text)


def entry(row: str) -> str:
    """A row of key, type, default and meaning, or of any two cells."""
    head, *middle, tail = (cell.strip() for cell in row.strip().strip("|").split("|"))
    note = f" ({', '.join(words(*middle))})" if middle else ""
    return f"**{head.strip('`')}**{note}\n: {tail}\n"


def words(kind: str, default: str) -> tuple[str, str]:
    return kind, "required" if "required" in default else f"default {default}"


def without_tables(lines: list[str]) -> list[str]:
    """The head of a table, the two lines above its rows, is left out."""
    out: list[str] = []
    rows_seen = 0
    for line in lines:
        rows_seen = rows_seen + 1 if line.startswith("|") else 0
        if rows_seen == 0:
            out.append(line)
        elif rows_seen > 2:
            out.append(entry(line))
    return out


def main() -> None:
    document, version = sys.argv[1:]
    with open(document, encoding="utf-8") as source:
        lines = plain(source.read()).splitlines()
    body = [line[1:].upper() if line.startswith("## ") else line for line in lines[1:]]
    print(HEAD.format(version=version) + "\n".join(without_tables(body)) + TAIL)


if __name__ == "__main__":
    main()

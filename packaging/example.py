#!/usr/bin/python3
"""Writes the commented example configuration out of the document that explains its keys. Every key stands in it with
its default, as a comment; the two that have none are there to be filled in."""

from __future__ import annotations

import re
import sys
import textwrap

from manual import plain

HEAD = """\
# Configuration of snv_mqtt_bridge: see snv_mqtt_bridge.toml(5). Copy it to /etc/snv-mqtt-bridge/bridge.toml, readable
# by root alone, since it holds passwords. A key without its "#" is in force; each shows its default.
"""
REQUIRED = {"client_id": "gateway-17", "gw_mac": "0016c001ff1a2b3c"}
NOTHING = {"none": '""', "empty": '""'}


def setting(key: str, default: str) -> str:
    if key in REQUIRED:
        return f'{key} = "{REQUIRED[key]}"'
    return f"#{key} = {NOTHING.get(default, default.strip('`'))}"


def main() -> None:
    print(HEAD, end="")
    with open(sys.argv[1], encoding="utf-8") as source:
        lines = source.read().partition("## Keys")[2].partition("\n## ")[0].splitlines()
    for line in lines:
        if section := re.match(r"### `(\[\w+\])`(.*)", line):
            print(f"\n# ---{section[2].replace(':', '') or ' ' + section[1].strip('[]')} ---\n{section[1]}")
        elif row := re.match(r"\| `(\w+)` \| (\w+) \| (.*?) \| (.*) \|$", line):
            key, kind, default, meaning = row.groups()
            words = re.sub(r"[`*]", "", plain(f"{kind}: {meaning}"))
            print("\n" + textwrap.fill(words, 100, initial_indent="# ", subsequent_indent="# "))
            print(setting(key, default))


if __name__ == "__main__":
    main()

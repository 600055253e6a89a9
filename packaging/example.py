#!/usr/bin/python3
"""Writes the commented example configuration out of the document that explains its keys. Every key stands in
it: with its default, or with an example where it has none. The optional ones are behind a "#"."""

from __future__ import annotations

import json
import re
import sys
import textwrap

from manual import plain

HEAD = """\
# Configuration of snv_mqtt_bridge: see snv_mqtt_bridge.toml(5). Copy it to /etc/snv-mqtt-bridge/bridge.toml,
# readable by root alone, since it holds passwords. A key is in force without its "#". Behind it stands the
# key's default, or an example where the default is empty or missing. The url of one endpoint at least must be
# set.
"""
SECTION = re.compile(r"### `(\[\w+\])`:? ?(.*)")
ROW = re.compile(r"\| `(\w+)` \| (\w+) \| (.*?) \| (.*) \|$")

# Where there is no default to show.
EXAMPLES = {
    "url": "ssl://server.example:8883",
    "gw_user": "gateway-17",
    "gw_pass": "secret",
    "community": "private",
    "private_key": "/etc/snv-mqtt-bridge/gateway.key",
    "bridge_cert": "/etc/snv-mqtt-bridge/gateway.crt",
    "client_id": "gateway-17",
    "gw_mac": "0016c001ff1a2b3c",
    "battery_reporting_period_mins": 60,
}
NOTES = {"**required**": "required", "none": "no default", "empty": "empty by default"}


def setting(key: str, kind: str, default: str, meaning: str) -> str:
    note = NOTES.get(default)
    value = json.dumps(EXAMPLES[key]) if note else default.strip("`")
    words = f"{kind}{f', {note}' if note else ''}: {plain(meaning)}".replace("`", "")
    comment = textwrap.fill(words, 110, initial_indent="# ", subsequent_indent="# ")
    return f"\n{comment}\n{'' if note == 'required' else '#'}{key} = {value}"


def main() -> None:
    print(HEAD, end="")
    with open(sys.argv[1], encoding="utf-8") as source:
        lines = source.read().partition("\n## Keys\n")[2].partition("\n## ")[0].splitlines()
    for line in lines:
        if section := SECTION.match(line):
            print(f"\n\n# {section[2] or section[1].strip('[]').replace('_', ' ')}\n{section[1]}")
        elif row := ROW.match(line):
            print(setting(*row.groups()))
        elif line.startswith("| `"):
            raise SystemExit(f"no row of key, type, default and meaning: {line}")


if __name__ == "__main__":
    main()

"""The command line, made from the table of commands."""

from __future__ import annotations

import argparse
from typing import Any

from . import management, transfers, uploads
from .commands import COMMANDS, KINDS, Command

DESCRIPTION = """\
Sends commands to a gateway as its operations server does, and prints the answers as JSON.

  oam [options] COMMAND [--parameter value]...   one command; waits for its answer
  oam [options] --raw JSON                       a request as it stands
  oam [options] watch                            prints every message of the MQTT server
  oam [options] stream PATH [--to FILE]          has the gateway stream a file to here
  oam [options] fetch PATH FILE                  has the gateway fetch a file from here
  oam [options] upload FILE [--name NAME]        sends a file in chunks inside requests
  oam [options] logs [DIR]                       has the gateway stream all its logs to here
  oam --mac MAC configure FILE.json              has the gateway apply a configuration; waits for its report
  oam --mac MAC configuration                    shows what the gateway reports of its configuration
  oam --mac MAC upgrade --in TIME                schedules an upgrade of the board's software; shows it

Ends with 0 after an answer, with 1 without one, and with 2 after a wrong command line. A whole transfer or
upgrade ends with 0 when it is done, and with 1 when it has failed."""

PATIENCE = 130.0


def command_list() -> str:
    """Commands and their parameters; of a kind that needs it, what a value looks like."""
    lines = ["commands:"]
    for command in COMMANDS:
        lines += [f"  {command.usage}", f"      {command.role}"]
    lines.append("A BOOLEAN is true or false. A JSON value is quoted for the shell: '[1, 2]'.")
    lines.append(
        "An APN's or profile's fields, and whatever else a gateway takes, also go in --params '{...}'."
    )
    return "\n".join(lines)


def add_command(commands: Any, command: Command) -> None:
    parser = commands.add_parser(command.name, description=command.role, allow_abbrev=False)
    parser.add_argument("--params", dest="given_params", metavar="JSON", type=KINDS["json"])
    parser.set_defaults(command=command)
    if command.bare:
        parser.add_argument("bare", metavar=command.bare.upper(), type=KINDS[command.bare], nargs="?")
    for param in command.params:
        kind = KINDS[param.kind]
        parser.add_argument(
            f"--{param.name}", dest=f"param_{param.name}", metavar=param.kind.upper(), type=kind
        )


def make_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="oam",
        usage="oam [options] (COMMAND ... | --raw JSON | watch)",
        description=DESCRIPTION,
        epilog=command_list(),
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    parser.add_argument("--host", default="127.0.0.1", help="the MQTT server (127.0.0.1)")
    parser.add_argument("--port", type=int, default=1883, help="its port (1883)")
    parser.add_argument("--user", dest="server_user", default="", help="name for the server")
    parser.add_argument("--password", dest="server_password", default="", help="password for the server")
    parser.add_argument(
        "--timeout",
        type=float,
        help=f"seconds to wait for an answer ({PATIENCE:g}; for a configuration or an upgrade's next state "
        f"{management.PATIENCE:g})",
    )
    parser.add_argument("--mac", default="", help="the gateway's MAC: of requests, in topics")
    parser.add_argument("--raw", help="a whole request, sent as it is written")
    commands = parser.add_subparsers(title="what to do", metavar="COMMAND | watch", prog="oam")
    commands.add_parser("watch", help="print every message").set_defaults(command="watch")
    transfers.add_verbs(commands)
    uploads.add_verbs(commands)
    management.add_verbs(commands)
    for command in COMMANDS:
        add_command(commands, command)
    return parser


def parse(arguments: list[str]) -> argparse.Namespace:
    parser = make_parser()
    options = parser.parse_args(arguments)
    chosen = getattr(options, "command", None)
    if (chosen is None) == (options.raw is None):
        parser.error("a command, --raw or watch is needed")
    if options.timeout is None:
        options.timeout = getattr(options, "patience", PATIENCE)
    if getattr(options, "has_mac_topics", False):
        require_mac(parser, options.mac)
    if isinstance(chosen, Command):
        require_params(parser, chosen, options)
    return options


def require_mac(parser: argparse.ArgumentParser, mac: str) -> None:
    if not mac:
        parser.error("--mac is needed: the gateway's own, as it stands in topics")
    if set(mac) & set("/+#"):
        parser.error(f"{mac!r} is no MAC")


def require_params(parser: argparse.ArgumentParser, command: Command, options: argparse.Namespace) -> None:
    """All must be there, unless the caller writes the params as a whole."""
    if options.given_params is not None:
        return
    values = vars(options)
    missing = [
        param.name for param in command.params if param.required and values[f"param_{param.name}"] is None
    ]
    if command.bare and options.bare is None:
        missing.append(command.bare.upper())
    if missing:
        parser.error(f"{command.name} needs {', '.join(missing)}")


def request_of(command: Command, options: argparse.Namespace, request_id: int) -> dict[str, Any]:
    values = vars(options)
    params: Any = {} if options.given_params is None else options.given_params
    beside: dict[str, Any] = {}
    for param in command.params:
        value = values[f"param_{param.name}"]
        if value is not None:
            (beside if param.beside else params)[param.name] = value
    if command.bare and options.bare is not None:
        params = options.bare
    return {"command": command.name, "requestId": request_id, "params": params, "mac": options.mac, **beside}

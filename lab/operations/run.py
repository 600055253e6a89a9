"""What the command line asks for."""

from __future__ import annotations

import argparse
import json
import sys
import time
from typing import Any

from .arguments import parse, request_of
from .client import COMMAND_TOPIC, LATE_TOPIC, Client, Received, Unreachable, answers, parsed
from .commands import Command

ANSWERED, UNANSWERED = 0, 1


def connect(options: argparse.Namespace, topics: list[str]) -> Client:
    return Client(options.host, options.port, options.server_user, options.server_password, topics)


def is_started(body: Any) -> bool:
    response = body.get("response")
    return isinstance(response, dict) and response.get("status") == "ok"


def print_body(body: Any) -> None:
    print(json.dumps(body, indent=2, ensure_ascii=False), flush=True)


def ask(options: argparse.Namespace, payload: bytes, request_id: Any, waits_for_late: bool) -> int:
    """Prints the answer, and the late one behind it."""
    client = connect(options, [COMMAND_TOPIC, LATE_TOPIC])
    try:
        client.publish(COMMAND_TOPIC, payload)
        for topic, body in answers(client, payload, request_id, options.timeout):
            print_body(body)
            if topic == LATE_TOPIC or not (waits_for_late and is_started(body)):
                return ANSWERED
    finally:
        client.close()
    print(f"no answer within {options.timeout:g} s", file=sys.stderr)
    return UNANSWERED


def send_command(options: argparse.Namespace, command: Command) -> int:
    request_id = time.time_ns() // 1000
    body = request_of(command, options, request_id)
    return ask(options, json.dumps(body).encode(), request_id, command.late)


def send_raw(options: argparse.Namespace) -> int:
    payload = options.raw.encode()
    body = parsed(payload)
    request_id = body.get("requestId") if isinstance(body, dict) else None
    return ask(options, payload, request_id, waits_for_late=False)


def kind_of(message: Received, body: Any) -> str:
    if message.topic != COMMAND_TOPIC or not isinstance(body, dict):
        return ""
    return " request" if "command" in body else " answer"


def print_message(message: Received) -> None:
    body = parsed(message.payload)
    text = json.dumps(body, ensure_ascii=False) if body is not None else repr(message.payload)[1:]
    note = " (retained)" if message.retained else ""
    print(
        f"{time.strftime('%H:%M:%S')} {message.topic}{kind_of(message, body)}{note}\n    {text}", flush=True
    )


def watch(options: argparse.Namespace) -> int:
    client = connect(options, ["#"])
    try:
        for message in client.messages():
            print_message(message)
    except KeyboardInterrupt:
        pass
    finally:
        client.close()
    return ANSWERED


def main(arguments: list[str]) -> int:
    options = parse(arguments)
    try:
        if options.raw is not None:
            return send_raw(options)
        if isinstance(options.command, Command):
            return send_command(options, options.command)
        if callable(options.command):
            return int(options.command(options))
        return watch(options)
    except Unreachable as reason:
        print(reason, file=sys.stderr)
        return UNANSWERED

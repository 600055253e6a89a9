"""The gateway's management services: its configuration as one document, upgrades of its board's software."""

from __future__ import annotations

import argparse
import json
import re
import sys
import time
from pathlib import Path
from typing import Any, Callable, Iterator, Optional

from .client import COMMAND_TOPIC, Client, Received, is_answer, parsed

CAPABILITIES_TOPIC = "api/capabilities"
# A gateway asks here for documents each time it has connected, and its services are off then.
CONNECTED_TOPIC = "api/v1/gateway/configuration/request"
PATIENCE = 600.0
DONE, FAILED = 0, 1

SCHEDULED, INSTALLED = "UPDATE SCHEDULED", "INSTALLED"
ENDS = (INSTALLED, "INSTALL (DOWNLOAD/UPGRADE) FAILED")
REFUSALS = (
    "NO BSP UPGRADE AVAILABLE",
    "BSP UPDATE CANNOT BE RESCHEDULED",
    "UNEXPECTED ERROR DURING BSP SCHEDULING",
    "BSP UPGRADE UTILITY NOT REACHABLE",
)
UNITS = {"": 1, "s": 1, "m": 60, "h": 3600}


class Silent(Exception):
    """The gateway does not answer; why it may be so."""


def now_ms() -> int:
    return time.time_ns() // 1_000_000


def told(text: str) -> None:
    print(text, file=sys.stderr, flush=True)


class Service:
    """A service of the gateway, with a topic for what is desired of it and one for what it reports."""

    def __init__(self, options: argparse.Namespace, capability: str, name: str) -> None:
        self._mac, self._timeout = options.mac, options.timeout
        self._capability = capability if options.switches_on else None
        topic = f"gateway/mac/{options.mac}/{name}"
        self._desired, self._reported = f"{topic}/desired", f"{topic}/reported"
        self._client = Client(
            options.host,
            options.port,
            options.server_user,
            options.server_password,
            [COMMAND_TOPIC, CONNECTED_TOPIC, self._reported],
        )

    def close(self) -> None:
        self._client.close()

    def switch_on(self) -> None:
        """Does nothing to a service that is on."""
        if self._capability is not None:
            body = {"capabilities": [self._capability]}
            self._client.publish(CAPABILITIES_TOPIC, json.dumps(body).encode())

    def settle(self) -> Iterator[Received]:
        """Reports until the service listens to what is desired; none of them answers to what comes behind.

        A service tells nobody when it begins to listen, and what comes before is lost. But the gateway takes
        one message after the other, and a second one of capabilities only when the first one's services have
        started. So an answer to a command behind both, even to an unknown one, says that the service listens.
        All that it costs is that the gateway takes nothing else while a service starts. To send again until
        something comes would cost more: a second read and commit of a configuration; and a second scheduling
        of an upgrade may be refused, which ends the gateway's reports on the first.
        """
        self.switch_on()
        self.switch_on()
        number = time.time_ns() // 1000
        request = {"command": "isAnyoneThere", "requestId": number, "params": {}, "mac": self._mac}
        self._client.publish(COMMAND_TOPIC, json.dumps(request).encode())
        for message in self._client.messages(self._timeout):
            if message.topic == self._reported:
                yield message
            elif message.topic == COMMAND_TOPIC and is_answer(parsed(message.payload), number):
                return
        raise Silent(f"no gateway answers within {self._timeout:g} s, and nothing was desired of it")

    def desire(self, body: dict[str, Any]) -> None:
        self._client.publish(self._desired, json.dumps(body).encode())

    def reports(self, has_restarted: Callable[[], None] = lambda: None) -> Iterator[Received]:
        """Until none has come for the whole timeout. The one that the server keeps comes again after a loss
        of the connection, and is passed over."""
        end = time.monotonic() + self._timeout
        while True:
            message = next(self._client.messages(end - time.monotonic()), None)
            if message is None:
                return
            if message.topic == CONNECTED_TOPIC:
                has_restarted()
            elif message.topic == self._reported and not message.retained:
                end = time.monotonic() + self._timeout
                yield message


def show(message: Received) -> Any:
    """On standard output, as it is if it is no JSON."""
    body = parsed(message.payload)
    print(json.dumps(body, indent=2, ensure_ascii=False) if body is not None else message.payload, flush=True)
    return body


# --- configuration ---


def document(name: str) -> dict[str, Any]:
    try:
        body = json.loads(Path(name).read_bytes())
    except OSError as reason:
        raise argparse.ArgumentTypeError(f"{name}: {reason.strerror}") from None
    except ValueError as reason:
        raise argparse.ArgumentTypeError(f"{name} is no JSON: {reason}") from None
    if not isinstance(body, dict):
        raise argparse.ArgumentTypeError(f"{name} is no JSON object")
    if "timestamp" in body and "content" not in body:
        raise argparse.ArgumentTypeError(f"{name} has a timestamp and no content")
    return body


def whole(body: dict[str, Any], timestamp: Optional[int]) -> dict[str, Any]:
    """A document, also of sections alone."""
    made = body if "content" in body else {"content": body}
    if timestamp is not None:
        return {**made, "timestamp": timestamp}
    return {"timestamp": now_ms(), **made}


def statuses(body: Any, path: str = "") -> Iterator[str]:
    """What the gateway says in words, of items that failed and of some that did not."""
    if isinstance(body, dict):
        if isinstance(body.get("status"), str):
            yield f"{path}: {body['status']}"
        for key, value in body.items():
            yield from statuses(value, f"{path}.{key}" if path else key)
    elif isinstance(body, list):
        for place, value in enumerate(body):
            yield from statuses(value, f"{path}[{place}]")


def remarks(asked: Any, answered: Any) -> Iterator[str]:
    """A section that fails is empty, or its items have a status; those behind an empty one may be missing."""
    asked = asked if isinstance(asked, dict) else {}
    answered = answered if isinstance(answered, dict) else {}
    if set(answered) - set(asked):
        yield "nothing was applied: the gateway has this timestamp already, and reports what it has"
    for name in asked:
        if name not in answered:
            yield f"{name}: not applied"
        elif not answered[name]:
            yield f"{name}: came back empty"
    yield from statuses(answered)


def apply(service: Service, options: argparse.Namespace) -> int:
    wanted = whole(options.document, options.timestamp)
    for _ in service.settle():
        pass
    service.desire(wanted)
    for message in service.reports():
        body = show(message)
        for remark in remarks(wanted["content"], body.get("content") if isinstance(body, dict) else None):
            told(remark)
        return DONE
    raise Silent(
        f"no answer within {options.timeout:g} s: a gateway answers neither a document with a timestamp "
        "older than its last one's nor one without a timestamp, and none for another MAC"
    )


def show_configuration(service: Service, options: argparse.Namespace) -> int:
    count = 0
    for count, message in enumerate(service.settle(), 1):
        if message.retained:
            told("the last one that was applied:")
        else:
            told("as the gateway has it now:")
        show(message)
    if count:
        return DONE
    raise Silent(
        "there is no report: the service was on already, so the gateway makes none now, and the server keeps "
        "none of an applied document; the last document's --timestamp again has it report all that it has"
    )


# --- upgrades ---


def seconds(text: str) -> float:
    match = re.fullmatch(r"(\d+(?:\.\d+)?)([smh]?)", text)
    if match is None:
        raise argparse.ArgumentTypeError(f"{text!r} is no time such as 30s, 5m, 2h or 30")
    return float(match[1]) * UNITS[match[2]]


def upgrade_request(options: argparse.Namespace) -> dict[str, Any]:
    now = now_ms()

    def at(time_left: float, delay: float) -> dict[str, Any]:
        return {"timestamp": now + round(time_left * 1000), "maxRandomDelay": round(delay * 1000)}

    body: dict[str, Any] = {
        "updateTs": now if options.updateTs is None else options.updateTs,
        "update": {**at(options.time_left, options.delay), "force": options.force},
    }
    if options.download_in is not None:
        body["download"] = at(options.download_in, options.download_delay)
    return body


def state_line(message: Received) -> tuple[str, str]:
    """The state in a report, and a line that tells it."""
    try:
        body = parsed(message.payload)
        content = body["content"]
        at = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(body["lastStateUpdateTs"] / 1000))
        state, version = content["state"], content["version"].strip() or "unknown"
        available = ", ".join(content["availableUpdates"]) or "unknown"
        return state, f"{at} {state}, version {version}, available: {available}"
    except (TypeError, KeyError, AttributeError):
        return "", repr(message.payload)[1:]


def follow(service: Service, options: argparse.Namespace) -> int:
    """Reports of an upgrade before, and of the service's start, may come first. So an end counts only behind
    the request's own schedule; a refusal always."""
    is_scheduled = False
    for message in service.reports(has_restarted=service.switch_on):
        state, line = state_line(message)
        print(line, flush=True)
        is_scheduled = is_scheduled or state == SCHEDULED
        if state in REFUSALS or (is_scheduled and state in ENDS):
            return DONE if state == INSTALLED else FAILED
    if is_scheduled:
        raise Silent(f"no report within {options.timeout:g} s")
    raise Silent(
        f"no answer within {options.timeout:g} s: a gateway answers no request with an updateTs that is not "
        "newer than its last request, and none for another MAC"
    )


def run_upgrade(service: Service, options: argparse.Namespace) -> int:
    for message in service.settle():
        if not message.retained:
            print(state_line(message)[1], flush=True)
    service.desire(upgrade_request(options))
    return follow(service, options)


# --- the command line ---


def managed(
    options: argparse.Namespace,
    capability: str,
    name: str,
    run: Callable[[Service, argparse.Namespace], int],
) -> int:
    service = Service(options, capability, name)
    try:
        return run(service, options)
    except Silent as reason:
        told(str(reason))
    except KeyboardInterrupt:
        pass
    finally:
        service.close()
    return FAILED


def configure(options: argparse.Namespace) -> int:
    return managed(options, "bulk_cfg", "configuration", apply)


def configuration(options: argparse.Namespace) -> int:
    return managed(options, "bulk_cfg", "configuration", show_configuration)


def upgrade(options: argparse.Namespace) -> int:
    return managed(options, "bulk_upgr", "firmware", run_upgrade)


def add_verbs(commands: Any) -> None:
    applying = commands.add_parser("configure", help="have the gateway apply a document")
    applying.add_argument("document", metavar="FILE", type=document, help="a whole document or its sections")
    applying.add_argument(
        "--timestamp", type=int, metavar="N", help="of the document (the file's own, or now in ms)"
    )
    applying.set_defaults(command=configure)
    showing = commands.add_parser("configuration", help="show what the gateway reports of its configuration")
    showing.set_defaults(command=configuration)
    scheduling = commands.add_parser("upgrade", help="have the gateway upgrade its board's software")
    for name, dest, default, text in (
        ("--in", "time_left", None, "when to install, from now"),
        ("--download-in", "download_in", None, "when to download, from now (with the install)"),
        ("--delay", "delay", 0.0, "chosen at random up to this and added to --in (0)"),
        ("--download-delay", "download_delay", 0.0, "the same for --download-in (0)"),
    ):
        scheduling.add_argument(
            name, dest=dest, metavar="TIME", type=seconds, default=default, help=text, required=name == "--in"
        )
    scheduling.add_argument("--force", action="store_true", help="also over an upgrade under way")
    scheduling.add_argument("--updateTs", type=int, metavar="N", help="what names the request (now in ms)")
    scheduling.set_defaults(command=upgrade)
    for parser in (applying, showing, scheduling):
        parser.add_argument(
            "--no-capabilities",
            dest="switches_on",
            action="store_false",
            help="leave the gateway's services as they are",
        )
        parser.set_defaults(patience=PATIENCE, has_mac_topics=True)

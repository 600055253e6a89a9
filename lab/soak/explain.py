"""Which ERROR lines a fault explains: patterns for whole lines. What no fault at hand explains fails the soak."""

from __future__ import annotations

import re
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

_REFERENCE = Path(__file__).resolve().parent.parent.parent / "docs" / "log-messages.md"


def _listed(heading: str) -> tuple[str, ...]:
    """The texts that the reference of lines lists behind these words; capitals stand there for values."""
    text = _REFERENCE.read_text(encoding="utf-8")
    found = re.search(re.escape(f"**{heading}") + r".*?```text\n(.*?)```", text, re.DOTALL)
    assert found, heading
    return tuple(_pattern(line) for line in found[1].splitlines())


def _pattern(line: str) -> str:
    return re.sub(r"\b(N|NAME|PATH|TEXT|REASON)\b", ".*", re.escape(line))


@dataclass(frozen=True)
class Words:
    """What a fault explains while it stays, and what it has begun tells of it a while later."""

    now: tuple[str, ...] = ()
    late: tuple[str, ...] = ()


# A command that cannot ask the agent gives up: because it is silent, or because a restart closes the session to it.
_UNASKED = (
    *_listed("The agent did not do it."),
    r"no response from SNMP agent",
    r"synch request failed",
    r"cannot (request|fetch) event description",
    r"failed to get event information",
    r"failed to get properties for battery performance stats",
    r"failed to get (valid )?property",
    r"failed to set table properties",
    r"failed (network|upgrade|network interface|cellular) config (read|write) for \[.*\]",
    r"failed cellular config read for \[.*\] or the error wasn't handled",
    r"failed to get connectivity (properties|availability flag) from the SNMP client",
    r"failed to set gateway configuration",
    r"failed to get configuration file contents",
    r"failed to write config for /etc/default/config.json",
    r"failed to start a query of upgrade servers information",
    r"failed to get upgrade servers information",
    r"failed pdp operation status command",
    r"failed to get the (current|updated|final updated) PDP profile list",
    r"failed to get the final simpin status",
    r"operation failed with a status: .*",
    r"unknown current interface type",
)
_CONNECT_FAILS = (
    r"failed to connect with MQTT code: \[-?\d+\]",
    r"failed to connect to (NS|OA&M endpoint)",
    r"([0-9A-F]+:)?error:[0-9A-F]+:.*",  # of the TLS library
)
_REPORTS_FAIL = (
    r"can't publish a message to the endpoint: \[\d\] with error: \[-?\d+\]",
    r"no connected handle exists for given endpoint: \[\d\]",
    r"failed to send (stats )?message over (MQTT|mqtt)",
    r"failed to process uplink message",
    r"failed to publish (status )?response",
    r"failed to send fileops response",
    r"can't publish event",
    r"failed to publish configuration",
    r"Failed to publish to topic .* request id \d+",
    r"failed to send bsp upgrade response - (MQTT publish failure|context is not valid)",
    r"failed to send battery performance measures - (MQTT publish failure|context is not valid)",
)
_RESTART = (
    *_UNASKED,
    *_REPORTS_FAIL,
    r"failed to unsubscribe: .*",
    r"SNMP is not started, ignoring request from NS",
    r"failed to start the (bulk configuration|bulk upgrade|performance management) service",
    # A child that ends while nobody reads its pipe.
    r"failed to open pipe for sending async response: No such device or address",
    r"failed to prepare and send async response",
    # A job that the stop has handed on to be collected, asked for by a command that still runs.
    r"failed to query (stream|fetch|execution|watch) process( \[\d+\])? status: No child processes",
)

# Files, folders and programs that cannot be opened, written or run.
_FILES = (
    r"failed to (open a state file|get file descriptor: .*|serialize a status)",
    r"failed to (write|read) config timestamp",
    r"config timestamp couldn't be (read|written!!)",
    r"Failed to open config timestamp file \(.*\) for (reading|writing), error: .*",
    r"failed to (create a state file: .*|create .* directory|create dir .*)",
    r"failed to open file (.* )?for a new configuration",
    r"failed to write new configuration",
    r"failed to extract .* configuration( (read|write))? response",
    r"child process wasn't completed in time",
    r"failed to wait for a child",
    r"failed upgrade config (read|write) for \[.*\]",
    r"(unable to access|not enough permission to access) the uplink packet filter (lock )?file",
    r"failed to (open|lock|read) the (backup )?uplink packet filter file",
    r"failed to write to the (backup )?uplink packet filter file",
    r"failed to clear the uplink packet filter file before writing",
    r"failed to write the (DevAddr|JoinEUI) filter list to the uplink packet filter file",
    r"failed to update the (DevAddr|JoinReq) filter list, error = -?\d+",
    r"Successfully added response \(failure\) to a LoRa filter rule write request",
    r"failed to read the (current )?LoRa filter rule.*",
    r"failed to process LoRa filter rule read response",
    r"failed to (create a file|write to a file|truncate a file: .*)",
    r"failed to move .* to .*",
    r"failed to (start streaming|start fetching|start script execution)",
    r"failed to scan a directory: -\d+",
    r"failed to get file entry for: .*",
    r"(no such file: .*|.* is not found in the tree)",
    r"failed to (create timestamp file|update timestamp|query timestamp file info): .*",
    r"failed open log file .*",
    r"curl: failed to (load|init) library.*",
    r"Upgrade utility met with an error: .*",  # it keeps its state in a file
    r".*: (Too many open files|No space left on device|Read-only file system)",
)

# Those of them that a full or read-only disk and a lack of descriptors bring, and little else.
UNREADABLE = (
    r"failed to (open a state file|serialize a status|write config timestamp|read config timestamp)",
    r"Failed to open config timestamp file .*",
    r"config timestamp couldn't be (read|written!!)",
    r"failed to write to the (backup )?uplink packet filter file",
    r"(unable to access|not enough permission to access) the uplink packet filter (lock )?file",
    r"popen with the upgrade utility failed, got null pointer",
    r".*: (Too many open files|No space left on device|Read-only file system)",
)

# A small file that is written anew has its place on a full disk: what grows has none.
FULL = (*UNREADABLE, r"failed to write to a file", r"Upgrade utility met with an error: .*")

# The work itself brings these: it begins and stops jobs at random, and opens a tunnel to nobody.
ALWAYS = (
    # What the daemon itself has published, on a topic that it reads.
    r"command string is missing",
    r"failed to de-serialize configuration params",
    r"New config request from the server",
    r"Repeat Config request from the server -- update server with the current configuration",
    r"old config request from the server -- likely a server issue",
    r"No More Variables left in this MIB View \(It is past the end of the MIB tree\)",
    r"stopping performance management thread",
    r"file (streaming|fetching|executing) is still running",
    r"file (streaming|fetching|execution) is not running, nothing to stop",
    r"invalid (xfer|exe) ID received: -?\d+",
    r"log retrieval is (already started|not running)",
    r"non-existing file transaction",
    r"failed to de-serialize params",  # a chunk that overtook the start of its own, larger upload
    r"reverse SSH is not running",
    r"reverse ssh process is still running",
    r"ssh: error connecting to 127\.0\.0\.1:9: .*",
    r"no software operation was performed",
    r"curl: failed to open file for reading: No such file or directory",
    r"curl: failed to map a file: .*",  # of a file that is being fetched
    r"Upgrade utility met with an error: Failed: an upgrade is under way",
    r"ssh: error waiting for incoming connection: .*",  # the end of a tunnel that nobody uses
    r"failed to get pubkey file information",  # the gateway has none
    r"invalid blob size, expected: \[\d+\], actual: \[\d+\]",  # a scan that was not run, or run otherwise
)
_TRANSFERS = (r"(curl|ssh): .*", r"failed to (open pipe for sending|prepare and send) async response.*")
_PROGRAMS = (
    r"child process wasn't completed in time",
    r"failed to extract .* configuration( (read|write))? response",
    r"Upgrade utility met with an error: .*",
    r"failed open log file .*",
    r"failed to (open pipe for sending|prepare and send) async response.*",
)
_OLD_FILES = (r"config timestamp couldn't be (read|written!!)", r"failed to (write|read) config timestamp")
# A publish may find the connection broken before the log says so.
CONNECTION = Words(
    (*_CONNECT_FAILS, *_REPORTS_FAIL, r"failed to subscribe for (topic: .*|NS topics)"), _TRANSFERS
)
# From the loss of a connection, or from what has another restart begin, until both planes are up.
RESTART = _RESTART
AGENT = Words(_UNASKED, _UNASKED)
DISK = Words(_FILES, (*_PROGRAMS, *_OLD_FILES))
_DESCRIPTORS = (
    *_UNASKED,
    *_CONNECT_FAILS,
    *_REPORTS_FAIL,
    *_FILES,
    r"Can't open message queue for reading .*",
    r"failed to (create|open) message queue for .*",
    r"popen with the upgrade utility failed, got null pointer",
    r"Unable to contact the Upgrade utility .*",
    r"Exiting bsp upgrade thread",
    r"ERROR opening socket",
    r"failed to create pipe",
    r"failed to open (SNMP normal session|the SNMP transport)",
    r"failed to add mibdir: .*",
    r"failed to start the (bulk configuration|bulk upgrade|performance management) service",
)
DESCRIPTORS = Words(_DESCRIPTORS, (*_UNASKED, *_TRANSFERS, *_PROGRAMS, *_OLD_FILES))
CLOCK = Words(
    (
        *_CONNECT_FAILS,  # certificates have their time
        r"Failed to (start|stop) bsp upgrade schedule timer .*",
    )
)
CHILDREN = Words(
    (
        r"failed to extract .* configuration( (read|write))? response",
        r"Upgrade utility met with an error: .*",
    ),
    _PROGRAMS,
)
# The end of a thread whose service rests from then on, until the control plane is restarted for another reason.
RESTS = (
    r"Exiting (bsp upgrade|performance management) thread",
    r"Can't open message queue for reading .*",
    r"Can't create timer for .*",
    r"failed to read from the pipe: .*",
)
# Words of the C library and of sanitizers, without a level.
BROKEN = (
    r".*(Sanitizer|runtime error:|Assertion|terminate called|free\(\)|malloc|corrupt|stack smashing|\*\*\*).*"
)
NOTHING = LOAD = Words()
_JUNK = (
    *_listed("The request cannot be read**"),
    r"Failed to parse incoming payload( for bsp upgrade)?",
    r"(request ID|parameters body|mac address) is missing",
    r"(Update ts is missing|No update parameters)",
    r"failed to de-serialize (update params|download params|configuration params|base64 string|request|file name)",
    r"failed to deserialize (downlink frame|uplink packet: .*|statistics: .*|rsig frame)",
    r"Invalid downlink frame",
    r"failed to extract capabilities array from payload",
    r"failed to parse incoming configuration",
    r"invalid payload (format|received|size received)",
    r"invalid parameters received",
    r"content is missing, no configuration should be applied",
    r"failed to allocate tokener",
    r"failed to process uplink message",
    r"failed to write to a file",
    r"Cannot find TrapOID in TRAP2 PDU",
)
JUNK = Words(_JUNK)


def explains(patterns: Iterable[str], text: str) -> bool:
    return any(re.fullmatch(pattern, text) for pattern in patterns)

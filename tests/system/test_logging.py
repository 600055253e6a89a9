"""The log: the form of its lines, its threshold, and syslog as its other destination."""
import re
import socket
from pathlib import Path
from typing import Callable

import pytest

from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import gateway_config, write_config
from harness.ports import free_port

RunBridge = Callable[..., Bridge]

LINE = re.compile(
    r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\+0000 \[\d+\]"
    r"\[(ERROR |WARN  |INFO  |DEBUG |TRACE )\] [a-z_]+\.cpp:\d+ ."
)


def test_every_line_has_time_thread_level_and_place(
    run_config: Callable[..., Bridge], broker: Mosquitto
) -> None:
    bridge = run_config(free_port(), {"ns": {"url": broker.url}})
    bridge.wait_connected()
    lines = [line for line in bridge.log.lines if re.match(r"\d{4}-", line)]
    assert [line for line in lines if not LINE.match(line)] == []
    assert len({line.split("[")[1] for line in lines}) > 1, "several threads log"


@pytest.mark.parametrize(
    "level, labels",
    [
        (0, {"ERROR "}),
        (1, {"ERROR "}),
        (2, {"ERROR ", "INFO  "}),
        (3, {"ERROR ", "INFO  ", "DEBUG "}),
        (4, {"ERROR ", "INFO  ", "DEBUG ", "TRACE "}),
    ],
)
def test_the_threshold_drops_what_is_above_it(
    run_bridge: RunBridge, tmp_path: Path, level: int, labels: set[str]
) -> None:
    path = write_config(tmp_path / "bridge.toml", gateway_config(free_port()))
    bridge = run_bridge("-c", str(path), "-d", "-v", str(level))
    assert bridge.wait_exit() == 255
    assert {match.group(1) for line in bridge.log.lines if (match := LINE.match(line))} == labels


def test_the_default_threshold_is_info(run_bridge: RunBridge, tmp_path: Path) -> None:
    path = write_config(tmp_path / "bridge.toml", gateway_config(free_port()))
    bridge = run_bridge("-c", str(path), "-d")
    bridge.wait_exit()
    assert bridge.log.find("[INFO  ]") and not bridge.log.find("[DEBUG ]")
    assert bridge.log.find("Starting Sarnivel NS bridge 1.11.1")


def test_without_the_stderr_option_the_log_goes_to_syslog_without_a_timestamp(
    run_bridge: RunBridge, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    path = write_config(tmp_path / "bridge.toml", gateway_config(free_port()))
    monkeypatch.chdir(tmp_path)  # the address of a local socket is short
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as syslog:
        syslog.bind("log")
        syslog.settimeout(20)
        bridge = run_bridge("-c", str(path), env={"SANDBOX_DEV_LOG": str(tmp_path / "log")})
        first = syslog.recv(4096).decode()
        second = syslog.recv(4096).decode()
        assert bridge.wait_exit() == 255
    # 29 is LOG_DAEMON with LOG_NOTICE, whatever the level of the line.
    line = r"<29>\w{3} [ \d]\d \d\d:\d\d:\d\d snv_mqtt_bridge\[%d\]: \[%d\]\[%s\] [a-z_]+\.cpp:\d+ %s"
    pid = bridge.process.pid
    assert re.match(line % (pid, pid, "INFO  ", r"Starting Sarnivel NS bridge 1\.11\.1"), first)
    assert re.match(line % (pid, pid, "ERROR ", "no endpoints are enabled"), second)
    assert bridge.log.lines == [f"cfg file: {path}"]

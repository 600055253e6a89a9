"""Includes of a configuration file: which value wins, and which cycles are refused."""
import re
from pathlib import Path
from typing import Callable

import pytest

from harness.bridge import Bridge

RunBridge = Callable[..., Bridge]

NO_ENDPOINTS = 255

IDENTITY = '[generic]\nclient_id = "gw"\ngw_mac = "01"\n'


def includes(*names: str) -> str:
    return "[aux]\nincludes = [" + ", ".join(f'"{name}"' for name in names) + "]\n"


def timeout(seconds: int) -> str:
    return f"[rev_ssh]\ntimeout = {seconds}\n"


@pytest.fixture
def run_files(tmp_path: Path, run_bridge: RunBridge) -> Callable[[dict[str, str], int], Bridge]:
    """Writes the files and runs the daemon on "a.toml", up to its end."""

    def run(files: dict[str, str], status: int) -> Bridge:
        for name, text in files.items():
            (tmp_path / name).parent.mkdir(exist_ok=True)
            (tmp_path / name).write_text(text)
        bridge = run_bridge("-c", "a.toml", "-d", "-v", "4")
        assert bridge.wait_exit() == status
        return bridge

    return run


RunFiles = Callable[[dict[str, str], int], Bridge]


def timeout_line(value: int) -> str:
    return f"cfg section: [rev_ssh ], entry: [timeout                ] -> {value}"


OVERRIDDEN = "cfg section: [%-25s] entry: [%-25s] is being overriden by current configuration file"


@pytest.mark.parametrize(
    "files, value, overrides",
    [
        ({"a.toml": IDENTITY + timeout(1) + includes("b.toml"), "b.toml": timeout(2)}, 2, 1),
        ({"a.toml": IDENTITY + includes("b.toml"), "b.toml": timeout(2)}, 2, 0),
        (
            {
                "a.toml": IDENTITY + timeout(1) + includes("b.toml", "c.toml"),
                "b.toml": timeout(2),
                "c.toml": timeout(3),
            },
            3,
            2,
        ),
        (
            {
                "a.toml": IDENTITY + timeout(1) + includes("b.toml", "c.toml"),
                "b.toml": timeout(2),
                "c.toml": "",
            },
            2,
            1,
        ),
        (
            {
                "a.toml": includes("b.toml"),
                "b.toml": includes("c.toml") + timeout(2),
                "c.toml": timeout(3) + IDENTITY,
            },
            3,
            1,
        ),
    ],
    ids=["include over includer", "include alone", "last include", "include without the key", "three deep"],
)
def test_a_later_file_overrides_an_earlier_one(
    run_files: RunFiles, files: dict[str, str], value: int, overrides: int
) -> None:
    bridge = run_files(files, NO_ENDPOINTS)
    assert bridge.log.find(timeout_line(value))
    assert len(bridge.log.find(OVERRIDDEN % ("rev_ssh", "timeout"))) == overrides


def test_a_file_may_be_included_twice(run_files: RunFiles) -> None:
    bridge = run_files(
        {
            "a.toml": IDENTITY + includes("b.toml", "b.toml"),
            "b.toml": timeout(2) + '[ns]\ntype = "chirpstack"\n',
        },
        NO_ENDPOINTS,
    )
    assert len(bridge.log.find("processing configuration file: b.toml")) == 2
    assert len(bridge.log.find("is being overriden by current configuration file")) == 2


def test_required_keys_may_stand_in_an_include(run_files: RunFiles) -> None:
    run_files({"a.toml": includes("b.toml"), "b.toml": IDENTITY}, NO_ENDPOINTS)


def test_paths_are_relative_to_the_working_directory(run_files: RunFiles) -> None:
    files = {
        "a.toml": IDENTITY + includes("sub/b.toml"),
        "sub/b.toml": includes("c.toml"),
        "c.toml": timeout(7),
    }
    assert run_files(files, NO_ENDPOINTS).log.find(timeout_line(7))


@pytest.mark.parametrize(
    "files, this, parent",
    [
        ({"a.toml": IDENTITY + includes("a.toml")}, "a.toml", "a.toml"),
        ({"a.toml": IDENTITY + includes("./a.toml")}, "./a.toml", "a.toml"),
        (
            {
                "a.toml": IDENTITY + includes("b.toml"),
                "b.toml": includes("c.toml"),
                "c.toml": includes("a.toml"),
            },
            "a.toml",
            "c.toml",
        ),
        ({"a.toml": IDENTITY + includes("b.toml"), "b.toml": includes("b.toml")}, "b.toml", "b.toml"),
    ],
    ids=["itself", "itself by another path", "through two others", "an include by itself"],
)
def test_a_cycle_is_refused(run_files: RunFiles, files: dict[str, str], this: str, parent: str) -> None:
    bridge = run_files(files, 1)
    assert bridge.log.find("detected configuration file circular dependency. Check your includes.")
    assert bridge.log.find(f"this file: {this} was most recently referenced from: {parent}")
    assert bridge.log.find("device: ")
    assert bridge.log.find("failed to process configuration file")


def test_a_cycle_through_a_symbolic_link_is_refused(run_files: RunFiles, tmp_path: Path) -> None:
    (tmp_path / "link.toml").symlink_to("a.toml")
    bridge = run_files({"a.toml": IDENTITY + includes("link.toml")}, 1)
    assert bridge.log.find("detected configuration file circular dependency. Check your includes.")
    assert bridge.log.find("this file: link.toml was most recently referenced from: a.toml")


def test_a_copy_with_the_same_text_is_another_file(run_files: RunFiles) -> None:
    text = IDENTITY + timeout(4)
    run_files({"a.toml": text + includes("b.toml"), "b.toml": text}, NO_ENDPOINTS)


@pytest.mark.parametrize("item", ["5", "true", "1.5"])
def test_an_include_that_is_no_text_is_refused(run_files: RunFiles, item: str) -> None:
    bridge = run_files({"a.toml": IDENTITY + f"[aux]\nincludes = [{item}]\n"}, 1)
    assert bridge.log.find(re.compile("failed to parse include item: .+ to valid string"))


@pytest.mark.parametrize(
    "include, text",
    [
        ("absent.toml", "failed to open configuration file"),
        ("bad.toml", "failed to parse configuration file: "),
        ("negative.toml", "expected unsigned type for timeout configuration entry"),
    ],
)
def test_a_bad_include_ends_the_load(run_files: RunFiles, include: str, text: str) -> None:
    bridge = run_files(
        {"a.toml": IDENTITY + includes(include), "bad.toml": "[", "negative.toml": timeout(-1)}, 1
    )
    assert bridge.log.find(text)


@pytest.mark.parametrize(
    "aux, note",
    [("", False), ("[aux]\n", True), ("[aux]\nother = 1\n", True), ("[aux]\nincludes = []\n", False)],
)
def test_an_aux_section_without_includes_is_noted(run_files: RunFiles, aux: str, note: bool) -> None:
    bridge = run_files({"a.toml": IDENTITY + aux}, NO_ENDPOINTS)
    assert bool(bridge.log.find("no include array is present in this configuration file")) == note


def chain(length: int, last: str) -> dict[str, str]:
    """Files that include each other in a row, named "a.toml", "f1.toml", ..."""
    names = ["a.toml", *(f"f{number}.toml" for number in range(1, length))]
    files = {name: includes(following) for name, following in zip(names, names[1:])}
    files[names[-1]] = last
    files["a.toml"] += IDENTITY
    return files


def test_a_chain_longer_than_the_list_of_open_files_is_read(run_files: RunFiles) -> None:
    assert run_files(chain(80, timeout(9)), NO_ENDPOINTS).log.find(timeout_line(9))

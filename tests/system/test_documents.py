"""The documents beside what they tell of: links, commands, keys of the configuration, topics, lines of the
log, names of the sources."""
import re
import subprocess
import sys
import tomllib
from functools import cache

import pytest

from harness.bridge import REPOSITORY
from harness.dialects import DIALECTS
from lab.operations.commands import COMMANDS
from test_configuration import DEFAULTS

sys.path.append(str(REPOSITORY / "tests"))

from documents.cpp import is_word  # noqa: E402
from documents.facts import (  # noqa: E402
    configuration_keys,
    is_path_here,
    source_text,
    source_words,
    topics,
)
from documents.log_texts import LEVELS, LogText, Program, pattern_of, squeezed  # noqa: E402
from documents.pages import Page, all_pages, anchor_of, page, spans_of  # noqa: E402

PAGES = all_pages()
EVERY_PAGE = pytest.mark.parametrize("each", PAGES, ids=repr)

MESSAGES = ("docs/integration.md", "docs/messages.md", "docs/commands.md", "docs/management.md")
LOG_PAGE = page("docs/log-messages.md")


# --- links ---


@EVERY_PAGE
def test_every_link_leads_somewhere(each: Page) -> None:
    lost = []
    for link in each.links:
        if re.match(r"\w+:", link):
            continue
        target, _, anchor = link.partition("#")
        path = (each.path.parent / target).resolve() if target else each.path
        if not path.exists() or (anchor and anchor not in Page(path).anchors):
            lost.append(link)
    assert lost == []


def test_every_page_is_reached_from_the_first_one() -> None:
    reached, left = set(), [REPOSITORY / "README.md"]
    while left:
        path = left.pop()
        if path in reached or path.suffix != ".md":
            continue
        reached.add(path)
        left += [
            (path.parent / link.partition("#")[0]).resolve() for link in Page(path).links if ":" not in link
        ]
    assert [each for each in PAGES if each.path not in reached] == []


# --- commands ---

PROGRAM = re.compile(r"(?:scripts|lab|bench|docs)/[\w./-]+")
OPTION = re.compile(r"--[a-zA-Z][\w-]*")


@cache
def help_of(program: str) -> str:
    """What it says of itself; scripts without options tell so in their first lines."""
    path = REPOSITORY / program
    text = path.read_text()
    if text.startswith("#!/usr/bin/env bash") and not re.search("python3|--help", text):
        return text.partition("\nset -")[0]
    done = subprocess.run([path, "--help"], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, f"{program} --help: {done.stderr}"
    return done.stdout


def commands_of(each: Page) -> list[str]:
    """Lines of blocks and code spans that begin with a program of the repository."""
    lines = [line for block in each.blocks for line in block.lines if block.language in ("", "sh")]
    shown = [line.strip().removeprefix("$ ") for line in lines] + each.spans
    parts = [part.strip() for line in shown for part in line.split("&&")]
    return [part for part in parts if re.match(r"(?:scripts|lab|bench|docs)/\w+(?:\.py)?(?:\s|$)", part)]


@EVERY_PAGE
def test_every_command_exists_with_its_options(each: Page) -> None:
    wrong = []
    for command in commands_of(each):
        program = PROGRAM.match(command)
        assert program
        path = REPOSITORY / program.group()
        if not path.exists():
            wrong.append(command)
        if not path.is_file():
            continue
        told = re.split(r"\s#\s|\s{3,}", command)[0]
        unknown = [
            option
            for option in OPTION.findall(told)
            if option not in OPTION.findall(help_of(program.group()))
        ]
        wrong += [f"{command}: {option}" for option in unknown]
    assert wrong == []


def test_the_options_of_the_daemon_are_those_of_its_help() -> None:
    source = (REPOSITORY / "src/app/bridge_arguments.cpp").read_text()
    table = re.findall(r"^    \{\"([\w-]+)\", +'(\w)',", source, re.M)
    (options,) = [each for each in page("docs/operations.md").tables if each.columns[0] == "Option"]
    told = [span.split()[0] for cell in options.column("Option") for span in spans_of(cell)]
    assert sorted(told) == sorted(form for name, letter in table for form in (f"--{name}", f"-{letter}"))


def test_pages_tell_how_many_commands_there_are() -> None:
    assert re.findall(r"with (\d+)\s+\[commands\]", page("README.md").prose) == [str(len(COMMANDS))]
    assert re.findall(r"^All (\d+)\.", page("docs/commands.md").prose, re.M) == [str(len(COMMANDS))]


# --- configuration ---

SECTION = re.compile(r"^`\[(\w+)\]`")


def test_the_tables_of_keys_are_those_of_the_daemon() -> None:
    told = {}
    for table in page("docs/configuration.md").tables:
        section = SECTION.match(table.heading)
        if section:
            told[section.group(1)] = [span for cell in table.column("Key") for span in spans_of(cell)]
    wanted = configuration_keys()
    assert {name: sorted(keys) for name, keys in told.items()} == {
        name: sorted(wanted[name]) for name in wanted
    }


def test_the_defaults_of_keys_are_those_of_the_daemon() -> None:
    shown = {"none": "<empty>", "empty": "<empty>", "`false`": "0", "`0`": "<empty>"}
    for table in page("docs/configuration.md").tables:
        section = SECTION.match(table.heading)
        for key, _, default, _ in table.rows if section else ():
            if default == "**required**":
                continue
            assert section
            wanted = shown.get(default, default.strip('`"'))
            assert DEFAULTS[(section.group(1), key.strip("`"))] == wanted, key


FILES = ("snmp.conf",)  # what looks like a key


@EVERY_PAGE
def test_every_key_that_a_page_names_exists(each: Page) -> None:
    keys = configuration_keys()
    spans = [span for span in each.spans if span not in FILES]
    named = [
        (match.group(1), match.group(2)) for span in spans if (match := re.fullmatch(r"(\w+)\.(\w+)", span))
    ]
    pairs = [pair for pair in named if pair[0] in keys]
    pairs += [(section, key) for key, section in re.findall(r"`(\w+)` (?:of|in) `\[(\w+)\]`", each.prose)]
    pairs += re.findall(r"`\[(\w+)\]` `(\w+)`", each.prose)
    for table in each.tables:
        if "section" in table.columns and "`.toml`" in table.columns:
            rows = zip(table.column("section"), table.column("`.toml`"), strict=True)
            pairs += [(section.strip("`[]"), key.strip("`")) for section, key in rows]
    assert [pair for pair in pairs if pair[1] not in keys.get(pair[0], [])] == []
    sections = [match.group(1) for span in spans if (match := re.fullmatch(r"\[(\w+)\]", span))]
    assert [name for name in sections if name not in (*keys, "aux", "section")] == []


@EVERY_PAGE
def test_every_configuration_that_a_page_shows_is_known_to_the_daemon(each: Page) -> None:
    keys = configuration_keys()
    for block in each.blocks:
        if block.language != "toml":
            continue
        for section, entries in tomllib.loads(block.text).items():
            known = ["includes"] if section == "aux" else keys[section]
            assert [key for key in entries if key not in known] == [], f"line {block.line}"


def test_the_packages_example_has_every_key() -> None:
    command = ["/usr/bin/python3", "-B", "packaging/example.py", "docs/configuration.md"]
    example = subprocess.run(command, cwd=REPOSITORY, stdout=subprocess.PIPE, text=True, check=True).stdout
    every = tomllib.loads(re.sub(r"^#(?=\w+ = )", "", example, flags=re.MULTILINE))
    wanted = configuration_keys()
    assert {name: sorted(keys) for name, keys in every.items()} == {
        name: sorted(wanted[name]) for name in wanted
    }


# --- topics ---


def shown_topics(text: str) -> list[str]:
    return [
        span.replace("<MAC>", "<mac>") for span in spans_of(text) if re.match(r"(?:gateway|api)/[\w<]", span)
    ]


def test_the_map_of_topics_is_that_of_the_daemon() -> None:
    (table,) = [each for each in page("docs/integration.md").tables if each.columns[0] == "Topic"]
    assert set(shown_topics(" ".join(table.column("Topic")))) == topics()
    for dialect in DIALECTS:
        of_tests = {dialect.uplink, dialect.downlink, dialect.statistics, dialect.ack} - {""}
        assert {topic.replace("0102030405abcdef", "<mac>") for topic in of_tests} <= topics()


@EVERY_PAGE
def test_every_topic_that_a_page_names_is_the_daemons(each: Page) -> None:
    unknown = []
    for topic in shown_topics(each.prose):
        start = topic.removesuffix("...")
        if topic not in topics() and not (
            start != topic and any(known.startswith(start) for known in topics())
        ):
            unknown.append(topic)
    assert unknown == []


def test_quality_of_service_is_as_the_map_says() -> None:
    (table,) = [each for each in page("docs/integration.md").tables if each.columns[0] == "Topic"]
    for sender, quality in zip(table.column("Published by"), table.column("QoS"), strict=True):
        assert quality == ("" if not sender else "1" if sender == "gateway" else "2")
    assert "static constexpr int PUBLISH_QOS = 1;" in source_text()
    assert "static constexpr int SUBSCRIBE_QOS = 2;" in source_text()


# --- lines of the log ---


@cache
def log_texts() -> set[LogText]:
    program = Program(REPOSITORY / "src")
    return set().union(*(program.texts(level) for level in LEVELS))


@cache
def lines_of_log_page() -> dict[str, set[str]]:
    """The lines that it tells, each with the headings of its sections."""
    told: dict[str, set[str]] = {}
    listed = {line for block in LOG_PAGE.blocks if block.language == "text" for line in block.lines}
    heading = ""
    for line in LOG_PAGE.lines:
        if line.startswith("## "):
            heading = anchor_of(line[3:])
        spans = (
            [span for span in spans_of(line.split("|")[1]) if not span.endswith(".cpp")]
            if line[:1] == "|"
            else []
        )
        for shown in spans + ([line] if line in listed else []):
            told.setdefault(squeezed(shown), set()).add(heading)
    return told


def test_every_error_line_is_told_and_no_other() -> None:
    told = lines_of_log_page()
    errors = {each.text for each in log_texts() if each.level == "ERROR"}
    found = {text: [line for line in told if pattern_of(text).fullmatch(line)] for text in errors}
    assert sorted(text for text, lines in found.items() if not lines) == [], "the page lacks them"
    assert sorted(set(told) - set().union(*found.values())) == [], "no source has them"


def test_the_file_of_an_error_line_leads_to_its_section() -> None:
    (table,) = [each for each in LOG_PAGE.tables if each.columns[0] == "File in the line"]
    sections = {
        file: set(re.findall(r"\(#([\w-]+)\)", row[1])) for row in table.rows for file in spans_of(row[0])
    }
    anywhere = {"no-failure", "out-of-memory", "faults-of-the-daemon", "not-in-use"}
    told = lines_of_log_page()
    lost = []
    for each in log_texts():
        if each.level != "ERROR":
            continue
        headings = set().union(*(told[line] for line in told if pattern_of(each.text).fullmatch(line)))
        if not headings & (sections.get(each.file, set()) | anywhere):
            lost.append(f"{each.file}: {each.text} stands in {sorted(headings)}")
    assert lost == []


@EVERY_PAGE
def test_lines_that_a_page_shows_with_a_level_have_it(each: Page) -> None:
    wrong = []
    for table in each.tables:
        if "Line" not in table.columns or "Level" not in table.columns:
            continue
        for cell, level in zip(table.column("Line"), table.column("Level"), strict=True):
            for line in spans_of(cell):
                known = {text.level for text in log_texts() if pattern_of(text.text).fullmatch(line)}
                if level not in known:
                    wrong.append(f"{line}: {level}, not {sorted(known)}")
    assert wrong == []


def test_lines_to_look_for_in_trouble_exist() -> None:
    (table,) = [each for each in page("docs/operations.md").tables if each.heading == "Troubleshooting"]
    spans = [span for cell in table.column("Look for") for span in spans_of(cell) if span[0] not in "-/"]
    texts = {each.text for each in log_texts()}
    assert len(spans) > 10
    lost = [span for span in spans if not any(pattern_of(text).fullmatch(span) for text in texts)]
    assert lost == []


# --- names of the sources ---


def names_in(text: str) -> list[str]:
    """Words that only a program has; the names of datagrams are the protocol's."""
    return [
        word for word in re.findall(r"[A-Za-z_]\w*", text) if "_" in word.strip("_") and not word.isupper()
    ]


def test_architecture_names_what_there_is() -> None:
    architecture = page("docs/architecture.md")
    unknown = [span for span in architecture.spans if not is_known_to_sources(span)]
    diagrams = "\n".join(block.text for block in architecture.blocks)
    unknown += [word for word in names_in(diagrams) if word not in source_words()]
    assert unknown == []


def is_known_to_sources(span: str) -> bool:
    if is_path_here(span):
        return True
    if is_word(span) and re.fullmatch(r"\w+", span):
        return span in source_words()
    return span in source_text()


PATH = re.compile(
    r"(?:src|tests|lab|docs|fuzz|bench|scripts)/[\w./*-]+|[\w.-]+\.(?:cpp|h|py|md|txt|json|sh)|\.ci/run"
)


@EVERY_PAGE
def test_every_file_that_a_page_names_exists(each: Page) -> None:
    """But for files of the gateway and of examples, which have no folder of the repository."""
    missing = []
    for span in each.spans:
        if PATH.fullmatch(span) and span.split("/")[0] in (
            "src",
            "tests",
            "lab",
            "docs",
            "fuzz",
            "bench",
            "scripts",
        ):
            missing += [] if list(REPOSITORY.glob(span)) else [span]
        elif re.fullmatch(r"\w+\.(?:cpp|h)", span) and not is_path_here(span):
            missing.append(span)
    assert [name for name in missing if "plain" not in name and "-site" not in name] == []


def test_every_example_of_a_message_has_a_name() -> None:
    bare = [
        f"{name}:{block.line}"
        for name in MESSAGES
        for block in page(name).blocks
        if block.language == "json" and not block.example
    ]
    assert bare == []

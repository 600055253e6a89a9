"""The package under test, and places to install it in. Whatever a test makes is gone when it ends."""

from __future__ import annotations

import contextlib
import itertools
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator

import pytest

from scratch import REPOSITORY, Root, base_root, run


@dataclass(frozen=True)
class Package:
    path: Path
    content: Path  # unpacked

    def field(self, name: str) -> str:
        return run("dpkg-deb", "--field", self.path, name).stdout.strip()

    @property
    def architecture(self) -> str:
        return self.field("Architecture")

    @property
    def is_native(self) -> bool:
        return self.architecture == run("dpkg", "--print-architecture").stdout.strip()

    @property
    def daemon(self) -> Path:
        return self.content / "usr/sbin/snv_mqtt_bridge"


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--package", type=Path, required=True, help="the package to be tested")


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """A package for another processor is not installed here: its tests are those of its content and the
    emulated ones."""
    native = run("dpkg", "--print-architecture").stdout.strip()
    given = run("dpkg-deb", "--field", config.getoption("--package"), "Architecture").stdout.strip()
    unwanted = {"native"} if given != native else {"foreign"}
    left_out = [item for item in items if unwanted & {mark.name for mark in item.iter_markers()}]
    items[:] = [item for item in items if item not in left_out]
    config.hook.pytest_deselected(items=left_out)


@pytest.fixture(scope="session")
def package(pytestconfig: pytest.Config, tmp_path_factory: pytest.TempPathFactory) -> Package:
    path = pytestconfig.getoption("--package").resolve()
    content = tmp_path_factory.mktemp("package")
    run("dpkg-deb", "--raw-extract", path, content)
    return Package(path, content)


@pytest.fixture(scope="session")
def base() -> Path:
    return base_root(REPOSITORY / "build-package" / "roots")


@pytest.fixture(scope="module")
def make_root(base: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Callable[[], Root]]:
    roots: list[Root] = []
    numbers = itertools.count()

    def make() -> Root:
        root = Root(base, tmp_path_factory.mktemp("scratch") / str(next(numbers)))
        roots.append(root)
        return root

    yield make
    with contextlib.ExitStack() as closing:  # all of them, whatever one complains of
        for root in roots:
            closing.callback(root.close)


@pytest.fixture
def root(make_root: Callable[[], Root]) -> Root:
    """An empty one for this test."""
    return make_root()

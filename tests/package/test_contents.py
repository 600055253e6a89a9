"""The package as a file: for any processor."""

from __future__ import annotations

import gzip
import re
from pathlib import Path

import pytest

from conftest import Package
from contents import DOC, listing, needed_libraries, plain_bytes, rendered
from scratch import REPOSITORY, run

FOLDER = ("drwxr-xr-x", "root/root")
FILE = ("-rw-r--r--", "root/root")
PROGRAM = ("-rwxr-xr-x", "root/root")
PRIVATE = ("drwx------", "root/root")
LOADED = "libcurl.so.4"  # by a job that needs it

FILES = {
    "./etc/logrotate.d/snv-mqtt-bridge": FILE,
    "./etc/snv-mqtt-bridge/": PRIVATE,
    "./lib/systemd/system/snv-mqtt-bridge.service": FILE,
    "./usr/lib/firmware/opkg/": FOLDER,
    "./usr/lib/tmpfiles.d/snv-mqtt-bridge.conf": FILE,
    "./usr/sbin/snv_mqtt_bridge": PROGRAM,
    f"{DOC}/changelog.gz": FILE,
    f"{DOC}/copyright": FILE,
    f"{DOC}/examples/bridge.toml": FILE,
    f"{DOC}/examples/snv-mqtt-bridge-watch.service": FILE,
    f"{DOC}/examples/without-control-plane.conf": FILE,
    **{f"{DOC}/{path.name}": FILE for path in (REPOSITORY / "docs").glob("*.md")},
    "./usr/share/lintian/overrides/snv-mqtt-bridge": FILE,
    "./usr/share/man/man5/snv_mqtt_bridge.toml.5.gz": FILE,
    "./usr/share/man/man8/snv_mqtt_bridge.8.gz": FILE,
    "./usr/share/snv-mqtt-bridge/scripts/": FOLDER,
}


def test_holds_its_files_and_no_others(package: Package) -> None:
    found = listing(package.path)
    for path in FILES:
        for parent in list(Path(path).parents)[:-1]:
            assert found.pop(f"./{parent}/", FOLDER) == FOLDER
    assert found == FILES


def test_the_package_checker_has_nothing_to_say(package: Package) -> None:
    done = run("lintian", "--allow-root", "--fail-on", "error,warning", package.path, check=False)
    assert (done.returncode, done.stdout) == (0, "")


def test_nothing_tells_where_it_was_built(package: Package) -> None:
    places = [str(REPOSITORY), "/build-package/", "/build-armhf/", "/sysroot/"]
    files = [path for path in package.content.rglob("*") if path.is_file()]
    assert files
    for path in files:
        told = [place for place in places if place.encode() in plain_bytes(path)]
        assert not told, f"{path} tells {told}"


def test_the_changelog_is_of_this_version(package: Package) -> None:
    changelog = gzip.decompress((package.content / DOC / "changelog.gz").read_bytes()).decode()
    version = package.field("Version")
    assert changelog.startswith(f"snv-mqtt-bridge ({version}) ")
    assert f"VERSION {version} " in (REPOSITORY / "CMakeLists.txt").read_text()


def test_depends_on_the_packages_of_its_libraries(package: Package, base: Path) -> None:
    depends = {word.split(" ")[0] for word in package.field("Depends").split(", ")}
    libraries = [name for name in needed_libraries(package.daemon) if not name.startswith("ld-linux")]
    assert len(libraries) > 5
    assert LOADED.encode() in package.daemon.read_bytes()
    assert LOADED not in libraries
    libraries.append(LOADED)
    owners = {
        run("dpkg-query", f"--root={base}", "--search", f"*/{name}").stdout.split(":")[0]
        for name in libraries
    }
    assert owners == depends


def test_the_c_library_is_new_enough(package: Package) -> None:
    """Found for this processor's own daemon: the dependencies may be those of another one."""
    told = run("readelf", "--version-info", "--wide", package.daemon).stdout
    wanted = max(tuple(map(int, version.split("."))) for version in re.findall(r"GLIBC_([\d.]+)", told))
    demanded = re.findall(r"libc6 \(>= ([\d.]+)\)", package.field("Depends"))
    assert [wanted] <= [tuple(map(int, version.split("."))) for version in demanded]


@pytest.mark.parametrize("page", ["man8/snv_mqtt_bridge.8.gz", "man5/snv_mqtt_bridge.toml.5.gz"])
def test_a_manual_page_renders(package: Package, page: str) -> None:
    text = rendered(package.content / "usr/share/man" / page)
    title = Path(page).name.removesuffix(".gz").replace("bridge.8", "bridge(8)").replace("toml.5", "toml(5)")
    assert text.splitlines()[0].split()[0] == title
    for leftover in ("**", "](", "@", "| "):
        assert leftover not in text
    assert re.search(r"^SEE ALSO$", text, re.MULTILINE)
    assert package.field("Version") in text.splitlines()[-1]

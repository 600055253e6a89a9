"""The stand-in of the upgrade utility, where a daemon in its sandbox finds it."""
import shutil
from pathlib import Path

from harness.bridge import REPOSITORY

NAME = "sarnivel-dist-upgrade"
STANDARD_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"


class UpgradeUtility:
    """Steered by the files that the stand-in tells of."""

    def __init__(self, work: Path) -> None:
        """`work` is the daemon's own folder."""
        programs = work / "programs"
        programs.mkdir(parents=True)
        self.program = programs / NAME
        shutil.copy(REPOSITORY / "lab" / "scripts" / NAME, self.program)
        self.folder = work / "upgrade"
        self.folder.mkdir()
        self.env = {"PATH": f"{programs}:{STANDARD_PATH}", "DIST_UPGRADE_DIR": str(self.folder)}

    def tell(self, **files: str) -> None:
        for name, text in files.items():
            (self.folder / f"{name}.new").write_text(text)
            (self.folder / f"{name}.new").rename(self.folder / name)

    def forget(self, *names: str) -> None:
        for name in names:
            (self.folder / name).unlink()

    def start_again(self) -> None:
        """With nothing known, and one upgrade to be had."""
        for path in self.folder.iterdir():
            path.unlink()
        self.tell(available="3.4.0 3.5.1\n")

    def let_go(self) -> None:
        """Also at the end of a test that has failed: a call that is held outlives its daemon."""
        (self.folder / "busy").unlink(missing_ok=True)

    def calls(self) -> list[str]:
        path = self.folder / "calls"
        return path.read_text().splitlines() if path.exists() else []

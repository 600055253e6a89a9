"""The reference of all commands in docs/commands.md, made from their table. Run as a program, it writes it anew:
/usr/bin/python3 -B -m lab.operations.reference"""

from __future__ import annotations

from pathlib import Path

from .commands import COMMANDS, Command, Param

PAGE = Path(__file__).resolve().parents[2] / "docs" / "commands.md"
BEGIN, END = "<!-- all commands: begin -->\n", "<!-- all commands: end -->\n"


def _shown(param: Param) -> str:
    notes = [param.kind, *([] if param.required else ["optional"]), *(["beside `params`"] if param.beside else [])]
    return f"`{param.name}` ({', '.join(notes)})"


def _row(number: int, command: Command) -> str:
    params = ", ".join(map(_shown, command.params)) or (f"{command.bare} in place of an object" if command.bare else "")
    return f"| {number} | `{command.name}` | {command.role} | {params} | {'twice' if command.late else ''} |"


def reference() -> str:
    head = ["| | Command | What it does | `params` | Answered |", "|---|---|---|---|---|"]
    return "\n".join([*head, *(_row(number, command) for number, command in enumerate(COMMANDS, 1))]) + "\n"


def split_page() -> tuple[str, str, str]:
    """What stands before, between and behind the marks."""
    before, _, rest = PAGE.read_text().partition(BEGIN)
    between, _, behind = rest.partition(END)
    return before, between, behind


def main() -> None:
    before, _, behind = split_page()
    PAGE.write_text(before + BEGIN + reference() + END + behind)


if __name__ == "__main__":
    main()

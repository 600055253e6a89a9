"""Whole exchanges of several commands: a file sent in chunks inside requests, and the retrieval of logs."""

from __future__ import annotations

import argparse
import base64
from pathlib import Path
from typing import Any, Iterator

from .transfers import Exchange, Failed, Progress, take, transfer

PIECE = 48 * 1024  # 64 KiB as text
LOGS, COPIES = "logs", "logs_bkp"
COPIED = (".log", ".gz")


def text_length(size: int) -> int:
    return (size + 2) // 3 * 4


def texts_of(file: Path) -> Iterator[tuple[int, str]]:
    """Each piece's size, and the piece as text."""
    with file.open("rb") as source:
        while piece := source.read(PIECE):
            yield len(piece), base64.b64encode(piece).decode()


def send_file(exchange: Exchange, options: argparse.Namespace) -> str:
    file, count = Path(options.file), 0
    size = file.stat().st_size
    if size == 0:
        raise Failed("there is nothing in it")
    pieces, rest = divmod(size, PIECE)
    params = {
        "isModemFw": False,
        "name": options.path,
        "size": size,
        "b64ChunkLength": text_length(min(size, PIECE)),
        "b64TotalLength": pieces * text_length(PIECE) + text_length(rest),
    }
    progress = Progress(size)
    exchange.ask("fileUploadStart", params)
    for length, text in texts_of(file):
        exchange.ask("fileUploadChunk", {"data": text})
        count += length
        progress.show(count)
    told = progress.end()
    exchange.ask("fileUploadStop", {"decompress": options.decompress})
    return f"{count} bytes, {told}"


def upload(options: argparse.Namespace) -> int:
    options.path = options.name or Path(options.file).name
    return transfer(options, lambda exchange: send_file(exchange, options))


def entries_of(exchange: Exchange, path: str) -> dict[str, int]:
    """Names and sizes of the files there."""
    _, response = exchange.ask("fopsScanDir", {"path": path})
    return {entry["name"]: entry["size"] for entry in response["entries"] if entry["type"] == "file"}


def keep_copy(exchange: Exchange, listen: str, name: str, size: int, target: Path) -> str:
    if size == 0:
        target.write_bytes(b"")
        return "0 bytes"
    path = f"{COPIES}/{name}"
    return take(exchange, argparse.Namespace(path=path, offset=0, size=size, to=str(target), listen=listen))


def keep_copies(exchange: Exchange, options: argparse.Namespace, folder: Path) -> str:
    copies = entries_of(exchange, COPIES)
    for name, size in copies.items():
        told = keep_copy(exchange, options.listen, name, size, folder / Path(name).name)
        print(f"{name}: {told}", flush=True)
    return f"{len(copies)} files, {sum(copies.values())} bytes"


def retrieve(exchange: Exchange, options: argparse.Namespace) -> str:
    """The gateway keeps copies meanwhile, so that no rotation takes a file away."""
    names = [name for name in entries_of(exchange, LOGS) if name.endswith(COPIED)]
    if not names:
        raise Failed("there are none")
    folder = Path(options.folder)
    folder.mkdir(parents=True, exist_ok=True)
    exchange.ask("logRetrieveStart", {"requiredFiles": [f"{LOGS}/{name}" for name in names]})
    try:
        return keep_copies(exchange, options, folder)
    finally:
        exchange.ask("logRetrieveStop", {})


def logs(options: argparse.Namespace) -> int:
    options.path = LOGS
    return transfer(options, lambda exchange: retrieve(exchange, options))


def add_verbs(commands: Any) -> None:
    sending = commands.add_parser("upload", help="send a file in chunks inside requests")
    sending.add_argument("file", metavar="FILE")
    sending.add_argument("--name", default="", help="for the gateway, which places it by its name (its own)")
    sending.add_argument("--decompress", action="store_true", help="have it unpacked as firmware")
    sending.set_defaults(command=upload)
    retrieving = commands.add_parser("logs", help="have all logs streamed here, and keep them")
    retrieving.add_argument("folder", metavar="DIR", nargs="?", default=".", help="where to keep them (here)")
    retrieving.add_argument(
        "--listen",
        metavar="ADDRESS",
        default="127.0.0.1",
        help="of this side, for the gateway (127.0.0.1)",
    )
    retrieving.set_defaults(command=logs)

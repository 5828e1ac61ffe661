# SPDX-License-Identifier: Apache-2.0
"""Files that are either there as a whole or not at all, also after a crash of the machine."""

import os
from pathlib import Path
from typing import Callable

_UNFINISHED = ".unfinished"


def write_whole(file: Path, write: Callable[[str], None]) -> int:
    """@param write  writes the file of the name that it is given.

    @returns the size in bytes. @raises OSError  nothing is left behind then.
    """
    unfinished = file.with_name(file.name + _UNFINISHED)
    try:
        write(str(unfinished))
        with open(unfinished, "rb+") as stream:
            os.fsync(stream.fileno())
            size = os.fstat(stream.fileno()).st_size
        os.replace(unfinished, file)
    except BaseException:
        unfinished.unlink(missing_ok=True)
        raise
    sync_folder(file.parent)
    return size


def write_text(file: Path, text: str) -> int:
    """As `write_whole`."""
    def write(name: str) -> None:
        with open(name, "w", encoding="utf-8", newline="") as stream:
            stream.write(text)

    return write_whole(file, write)


def sync_folder(folder: Path) -> None:
    """Makes new names in it last."""
    descriptor = os.open(folder, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)

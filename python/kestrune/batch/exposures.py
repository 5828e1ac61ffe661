# SPDX-License-Identifier: Apache-2.0
"""Where exposures come from: patterns of file names, tables, generators. Taken one by one: memory stays flat."""

import csv
import glob
import operator
import os
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterable, Iterator, Optional, Tuple

from kestrune import InputError

_UTF8 = "utf-8"


@dataclass(frozen=True)
class Exposure:
    """Two image files taken at the same time. An empty name becomes the stem of the left file."""

    left: str
    right: str
    name: str = ""


def plain(text: str) -> str:
    """The text with bytes that are no UTF-8 replaced: file names may hold any, tables and the journal may not."""
    return text.encode(_UTF8, "surrogateescape").decode(_UTF8, "replace")


def take(source: Any) -> Tuple[Iterator[Exposure], Optional[int]]:
    """The exposures of `source` with absolute file names, and how many they are where that is known beforehand.

    @raises InputError  here for patterns and tables that cannot be used, later for an item that is no exposure.
    """
    names = (str, os.PathLike)
    if isinstance(source, names):
        return _from_csv(Path(source)), None
    if hasattr(source, "columns") and hasattr(source, "itertuples"):
        return _from_frame(source), len(source)
    if isinstance(source, (tuple, list)) and len(source) == 2 and all(isinstance(s, names) for s in source):
        return _from_patterns(os.fspath(source[0]), os.fspath(source[1]))
    return (_from_item(item, place) for place, item in enumerate(source)), operator.length_hint(source, 0) or None


def _exposure(left: Any, right: Any, name: Any = "") -> Exposure:
    return Exposure(os.path.abspath(os.fspath(left)), os.path.abspath(os.fspath(right)), str(name) or Path(left).stem)


def _from_patterns(left: str, right: str) -> Tuple[Iterator[Exposure], int]:
    files = [sorted(glob.glob(pattern, recursive=True)) for pattern in (left, right)]
    for pattern, found in zip((left, right), files):
        if not found:
            raise InputError(f"{pattern}: no file has such a name")
    if len(files[0]) != len(files[1]):
        raise InputError(f"{left}, {right}: {len(files[0])} left and {len(files[1])} right images are no pairs")
    return map(_exposure, *files), len(files[0])


def _check_columns(table: str, columns: Iterable[str]) -> None:
    missing = [name for name in ("left", "right") if name not in columns]
    if missing:
        raise InputError(f"{table}: has no column {' and none '.join(missing)}")


def _from_frame(frame: Any) -> Iterator[Exposure]:
    _check_columns("the table", list(frame.columns))
    columns = [frame[name] for name in ("left", "right", "name") if name in frame.columns]
    return (_from_item(row if len(row) == 2 else (row[2], row[0], row[1]), place) for place, row in
            enumerate(zip(*columns)))


def _from_csv(file: Path) -> Iterator[Exposure]:
    try:
        stream = open(file, newline="", encoding="utf-8-sig", errors="surrogateescape")
    except OSError as error:
        raise InputError(f"{file}: {error.strerror}") from error
    rows = csv.DictReader(stream)
    try:
        _check_columns(str(file), rows.fieldnames or [])
    except BaseException:
        stream.close()
        raise

    def exposures() -> Iterator[Exposure]:
        with stream:
            for row in rows:
                if not row["left"] or not row["right"]:
                    raise InputError(f"{file}:{rows.line_num}: needs a left and a right image")
                yield _exposure(row["left"], row["right"], row.get("name") or "")

    return exposures()


def _from_item(item: Any, place: int) -> Exposure:
    try:
        if isinstance(item, Exposure):
            return _exposure(item.left, item.right, item.name)
        if isinstance(item, str):
            raise TypeError
        parts = tuple(item)
        if len(parts) == 2:
            return _exposure(*parts)
        name, left, right = parts
        return _exposure(left, right, name if isinstance(name, str) and name else "")
    except (TypeError, ValueError):
        raise InputError(f"exposure {place}: {item!r} is neither (left, right) nor (name, left, right)") from None

# SPDX-License-Identifier: Apache-2.0
"""The tables on disk: parts, each with a file in `exposures` and one in `points`; CSV, or Parquet by pyarrow."""

import importlib
import importlib.util
import re
from pathlib import Path
from typing import Any, Dict, List, NamedTuple, Sequence, Tuple

import numpy as np

from kestrune import InputError, Points, RefinedPoints, TrustedPoints

from .files import write_text, write_whole
from .record import ROW_COLUMNS, Record, csv_row

CSV, PARQUET = "csv", "parquet"
TABLES = ("exposures", "points")
_KINDS = {"pair": int, "leftStatus": str, "rightStatus": str, "pointSource": str}  # of columns of points; others: float
_NAME = re.compile(r"part-(\d{6,})\.\w+(\.unfinished)?")


class Layout(NamedTuple):
    """What the parts of a run are like."""

    format: str
    refined: bool = False
    trusted: bool = False

    def columns(self, table: str) -> List[Tuple[str, type]]:
        if table == TABLES[0]:
            return ROW_COLUMNS
        points: Any = TrustedPoints if self.trusted else RefinedPoints if self.refined else Points
        return [("exposure", str), *((name, _KINDS.get(name, float)) for name in points.columns)]


def best_format() -> str:
    return PARQUET if importlib.util.find_spec("pyarrow") else CSV


def part_file(folder: Path, table: str, number: int, layout: Layout) -> Path:
    return folder / table / f"part-{number:06d}.{layout.format}"


def write_part(folder: Path, number: int, layout: Layout, records: Sequence[Record]) -> Tuple[int, int]:
    """@returns the sizes of the two files in bytes. @raises OSError"""
    rows, points = (part_file(folder, table, number, layout) for table in TABLES)
    if layout.format == CSV:
        heads = [",".join(name for name, _ in layout.columns(table)) + "\n" for table in TABLES]
        return (write_text(rows, heads[0] + "".join(csv_row(r.row) for r in records)),
                write_text(points, heads[1] + "".join(r.lines for r in records)))
    columns = {name: np.array([getattr(r.row, name) for r in records], _dtype(kind)) for name, kind in ROW_COLUMNS}
    return _write_parquet(rows, columns), _write_parquet(points, _point_columns(records, layout))


def _dtype(kind: type) -> Any:
    return {str: object, int: np.int32, float: np.float64}[kind]


def _point_columns(records: Sequence[Record], layout: Layout) -> Dict[str, Any]:
    good = [r for r in records if r.array is not None]
    names = np.array([r.row.exposure for r in good], object)
    columns: Dict[str, Any] = {"exposure": names.repeat([r.row.pairs for r in good])}
    for name, kind in layout.columns(TABLES[1])[1:]:
        columns[name] = np.concatenate([r.array[name] for r in good if r.array is not None] or [np.empty(0)]).astype(
            _dtype(kind))
    return columns


def _write_parquet(file: Path, columns: Dict[str, Any]) -> int:
    arrow, parquet = importlib.import_module("pyarrow"), importlib.import_module("pyarrow.parquet")
    arrays = {name: arrow.array(values, arrow.string()) if values.dtype == object else arrow.array(values)
              for name, values in columns.items()}

    def write(name: str) -> None:
        parquet.write_table(arrow.table(arrays), name)

    return write_whole(file, write)


def empty(table: str, layout: Layout) -> "np.ndarray[Any, Any]":
    """A table without rows."""
    return np.empty(0, [(name, _dtype(kind)) for name, kind in layout.columns(table)])


def read_part(folder: Path, table: str, number: int, layout: Layout) -> "np.ndarray[Any, Any]":
    """A structured array. @raises InputError  where the part cannot be read."""
    file = part_file(folder, table, number, layout)
    dtype = empty(table, layout).dtype
    try:
        if layout.format == PARQUET:
            content = importlib.import_module("pyarrow.parquet").read_table(str(file))
            result: "np.ndarray[Any, Any]" = np.empty(content.num_rows, dtype)
            for name in result.dtype.names or ():
                result[name] = content[name].to_numpy()
            return result
        numbers: Any = {place: _number for place, (_, kind) in enumerate(layout.columns(table)) if kind is float}
        with open(file, encoding="utf-8", newline="") as stream:
            if not stream.readline() or stream.read(1) == "":
                return empty(table, layout)
            stream.seek(0)
            rows: "np.ndarray[Any, Any]" = np.loadtxt(stream, dtype, delimiter=",", skiprows=1, quotechar='"',
                                                      comments=None, converters=numbers, ndmin=1)
            return rows
    except (OSError, ValueError, ImportError) as error:
        raise InputError(f"{file}: {error}") from error


def _number(text: str) -> float:
    return float(text) if text else np.nan


def remove_unknown(folder: Path, known: "set[int]") -> None:
    """Removes parts that were not finished, or finished but not journalled; other files stay."""
    for table in TABLES:
        for file in (folder / table).iterdir():
            match = _NAME.fullmatch(file.name)
            if match and (match[2] or int(match[1]) not in known):
                file.unlink()

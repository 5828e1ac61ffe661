# SPDX-License-Identifier: Apache-2.0
"""What one exposure gives: a row of the table of exposures and its rows of the table of points, as they travel."""

from dataclasses import astuple, dataclass, fields
from math import nan, sqrt
from typing import Any, List, Optional, Tuple, get_type_hints

import numpy as np

from kestrune import _native

from .exposures import Exposure, plain

OK, FAILED = "ok", "failed"


@dataclass
class Row:
    """One row of the table of exposures. Residuals are root mean squares in px over the pairs, NaN without any."""

    exposure: str
    left: str
    right: str
    status: str = FAILED
    reason: str = ""
    warning: str = ""
    leftMarkers: int = 0
    rightMarkers: int = 0
    pairs: int = 0
    leftUnmatched: int = 0
    rightUnmatched: int = 0
    rowResidual: float = nan
    leftResidual: float = nan
    rightResidual: float = nan


@dataclass
class Record:
    """An exposure's row, and its points: lines of CSV (what a run writes as CSV) or the array itself."""

    row: Row
    lines: str = ""
    array: Optional[np.ndarray[Any, Any]] = None


ROW_COLUMNS: List[Tuple[str, type]] = [(f.name, get_type_hints(Row)[f.name]) for f in fields(Row)]
RESIDUALS = ("rowResidual", "leftResidual", "rightResidual")


def failed(exposure: Exposure, reason: str) -> Record:
    """@param reason  becomes one line of UTF-8."""
    text = plain(" ".join(reason.split()))
    return Record(Row(plain(exposure.name), plain(exposure.left), plain(exposure.right), reason=text))


def measured(exposure: Exposure, points: Any, as_lines: bool) -> Record:
    """@param points  kestrune.Points; where it has a failure, its pairs are counted but not kept."""
    record = failed(exposure, points.failure)
    row, array = record.row, points.array
    row.status = FAILED if points.failure else OK
    row.warning = plain(" ".join(points.warning.split()))
    row.leftMarkers, row.rightMarkers = (int(n) for n in points.found)
    row.leftUnmatched, row.rightUnmatched = (len(eye) for eye in points.unmatched)
    row.pairs = len(array)
    if row.pairs:
        for name in RESIDUALS:
            setattr(row, name, sqrt(sum(v * v for v in array[name].tolist()) / row.pairs))
    if not points.failure:
        record.lines = csv_lines(row.exposure, array) if as_lines else ""
        record.array = None if as_lines else array
    return record


def csv_field(text: str) -> str:
    """Quoted where it has to be."""
    return '"' + text.replace('"', '""') + '"' if any(c in text for c in ',"\r\n') else text


def csv_number(value: float) -> str:
    """The shortest decimals that give the same number again; 2 and not 2.0; NaN is an empty field."""
    text = repr(value)
    return "" if text == "nan" else text[:-2] if text.endswith(".0") else text


def csv_row(row: Row) -> str:
    """Of the table of exposures."""
    return ",".join(csv_field(v) if isinstance(v, str) else csv_number(v) for v in astuple(row)) + "\n"


def csv_lines(exposure: str, array: "np.ndarray[Any, Any]") -> str:
    """Lines of the table of points, numbers as `csv_number` writes them."""
    return _native.csv_lines(csv_field(exposure), array)

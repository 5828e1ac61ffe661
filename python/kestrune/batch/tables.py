# SPDX-License-Identifier: Apache-2.0
"""The tables of a run, read back."""

import importlib
from pathlib import Path
from typing import Any, Dict, List, NamedTuple

import numpy as np

from .folder import JOURNAL, read_run
from .journal import order_of
from .parts import empty, read_part


class Tables(NamedTuple):
    """DataFrames where pandas is there, structured arrays otherwise; rows in the order of the exposures."""

    points: Any
    exposures: Any


def read(out: Any) -> Tables:
    """Both tables of the folder, as far as they are journalled; a run may go on meanwhile.

    Raises kestrune.InputError where the folder holds no run.
    """
    folder = Path(out)
    layout, _ = read_run(folder)
    parts, places = order_of(folder / JOURNAL)

    def table(name: str) -> Any:
        arrays = [read_part(folder, name, number, layout) for number in parts]
        return _frame(_in_order(arrays or [empty(name, layout)], places))

    return Tables(table("points"), table("exposures"))


def _in_order(arrays: "List[np.ndarray[Any, Any]]", places: Dict[str, int]) -> "np.ndarray[Any, Any]":
    whole: "np.ndarray[Any, Any]" = np.concatenate(arrays)
    at = np.fromiter((places[name] for name in whole["exposure"]), np.int64, len(whole))
    ordered: "np.ndarray[Any, Any]" = whole[np.argsort(at, kind="stable")]
    return ordered


def _frame(array: "np.ndarray[Any, Any]") -> Any:
    try:
        pandas = importlib.import_module("pandas")
    except ImportError:
        return array
    return pandas.DataFrame({name: array[name] for name in array.dtype.names or ()})

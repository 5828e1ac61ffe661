# SPDX-License-Identifier: Apache-2.0
"""Finds small flat circular markers in images of a calibrated camera pair, and measures them in space.

    >>> import kestrune
    >>> settings = kestrune.Settings.read("examples/settings/bright-complex.yaml")
    >>> extractor = kestrune.Extractor(settings, kestrune.Rig.read("calibration.yaml"))
    >>> points = extractor.stereo(kestrune.read_image("left.png"), kestrune.read_image("right.png"))
    >>> points["X"], points.failure

Begin with :class:`Settings` (how to look), :class:`Rig` (the cameras) and :class:`Extractor`, whose methods are the
operations: ``extract`` (markers of an image), ``explain`` (why something was no marker), ``refine`` (how well one is
known), ``stereo`` (points in space), ``match`` and ``depth``; :func:`match_markers` pairs any two lists of markers that
were measured. Results are tables (:class:`Table`): ``result["x"]`` is a
column, ``result.columns`` tells what each means, ``result.to_pandas()`` makes a DataFrame. ``kestrune.batch`` measures
thousands of exposures.

Fields, columns and settings have the names that they have in C++ and in the program's tables. Everything that travels
between processes can be pickled. What is wrong with an image, file or setting raises :class:`InputError`, a
ValueError.
"""

from __future__ import annotations

import os
from typing import Any, Optional, Tuple

import numpy.typing as npt

from . import _native
from ._native import Corner, Corners, DiscEstimate, InputError, LibraryError, MarkerEstimate, __version__
from .extractor import LEAST_SHARE, REFINE_STEREO, Extractor
from .matching import MATCH_STEREO, Ambiguous, MovedRig, Rivals, StereoMatch, TrustedPoints, match_markers
from .results import (Depths, Estimates, Explanation, Markers, Pairs, Points, RefinedMarkers, RefinedPoints, Table,
                      Unmatched)
from .settings import Field, File, Rig, Settings, setting_fields


def read_image(file: File, *, range: Optional[Tuple[float, float]] = None) -> npt.NDArray[Any]:
    """Reads an image as the program does: grey or BGR, never rotated, uint8, or uint16 and float as the file has it;
    InputError for one that is damaged.

    :param range: (low, high) that become 0 and 255, for uint8 of an image of more bits.
    """
    return _native.read_image(os.fsencode(file), range)


def read_depth(file: File) -> npt.NDArray[Any]:
    """Reads a depth image as it is, uint16 or float32; InputError for one that is damaged, or no depth image."""
    return _native.read_depth(os.fsencode(file))


def write_image(file: File, image: npt.ArrayLike) -> None:
    """Writes an image or a result's picture, uint8 or uint16 (PNG and TIFF), grey or BGR, as the file's extension says.

    What was there stays until all is written. InputError for what is no image or no format, OSError where it fails.
    """
    _native.write_image(os.fsencode(file), image)


def image_size(file: File) -> Tuple[int, int]:
    """(width, height) of an image file, px."""
    return _native.image_size(os.fsencode(file))


def bit_depth(file: File) -> int:
    """8 for an image file of 8 bits or less, else the bits of its samples."""
    return _native.bit_depth(os.fsencode(file))


def set_threads(count: int) -> None:
    """Threads that one call may use in this process: OpenMP's, at least two of OpenCV's. No result depends on it."""
    _native.set_threads(count)


__all__ = [
    "Ambiguous", "Corner", "Corners", "Depths", "DiscEstimate", "Estimates", "Explanation", "Extractor", "Field",
    "InputError", "LEAST_SHARE", "LibraryError", "MATCH_STEREO", "MarkerEstimate", "Markers", "MovedRig", "Pairs",
    "Points", "REFINE_STEREO", "RefinedMarkers", "RefinedPoints", "Rig", "Rivals", "Settings", "StereoMatch", "Table",
    "TrustedPoints", "Unmatched", "__version__", "bit_depth", "image_size", "match_markers", "read_depth", "read_image",
    "set_threads", "setting_fields", "write_image",
]

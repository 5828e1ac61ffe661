# SPDX-License-Identifier: Apache-2.0
"""What the operations give: tables of one row a marker, with everything that is known beside."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, ClassVar, Dict, Iterator, Sequence, Tuple

import numpy as np
import numpy.typing as npt

from ._native import Corner, Corners, DiscEstimate, MarkerEstimate

Array = npt.NDArray[Any]

_ESTIMATE = {
    "status": "refined, or why it was not: no outline, leaves the image, touches another, too faint, not converged, "
              "not a disc",
    "sigmaX": "standard deviation of x, px; of a marker that was not refined, what the path may be off by",
    "sigmaY": "of y, px",
    "covarianceXY": "of x and y, px^2",
    "sigmaMajor": "of the larger half axis, px",
    "sigmaMinor": "of the smaller half axis, px",
    "sigmaAngle": "of the angle, degrees",
    "inside": "level inside the rim, in levels of the image; this and all that follows only of refined markers",
    "sigmaInside": "of the level inside",
    "outside": "level outside the rim",
    "sigmaOutside": "of the level outside",
    "blur": "standard deviation of the Gaussian that blurs the rim, px",
    "sigmaBlur": "of the blur, px",
    "lightDegree": "degree of the polynomial by which the light varies: 0, 1 or 2",
    "noise": "standard deviation of a pixel half way up the rim, levels",
    "residual": "RMS of what the fit leaves about the rim, in units of the noise; 1 for an ideal disc",
    "fitPixels": "that took part in the fit",
}


@dataclass(frozen=True, eq=False)
class Table:
    """Rows of a structured array, with the meaning of each column in ``columns``.

    ``table["x"]`` is a column, ``table[3]`` a row, ``table[mask]`` and ``table[2:5]`` are arrays of rows;
    ``numpy.asarray(table)`` is the array itself. Two tables are equal if every number is and what is told beside, where
    NaN equals NaN; pictures, contours and records do not count.
    """

    array: Array
    columns: ClassVar[Dict[str, str]] = {}
    _beside: ClassVar[Tuple[str, ...]] = ()  # what else must be equal of two that are

    def __len__(self) -> int:
        return len(self.array)

    def __getitem__(self, key: Any) -> Any:
        return self.array[key]

    def __iter__(self) -> Iterator[Any]:
        return iter(self.array)

    def __array__(self, dtype: Any = None, copy: Any = None) -> Array:
        return self.array.astype(dtype or self.array.dtype, copy=bool(copy))

    def __eq__(self, other: object) -> bool:
        if type(other) is not type(self):
            return NotImplemented
        if any(getattr(self, name) != getattr(other, name) for name in self._beside):
            return False
        theirs = other.array  # type: ignore[attr-defined]
        return self.array.dtype.names == theirs.dtype.names and all(
            np.array_equal(self.array[name], theirs[name], equal_nan=self.array[name].dtype.kind == "f")
            for name in self.array.dtype.names or ()
        )

    __hash__ = None  # type: ignore[assignment]

    def to_pandas(self) -> Any:
        """The rows as a ``pandas.DataFrame``. ImportError where pandas is not installed."""
        import pandas  # type: ignore[import]

        return pandas.DataFrame({name: self.array[name] for name in self.array.dtype.names or ()})

    def __repr__(self) -> str:
        return f"<{type(self).__name__}: {len(self)} rows>"


@dataclass(frozen=True, eq=False, repr=False)
class Markers(Table):
    """Markers of one image, in the order of first acceptance.

    NaN stands for what the path does not measure.
    """

    columns: ClassVar[Dict[str, str]] = {
        "id": "place in the list",
        "x": "centre, column, px of the full image; (0, 0) is the centre of the first pixel",
        "y": "centre, row, px",
        "major": "larger half axis of the rim's ellipse, px",
        "minor": "smaller half axis, px",
        "angle": "of the major axis to the x axis, degrees in [0, 180)",
        "area": "product of the full axes, px^2; path fast: area of the contour",
        "eccentricity": "sqrt(a^2 - b^2) / a of the half axes",
        "circularity": "4 pi area / perimeter^2; paths simple and radial",
        "fitError": "RMS distance of the contour from the ellipse, px; paths simple and hand",
        "fitResidual": "RMS of the conic over the contour; paths radial and complex",
        "polarity": "bright, dark or nothing; path complex",
    }
    _beside: ClassVar[Tuple[str, ...]] = ("pixels",)
    corners: Corners = field(default_factory=Corners)
    """The library's full records in the same order, in the pixels of the path: contour, conic, scatter matrix."""
    pixels: str = ""
    """What x and y are pixels of: ``undistorted``, ``distorted`` (the image as taken) or ``rectified``."""
    picture: Any = None
    """The image with the markers drawn, uint8 BGR, where it was asked for."""
    estimates: Sequence[MarkerEstimate] = ()
    """Of the markers, in the pixels of the table, where they were refined."""


@dataclass(frozen=True, eq=False, repr=False)
class RefinedMarkers(Markers):
    """Markers that were measured again on the grey levels, with their uncertainty: x, y, half axes and angle of those
    that are refined; all else, and those that are not, stay what the path measured."""

    columns: ClassVar[Dict[str, str]] = {**Markers.columns, **_ESTIMATE}


@dataclass(frozen=True, eq=False, repr=False)
class Estimates(Table):
    """Ellipses fitted to the grey levels of an image, in its own pixels: with the lens's distortion."""

    columns: ClassVar[Dict[str, str]] = {
        "x": "centre of the rim's ellipse, column, px of the image; (0, 0) is the centre of the first pixel",
        "y": "centre, row, px",
        "major": "larger half axis, px",
        "minor": "smaller half axis, px",
        "angle": "of the major axis to the x axis, degrees in [0, 180)",
        **_ESTIMATE,
    }
    estimates: Sequence[MarkerEstimate] = ()
    """The same as objects, with the whole covariance."""


@dataclass(frozen=True, eq=False, repr=False)
class Unmatched(Table):
    """Markers of one eye that are in no pair, with the test that ended the candidate that got furthest."""

    columns: ClassVar[Dict[str, str]] = {
        "number": "place among the markers of the eye",
        "x": "centre of the ellipse, column, px",
        "y": "centre of the ellipse, row, px",
        "test": "that ended its best candidate",
        "measured": "value of that test; NaN where it has none",
        "partner": "number of the candidate in the other eye; -1: none",
    }


@dataclass(frozen=True, eq=False, repr=False)
class Points(Table):
    """Markers of an exposure in space, one row a pair.

    The frame is the left camera's, or the rectified left one with ``outputRectified``; the unit is the calibration's.
    NaN stands for what the path does not measure. Where ``failure`` holds a text the rows are not to be trusted.
    """

    columns: ClassVar[Dict[str, str]] = {
        "pair": "place in the list",
        "leftX": "centre in the left image, column, undistorted px (rectified with cornersRectified)",
        "leftY": "centre in the left image, row",
        "rightX": "centre in the right image, column",
        "rightY": "centre in the right image, row",
        "X": "point, unit of the calibration",
        "Y": "point",
        "Z": "point",
        "normalX": "unit normal of the disc, towards the cameras; paths radial and complex",
        "normalY": "normal",
        "normalZ": "normal",
        "radius": "of the disc, unit of the calibration; paths radial and complex",
        "rowResidual": "row of the left centre minus that of the right one, both rectified, px",
        "leftResidual": "distance of the point's projection from the left centre, px",
        "rightResidual": "distance of the point's projection from the right centre, px",
    }
    _beside: ClassVar[Tuple[str, ...]] = ("failure", "warning", "found", "unmatched")
    failure: str = ""
    """Why the exposure gives no points; empty: it does."""
    warning: str = ""
    """What to look at in an exposure that gives points."""
    found: Tuple[int, int] = (0, 0)
    """Markers of the left and of the right eye, paired or not."""
    unmatched: Tuple[Unmatched, Unmatched] = field(default_factory=lambda: (_none(), _none()))
    """Those of each eye that are in no pair."""
    left: Corners = field(default_factory=Corners)
    """The library's full records of the left markers, in the order of the pairs."""
    right: Corners = field(default_factory=Corners)
    """The same of the right markers."""
    text: str = ""
    """The markers without a partner and the counts of the tests, as a table to read."""
    picture: Any = None
    """Both images side by side with the pairs, uint8 BGR, where it was asked for."""
    view: Any = None
    """The discs in space, uint8 BGR, where it was asked for and there are some."""
    estimates: Tuple[Sequence[MarkerEstimate], Sequence[MarkerEstimate]] = ((), ())
    """Of the left and the right markers of the pairs, in the pixels of the pairs, where they were refined."""
    discs: Sequence[DiscEstimate] = ()
    """Of the pairs, in the frame of the points, where they were refined."""

    @property
    def xyz(self) -> Array:
        """The points as an array of n by 3."""
        return np.stack([self.array[name] for name in "XYZ"], axis=1)

    @property
    def covariances(self) -> Array:
        """Of the points that were refined, n by 3 by 3; NaN where no disc was found."""
        return np.array([disc.centreCovariance if disc.found else np.full((3, 3), np.nan) for disc in self.discs]
                        ).reshape(-1, 3, 3)


@dataclass(frozen=True, eq=False, repr=False)
class RefinedPoints(Points):
    """Markers that were measured again on the grey levels before they were matched. Point, normal and radius are those
    of the disc that both ellipses show best (the maximum of likelihood), on every path."""

    columns: ClassVar[Dict[str, str]] = {
        **Points.columns,
        "leftStatus": "of the left marker: refined, or why it was not",
        "rightStatus": "of the right marker",
        "pointSource": "disc, or matcher where the ellipses are no image of one disc: then what follows is NaN",
        "sigmaX": "standard deviation of X by the noise of the images, unit of the calibration",
        "sigmaY": "of Y",
        "sigmaZ": "of Z",
        "covarianceXY": "of X and Y",
        "covarianceXZ": "of X and Z",
        "covarianceYZ": "of Y and Z",
        "sigmaNormal": "RMS angle between the normal and the true one, degrees",
        "sigmaRadius": "of the radius",
        "chiSquare": "of 4 degrees of freedom: about 4 for a disc seen rightly by a right calibration",
    }


def _none() -> Unmatched:
    return Unmatched(np.empty(0, [(name, "f8") for name in Unmatched.columns]))


@dataclass(frozen=True, eq=False, repr=False)
class Pairs(Table):
    """Markers that were matched by their centres alone."""

    columns: ClassVar[Dict[str, str]] = {
        "pair": "place in the list",
        "left": "row of the left list",
        "right": "row of the right list",
        "leftX": "left centre, column, undistorted px",
        "leftY": "left centre, row",
        "rightX": "right centre, column",
        "rightY": "right centre, row",
        "X": "point in the left camera's frame, unit of the calibration",
        "Y": "point",
        "Z": "point",
    }

    @property
    def xyz(self) -> Array:
        """The points as an array of n by 3."""
        return np.stack([self.array[name] for name in "XYZ"], axis=1)


@dataclass(frozen=True, eq=False, repr=False)
class Depths(Table):
    """Markers that a depth image places in space."""

    columns: ClassVar[Dict[str, str]] = {
        "id": "of the marker",
        "x": "centre, column, undistorted px",
        "y": "centre, row",
        "X": "point in the camera's frame, unit of the depth",
        "Y": "point",
        "Z": "point, away from the camera",
    }


@dataclass(frozen=True, eq=False, repr=False)
class Explanation(Table):
    """Every candidate that the front end of a path delivered, with the gate that refused it."""

    columns: ClassVar[Dict[str, str]] = {
        "number": "place among all candidates",
        "x": "box about the contour, left column, px of the image as taken",
        "y": "box, upper row",
        "width": "box, px",
        "height": "box, px",
        "ellipseX": "centre of the last fit, column, px; NaN: refused before one was made",
        "ellipseY": "centre of the last fit, row",
        "major": "larger half axis of the fit, px",
        "minor": "smaller half axis, px",
        "angle": "of the major axis to the x axis, degrees",
        "gate": "that refused it; empty: a marker",
        "measured": "value of the gate; NaN where it has none",
        "wanted": "what the gate asks for, with the settings' names",
        "marker": "id of the marker that it is or that took its place; -1: none",
    }
    contours: Sequence[Array] = ()
    """Of each candidate, n by 2, px of the image as taken."""
    dropped: Any = None
    """What never became a candidate: x, y, width, height, gate, measured, wanted."""
    text: str = ""
    """Candidates and counts as a table to read."""
    picture: Any = None
    """The image with the candidates drawn, uint8 BGR, where it was asked for."""


__all__ = ["Corner", "Corners", "Depths", "DiscEstimate", "Estimates", "Explanation", "MarkerEstimate", "Markers",
           "Pairs", "Points", "RefinedMarkers", "RefinedPoints", "Table", "Unmatched"]

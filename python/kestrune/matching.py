# SPDX-License-Identifier: Apache-2.0
"""Pairs by probability: which marker of the left eye is which of the right one, and how sure that is."""

from __future__ import annotations

import os
from dataclasses import dataclass, field
from typing import Any, ClassVar, Dict, List, Mapping, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from . import _native
from ._native import DiscEstimate, MarkerEstimate
from .results import Estimates, Markers, Points, RefinedPoints, Table
from .settings import File, InputError, Rig

Object = Union[Points, File, npt.ArrayLike]
Found = Union[Markers, Estimates, Sequence[MarkerEstimate]]
Depths = Tuple[float, float]
# The matcher of a stereo measurement that is not told one: as that of the program.
MATCH_STEREO: str = _native.MATCH_STEREO

KNOWN = ("radii", "radius_tolerance", "depth_range", "sure", "object")
_CUES = {
    "epipolar": "distance of the centres from their epipolar lines, px, signed",
    "epipolarSigma": "its standard deviation, px",
    "shape": "how the two circles in space disagree: chi-square of 3 degrees of freedom",
    "geometryCue": "how much more likely epipolar line and shape are for a pair than by chance, natural logarithm",
    "radiusCue": "the same of the radius, against the nominal ones and those of the other pairs",
    "depthCue": "of the depth",
    "normalCue": "of the normal",
    "greyCue": "of levels and polarity",
    "objectCue": "of the known object",
}
_PLACE = {
    "X": "centre of the disc, unit of the calibration",
    "Y": "centre",
    "Z": "centre",
    "normalX": "unit normal, towards the cameras",
    "normalY": "normal",
    "normalZ": "normal",
    "radius": "of the disc",
}


@dataclass(frozen=True)
class MovedRig:
    """How the cameras stand to each other by the pairs of an exposure, where that is not as calibrated."""

    size: float
    """RMS of the common pattern in the distances from the epipolar lines, px."""
    angle: float
    """Of the correction, degrees."""
    rotation: npt.NDArray[np.float64]
    """R, 3 by 3: ``rig.with_orientation(moved.rotation, moved.translation)`` is the corrected calibration."""
    translation: npt.NDArray[np.float64]
    """T, as long as before."""

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, MovedRig):
            return NotImplemented
        return (self.size, self.angle) == (other.size, other.angle) and np.array_equal(
            self.rotation, other.rotation) and np.array_equal(self.translation, other.translation)

    __hash__ = None  # type: ignore[assignment]


@dataclass(frozen=True, eq=False, repr=False)
class Rivals(Table):
    """Pairs that were not chosen, of a probability of a thousandth or more."""

    columns: ClassVar[Dict[str, str]] = {
        "left": "place in the left list",
        "right": "place in the right list",
        "probability": "that both are one marker",
    }


@dataclass(frozen=True, eq=False, repr=False)
class StereoMatch(Table):
    """The most probable way to pair two lists of markers, in the order of the left ones.

    Use the rows that are ``sure``; none of them is where there is an ``objection`` other than ``rig moved``.
    """

    columns: ClassVar[Dict[str, str]] = {
        "left": "place in the left list",
        "right": "place in the right list",
        "probability": "that both are one marker, over all ways to pair the lists",
        "sure": "whether it can be used as it is",
        **_PLACE,
        **{name: RefinedPoints.columns[name] for name in (
            "sigmaX", "sigmaY", "sigmaZ", "covarianceXY", "covarianceXZ", "covarianceYZ", "sigmaNormal", "sigmaRadius",
            "chiSquare")},
        **_CUES,
        "decider": "what would tell a pair that is not sure from its rivals: nominal radius, depth range, another view",
    }
    _beside: ClassVar[Tuple[str, ...]] = ("rivals", "objection", "reason", "repeat", "moved", "scales")
    rivals: Rivals = field(default_factory=lambda: Rivals(np.empty(0, [(n, "f8") for n in Rivals.columns])))
    """All other pairs that may be."""
    single: Tuple[npt.NDArray[np.float64], npt.NDArray[np.float64]] = (np.empty(0), np.empty(0))
    """For each marker of the left and of the right list the probability that only its own eye sees it."""
    discs: Sequence[DiscEstimate] = ()
    """Of the pairs, in the left camera's frame."""
    objection: str = "none"
    """What stands against the exposure: none, too few, nothing matches, eyes exchanged, pattern repeats, rig moved."""
    reason: str = ""
    """The same as a sentence, with what would help."""
    repeat: float = 0.0
    """Of a pattern that repeats: by how much in space."""
    moved: Optional[MovedRig] = None
    """How the cameras stand, where a common pattern was found, however small."""
    scales: Tuple[float, float] = (1.0, 1.0)
    """By which the standard deviations of centres and half axes were multiplied, as the exposure shows them."""

    @classmethod
    def _of(cls, parts: Tuple[Any, ...]) -> StereoMatch:
        array, rivals, single, discs, objection, reason, repeat, moved, scales = parts
        return cls(array, Rivals(rivals), single, discs, objection, reason, repeat,
                   None if moved is None else MovedRig(*moved), scales)


@dataclass(frozen=True, eq=False, repr=False)
class Ambiguous(Table):
    """Pairs that are not sure enough to be points, each before its rivals."""

    columns: ClassVar[Dict[str, str]] = {
        "pair": "number of the ambiguous pair; its rivals have the same",
        "standing": "ambiguous, or rival: another pair of one of its markers",
        "left": "number of the left marker",
        "right": "number of the right marker",
        **{name: Points.columns[name] for name in ("leftX", "leftY", "rightX", "rightY")},
        **_PLACE,
        "probability": "that both are one marker",
        **_CUES,
        "decider": "what would tell the pair from its rivals: nothing, nominal radius, depth range, another view",
    }


@dataclass(frozen=True, eq=False, repr=False)
class TrustedPoints(RefinedPoints):
    """Markers that were matched by probability: only sure pairs are points."""

    columns: ClassVar[Dict[str, str]] = {
        **RefinedPoints.columns,
        "leftStatus": "of the left marker: refined, or why it was not; not refined where that was not asked for",
        "probability": "that both are one marker",
    }
    _beside: ClassVar[Tuple[str, ...]] = (*RefinedPoints._beside, "ambiguous", "match")
    ambiguous: Ambiguous = field(default_factory=lambda: Ambiguous(np.empty(0, [(n, "f8") for n in Ambiguous.columns])))
    """The other pairs, with their rivals."""
    match: StereoMatch = field(default_factory=lambda: StereoMatch(
        np.empty(0, [(n, "f8") for n in StereoMatch.columns])))
    """The match as a whole; its places are the numbers of the eyes' markers."""


def _object_rows(known: Object) -> npt.NDArray[np.float64]:
    """x, y, z, radius, sigma."""
    if isinstance(known, (str, bytes, os.PathLike)):
        return _native.read_object(os.fsencode(known))
    if isinstance(known, Points):
        if "sigmaX" not in (known.array.dtype.names or ()):
            raise InputError("object: has no standard deviations; points have some that are refined")
        rows = known[np.isfinite(known["sigmaX"])]
        sigma = np.max([rows[f"sigma{axis}"] for axis in "XYZ"], axis=0)
        table: npt.NDArray[np.float64] = np.stack(
            [rows["X"], rows["Y"], rows["Z"], np.nan_to_num(rows["radius"]), sigma], axis=1)
        return table
    given: npt.NDArray[np.float64] = np.asarray(known, dtype=np.float64)
    if given.ndim != 2 or given.shape[1] not in (4, 5):
        raise InputError("object: is neither Points nor rows of x, y, z, sigma or x, y, z, radius, sigma")
    whole: npt.NDArray[np.float64] = np.zeros((len(given), 5))
    whole[:, [0, 1, 2, 4] if given.shape[1] == 4 else slice(None)] = given
    return whole


def known_of(radii: Optional[Sequence[float]], radius_tolerance: Optional[float], depth_range: Optional[Depths],
             sure: Optional[float], object: Optional[Object]) -> Tuple[Any, ...]:
    """What the compiled part takes."""
    return ([] if radii is None else [float(radius) for radius in radii], radius_tolerance,
            None if depth_range is None else [float(depth) for depth in depth_range], sure,
            None if object is None else _object_rows(object))


def trusted_of(match: str, *known: Any) -> Optional[Tuple[Any, ...]]:
    """The same for one of the matchers; None for that of the path, which knows what the settings tell."""
    if match not in ("path", "trusted"):
        raise InputError(f"match: {match!r} is neither 'trusted' nor 'path'")
    if match == "trusted":
        return known_of(*known)
    if any(value is not None for value in known):
        raise InputError("radii, radius_tolerance, depth_range, sure, object: are for match='trusted'")
    return None


def told_of(match: str, known: Mapping[str, Any]) -> Dict[str, Any]:
    """What is known, as JSON holds it. @raises InputError  for what no match takes."""
    wrong = [name for name in known if name not in KNOWN]
    if wrong:
        raise InputError(f"known: {wrong[0]!r} is none of {', '.join(KNOWN)}")
    whole = trusted_of(match, *(known.get(name) for name in KNOWN))
    if whole is None:
        return {}
    _native.check_known(whole)
    told = dict(zip(KNOWN, whole))
    if told["object"] is not None:
        told["object"] = told["object"].tolist()
    return {name: value for name, value in told.items() if known.get(name) is not None}


def _estimates(markers: Found, rig: Rig, eye: str) -> List[MarkerEstimate]:
    """In pixels without distortion."""
    if isinstance(markers, Estimates):
        return [rig.undistort(estimate, eye) for estimate in markers.estimates]
    if not isinstance(markers, Markers):
        return list(markers)
    if markers.pixels == "rectified":
        raise InputError(f"{eye}: is of rectified pixels, the rig is of those of the cameras")
    found = list(markers.estimates)
    if not found:
        if any(corner.x != x for corner, x in zip(markers.corners, markers["x"])):
            raise InputError(f"{eye}: is of a reduced image; extract with refine=True")
        found = _native.plain_estimates(markers.corners)
    return found if markers.pixels == "undistorted" else [rig.undistort(estimate, eye) for estimate in found]


def match_markers(left: Found, right: Found, rig: Rig, *, radii: Optional[Sequence[float]] = None,
                  radius_tolerance: Optional[float] = None, depth_range: Optional[Depths] = None,
                  sure: Optional[float] = None, object: Optional[Object] = None,
                  estimate_sigmas: bool = True) -> StereoMatch:
    """Pairs two lists of markers, each pair with the probability that it is right over all ways to pair them.

    Every cue counts by its own uncertainty: distance from the epipolar line, the two circles in space, radii, depths,
    normals, grey levels, a known object. What an exposure cannot decide is told, not guessed.

    :param left: markers of the left image: a result of ``extract`` (better with ``refine=True``) or of ``refine``, or
        estimates without the lens's distortion (:meth:`Rig.undistort`).
    :param right: the same of the right image.
    :param rig: the calibration.
    :param radii: nominal radii of the markers, unit of the calibration, if they are known.
    :param radius_tolerance: standard deviation of a radius as a share of the nominal one; 0.01 without it.
    :param depth_range: (nearest, farthest) z of the left camera, if it is known.
    :param sure: least probability of a sure pair, above 0.5 and below 1; 0.999 without it.
    :param object: markers whose places on the object are known: :class:`Points` of an earlier exposure, a CSV file
        with columns x, y, z, sigma and perhaps radius, or rows of x, y, z, (radius,) sigma.
    :param estimate_sigmas: whether the standard deviations of the estimates are scaled by what the pairs show.
    :raises InputError: for what is out of its range, and markers that are not of this rig's pixels.
    """
    known = known_of(radii, radius_tolerance, depth_range, sure, object)
    return StereoMatch._of(_native.match_markers(rig._held, _estimates(left, rig, "left"),
                                                 _estimates(right, rig, "right"), known, estimate_sigmas))


__all__ = ["Ambiguous", "MATCH_STEREO", "MovedRig", "Rivals", "StereoMatch", "TrustedPoints", "match_markers"]

# SPDX-License-Identifier: Apache-2.0
"""The operations: from images to markers and points."""

from __future__ import annotations

import os
from typing import Any, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from . import _native
from .matching import MATCH_STEREO, Ambiguous, Object, StereoMatch, TrustedPoints, trusted_of
from .results import (Corners, Depths, Estimates, Explanation, Markers, Pairs, Points, RefinedMarkers, RefinedPoints,
                      Unmatched)
from .settings import File, InputError, Rig, Settings, eye_of

Image = npt.NDArray[Any]
Range = Optional[Tuple[float, float]]
Eye = Union[str, int]

# Share of the poorer eye's markers that must be paired: that of the program.
LEAST_SHARE = 0.5
# Whether a stereo measurement refines: as the program does.
REFINE_STEREO: bool = _native.REFINE_STEREO


def _centres(markers: Any) -> npt.NDArray[np.float64]:
    array = np.asarray(markers)
    if array.dtype.names:
        array = np.stack([array["x"], array["y"]], axis=1)
    return np.ascontiguousarray(array.reshape(0, 2) if array.size == 0 else array, dtype=np.float64)


class Extractor:
    """Finds markers by one set of settings, and points by one rig.

    One object may be used from any number of threads at once: each call works on scratch storage of its own, and the
    interpreter's lock is released while it works. The same input gives the same result, bit for bit, in any thread and
    process, and the same as the program ``kestrune-measure``.

    Images are arrays of rows by columns (grey) or rows by columns by 3 (BGR), of uint8; uint16 and floating point are
    mapped to 8 bits by ``range``: (low, high), of which low becomes 0 and high 255, without it the range of the data of
    the call. Arrays are read where they are if each pixel's channels and each row's pixels lie side by side, else
    copied. ``invert`` turns dark into bright, for markers that are dark on a light ground.

    :param settings: settings of a path.
    :param rig: calibration, needed for stereo, match and depth, and where the lens's distortion is taken out.
    """

    def __init__(self, settings: Settings, rig: Optional[Rig] = None) -> None:
        if not isinstance(settings, Settings):
            raise TypeError(f"settings: {settings!r} is no kestrune.Settings; Settings.read reads a file")
        if rig is not None and not isinstance(rig, Rig):
            raise TypeError(f"rig: {rig!r} is no kestrune.Rig; Rig.read reads a file")
        self._settings, self._rig = settings._of(settings._held), rig
        self._native = _native.Extractor(settings._held, None if rig is None else rig._held)

    @property
    def settings(self) -> Settings:
        """The settings as they were when the extractor was made."""
        return self._settings._of(self._settings._held)

    @property
    def rig(self) -> Optional[Rig]:
        """The calibration."""
        return self._rig

    def extract(self, image: Image, eye: Eye = "left", *, invert: bool = False, range: Range = None,
                refine: bool = False, picture: bool = False) -> Markers:
        """The markers of one image.

        :param eye: whose lens is taken out: ``left`` or ``right``.
        :param refine: measure them again on the grey levels of the image as it is, with all its bits and before
            ``invert``: the result is :class:`RefinedMarkers`, with standard deviations in the table and the whole
            covariances in ``estimates``.
        :param picture: draw the markers into a copy of the image as well, with error ellipses where they are refined.
        :raises InputError: for an image or settings that the path cannot work with.
        """
        array, corners, pixels, drawn, estimates = self._native.extract(image, eye_of(eye), invert, range, refine,
                                                                        picture)
        return (RefinedMarkers if refine else Markers)(array, corners, pixels, drawn, estimates)

    def refine(self, image: Image, markers: Union[Markers, Corners], eye: Eye = "left", *,
               range: Range = None) -> Estimates:
        """Fits markers that were found before to the grey levels of their image.

        The result is in the image's own pixels, with the lens's distortion: ``rig.undistort`` carries an estimate to
        undistorted ones. Markers that stand close are fitted in each other's light: give the whole list.

        :param image: the one they were found in, rows by columns, or by 3 (BGR); uint8 and uint16 are taken as they
            are, floating point in 65536 steps of ``range``, or of the range of its data.
        :param markers: of this extractor's ``extract``, or their ``corners``.
        :param eye: as it was found.
        :raises InputError: for what is no image of this rig, and no markers.
        """
        corners = markers.corners if isinstance(markers, Markers) else markers
        return Estimates(*self._native.refine(image, corners, eye_of(eye), range))

    def explain(self, image: Image, eye: Eye = "left", *, invert: bool = False, range: Range = None,
                picture: bool = False) -> Explanation:
        """Why was this no marker? All candidates, each with the gate that refused it. Arguments as for extract."""
        return Explanation(*self._native.explain(image, eye_of(eye), invert, range, picture))

    def full_size_warning(self, image: Image, eye: Eye = "left", *, invert: bool = False, range: Range = None) -> str:
        """What ``refineAtFullSize`` has spoilt on this image, as a sentence; empty: nothing. Measures twice."""
        return self._native.full_size_warning(image, eye_of(eye), invert, range)

    def stereo(self, left: Image, right: Image, *, invert: bool = False, range: Range = None,
               min_share: float = LEAST_SHARE, refine: bool = REFINE_STEREO, match: str = MATCH_STEREO,
               radii: Optional[Sequence[float]] = None, radius_tolerance: Optional[float] = None,
               depth_range: Range = None, sure: Optional[float] = None, object: Optional[Object] = None,
               picture: bool = False) -> Points:
        """The markers of both images of one exposure in space.

        :param min_share: share of the poorer eye's markers, 0 to 1, that must be paired; with fewer the exposure has
            failed (``Points.failure``).
        :param refine: measure the markers again on the grey levels before they are matched, and place each pair's disc
            in space with its covariance: the result is :class:`RefinedPoints`.
        :param match: ``trusted``, by probability: only sure pairs are points, and the result is
            :class:`TrustedPoints`, with the others in ``ambiguous``; or ``path``, by the matcher of the settings' path
            and its tolerances. What follows is for ``trusted`` alone.
        :param radii: nominal radii of the markers, unit of the calibration; without it, the settings' ``markerRadii``.
        :param radius_tolerance: standard deviation of a radius as a share of the nominal one; 0.01 with ``radii``, half
            of ``sizeTolerance`` without.
        :param depth_range: (nearest, farthest) z of the left camera; without it, the settings' depths.
        :param sure: least probability of a pair that becomes a point, above 0.5 and below 1; 0.999 without it.
        :param object: markers whose places on the object are known, as :func:`match_markers` takes them.
        :param picture: draw the pairs and the discs in space as well.
        :raises InputError: for images that are no exposure of this rig, and settings or calibration that are not
            enough.
        """
        known = trusted_of(match, radii, radius_tolerance, depth_range, sure, object)
        return self._points(refine, self._native.stereo(left, right, invert, range, min_share, refine, picture, known))

    def stereo_files(self, left: File, right: File, *, invert: bool = False, range: Range = None,
                     min_share: float = LEAST_SHARE, refine: bool = REFINE_STEREO, match: str = MATCH_STEREO,
                     radii: Optional[Sequence[float]] = None, radius_tolerance: Optional[float] = None,
                     depth_range: Range = None, sure: Optional[float] = None, object: Optional[Object] = None,
                     picture: bool = False) -> Points:
        """The same of two image files, which are read without the interpreter's lock."""
        known = trusted_of(match, radii, radius_tolerance, depth_range, sure, object)
        return self._points(refine, self._native.stereo_files(os.fsencode(left), os.fsencode(right), invert, range,
                                                              min_share, refine, picture, known))

    @staticmethod
    def _points(refined: bool, result: Tuple[Any, ...]) -> Points:
        array, left, right, failure, warning, found, left_unmatched, right_unmatched, text, pictures, estimates = (
            result[:-1])
        picture, view = pictures or (None, None)
        rest = (array, failure, warning, found, (Unmatched(left_unmatched), Unmatched(right_unmatched)), left, right,
                text, picture, view if view is not None and view.size else None, estimates[:2], estimates[2])
        if result[-1] is None:
            return (RefinedPoints if refined else Points)(*rest)
        ambiguous, match = result[-1]
        return TrustedPoints(*rest, Ambiguous(ambiguous), StereoMatch._of(match))

    def match(self, left: Union[Markers, npt.ArrayLike], right: Union[Markers, npt.ArrayLike]) -> Pairs:
        """Pairs of markers of which only the centres are known, by the epipolar lines and distances.

        A pair may be wrong, more often so than by :meth:`stereo`, which knows more of a marker.

        :param left: markers of the left image without the lens's distortion: ``Markers``, or centres as n by 2, px.
        :param right: the same of the right image.
        """
        for name, markers in (("left", left), ("right", right)):
            if isinstance(markers, Markers) and markers.pixels != "undistorted":
                raise InputError(f"{name}: is of {markers.pixels} pixels, match needs undistorted ones")
        return Pairs(self._native.match(_centres(left), _centres(right)))

    def depth(self, image: Image, depth: Image, eye: Eye = "left", *, scale: float = 1.0, invert: bool = False,
              range: Range = None) -> Depths:
        """The markers of an image placed by a depth image.

        :param depth: z of each pixel, float32 or uint16, of the image's size; 0 or NaN where there is none.
        :param scale: unit of the result for each unit of the depth image.
        """
        return Depths(self._native.depth(image, depth, scale, eye_of(eye), invert, range))

    def __reduce__(self) -> Tuple[Any, ...]:
        return Extractor, (self._settings, self._rig)

    def __repr__(self) -> str:
        return f"<Extractor: path {self._settings.path}, {self._rig!r}>"


__all__ = ["Extractor", "LEAST_SHARE", "REFINE_STEREO"]

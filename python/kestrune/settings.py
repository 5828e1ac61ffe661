# SPDX-License-Identifier: Apache-2.0
"""Settings and rigs: what a measurement starts from."""

from __future__ import annotations

import os
from operator import index
from typing import Any, Dict, Iterator, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from . import _native
from ._native import InputError

File = Union[str, "os.PathLike[str]"]


class Field(NamedTuple):
    """One field of a settings file."""

    name: str
    type: str
    """bool, int, float, str or list"""
    range: str
    """both ends belong to it; empty: any"""
    readers: str
    """the paths that read it"""
    meaning: str


def setting_fields() -> List[Field]:
    """All fields that settings may have, in the order of the record."""
    return [Field(*row) for row in _native.setting_fields()]


class Settings:
    """The settings of one path, checked as a whole: every field that the path reads is there and in range.

    Fields are attributes under the names of the settings file (``settings.sigma``, ``settings.minDiameter``; all of
    them: :func:`setting_fields`). Assigning one checks all again and raises :class:`InputError` with nothing changed;
    :meth:`replace` changes several at once.

    :param fields: mapping of names to values; keywords are added to it.
    :param path: ``simple`` (sub-pixel contours), ``radial``, ``fast``, ``complex`` (edge-based) or ``hand``; without it
        ``useComplexExtract`` and ``useRadialContours`` decide.
    :param use: ``extraction``, or ``stereo``, which reads more fields; without it ``stereo`` where all that needs is
        there.
    """

    __slots__ = ("_held",)
    _held: _native.Settings

    def __init__(self, fields: Optional[Mapping[str, Any]] = None, *, path: Optional[str] = None,
                 use: Optional[str] = None, **more: Any) -> None:
        object.__setattr__(self, "_held", _native.Settings({**(fields or {}), **more}, path, use))

    @classmethod
    def read(cls, file: File, path: Optional[str] = None, use: Optional[str] = None) -> Settings:
        """Reads a settings file (YAML). InputError with file, line and field for all that is wrong with it."""
        return cls._of(_native.Settings.read(os.fsencode(file), path, use))

    @classmethod
    def _of(cls, held: _native.Settings) -> Settings:
        settings = cls.__new__(cls)
        object.__setattr__(settings, "_held", held)
        return settings

    @property
    def path(self) -> str:
        """The way from an image to markers that the settings are for."""
        return self._held.path

    @property
    def use(self) -> str:
        """``stereo`` or ``extraction``: what the fields are complete for."""
        return self._held.use

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(name)
        return self._held.get(name)

    def __setattr__(self, name: str, value: Any) -> None:
        if name in ("path", "use") or name.startswith("_"):
            raise AttributeError(f"'{name}' cannot be set")
        self._held.get(name)
        object.__setattr__(self, "_held", self._held.replaced({name: value}))

    def replace(self, **fields: Any) -> Settings:
        """The same settings with other values for some fields."""
        return self._of(self._held.replaced(fields))

    def to_dict(self) -> Dict[str, Any]:
        """The fields that the path reads, and others that hold something."""
        return self._held.to_dict()

    def write(self, file: File) -> None:
        """Writes a settings file. One that is there keeps its comments, its order and what the path does not read."""
        self._held.write(os.fsencode(file))

    def __iter__(self) -> Iterator[Tuple[str, Any]]:
        return iter(self.to_dict().items())

    def __dir__(self) -> List[str]:
        return sorted({*super().__dir__(), *(field.name for field in setting_fields())})

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Settings):
            return NotImplemented
        return bool(self._held == other._held)

    __hash__ = None  # type: ignore[assignment]

    def __reduce__(self) -> Tuple[Any, ...]:
        return Settings._of, (self._held,)

    def __repr__(self) -> str:
        fields = ", ".join(f"{name}={value!r}" for name, value in self)
        return f"Settings(path={self.path!r}, use={self.use!r}, {fields})"


def eye_of(eye: Union[str, int]) -> int:
    """0 or 1 for what a user says. InputError for anything else."""
    if eye in (0, "left"):
        return 0
    if eye in (1, "right"):
        return 1
    raise InputError(f"eye: {eye!r} is neither 'left' nor 'right'")


class Rig:
    """A calibrated pair of cameras: a point X in left camera coordinates is R X + T in right ones.

    What is wrong with the numbers is told under the names of a calibration file: M1, D1 (left), M2, D2, R and T.

    :param left_matrix: 3 by 3: [fx 0 cx; 0 fy cy; 0 0 1], px.
    :param left_distortion: k1, k2, p1, p2, k3 in OpenCV's order (4, 5, 8, 12 or 14 numbers, those behind the fifth 0).
    :param rotation: R, 3 by 3.
    :param translation: T, 3 numbers; its unit is that of the points.
    :param size: (width, height) of the images, px; None: that of the first image.
    :param rectify_flags: of ``cv2.stereoRectify``: 1024 (principal points at one place) or 0.
    """

    __slots__ = ("_held",)
    _held: _native.Rig

    def __init__(self, left_matrix: npt.ArrayLike, left_distortion: npt.ArrayLike, right_matrix: npt.ArrayLike,
                 right_distortion: npt.ArrayLike, rotation: npt.ArrayLike, translation: npt.ArrayLike,
                 size: Optional[Sequence[int]] = None, rectify_flags: int = 1024) -> None:
        def numbers(value: npt.ArrayLike) -> npt.NDArray[np.float64]:
            return np.asarray(value, dtype=np.float64)

        self._held = _native.Rig([numbers(left_matrix), numbers(right_matrix)],
                                 [numbers(left_distortion), numbers(right_distortion)], numbers(rotation),
                                 numbers(translation), None if size is None else (index(size[0]), index(size[1])),
                                 rectify_flags)

    @classmethod
    def read(cls, file: File) -> Rig:
        """Reads a calibration file of both cameras; their lenses have no more coefficients than k1, k2, p1, p2 and k3
        that differ from 0. InputError with file, line and field for all that is wrong with it."""
        return cls._of(_native.Rig.read(os.fsencode(file)))

    @classmethod
    def _of(cls, held: _native.Rig) -> Rig:
        rig = cls.__new__(cls)
        rig._held = held
        return rig

    def write(self, file: File) -> None:
        """Writes a calibration file as OpenCV's stereo calibration does; poses may differ from it in the last digit."""
        self._held.write(os.fsencode(file))

    def with_size(self, width: int, height: int) -> Rig:
        """The same rig for images of this size, px."""
        return self._of(self._held.with_size(width, height))

    def with_orientation(self, rotation: npt.ArrayLike, translation: npt.ArrayLike) -> Rig:
        """The same cameras with other R and T, as :class:`MovedRig` tells them."""
        return self._of(self._held.with_orientation(np.asarray(rotation, dtype=np.float64),
                                                    np.asarray(translation, dtype=np.float64)))

    def undistort(self, estimate: _native.MarkerEstimate, eye: Union[str, int] = "left") -> _native.MarkerEstimate:
        """A marker of an image in pixels without the lens's distortion: ellipse and covariance; levels and blur stay.

        :param eye: ``left`` or ``right``.
        """
        return self._held.undistort(estimate, eye_of(eye))

    def measure_disc(self, left: _native.MarkerEstimate, right: _native.MarkerEstimate) -> _native.DiscEstimate:
        """The most likely disc in space for what both eyes saw, in the left camera's frame.

        :param left: of the left eye, without the lens's distortion (:meth:`undistort`).
        :param right: the same of the right eye.
        """
        return self._held.measure_disc(left, right)

    @property
    def left_matrix(self) -> npt.NDArray[np.float64]:
        """3 by 3, px."""
        return self._held.left_matrix

    @property
    def left_distortion(self) -> npt.NDArray[np.float64]:
        """k1, k2, p1, p2, k3: 1 by 5."""
        return self._held.left_distortion

    @property
    def right_matrix(self) -> npt.NDArray[np.float64]:
        """3 by 3, px."""
        return self._held.right_matrix

    @property
    def right_distortion(self) -> npt.NDArray[np.float64]:
        """k1, k2, p1, p2, k3: 1 by 5."""
        return self._held.right_distortion

    @property
    def rotation(self) -> npt.NDArray[np.float64]:
        """R, 3 by 3."""
        return self._held.rotation

    @property
    def translation(self) -> npt.NDArray[np.float64]:
        """T, 3 by 1."""
        return self._held.translation

    @property
    def size(self) -> Optional[Tuple[int, int]]:
        """(width, height), px; None where it is not known."""
        return self._held.size

    @property
    def rectify_flags(self) -> int:
        """Flags of the rectification."""
        return self._held.rectify_flags

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Rig):
            return NotImplemented
        return bool(self._held == other._held)

    __hash__ = None  # type: ignore[assignment]

    def __reduce__(self) -> Tuple[Any, ...]:
        return Rig._of, (self._held,)

    def __repr__(self) -> str:
        size = "size unknown" if self.size is None else f"{self.size[0]} x {self.size[1]} px"
        return f"<Rig: {size}, baseline {float(np.linalg.norm(self.translation)):g}>"


__all__ = ["Field", "File", "InputError", "Rig", "Settings", "setting_fields"]

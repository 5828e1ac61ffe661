# SPDX-License-Identifier: Apache-2.0
"""What is done with each exposure. It travels to the children once, by pickle."""

import os
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, Optional, Protocol, Tuple

import kestrune

from .exposures import Exposure
from .record import Record, failed, measured

Measure = Callable[[Exposure], Record]


class Task(Protocol):
    """Anything that can be pickled and makes a measuring function in the process where it is to run."""

    def prepare(self) -> Measure:
        ...


@dataclass(frozen=True)
class StereoTask:
    """Markers of the exposure's two images to points in space."""

    settings: Any
    rig: Any
    invert: bool = False
    range: Optional[Tuple[float, float]] = None
    min_share: float = 0.5
    refine: bool = False
    threads: int = 1
    as_lines: bool = True
    match: str = "path"
    known: Dict[str, Any] = field(default_factory=dict)

    def prepare(self) -> Measure:
        """@raises kestrune.InputError  where settings and rig give no extractor."""
        kestrune.set_threads(self.threads)
        extractor = kestrune.Extractor(self.settings, self.rig)

        def measure(exposure: Exposure) -> Record:
            files = (exposure.left, exposure.right)
            if self.range is None and any(kestrune.bit_depth(file) > 8 for file in files):
                return failed(exposure, "has more than 8 bits: all exposures of a run are mapped alike, which needs "
                                        "range=(low, high), on the command line --range LOW:HIGH")
            points = extractor.stereo_files(*files, invert=self.invert, range=self.range, min_share=self.min_share,
                                            refine=self.refine, match=self.match, **self.known)
            return measured(exposure, points, self.as_lines)

        return measure


def reason_of(error: BaseException) -> str:
    """What a row or an error tells of an exception."""
    if isinstance(error, kestrune.InputError):
        return str(error)
    if isinstance(error, MemoryError):
        return "memory has run out"
    return f"{type(error).__name__}: {error}" if str(error) else type(error).__name__


def usable_processors() -> int:
    """Those that this process may run on."""
    return len(os.sched_getaffinity(0)) or 1

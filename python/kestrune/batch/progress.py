# SPDX-License-Identifier: Apache-2.0
"""How far a run is."""

import sys
import time
from dataclasses import dataclass
from typing import Callable, Optional, Union

_INTERVAL = 0.2  # seconds between two lines: a terminal takes no more with sense


@dataclass(frozen=True)
class Progress:
    """`done` counts this run's exposures, failed ones among them; `total` is what this run has to measure, if known."""

    done: int
    failed: int
    total: Optional[int]
    rate: float  # exposures a second
    remaining: Optional[float]  # seconds

    def __str__(self) -> str:
        total = "" if self.total is None else f"/{self.total}"
        text = f"{self.done}{total} done, {self.failed} failed, {self.rate:.1f}/s"
        return text if self.remaining is None else f"{text}, {_plain_duration(self.remaining)} left"


Show = Callable[[Progress], object]


def _plain_duration(seconds: float) -> str:
    if seconds < 100:
        return f"{seconds:.0f} s"
    return f"{seconds / 60:.0f} min" if seconds < 6000 else f"{seconds / 3600:.1f} h"


class Reporter:
    """Counts, and tells `show` or a terminal on standard error; with neither, nobody."""

    def __init__(self, show: Union[Show, bool, None], total: Optional[int]):
        """@param show  False: tell nobody."""
        self._line = show in (None, True) and sys.stderr is not None and sys.stderr.isatty()
        self._show = show if callable(show) else None
        self._start = self._shown = time.monotonic()
        self.done = self.failed = self.skipped = 0
        self.total = total

    def add(self, done: int, failed: int) -> None:
        self.done += done
        self.failed += failed
        now = time.monotonic()
        if (self._line or self._show) and now - self._shown >= _INTERVAL:
            self._shown = now
            self._tell()

    @property
    def rate(self) -> float:
        """Exposures a second."""
        seconds = time.monotonic() - self._start
        return self.done / seconds if seconds > 0 else 0.0

    def _tell(self) -> None:
        rate = self.rate
        total = None if self.total is None else max(self.total - self.skipped, self.done)
        remaining = None if total is None or not self.done else (total - self.done) / rate
        progress = Progress(self.done, self.failed, total, rate, remaining)
        if self._show:
            self._show(progress)
        if self._line:
            print(f"\r\033[K{progress}", end="", file=sys.stderr, flush=True)

    def end(self) -> float:
        """Tells the last state. @returns seconds since the beginning."""
        if self._line or self._show:
            self._tell()
        if self._line:
            print("\r\033[K", end="", file=sys.stderr, flush=True)
        return time.monotonic() - self._start

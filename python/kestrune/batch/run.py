# SPDX-License-Identifier: Apache-2.0
"""A run: exposures into an executor, records into the run's folder."""

import itertools
import pickle
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Dict, Iterator, List, Mapping, Optional, Protocol, Sequence, Tuple, Union

import kestrune
from kestrune import InputError
from kestrune.matching import told_of

from .exposures import Exposure, take
from .folder import RunFolder
from .local import LocalExecutor
from .progress import Reporter, Show
from .record import FAILED, Record
from .task import StereoTask, Task, usable_processors

_LOCAL_CHUNK = 1
_UNREADABLE = 1000  # so many left images are tried for the size that a calibration does not tell
# Against some tenths of a second the milliseconds of a scheduler are small, and so is the wait for the last. It keeps
# something of every chunk: where exposures are done by the thousand in a second, chunks are larger.
_CLUSTER_CHUNK, _LARGEST_CHUNK = 4, 100
_CHUNKS_A_SECOND = 20


@dataclass(frozen=True)
class Summary:
    """Counts of the whole run, of which `measured` and `seconds` are this call's."""

    out: Path
    exposures: int
    failed: int
    pairs: int
    measured: int
    seconds: float


class Executor(Protocol):
    @property
    def pending(self) -> bool:
        """Whether there are chunks whose records were not taken yet."""

    def room(self) -> bool:
        """Whether it takes another chunk now."""

    def submit(self, chunk: Sequence[Exposure]) -> None:
        ...

    def next(self) -> List[Record]:
        """Waits for records: of a chunk, or of a part of one."""

    def close(self) -> None:
        """Ends what is under way."""


def measure(exposures: Any, settings: Any, rig: Any, out: Any, *, client: Any = None, processes: Optional[int] = None,
            chunk: Optional[int] = None, resume: bool = False, invert: bool = False,
            range: Optional[Tuple[float, float]] = None, min_share: float = 0.5, refine: bool = kestrune.REFINE_STEREO,
            match: str = kestrune.MATCH_STEREO, known: Optional[Mapping[str, Any]] = None, threads: int = 1,
            timeout: Optional[float] = None, progress: Union[Show, bool, None] = None) -> Summary:
    """Measures many exposures of a camera pair in space, into tables in the folder `out`; `read` reads them.

    Each exposure is measured in a child process. One that ends its process three times is given up: it becomes a failed
    row with its reason, as all others that give no points. Results do not depend on how and where the work is done.

    exposures  two patterns of file names ("left/*.png", "right/*.png", sorted and paired in their order), a table (a
               DataFrame, or a CSV file, with columns left and right and perhaps name), or an iterable of (left, right),
               (name, left, right) or Exposure, which is taken one by one. Names are those of the left files without
               folder and suffix where none are given; a name that is there already gets -2, -3 and so on.
    settings   kestrune.Settings for use "stereo".
    rig        kestrune.Rig. One without image size gets that of the first left image that can be read.
    out        a folder that is new or empty, or with `resume` holds a run of the same settings, rig and options. Then
               only what is missing is measured; exposures may have been added.
    client     a distributed.Client: work is done by the workers of its Dask cluster, which must see the images under
               the same names.
    processes  on this machine, without client: how many at once; as many as there are processors for this process.
    chunk      exposures that are handed over at once; without it 1 on this machine, and on a cluster 4 to 100, by their
               rate.
    invert     dark markers on bright ground, for paths that find bright ones.
    range      (low, high) grey values of images of more than 8 bits that become 0 and 255. Such exposures fail without.
    min_share  an exposure fails where less than this share of the markers of the poorer eye is paired; 0 to 1.
    refine     measure markers again on the grey levels before they are matched; points have standard deviations then.
    match      "path", by the matcher of the settings' path, or "trusted": only sure pairs are points, with their
               probability, and an exposure's warning tells how many were left out.
    known      for "trusted": radii, radius_tolerance, depth_range, sure and object, as kestrune.Extractor.stereo takes
               them.
    threads    of each process.
    timeout    seconds for one exposure; one that takes longer three times has failed. None: no limit.
    progress   called with a Progress several times a second; None: a line on a terminal; False: none.

    Raises kestrune.InputError for what cannot be used, before anything is written; RunInterrupted where the scheduler
    is lost, the client closed or the disk full; BatchError where processes cannot start. Then, and with Ctrl-C, what
    was measured stays, and `resume` goes on.
    """
    _check(processes, chunk, range, min_share, threads, timeout, client)
    span = None if range is None else (float(range[0]), float(range[1]))
    source, total = take(exposures)
    if rig.size is None:
        source, rig = _sized(source, rig)
    kestrune.Extractor(settings, rig)  # tells what does not fit
    told = told_of(match, known or {})
    options: Dict[str, Any] = {
        "invert": bool(invert), "range": None if span is None else list(span), "min_share": float(min_share),
        **({"refine": True} if refine else {}), **({"match": match, "known": told} if match == "trusted" else {})}
    folder = RunFolder(Path(out), {**describe(settings, rig), "options": options}, resume)
    try:
        task = StereoTask(settings, rig, bool(invert), span, float(min_share), bool(refine), threads, folder.as_lines,
                          match, told)
        executor = executor_for(task, client, processes, threads, timeout)
        return execute(source, total, folder, executor, _LOCAL_CHUNK if client is None and not chunk else chunk,
                       progress)
    finally:
        folder.close()


def executor_for(task: Task, client: Any, processes: Optional[int], threads: int, timeout: Optional[float]) -> Executor:
    """On this machine, or with a client on its cluster."""
    data = pickle.dumps(task, protocol=pickle.HIGHEST_PROTOCOL)
    if client is None:
        return LocalExecutor(data, processes or usable_processors(), threads, timeout)
    from .cluster import ClusterExecutor
    return ClusterExecutor(client, data, threads, timeout)


def execute(source: Iterator[Exposure], total: Optional[int], folder: RunFolder, executor: Executor,
            chunk: Optional[int], progress: Union[Show, bool, None]) -> Summary:
    """Measures what the journal does not have, and closes the executor.

    chunk  None: by the rate.
    """
    reporter = Reporter(progress, total)
    missing = _missing(source, folder, reporter)
    try:
        ended = False
        while True:
            while not ended and executor.room():
                size = chunk or min(max(int(reporter.rate / _CHUNKS_A_SECOND), _CLUSTER_CHUNK), _LARGEST_CHUNK)
                exposures = list(itertools.islice(missing, size))
                ended = len(exposures) < size
                if exposures:
                    executor.submit(exposures)
            if not executor.pending:
                break
            records = executor.next()
            folder.add(records)
            reporter.add(len(records), sum(r.row.status == FAILED for r in records))
    finally:
        try:
            executor.close()
        finally:
            folder.flush()
            seconds = reporter.end()
    return Summary(folder.path, *folder.totals(), measured=reporter.done, seconds=seconds)


def _sized(source: Iterator[Exposure], rig: Any) -> Tuple[Iterator[Exposure], Any]:
    """The rig with the size of the first left image that can be read, and all exposures still to come."""
    seen = []
    for exposure in itertools.islice(source, _UNREADABLE):
        seen.append(exposure)
        try:
            return itertools.chain(seen, source), rig.with_size(*kestrune.image_size(exposure.left))
        except InputError:  # its own row will tell
            continue
    raise InputError(f"the calibration has no image size, and none of the first {len(seen)} left images can be read to "
                     "take it from")


def _missing(source: Iterator[Exposure], folder: RunFolder, reporter: Reporter) -> Iterator[Exposure]:
    for exposure in source:
        admitted = folder.journal.admit(exposure)
        if admitted:
            yield admitted
        else:
            reporter.skipped += 1


def describe(settings: Any, rig: Any) -> Dict[str, Any]:
    """What decides on results, as JSON holds it."""
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder) / "rig"
        rig.write(str(file))
        text = file.read_text("utf-8")
    return {"version": kestrune.__version__, "path": settings.path, "settings": settings.to_dict(), "rig": text}


def _check(processes: Optional[int], chunk: Optional[int], range: Optional[Tuple[float, float]], min_share: float,
           threads: int, timeout: Optional[float], client: Any) -> None:
    for name, value in (("processes", processes), ("chunk", chunk), ("threads", threads)):
        if value is not None and not (isinstance(value, int) and value > 0):
            raise InputError(f"{name}: {value!r} is no number above 0")
    if timeout is not None and not timeout > 0:
        raise InputError(f"timeout: {timeout!r} is no number of seconds above 0")
    if not 0 <= min_share <= 1:
        raise InputError(f"min_share: {min_share!r} is no share of 0 to 1")
    if range is not None and not (len(range) == 2 and float("-inf") < range[0] < range[1] < float("inf")):
        raise InputError(f"range: {range!r} is no (low, high)")
    if client is not None and processes is not None:
        raise InputError("processes: is for this machine, a cluster has its workers")
    if client is not None and getattr(client, "asynchronous", False):
        raise InputError("client: an asynchronous one cannot be used here")

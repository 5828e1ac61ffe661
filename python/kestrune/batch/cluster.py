# SPDX-License-Identifier: Apache-2.0
"""Chunks of exposures on a Dask cluster: a window of tasks at the scheduler, whatever the length of the run."""

import concurrent.futures
import itertools
import threading
import time
import uuid
from collections import deque
from dataclasses import dataclass
from typing import Any, Deque, Dict, List, Optional, Sequence

import kestrune

from .errors import KEPT, BatchError, RunInterrupted
from .exposures import Exposure
from .keeper import Keeper
from .record import Record, failed
from .task import reason_of

# Tasks for each thread of a worker: one is under way while the next waits there.
_AHEAD = 2
_LEAST_WINDOW = 4
# Dask gives a task up when workers died under it again and again, which may be the fault of another task there. Each of
# its exposures is then handed over alone, this many times.
_ROUNDS = 2
# Done tasks wake us; the states are also looked at this often, since not every loss does.
_LOOK_SECONDS = 1.0
_IDLE_SECONDS = 30.0


# In the worker --------------------------------------------------------------------------------------------------------

class _Keepers:
    """Children of this worker, kept between the tasks of a run; as many as it has threads at work."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._idle: Dict[str, List[Any]] = {}
        self._watch: Optional[threading.Thread] = None

    def take(self, run: str) -> Optional[Keeper]:
        with self._lock:
            idle = self._idle.get(run)
            return idle.pop()[0] if idle else None

    def give_back(self, run: str, keeper: Keeper) -> None:
        with self._lock:
            self._idle.setdefault(run, []).append((keeper, time.monotonic()))
            if self._watch is None:
                self._watch = threading.Thread(target=self._close_idle, daemon=True)
                self._watch.start()

    def _close_idle(self) -> None:
        """Until none is left."""
        while True:
            time.sleep(_IDLE_SECONDS / 4)
            with self._lock:
                before = time.monotonic() - _IDLE_SECONDS
                old = [keeper for idle in self._idle.values() for keeper, since in idle if since < before]
                kept = {run: [entry for entry in idle if entry[1] >= before] for run, idle in self._idle.items()}
                self._idle = {run: idle for run, idle in kept.items() if idle}
                if not self._idle:
                    self._watch = None
            for keeper in old:
                keeper.close()
            if self._watch is None:
                return


_keepers = _Keepers()


def measure_chunk(version: str, run: str, task: bytes, threads: int, timeout: Optional[float],
                  chunk: Sequence[Exposure]) -> List[Record]:
    """The task at a worker. @raises BatchError"""
    if kestrune.__version__ != version:
        raise BatchError(f"the worker has version {kestrune.__version__}, the client {version}")
    keeper = _keepers.take(run) or Keeper(task, threads, timeout)
    try:
        return [keeper.measure(*pair) for pair in zip(chunk, [*chunk[1:], None])]
    finally:
        _keepers.give_back(run, keeper)


# In the client --------------------------------------------------------------------------------------------------------

@dataclass
class _Flight:
    future: Any
    chunk: Sequence[Exposure]
    rounds: int  # how often it was handed over alone


class ClusterExecutor:
    def __init__(self, client: Any, task: bytes, threads: int, timeout: Optional[float]):
        self._client, self._run = client, uuid.uuid4().hex
        self._arguments = (kestrune.__version__, self._run, task, threads, timeout)
        self._numbers = itertools.count()
        self._flights: Dict[int, _Flight] = {}
        self._suspects: "Deque[tuple[Exposure, int]]" = deque()  # with their rounds
        self._wake = threading.Event()
        self._window, self._counted = _LEAST_WINDOW, 0.0

    @property
    def pending(self) -> bool:
        return bool(self._flights or self._suspects)

    def room(self) -> bool:
        if self._suspects:
            return False
        now = time.monotonic()
        if now - self._counted > _LOOK_SECONDS:  # workers come and go
            try:
                workers = self._client.scheduler_info().get("workers", {}).values()
            except Exception as error:
                raise self._interrupted(error) from error
            self._window = max(_LEAST_WINDOW, _AHEAD * sum(worker.get("nthreads", 1) for worker in workers))
            self._counted = now
        return len(self._flights) < self._window

    def submit(self, chunk: Sequence[Exposure]) -> None:
        self._submit(chunk, 0)

    def _submit(self, chunk: Sequence[Exposure], rounds: int) -> None:
        number = next(self._numbers)
        try:
            # One group of keys for the run; a group for each task would be a burden to the scheduler.
            future = self._client.submit(measure_chunk, *self._arguments, chunk, pure=False,
                                         key=("kestrune-batch-" + self._run, number))
        except Exception as error:
            raise self._interrupted(error) from error
        self._flights[number] = _Flight(future, chunk, rounds)
        future.add_done_callback(lambda _: self._wake.set())

    def next(self) -> List[Record]:
        """@raises RunInterrupted, BatchError"""
        while True:
            if self._suspects and not self._flights:
                exposure, rounds = self._suspects.popleft()
                self._submit([exposure], rounds + 1)
            self._wake.clear()
            for number, flight in self._flights.items():
                if flight.future.status not in ("pending", "lost"):  # what is lost is computed again
                    return self._land(number, flight)
            if self._client.status in ("closing", "closed"):
                raise self._interrupted("the client is closed")
            self._wake.wait(_LOOK_SECONDS)

    def _land(self, number: int, flight: _Flight) -> List[Record]:
        from distributed import KilledWorker
        try:
            records: List[Record] = flight.future.result()
        except KilledWorker:
            records = self._again(flight)
        except (BatchError, ImportError) as error:
            raise BatchError(f"a worker cannot measure: {error}") from error
        except (concurrent.futures.CancelledError, OSError, TimeoutError) as error:
            raise self._interrupted(error) from error
        except Exception as error:
            # While a client closes, its futures fail with whatever they meet.
            if self._client.status != "running":
                raise self._interrupted("the client is closed") from error
            raise BatchError(f"a worker cannot measure: {reason_of(error)}") from error
        del self._flights[number]
        flight.future.release()
        return records

    def _again(self, flight: _Flight) -> List[Record]:
        """Sets the exposures aside, to be measured while nothing else is."""
        if flight.rounds >= _ROUNDS:
            return [failed(e, "its workers were killed again and again, also with nothing else under way")
                    for e in flight.chunk]
        self._suspects += [(exposure, flight.rounds) for exposure in flight.chunk]
        return []

    def _interrupted(self, cause: object) -> RunInterrupted:
        return RunInterrupted(f"the scheduler is lost or was restarted ({cause}); {KEPT}")

    def close(self) -> None:
        """Tells the scheduler to forget what is under way; workers end the chunk that they are at."""
        flights, self._flights = list(self._flights.values()), {}
        self._suspects.clear()
        for flight in flights:
            try:
                flight.future.release()
            except Exception:  # nobody is there to be told
                pass

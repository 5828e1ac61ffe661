# SPDX-License-Identifier: Apache-2.0
"""Chunks of exposures on this machine: threads that each own a child process."""

import queue
import threading
from typing import List, Optional, Sequence, Union

from .exposures import Exposure
from .keeper import Keeper
from .record import Record

# Chunks for each process: one under way, and enough for the time in which a part is made to last on disk, which is some
# tenths of a second on a slow one.
_AHEAD = 8


class LocalExecutor:
    def __init__(self, task: bytes, processes: int, threads: int, timeout: Optional[float]):
        self._keepers = [Keeper(task, threads, timeout) for _ in range(processes)]
        self._work: "queue.Queue[Optional[Sequence[Exposure]]]" = queue.Queue()
        self._done: "queue.Queue[Union[List[Record], BaseException]]" = queue.Queue()
        self._flight = 0
        self._threads: List[threading.Thread] = []

    @property
    def pending(self) -> bool:
        return self._flight > 0

    def room(self) -> bool:
        return self._flight < _AHEAD * len(self._keepers)

    def submit(self, chunk: Sequence[Exposure]) -> None:
        self._flight += 1
        self._work.put(chunk)
        if len(self._threads) < len(self._keepers):  # no more processes than there are chunks
            keeper = self._keepers[len(self._threads)]
            self._threads.append(threading.Thread(target=self._measure, args=(keeper,), daemon=True))
            self._threads[-1].start()

    def next(self) -> List[Record]:
        """Waits for a chunk. @raises BatchError"""
        result = self._done.get()
        self._flight -= 1
        if isinstance(result, BaseException):
            raise result
        return result

    def _measure(self, keeper: Keeper) -> None:
        chunk = self._work.get()
        while chunk is not None:
            ahead = self._take_ahead()
            following = [*chunk[1:], ahead[0] if ahead else None]
            try:
                self._done.put([keeper.measure(one, then) for one, then in zip(chunk, following)])
            except BaseException as error:
                self._done.put(error)
                break
            chunk = ahead or self._work.get()
        keeper.close()

    def _take_ahead(self) -> Optional[Sequence[Exposure]]:
        """The next chunk. None where there are so few that another process may run out of them."""
        if self._work.qsize() <= len(self._keepers):
            return None
        try:
            chunk = self._work.get_nowait()
        except queue.Empty:
            return None
        if chunk is None:
            self._work.put(chunk)  # the end, which is for `_measure` to take
        return chunk

    def close(self) -> None:
        """Ends what is being measured, and all children."""
        for keeper in self._keepers[:len(self._threads)] if self._flight else []:
            keeper.stop()
        for _ in self._threads:
            self._work.put(None)
        for thread in self._threads:
            thread.join()

# SPDX-License-Identifier: Apache-2.0
"""The parent's side of a child process, which may crash on an exposure without harm to the others."""

import json
import os
import signal
import subprocess
import sys
import threading
import time
from typing import List, Optional

from . import frames
from .errors import BatchError
from .exposures import Exposure
from .record import Record, failed

TRIES = 3
# Imports from a slow shared folder take their time; a child that says nothing for longer never will.
_START_SECONDS = 300.0
_END_SECONDS = 5.0
# Bytes of an exposure that is handed over ahead: the pipe holds several, so that nobody waits while the child does.
_MOST_AHEAD = 1 << 14
_LIBRARY_VARIABLES = {"OPENCV_LOG_LEVEL": "SILENT"}  # what cannot be read is told in the tables
_BOOT = ("import json, sys; sys.path[:] = json.loads(sys.argv[1]); "
         "from kestrune.batch.child import main; main()")


class ChildEnded(Exception):
    """The text says how: "signal 11 (SIGSEGV)", "exit code 1", "no result within 60 s"."""


class Child:
    """One child process with its task. Used by one thread at a time; `kill` may come from any."""

    def __init__(self, task: bytes, threads: int):
        """@raises ChildEnded, BatchError  the latter where the child says that it cannot work."""
        environment = {**_LIBRARY_VARIABLES, **os.environ, "OMP_NUM_THREADS": str(threads)}
        path = json.dumps([entry or os.getcwd() for entry in sys.path])
        # A session of its own keeps the terminal's Ctrl-C away: the parent decides what ends.
        self._process = subprocess.Popen([sys.executable, "-c", _BOOT, path, "kestrune-batch-child"], bufsize=0,
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment,
                                         start_new_session=True)
        self._ahead: Optional[Exposure] = None  # is with the child, but was not asked for yet
        self._send(frames.frame(task))
        objection = self._answer(_START_SECONDS)
        if objection:
            self.close()
            raise BatchError(f"a child process cannot work: {objection}")

    @property
    def pid(self) -> int:
        return self._process.pid

    def measure(self, exposure: Exposure, following: Optional[Exposure], timeout: Optional[float]) -> Record:
        """@param following  the one that is asked for next. The child has it at hand, and does not wait for us.
        @param timeout  seconds; None: no limit.

        @raises ChildEnded  the child is closed then.
        """
        assert self._ahead is None or self._ahead is exposure
        if self._ahead is None:
            self._send(frames.frame(exposure))
        self._ahead = None
        data = frames.frame(following) if following else b""
        if 0 < len(data) <= _MOST_AHEAD:
            self._send(data)
            self._ahead = following
        record = self._answer(timeout)
        assert isinstance(record, Record)
        return record

    def kill(self) -> None:
        self._process.kill()

    def close(self) -> None:
        """Ends it within seconds, whatever it is at."""
        for pipe in (self._process.stdin, self._process.stdout):
            if pipe:
                pipe.close()
        try:
            self._process.wait(_END_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def _send(self, data: bytes) -> None:
        """To a child that has ended as well, whose last answer may be there still."""
        assert self._process.stdin
        try:
            frames.write(self._process.stdin.fileno(), data)
        except OSError:
            pass

    def _answer(self, seconds: Optional[float]) -> object:
        assert self._process.stdout
        deadline = None if seconds is None else time.monotonic() + seconds
        try:
            return frames.receive(self._process.stdout.fileno(), deadline)
        except frames.Late:
            self._process.kill()
            self.close()
            raise ChildEnded(f"no result within {seconds:g} s") from None
        except (EOFError, OSError):
            self.close()
            raise ChildEnded(_ending(self._process.returncode)) from None


def _ending(code: int) -> str:
    if code >= 0:
        return f"exit code {code}"
    try:
        return f"signal {-code} ({signal.Signals(-code).name})"
    except ValueError:
        return f"signal {-code}"


class Keeper:
    """Measures exposures through one child that it replaces when it ends. Used by one thread at a time."""

    def __init__(self, task: bytes, threads: int, timeout: Optional[float]):
        self._task, self._threads, self._timeout = task, threads, timeout
        self._child: Optional[Child] = None
        self._lock = threading.Lock()
        self._stopped = False

    def measure(self, exposure: Exposure, following: Optional[Exposure] = None) -> Record:
        """Tries an exposure that ends its child three times, each in a new one, then gives it up as failed.

        @param following  the next one, if it is known: none other may be asked for then.
        @raises BatchError  where children cannot start, or after `stop`.
        """
        endings: List[str] = []
        while len(endings) < TRIES:
            child = self._start() if self._child is None else self._child
            try:
                return child.measure(exposure, following, self._timeout)
            except ChildEnded as ending:
                self._child = None
                if self._stopped:
                    raise BatchError("stopped") from None
                endings.append(str(ending))
        told = ", ".join(endings if len(set(endings)) > 1 else endings[:1])
        return failed(exposure, f"ended its process three times: {told}")

    def _start(self) -> Child:
        for attempt in range(TRIES):
            try:
                child = Child(self._task, self._threads)
            except (ChildEnded, OSError) as error:
                if attempt + 1 == TRIES or self._stopped:
                    raise BatchError(f"a child process cannot start: {error}") from error
                continue
            with self._lock:
                self._child = child
            if self._stopped:
                child.kill()
            return child
        raise AssertionError

    def stop(self) -> None:
        """From any thread: ends what is being measured."""
        with self._lock:
            self._stopped = True
            if self._child:
                self._child.kill()

    def close(self) -> None:
        if self._child:
            self._child.close()
            self._child = None

# SPDX-License-Identifier: Apache-2.0
"""The child process: measures one exposure after the other until its pipe closes.

Frames in: the pickled task, then exposures. Frames out: "" or why it cannot work, then one record for each exposure.
"""

import os
import pickle

from . import frames
from .record import failed
from .task import Task, reason_of


def _take_pipes() -> "tuple[int, int]":
    """Puts the pipes where no library reads from or prints to; what is printed goes to standard error."""
    incoming, outgoing = os.dup(0), os.dup(1)
    nothing = os.open(os.devnull, os.O_RDONLY)
    os.dup2(nothing, 0)
    os.close(nothing)
    os.dup2(2, 1)
    return incoming, outgoing


def main() -> None:
    incoming, outgoing = _take_pipes()
    try:
        task: Task = pickle.loads(frames.receive(incoming))
        measure = task.prepare()
    except EOFError:
        return
    except Exception as error:
        frames.send(outgoing, reason_of(error))
        return
    frames.send(outgoing, "")
    try:
        while True:
            exposure = frames.receive(incoming)
            try:
                record = measure(exposure)
            except Exception as error:
                record = failed(exposure, reason_of(error))
            frames.send(outgoing, record)
    except (EOFError, BrokenPipeError):
        pass  # whoever asked has ended

# SPDX-License-Identifier: Apache-2.0
"""Measuring functions that crash, hang or take their worker along: found by the exposure's name."""

import os
import signal
import time

from kestrune.batch.record import Row, Record


def killed_worker():
    """The child's parent: the process of the Dask worker."""
    os.kill(os.getppid(), signal.SIGKILL)
    time.sleep(3)


ACTS = {"segfault": lambda: os.kill(os.getpid(), signal.SIGSEGV), "exit": lambda: os._exit(7),
        "hang": lambda: time.sleep(600), "raise": lambda: 1 / 0, "worker": killed_worker}


class Nothing:
    """Takes no time."""

    def prepare(self):
        return lambda exposure: Record(Row(exposure.name, exposure.left, exposure.right, status="ok"))


class Task:
    """Each call leaves a line in the file `log`, so that a test can count them."""

    def __init__(self, log, seconds=0.0):
        self.log, self.seconds = str(log), seconds

    def prepare(self):
        return self.measure

    def measure(self, exposure):
        with open(self.log, "a") as log:
            log.write(exposure.name + "\n")
        time.sleep(self.seconds)
        ACTS.get(exposure.name.split("-")[0], lambda: None)()
        return Record(Row(exposure.name, exposure.left, exposure.right, status="ok"))

# SPDX-License-Identifier: Apache-2.0
"""What a batch raises besides `kestrune.InputError`."""

KEPT = "what was measured is kept, go on with resume"


class BatchError(RuntimeError):
    """The run cannot go on for a reason that no single exposure has, such as a child process that cannot start."""


class RunInterrupted(BatchError):
    """The run was cut off from outside (scheduler or client gone, disk full). What was measured is kept.

    The text says how to go on.
    """

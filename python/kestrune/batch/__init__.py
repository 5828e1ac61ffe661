# SPDX-License-Identifier: Apache-2.0
"""Thousands of exposures, on one machine or on a Dask cluster, into tables on disk.

    from kestrune import Rig, Settings, batch
    settings = Settings.read("settings.yaml", use="stereo")
    batch.measure(("left/*.png", "right/*.png"), settings, Rig.read("rig.yaml"), "out")
    points, exposures = batch.read("out")

`measure` tells the rest; on the command line it is `kestrune-batch`.
"""

from .errors import BatchError, RunInterrupted
from .exposures import Exposure
from .progress import Progress
from .run import Summary, measure
from .tables import Tables, read

__all__ = ["BatchError", "Exposure", "Progress", "RunInterrupted", "Summary", "Tables", "measure", "read"]

# SPDX-License-Identifier: Apache-2.0
"""A process that measures, for tests that kill it: folder of the scene, output folder, number of exposures."""

import sys
from pathlib import Path

from batch_scene import Scene

from kestrune import batch

if __name__ == "__main__":
    scene = Scene(Path(sys.argv[1]), draw_images=False)
    batch.measure(scene.many(int(sys.argv[3])), scene.settings, scene.rig, sys.argv[2], processes=2, resume=True)

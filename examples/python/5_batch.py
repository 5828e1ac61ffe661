#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Many exposures of one pair of cameras.  usage: 5_batch.py ['LEFT*' 'RIGHT*' CALIBRATION SETTINGS OUT]"""

import sys
from pathlib import Path

import numpy as np

import kestrune
from kestrune import batch


def more_exposures(folder, count):
    """The demonstration has one exposure: here it is again, with other noise of the camera."""
    folder.mkdir(exist_ok=True)
    camera = np.random.default_rng(1)
    for eye in ("left", "right"):
        image = kestrune.read_image(folder.parent / f"stereo-{eye}.png")
        for number in range(count):
            noisy = np.clip(np.rint(image + camera.normal(0, 2, image.shape)), 0, 255)
            kestrune.write_image(folder / f"{eye}-{number}.png", np.uint8(noisy))


if not sys.argv[1:]:
    more_exposures(Path("out/demo/exposures"), 6)
lefts, rights, calibration, settings, out = sys.argv[1:] or [
    "out/demo/exposures/left-*.png", "out/demo/exposures/right-*.png", "out/demo/stereo-calibration.yaml",
    "out/demo/stereo-settings.yaml", "out/demo/python-batch"]

# One process for each processor, each with one thread. A run that was cut off goes on where it was, and one that is
# complete only measures what was added.
summary = batch.measure((lefts, rights), kestrune.Settings.read(settings, use="stereo"), kestrune.Rig.read(calibration),
                        out, resume=True)
print(f"{summary.exposures} exposures, {summary.failed} failed, {summary.measured} measured now")

# Failed exposures are rows with their reason.
points, exposures = batch.read(out)
for name, status, reason in zip(exposures["exposure"], exposures["status"], exposures["reason"]):
    if status != "ok":
        print(f"  {name}: {reason}")

# Nothing moved between these exposures: how far a marker's points lie apart is the noise of the measurement.
exposure, xyz = np.asarray(points["exposure"]), np.stack([points[axis] for axis in "XYZ"], axis=1)
first = xyz[exposure == exposure[0]]
marker = np.linalg.norm(xyz[:, None] - first, axis=2).argmin(axis=1)
spread = np.array([xyz[marker == k].std(axis=0) for k in range(len(first))])
x, y, z = np.sqrt((spread ** 2).mean(axis=0))
print(f"a point repeats to (RMS) X {x:.4f}, Y {y:.4f}, Z {z:.4f}")

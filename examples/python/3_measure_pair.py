#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Two images of one exposure become points in space.  usage: 3_measure_pair.py [LEFT RIGHT CALIBRATION SETTINGS OUT]"""

import sys

import numpy as np

import kestrune

left, right, calibration, settings, out = sys.argv[1:] or [
    "out/demo/stereo-left.png", "out/demo/stereo-right.png", "out/demo/stereo-calibration.yaml",
    "out/demo/stereo-settings.yaml", "out/demo/python-pair"]

extractor = kestrune.Extractor(kestrune.Settings.read(settings, use="stereo"), kestrune.Rig.read(calibration))
points = extractor.stereo_files(left, right, picture=True)
if points.failure:  # the rows of such an exposure are not to be trusted
    sys.exit(f"no points: {points.failure}")
print(f"{len(points)} pairs of {points.found[0]} and {points.found[1]} markers. {points.warning}")

# How far the two rays of a marker miss each other is what an exposure can tell of itself.
print(f"row residual: RMS {np.sqrt(np.mean(points['rowResidual'] ** 2)):.4f} px")

# The object of the demonstration is a part of a cylinder. Its axis is the direction that the normals of the discs do not
# have; seen along the axis the points lie on a circle: |p|^2 = 2 p c + (r^2 - |c|^2), which is linear in c and r^2 - |c|^2.
normals = np.stack([points[name] for name in ("normalX", "normalY", "normalZ")], axis=1)
across = np.linalg.svd(normals)[2][:2]
p = points.xyz @ across.T
*c, rest = np.linalg.lstsq(np.c_[2 * p, np.ones(len(p))], (p ** 2).sum(axis=1), rcond=None)[0]
radius = np.sqrt(rest + c[0] ** 2 + c[1] ** 2)
deviation = np.hypot(*(p - c).T) - radius
print(f"cylinder of radius {radius:.2f}, deviation RMS {deviation.std():.4f}, largest {abs(deviation).max():.4f}")

try:
    points.to_pandas().to_csv(out + ".csv", index=False)
except ImportError:  # pandas is not needed
    np.savetxt(out + ".csv", points.array, "%.9g", ",", header=",".join(points.columns), comments="")
kestrune.write_image(out + ".png", points.picture)
if points.view is not None:
    kestrune.write_image(out + "-3d.png", points.view)

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
print(f"{len(points)} pairs of {points.found[0]} and {points.found[1]} markers {points.warning}")

# How far the two rays of a marker miss each other is what an exposure can tell of itself.
print(f"row residual: RMS {np.sqrt(np.mean(points['rowResidual'] ** 2)):.4f} px")

# The object of the demonstration is a part of a cylinder. Its axis is the direction that the normals of the discs do
# not have; along it the points lie on a circle: |p|^2 = 2 p c + (r^2 - |c|^2), which is linear in c and r^2 - |c|^2.
normals = np.stack([points[name] for name in ("normalX", "normalY", "normalZ")], axis=1)
*across, axis = np.linalg.svd(normals)[2]
p = points.xyz @ np.transpose(across)
*c, rest = np.linalg.lstsq(np.c_[2 * p, np.ones(len(p))], (p ** 2).sum(axis=1), rcond=None)[0]
cylinder = np.array([0, 0, *c, np.sqrt(rest + c[0] ** 2 + c[1] ** 2)])


def deviation(cylinder):
    """Of the points: two tilts of the axis, centre and radius."""
    *tilts, x, y, radius = cylinder
    return np.hypot(*((points.xyz @ (across + np.outer(tilts, axis)).T) - (x, y)).T) - radius


# Points are more exact than normals: with them the axis is tilted until the deviations are least.
for _ in range(3):
    slopes = [(deviation(cylinder + step) - deviation(cylinder)) / 1e-3 for step in 1e-3 * np.eye(5)]
    cylinder -= np.linalg.lstsq(np.transpose(slopes), deviation(cylinder), rcond=None)[0]
print(f"cylinder of radius {cylinder[4]:.3f}, deviations RMS {deviation(cylinder).std():.4f}, "
      f"largest {abs(deviation(cylinder)).max():.4f}")

try:
    points.to_pandas().to_csv(out + ".csv", index=False)
except ImportError:  # pandas is not needed
    np.savetxt(out + ".csv", points.array, "%s", ",", header=",".join(points.columns), comments="")
kestrune.write_image(out + ".png", points.picture)
if points.view is not None:
    kestrune.write_image(out + "-3d.png", points.view)

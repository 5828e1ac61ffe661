#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Markers placed by a depth image.  usage: 4_depth.py [IMAGE DEPTH STEP CALIBRATION SETTINGS]"""

import sys

import numpy as np

import kestrune

image_file, depth_file, step, calibration, settings = sys.argv[1:] or [
    "out/demo/stereo-left.png", "out/demo/stereo-depth.png", "0.02", "out/demo/stereo-calibration.yaml",
    "out/demo/stereo-settings.yaml"]

# z of each pixel, of the image's size and without the lens's distortion, 0 or NaN where nothing was measured: whatever
# array a depth camera gives. Here a file of 16 bits, each step of which is so many mm.
depth = kestrune.read_depth(depth_file)
rig = kestrune.Rig.read(calibration)
extractor = kestrune.Extractor(kestrune.Settings.read(settings), rig)
image = kestrune.read_image(image_file)
placed = extractor.depth(image, depth, scale=float(step))
print(f"{len(placed)} of {len(extractor.extract(image))} markers have a depth, from {placed['Z'].min():.1f} to "
      f"{placed['Z'].max():.1f}")

# The centre is measured to hundredths of a pixel: what that is on the object.
focal = rig.left_matrix[0, 0]
print(f"a pixel is {placed['Z'].mean() / focal:.4f} wide there")

# The steps between neighbours, from marker to marker.
xyz = np.stack([placed[name] for name in "XYZ"], axis=1)
gaps = np.linalg.norm(xyz[:, None] - xyz, axis=2)
np.fill_diagonal(gaps, np.inf)
one, other = np.unravel_index(gaps.argmin(), gaps.shape)
print(f"nearest two: {placed[one]['id']} and {placed[other]['id']}, {gaps.min():.3f} apart")

#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The pictures of docs/python.md, from what the examples in examples/python have left in out/demo."""
import os

import numpy as np

import kestrune

HERE = os.path.dirname(__file__)
# First and last row, first and last column of the part that is shown, and its reduction. The noise of the camera, which
# makes a file large, is less than a step of the grey values.
PARTS = {"find": (120, 900, 0, 1600, 2), "explain-before": (0, 900, 0, 2600, 3), "pair": (0, 1400, 0, 4902, 6),
         "pair-3d": (40, 1120, 200, 1600, 2), "uncertainty-3d": (40, 1120, 200, 1600, 2)}
STEP = 8

for name, (top, bottom, left, right, by) in PARTS.items():
    part = kestrune.read_image(f"out/demo/python-{name}.png")[top:bottom, left:right]
    rows, columns = part.shape[0] // by, part.shape[1] // by
    small = part[:rows * by, :columns * by].reshape(rows, by, columns, by, -1).mean(axis=(1, 3))
    shown = np.uint8(np.minimum((small / STEP).round() * STEP, 255))
    kestrune.write_image(os.path.join(HERE, f"python-{name}.png"), shown)

#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The markers of one image, as a table and a picture.  usage: 1_find.py [IMAGE SETTINGS PICTURE]"""

import sys

import numpy as np

import kestrune

image_file, settings_file, picture_file = sys.argv[1:] or [
    "out/demo/left.png", "examples/settings/bright-radial.yaml", "out/demo/python-find.png"]

image = kestrune.read_image(image_file)
extractor = kestrune.Extractor(kestrune.Settings.read(settings_file))
markers = extractor.extract(image, picture=True)
print(f"{len(markers)} markers in {image.shape[1]} x {image.shape[0]} px")

# Columns are arrays. A disc that is tilted against the view is an ellipse, and the ratio of its axes tells by how much.
tilt = np.degrees(np.arccos(markers["minor"] / markers["major"]))
print(f"half axes {markers['minor'].min():.1f} to {markers['major'].max():.1f} px, tilt up to {tilt.max():.0f} degrees")

# The rims that are least like an ellipse are the ones to look at.
print("  id         x         y   major   minor  fitResidual")
for row in markers[np.argsort(-markers["fitResidual"])[:5]]:
    print(f"{row['id']:4} {row['x']:9.2f} {row['y']:9.2f} {row['major']:7.2f} {row['minor']:7.2f} "
          f"{row['fitResidual']:12.4f}")
print(f"fitResidual: {markers.columns['fitResidual']}")

kestrune.write_image(picture_file, markers.picture)

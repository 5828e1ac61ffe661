# SPDX-License-Identifier: Apache-2.0
"""How well is a marker known, and what is measured from it?"""
import sys
from collections import Counter

import numpy as np

import kestrune

left, right, calibration, settings, out = sys.argv[1:] or [
    "out/demo/stereo-left.png", "out/demo/stereo-right.png", "out/demo/stereo-calibration.yaml",
    "out/demo/stereo-settings.yaml", "out/demo/python-uncertainty"]

# refine=True measures each marker again on the grey levels, with the covariance of what comes out.
extractor = kestrune.Extractor(kestrune.Settings.read(settings, use="stereo"), kestrune.Rig.read(calibration))
markers = extractor.extract(kestrune.read_image(left), refine=True, picture=True)
print(dict(Counter(markers["status"].tolist())))
print(f"medians: centres are known to {np.median(markers['sigmaX']):.4f} px, half axes to "
      f"{np.median(markers['sigmaMajor']):.4f} px; rims are blurred by {np.nanmedian(markers['blur']):.2f} px")
kestrune.write_image(out + ".png", markers.picture)

# Small markers are known less well, with the square root of their size.
for marker, estimate in sorted(zip(markers, markers.estimates), key=lambda pair: -pair[0]["sigmaX"])[:3]:
    (xx, xy), (_, yy) = estimate.centreCovariance
    print(f"  {marker['id']:3}: radius {marker['major']:5.2f} px, x +- {xx ** 0.5:.4f}, y +- {yy ** 0.5:.4f}, "
          f"correlation {xy / (xx * yy) ** 0.5:+.2f}")

# In space: a point's covariance is long towards the cameras, and distances across them are known better than depths.
points = extractor.stereo_files(left, right, refine=True, picture=True)
sigmas = [np.median(points["sigma" + axis]) for axis in "XYZ"]
print("a point is known to (medians) X {:.4f}, Y {:.4f}, Z {:.4f}".format(*sigmas))
apart = np.linalg.norm(points.xyz - points.xyz[0], axis=1)
far = apart.argmax()
along = (points.xyz[far] - points.xyz[0]) / apart[far]
variance = along @ (points.covariances[0] + points.covariances[far]) @ along
print(f"from point 0 to point {far}: {apart[far]:.4f} +- {variance ** 0.5:.4f}")

# What was seen against what is told: about 4 for each disc where the images show what the calibration says.
print(f"chi-square: mean {points['chiSquare'].mean():.1f}, largest {points['chiSquare'].max():.1f}")
kestrune.write_image(out + "-3d.png", points.view)

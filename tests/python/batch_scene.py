# SPDX-License-Identifier: Apache-2.0
"""Small exposures of a camera pair for the tests of batches: bright discs before two parallel cameras."""

from pathlib import Path

import numpy as np

import kestrune

ROOT = Path(__file__).resolve().parents[2]
WIDTH, HEIGHT, FOCAL, BASE, DEPTH = 160, 120, 400.0, 40.0, 1000.0
RIG = f"""%YAML:1.0
---
image_width: {WIDTH}
image_height: {HEIGHT}
cameras:
   left: {{ fx: {FOCAL}, fy: {FOCAL}, cx: 79.5, cy: 59.5, distortion: [ 0., 0., 0., 0., 0. ] }}
   right: {{ fx: {FOCAL}, fy: {FOCAL}, cx: 79.5, cy: 59.5, distortion: [ 0., 0., 0., 0., 0. ] }}
poses:
   left: {{ rotation: [ 1., 0., 0., 0., 1., 0., 0., 0., 1. ], position: [ 0., 0., 0. ] }}
   right: {{ rotation: [ 1., 0., 0., 0., 1., 0., 0., 0., 1. ], position: [ {BASE}, 0., 0. ] }}
"""


def pgm(file, grey, largest=255):
    kind = "u1" if largest < 256 else ">u2"
    Path(file).write_bytes(b"P5\n%d %d\n%d\n" % (WIDTH, HEIGHT, largest) + grey.astype(kind).tobytes())


def draw(number, right):
    """Discs of 8 px of 20 mm radius at the depth 1000 mm, at other places for each number."""
    y, x = np.mgrid[:HEIGHT, :WIDTH]
    shift = FOCAL * BASE / DEPTH if right else 0.0
    image = np.full((HEIGHT, WIDTH), 40.0)
    for k in range(4):
        u, v = 40 + 32 * k + number % 5 + 0.1 * number - shift, 30 + 18 * k + 0.37 * (number % 7)
        image += 180 * np.clip(8.5 - np.hypot(x - u, y - v), 0, 1)
    return np.clip(image, 0, 255)


class Scene:
    """Files of `count` exposures in `folder`, and what measures them."""

    def __init__(self, folder, count=5):
        self.rig_file, self.settings_file = folder / "rig.yaml", folder / "settings.yaml"
        self.rig_file.write_text(RIG)
        text = (ROOT / "examples/settings/bright-radial.yaml").read_text()
        self.settings_file.write_text(text.replace("markerRadii: [ 1.5, 2.5 ]", "markerRadii: [ 20. ]"))
        self.pairs = [(str(folder / f"left{k}.pgm"), str(folder / f"right{k}.pgm")) for k in range(count)]
        for k, pair in enumerate(self.pairs):
            for eye, file in enumerate(pair):
                pgm(file, draw(k, eye == 1))
        self.rig = kestrune.Rig.read(str(self.rig_file))
        self.settings = kestrune.Settings.read(str(self.settings_file), use="stereo")

    def many(self, count):
        """The same few files under many names."""
        return ((f"e{k:06d}", *self.pairs[k % len(self.pairs)]) for k in range(count))

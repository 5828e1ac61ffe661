#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Why something was no marker, and what to change.  usage: 2_explain.py [IMAGE SETTINGS OUT]"""

import sys
from collections import Counter

import kestrune

image_file, settings_file, out = sys.argv[1:] or [
    "out/demo/left.png", "examples/settings/bright-radial.yaml", "out/demo/python-explain"]

# Settings as somebody may have them who looked at the small markers only.
image = kestrune.read_image(image_file)
settings = kestrune.Settings.read(settings_file).replace(maxArea=1000)
explanation = kestrune.Extractor(settings).explain(image, picture=True)
kestrune.write_image(out + "-before.png", explanation.picture)

# Each candidate has the gate that refused it, what was measured there, and what was asked for. A marker has none.
print("candidates:", dict(Counter(explanation["gate"].tolist())))
refused = explanation[explanation["gate"] == "area"]
for row in refused[:3]:
    print(f"  at {row['x']:.0f}, {row['y']:.0f}: area {row['measured']:.0f}, wanted {row['wanted']}")

# They are round, and many: the setting is wrong, not they. A tenth of room is left above the largest.
settings.maxArea = float(round(1.1 * refused["measured"].max()))
explanation = kestrune.Extractor(settings).explain(image, picture=True)
kestrune.write_image(out + "-after.png", explanation.picture)
print(f"with maxArea {settings.maxArea}:", dict(Counter(explanation["gate"].tolist())))

# What is still refused should be no marker. A new file tells what each field means, another keeps its comments.
settings.write(out + ".yaml")
print("never candidates:", dict(Counter(explanation.dropped["gate"].tolist())))

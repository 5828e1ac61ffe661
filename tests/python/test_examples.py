# SPDX-License-Identifier: Apache-2.0
"""The examples and the page about them, run as a reader would."""
import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from conftest import READY, rows

import kestrune

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = sorted((ROOT / "examples/python").glob("[0-9]_*.py"))
READY = Path(READY).resolve()


@pytest.fixture(scope="module")
def tree(demo, tmp_path_factory):
    """A folder with the demonstration and the ready settings where the examples look for them."""
    folder = tmp_path_factory.mktemp("tree")
    (folder / "out").mkdir()
    (folder / "examples").mkdir()
    (folder / "out/demo").symlink_to(demo)
    (folder / "examples/settings").symlink_to(READY)
    return folder


def said(folder, *command):
    done = subprocess.run([sys.executable, *map(str, command)], cwd=folder, capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return done.stdout


def code_of(text):
    return "".join(re.findall(r"^```python\n(.*?)^```$", text, re.M | re.S))


SAYS = {
    "1_find": (r"14 markers in 640 x 512 px", ["find.png"]),
    "2_explain": (r"candidates: .*'area': [1-9].*\n(?s:.*)with maxArea \d+.*'': 14\b",
                  ["explain-before.png", "explain-after.png"]),
    "3_measure_pair": (r"14 pairs of 14 and 14 markers(?s:.*)cylinder of radius (179\.9|180\.0).*RMS 0\.0[0-4]",
                       ["pair.png", "pair-3d.png"]),
    "4_depth": (r"14 of 14 markers have a depth", []),
    "6_uncertainty": (r"'refined': 14(?s:.*)a point is known to(?s:.*)from point 0 to point \d+: \d+\.\d+ \+- 0\.0\d+\n"
                      r"chi-square: mean [2-7]\.", ["uncertainty.png", "uncertainty-3d.png"]),
    "5_batch": (r"6 exposures, 0 failed, 6 measured now(?s:.*)repeats to \(RMS\) X 0\.0", []),
}


@pytest.mark.parametrize("script", EXAMPLES, ids=lambda file: file.stem)
def test_example_runs_on_the_demonstration(script, tree):
    pattern, pictures = SAYS[script.stem]
    assert re.search(pattern, said(tree, script))
    for picture in pictures:
        assert kestrune.read_image(tree / f"out/demo/python-{picture}").std() > 1


def test_what_the_examples_leave_fits_the_operations(tree, demo):
    for number in (2, 3, 5):
        said(tree, EXAMPLES[number - 1])
    assert "6 exposures, 0 failed, 0 measured now" in said(tree, EXAMPLES[4])  # all is there already
    assert kestrune.Settings.read(demo / "python-explain.yaml").maxArea > 1000
    table = rows(demo / "python-pair.csv")
    extractor = kestrune.Extractor(kestrune.Settings.read(demo / "stereo-settings.yaml"),
                                   kestrune.Rig.read(demo / "stereo-calibration.yaml"))
    points = extractor.stereo_files(demo / "stereo-left.png", demo / "stereo-right.png")
    assert list(table[0]) == list(points.columns) and len(table) == len(points)
    # The depth image is the truth of the left eye: other points than these would be wrong.
    left, depth = kestrune.read_image(demo / "stereo-left.png"), kestrune.read_depth(demo / "stereo-depth.png")
    placed = extractor.depth(left, depth, scale=0.02)
    assert len(placed) == len(points)
    for row in placed:
        nearest = np.hypot(points["leftX"] - row["x"], points["leftY"] - row["y"]).argmin()
        np.testing.assert_allclose([row[axis] for axis in "XYZ"], points.xyz[nearest], atol=0.15)


def test_a_pair_is_tabled_without_pandas(tree, demo):
    blocked = "import sys; sys.modules['pandas'] = None; sys.argv = ['x']; exec(open(%r).read())" % str(EXAMPLES[2])
    said(tree, EXAMPLES[2])
    with_pandas = rows(demo / "python-pair.csv")
    said(tree, "-c", blocked)
    for a, b in zip(with_pandas, rows(demo / "python-pair.csv")):
        assert list(a) == list(b) and all(a[name] == b[name] or np.isclose(float(a[name]), float(b[name]), rtol=1e-8) for name in a)


def test_the_page_shows_the_examples():
    sections = re.split(r"^## ", (ROOT / "docs/python.md").read_text(), flags=re.M)
    for script in EXAMPLES:
        code = script.read_text().split('"""', 2)[2].lstrip("\n")  # all but the head
        section = next(s for s in sections if script.name in s.split("\n", 1)[0])
        assert [line for line in code_of(section).split("\n") if line] == [line for line in code.split("\n") if line]


def test_the_lines_of_the_readme_measure_the_demonstration(tree):
    lines = code_of((ROOT / "README.md").read_text())
    assert lines.count("\n") == 3
    assert said(tree, "-c", lines).count("\n") == 14


def test_pictures_and_depths_are_files(tmp_path):
    grey = np.arange(6, dtype=np.uint8).reshape(2, 3) * 40
    kestrune.write_image(tmp_path / "a.png", np.dstack([grey, grey + 1, grey + 2])[:, ::-1])
    assert (kestrune.read_image(tmp_path / "a.png")[:, ::-1, 0] == grey).all()
    kestrune.write_image(tmp_path / "d.png", grey.astype(np.uint16) * 300)
    assert (kestrune.read_depth(tmp_path / "d.png") == grey.astype(np.uint16) * 300).all()
    for call, expected in [
        (lambda: kestrune.read_depth(tmp_path / "a.png"), "a.png: is of type CV_8UC3; a depth image"),
        (lambda: kestrune.write_image(tmp_path / "a.jpg", grey.astype(np.uint16)), "a.jpg: takes 8 bits"),
        (lambda: kestrune.write_image(tmp_path / "a.png", grey / 3), "image: is of floating point"),
        (lambda: kestrune.write_image(tmp_path / "a.png", grey[:0]), "image: is empty"),
        (lambda: kestrune.write_image(tmp_path / "a.xyz", grey), "a.xyz: "),
    ]:
        with pytest.raises(kestrune.InputError) as raised:
            call()
        assert expected in str(raised.value)
    assert (kestrune.read_image(tmp_path / "a.png")[:, ::-1, 0] == grey).all()

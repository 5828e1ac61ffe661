# SPDX-License-Identifier: Apache-2.0
"""Small exposures of a camera pair for the tests of batches: bright discs before two parallel cameras."""

import contextlib
import os
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pytest

import kestrune
from kestrune import batch
from kestrune.batch.folder import RunFolder
from kestrune.batch.run import execute, executor_for

pandas = pytest.importorskip("pandas")

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

    def __init__(self, folder, count=5, draw_images=True):
        self.rig_file, self.settings_file = folder / "rig.yaml", folder / "settings.yaml"
        self.rig_file.write_text(RIG)
        text = (ROOT / "examples/settings/bright-radial.yaml").read_text()
        self.settings_file.write_text(text.replace("markerRadii: [ 1.5, 2.5 ]", "markerRadii: [ 20. ]"))
        self.pairs = [(str(folder / f"left{k}.pgm"), str(folder / f"right{k}.pgm")) for k in range(count)]
        for k, pair in enumerate(self.pairs if draw_images else []):
            for eye, file in enumerate(pair):
                pgm(file, draw(k, eye == 1))
        self.rig = kestrune.Rig.read(str(self.rig_file))
        self.settings = kestrune.Settings.read(str(self.settings_file), use="stereo")

    def many(self, count):
        """The same few files under many names."""
        return ((f"e{k:06d}", *self.pairs[k % len(self.pairs)]) for k in range(count))

    def expected(self, count, out):
        """Tables of `many(count)`: each file measured once by one process, its rows under all its names."""
        batch.measure(self.many(len(self.pairs)), self.settings, self.rig, out, processes=1)
        tables = batch.read(out)
        names = [f"e{k:06d}" for k in range(count)]

        def repeated(table):
            rows = [table[table.exposure == names[k % len(self.pairs)]].assign(exposure=name)
                    for k, name in enumerate(names)]
            return pandas.concat(rows, ignore_index=True)

        return batch.Tables(*map(repeated, tables))


def same(tables, expected):
    """Every number to its last bit."""
    for name in tables._fields:
        pandas.testing.assert_frame_equal(getattr(tables, name), getattr(expected, name), check_exact=True)


def run_task(task, items, out, resume=False, client=None, timeout=None, **more):
    """Measures with a task of the tests. Rows of the table of exposures by name."""
    folder = RunFolder(Path(out), {}, resume)
    try:
        executor = executor_for(task, client, more.get("processes", 2), 1, timeout)
        source = (batch.Exposure("/l", "/r", name) for name in items)
        summary = execute(source, None, folder, executor, more.get("chunk", 3), False)
    finally:
        folder.close()
    return summary, batch.read(out).exposures.set_index("exposure")


@contextlib.contextmanager
def own_cluster(folder):
    """Scheduler and worker as two machines would have them: the scheduler's process, and its file."""
    file = Path(folder) / f"scheduler-{time.monotonic_ns()}.json"
    options = ["--scheduler-file", str(file), "--no-dashboard"]
    path = os.pathsep.join(p for p in sys.path if p)
    processes = [subprocess.Popen([sys.executable, "-m", "distributed.cli." + name, *options, *more], cwd=folder,
                                  env={**os.environ, "PYTHONPATH": path}, stderr=subprocess.DEVNULL)
                 for name, more in [("dask_scheduler", ["--port", "0"]),
                                    ("dask_worker", ["--nthreads", "2", "--no-nanny"])]]
    try:
        yield processes[0], str(file)
    finally:
        for process in processes:
            process.kill()
            process.wait()

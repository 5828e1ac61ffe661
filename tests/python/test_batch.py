# SPDX-License-Identifier: Apache-2.0
import csv
import errno
import os
import random
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pytest
from batch_scene import Scene, pandas, pgm, run_task, same
from batch_tasks import Task

import kestrune
from kestrune import batch
from kestrune.batch.__main__ import main
from kestrune.batch.exposures import Exposure, take
from kestrune.batch.journal import Journal
from kestrune.batch.record import csv_lines, csv_number

PROGRAM = os.environ.get("KESTRUNE_MEASURE") or shutil.which("kestrune-measure")


@pytest.fixture(scope="module")
def scene(tmp_path_factory):
    return Scene(tmp_path_factory.mktemp("scene"))


def measure(scene, exposures, out, **options):
    return batch.measure(exposures, scene.settings, scene.rig, out, **options)


@pytest.mark.skipif(not PROGRAM, reason="needs the program")
@pytest.mark.parametrize("refine, match", [(False, "path"), (True, "path"), (True, "trusted")])
def test_rows_are_those_of_the_program(refine, match, scene, tmp_path):
    left, right = ([files[eye] for files in scene.pairs + scene.pairs[:2]] for eye in (0, 1))
    known = {"radii": [20, 30], "sure": 0.999} if match == "trusted" else {}
    subprocess.run([PROGRAM, "stereo", "--calibration", scene.rig_file, "--settings", scene.settings_file, "--left",
                    *left, "--right", *right, "--csv", tmp_path / "all.csv", "--refine" if refine else "--no-refine", "--match", match,
                    *["--radii", "20,30", "--sure", "0.999"] * bool(known)], check=True, stdout=subprocess.DEVNULL)
    measure(scene, zip(left, right), tmp_path / "out", processes=1, chunk=10, refine=refine, match=match, known=known)
    with open(tmp_path / "all.csv") as program, open(tmp_path / "out/points/part-000000.csv") as ours:
        assert [row[:16] + row[22:] for row in csv.reader(program)] == list(csv.reader(ours))
    points = batch.read(tmp_path / "out").points
    assert len(points) and ("sigmaZ" in points) == refine
    if refine:
        assert set(points["leftStatus"]) == {"refined"}
        with pytest.raises(kestrune.InputError, match="options.refine was true and is null"):
            measure(scene, [], tmp_path / "out", resume=True, refine=False)
    if match == "trusted":
        assert points["probability"].min() > 0.999
        with pytest.raises(kestrune.InputError, match="options.known.radii was"):
            measure(scene, [], tmp_path / "out", resume=True, match=match)
        with pytest.raises(kestrune.InputError, match="known: 'radius' is none of radii"):
            measure(scene, [], tmp_path / "out2", match=match, known={"radius": 5})


@pytest.mark.parametrize("options", [dict(processes=1, chunk=50), dict(processes=3, chunk=7, threads=2)])
def test_tables_do_not_depend_on_the_split(scene, tmp_path, options):
    summary = measure(scene, scene.many(23), tmp_path / "out", **options)
    assert (summary.exposures, summary.failed, summary.pairs, summary.measured) == (23, 0, 92, 23)
    same(batch.read(tmp_path / "out"), scene.expected(23, tmp_path / "one"))


def test_tables_are_read_without_pandas(scene, tmp_path, monkeypatch):
    measure(scene, [("a,\"b", *scene.pairs[0]), ("none", "/no.pgm", "/no.pgm")], tmp_path)
    frames = batch.read(tmp_path)
    monkeypatch.setitem(sys.modules, "pandas", None)
    for array, frame in zip(batch.read(tmp_path), frames):
        assert isinstance(array, np.ndarray) and array.dtype.names == tuple(frame.columns)
        pandas.testing.assert_frame_equal(pandas.DataFrame(array), frame, check_exact=True)
    rows = frames.exposures
    assert list(zip(rows.exposure, rows.rowResidual.isna())) == [("a,\"b", False), ("none", True)]


@pytest.mark.parametrize("value, text", [(2.0, "2"), (-0.0, "-0"), (float("nan"), ""), (0.1, "0.1"), (1e-5, "1e-05"),
                                         (1e16, "1e+16"), (123456789012345.6, "123456789012345.6"), (7, "7")])
def test_numbers_are_written_as_by_the_program(value, text):
    array = np.array([(value, value)], [("X", type(value)), ("Y", type(value))])
    assert (csv_number(value), csv_lines("a.0,b", array)) == (text, f'"a.0,b",{text},{text}\n')


def test_names_are_given_once(tmp_path):
    stems = ["a", "a", "a-2", "a", "b", "a-2", "a-2-2"]
    journal = Journal(tmp_path / "j")
    names = [journal.admit(Exposure("/l", "/r", stem)).name for stem in stems]
    assert names == ["a", "a-2", "a-2-2", "a-3", "b", "a-2-3", "a-2-2-2"]
    journal.close()


def test_sources_give_the_same_exposures(scene, tmp_path):
    folder = Path(scene.pairs[0][0]).parent
    table = pandas.DataFrame(scene.pairs, columns=["left", "right"])
    table.to_csv(tmp_path / "t.csv", index=False)
    expected = [Exposure(*pair, Path(pair[0]).stem) for pair in scene.pairs]
    for source in ((f"{folder}/left*.pgm", f"{folder}/right*.pgm"), table, tmp_path / "t.csv", iter(scene.pairs),
                   [(Path(left).stem, left, right) for left, right in scene.pairs], expected):
        assert list(take(source)[0]) == expected


@pytest.mark.parametrize("source, text", [
    (("{}/left*.pgm", "{}/right1.pgm"), "5 left and 1 right images are no pairs"),
    (("{}/none*.pgm", "{}/right1.pgm"), "no file has such a name"),
    ("{}/rig.yaml", "has no column left and none right"), ("{}/none.csv", "No such file"),
    ([("a", "b"), ("a",)], "exposure 1: .* is neither"), ([3], "exposure 0: 3 is neither")])
def test_sources_that_cannot_be_used(scene, source, text):
    folder = Path(scene.pairs[0][0]).parent
    if isinstance(source, (str, tuple)):
        source = source.format(folder) if isinstance(source, str) else tuple(s.format(folder) for s in source)
    with pytest.raises(kestrune.InputError, match=text):
        list(take(source)[0])


def test_images_that_fail_have_rows_with_reasons(scene, tmp_path):
    deep, torn = tmp_path / "deep.pgm", tmp_path / "torn.pgm"
    pgm(deep, np.full((120, 160), 300), 65535)
    torn.write_bytes(b"no image")
    items = [scene.pairs[0], (torn, scene.pairs[0][1]), ("none.pgm", scene.pairs[0][1]), (deep, scene.pairs[0][1])]
    assert measure(scene, items, tmp_path / "out").failed == 3
    rows = batch.read(tmp_path / "out").exposures
    assert list(rows.status) == ["ok"] + ["failed"] * 3
    for reason, text in zip(rows.reason, ["", "torn.pgm", "none.pgm", "range=(low, high)"]):
        assert text in reason
    measure(scene, items[3:], tmp_path / "ranged", range=(0, 65535))
    assert "range=" not in batch.read(tmp_path / "ranged").exposures.reason[0]


def test_a_rig_without_size_takes_that_of_the_first_image_that_can_be_read(scene, tmp_path):
    file = tmp_path / "rig.yaml"
    file.write_text("".join(line for line in open(scene.rig_file) if not line.startswith("image_")))
    rig, items = kestrune.Rig.read(str(file)), [("none", "/no.pgm", "/no.pgm"), *scene.many(2)]
    assert rig.size is None
    batch.measure(iter(items), scene.settings, rig, tmp_path / "out")
    measure(scene, items, tmp_path / "sized")
    same(batch.read(tmp_path / "out"), batch.read(tmp_path / "sized"))
    with pytest.raises(kestrune.InputError, match="none of the first 1 left images"):
        batch.measure(items[:1], scene.settings, rig, tmp_path / "none")


def test_a_full_disk_interrupts(scene, tmp_path, monkeypatch):
    def full(*_):
        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))

    monkeypatch.setattr("kestrune.batch.folder.write_part", full)
    with pytest.raises(batch.RunInterrupted, match="No space left on device; .* resume"):
        measure(scene, scene.many(3), tmp_path)
    monkeypatch.undo()
    assert measure(scene, scene.many(3), tmp_path, resume=True).measured == 3


def test_a_crash_is_the_fault_of_one_exposure(tmp_path):
    log = tmp_path / "log"
    acts = {"segfault": "ended its process three times: signal 11 (SIGSEGV)",
            "exit": "ended its process three times: exit code 7",
            "hang": "ended its process three times: no result within 0.5 s",
            "raise": "ZeroDivisionError: division by zero"}
    names = ["a", "segfault", "b", "exit", "c", "hang", "d", "raise", "e"]
    summary, rows = run_task(Task(log), names, tmp_path / "out", timeout=0.5)
    assert (summary.exposures, summary.failed) == (9, 4)
    assert {name: reason for name, reason in rows.reason.items() if reason} == acts
    calls = log.read_text().split()
    assert [calls.count(name) for name in names] == [1, 3, 1, 3, 1, 3, 1, 1, 1]


def test_a_task_that_cannot_work_ends_the_run(tmp_path):
    class Broken:
        def __reduce__(self):
            return int, ("no number",)

    with pytest.raises(batch.BatchError, match="no number"):
        run_task(Broken(), ["a"], tmp_path / "out")


@pytest.mark.parametrize("change, text", [
    (dict(resume=False), "holds a run"), (dict(invert=True), "options.invert was false and is true"),
    (dict(range=(0, 9)), r"options.range was null and is \[0.0, 9.0\]"), (dict(rig=True), "another rig"),
    (dict(settings=True), "settings"), (dict(exposures=[("e000000", "/other.pgm", "/r.pgm")]), "was measured from"),
    (dict(locked=True), "another process is at work"), (dict(foreign=True), "neither a run nor an empty folder"),
    (dict(journal=False), "journal.sqlite: is missing")])
def test_resume_refuses_what_would_mix_runs(scene, tmp_path, change, text):
    out = tmp_path / "out"
    measure(scene, scene.many(1), out)
    if change.pop("journal", True) is False:
        (out / "journal.sqlite").unlink()
    if change.pop("foreign", False):
        (out / "run.json").unlink()
    held = open(out / "lock")
    if change.pop("locked", False):
        import fcntl
        fcntl.flock(held, fcntl.LOCK_EX)
    rig, settings = tmp_path / "rig.yaml", tmp_path / "settings.yaml"
    rig.write_text(scene.rig_file.read_text().replace("40.0, 0.", "41.0, 0."))
    settings.write_text(scene.settings_file.read_text().replace("contrast: 30 ", "contrast: 31 "))
    chosen = (kestrune.Settings.read(str(settings), use="stereo") if change.pop("settings", False) else scene.settings,
              kestrune.Rig.read(str(rig)) if change.pop("rig", False) else scene.rig)
    before = sorted(out.rglob("*"))
    with pytest.raises(kestrune.InputError, match=text):
        batch.measure(change.pop("exposures", scene.many(2)), *chosen, out, **{"resume": True, **change})
    assert sorted(out.rglob("*")) == before
    held.close()


def test_resume_mends_what_was_torn(scene, tmp_path):
    out = tmp_path / "out"
    for count in (4, 8, 12):  # a part each
        measure(scene, scene.many(count), out, resume=True)
    for table in ("exposures", "points"):
        shutil.copy(out / table / "part-000000.csv", out / table / "part-000003.csv")  # not journalled
    (out / "points/part-000004.csv.unfinished").write_text("e0000")
    with open(out / "points/part-000001.csv", "r+") as part:
        part.truncate(100)
    (out / "points/mine.txt").write_text("stays")
    with pytest.warns(UserWarning, match="part 1 is damaged, its 4 exposures"):
        assert measure(scene, scene.many(12), out, resume=True).measured == 4
    same(batch.read(out), scene.expected(12, tmp_path / "one"))
    assert (out / "points/mine.txt").exists() and not list(out.rglob("*.unfinished"))


def test_a_killed_client_loses_nothing_and_doubles_nothing(scene, tmp_path, monkeypatch):
    out, count, tools = tmp_path / "out", 600, Path(__file__).parent
    command = [sys.executable, tools / "batch_client.py", scene.rig_file.parent, out, str(count)]
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join(p for p in sys.path if p))
    for pause in (0, 0.003, random.uniform(0, 0.3)):  # while a part is written, while it is journalled, anywhere
        client, parts = subprocess.Popen(command), len(list(out.glob("exposures/*")))
        while client.poll() is None and len(list(out.glob("exposures/*"))) <= parts:
            time.sleep(0.0005)
        time.sleep(pause)
        client.kill()
        client.wait()
    before = len(batch.read(out).exposures)
    summary = measure(scene, scene.many(count), out, resume=True)
    assert (summary.exposures, summary.measured) == (count, count - before)
    same(batch.read(out), scene.expected(count, tmp_path / "one"))


def test_command(scene, tmp_path, capsys, monkeypatch):
    folder = Path(scene.pairs[0][0]).parent
    arguments = ["--calibration", str(scene.rig_file), "--settings", str(scene.settings_file)]
    images = ["--left", f"{folder}/left*.pgm", "--right", f"{folder}/right*.pgm"]
    table = tmp_path / "t.csv"
    table.write_text("name,left,right\na,/none.pgm,/nor.pgm\n")
    for code, extra, text in [
            (0, [*images, "--out", tmp_path / "a"], "5 exposures, 0 failed, 20 pairs"),
            (0, [*images, "--out", tmp_path / "a", "--resume"], "(0 measured now"),
            (2, [*images, "--out", tmp_path / "a"], "holds a run"), (2, ["--out", tmp_path / "c"], "either --left"),
            (1, ["--table", table, "--out", tmp_path / "b"], "1 exposures, 1 failed")]:
        assert main(arguments + list(map(str, extra))) == code
        assert text in "".join(capsys.readouterr())
    with pytest.raises(SystemExit, match="2"):
        main([*arguments, *images, "--out", "d", "--range", "3"])
    assert not (tmp_path / "c").exists()


def test_the_command_ends_cleanly_by_a_signal(scene, tmp_path):
    table = tmp_path / "t.csv"
    table.write_text("name,left,right\n" + "".join(",".join(row) + "\n" for row in scene.many(5000)))
    path = os.pathsep.join(p for p in sys.path if p)
    command = subprocess.Popen([sys.executable, "-m", "kestrune.batch", "--calibration", scene.rig_file, "--settings",
                                scene.settings_file, "--table", table, "--out", tmp_path / "out"],
                               env={**os.environ, "PYTHONPATH": path}, stderr=subprocess.PIPE, text=True)
    while not list((tmp_path / "out").glob("points/*")):  # a part is being written
        time.sleep(0.001)
    command.send_signal(signal.SIGINT)
    _, told = command.communicate(timeout=120)
    assert command.returncode == 130 and "go on with --resume" in told and "Traceback" not in told
    assert len(batch.read(tmp_path / "out").exposures) > 0

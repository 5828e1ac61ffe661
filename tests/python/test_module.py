# SPDX-License-Identifier: Apache-2.0
"""The module against the program: same files, same numbers, whatever form an image has and whichever thread asks."""
import pickle
import threading
import time

import numpy as np
import pytest
from conftest import READY, rows, run

import kestrune
from kestrune import Extractor, InputError, Rig, Settings

# The demonstration's discs in images of this size are larger by the ratio to its own.
RADII = [1.5 * 2448 / 640, 2.5 * 2448 / 640]


def settings_of(name, **more):
    settings = Settings.read(f"{READY}/{name}.yaml", "fast" if name.endswith("fast") else None)
    return settings.replace(**more) if more else settings


@pytest.fixture(scope="module")
def rig(demo):
    return Rig.read(demo / "stereo-calibration.yaml")


@pytest.fixture(scope="module")
def eyes(demo):
    return [kestrune.read_image(demo / f"stereo-{eye}.png") for eye in ("left", "right")]


@pytest.mark.parametrize("refine", [False, True])
@pytest.mark.parametrize("name", ["bright-complex", "bright-radial", "bright-subpixel", "bright-fast"])
def test_markers_are_those_of_the_program_to_the_bit(name, refine, demo, rig, eyes, tmp_path):
    path = "fast" if name.endswith("fast") else settings_of(name).path
    run("extract", demo / "stereo-left.png", "--settings", f"{READY}/{name}.yaml", "--path", path, "--csv", tmp_path / "m.csv",
        *["--refine"] * refine)
    markers = Extractor(settings_of(name)).extract(eyes[0], refine=refine)
    theirs = rows(tmp_path / "m.csv")
    assert len(markers) == len(theirs) > 5
    assert set(markers.columns) == set(markers.array.dtype.names)
    for column in markers.columns:
        ours = markers[column]
        given = [row[column] for row in theirs]
        if ours.dtype.kind == "f":
            assert np.array_equal(ours, [float(value) if value else np.nan for value in given], equal_nan=True), column
        else:
            assert [str(value) for value in ours] == given, column
    assert markers.pixels == theirs[0]["pixels"] == "distorted"


@pytest.mark.parametrize("match", ["path", "trusted"])
@pytest.mark.parametrize("refine", [False, True])
@pytest.mark.parametrize("name", ["bright-complex", "bright-radial", "bright-subpixel"])
def test_points_are_those_of_the_program_to_the_bit(name, refine, match, demo, rig, eyes, tmp_path):
    settings = settings_of(name, markerRadii=RADII)
    settings.write(tmp_path / "s.yaml")
    files = demo / "stereo-left.png", demo / "stereo-right.png"
    run("stereo", "--left", files[0], "--right", files[1], "--calibration", demo / "stereo-calibration.yaml", "--settings",
        tmp_path / "s.yaml", "--csv", tmp_path / "p.csv", "--refine" if refine else "--no-refine", "--match", match)
    extractor, how = Extractor(settings, rig), dict(refine=refine, match=match)
    points, theirs = extractor.stereo(*eyes, **how), rows(tmp_path / "p.csv")
    assert points == extractor.stereo_files(*files, **how) and points.failure == ""
    assert len(points) == len(theirs) > 5
    assert set(points.columns) == set(points.array.dtype.names)
    for column in list(points.columns)[1:]:
        if points[column].dtype.kind == "U":
            assert list(points[column]) == [row[column] for row in theirs]
            continue
        given = [float(row[column]) if row[column] else np.nan for row in theirs]
        assert np.array_equal(points[column], given, equal_nan=True), column
    assert points.found == (int(theirs[0]["leftMarkers"]), int(theirs[0]["rightMarkers"]))
    assert [len(eye) for eye in points.unmatched] == [int(theirs[0][f"{eye}Unmatched"]) for eye in ("left", "right")]
    assert [corner.x for corner in points.left] == list(points["leftX"])
    assert points.xyz.shape == (len(points), 3)


def test_estimates_are_those_of_the_tables_and_travel(rig, eyes):
    extractor = Extractor(settings_of("bright-complex", skipUndistort=False, markerRadii=RADII), rig)
    image = eyes[0].astype(np.uint16) * 257
    markers = extractor.extract(image, refine=True, picture=True)
    refined = extractor.refine(image, markers)
    assert refined == extractor.refine(image, markers.corners) == extractor.refine(image, pickle.loads(pickle.dumps(markers.corners)))
    assert set(refined.columns) == set(refined.array.dtype.names)
    assert [rig.undistort(e) for e in refined.estimates] == list(markers.estimates)
    for e, row in zip(refined.estimates, refined):
        assert (*e.centre, e.status, e.inside, e.pixels) == tuple(row[["x", "y", "status", "inside", "fitPixels"]])
        assert e.covariance.shape == (8, 8) and (e.covariance[:5, :5] == e.ellipseCovariance).all()
        assert np.sqrt(np.diag(e.centreCovariance)).tolist() == [row["sigmaX"], row["sigmaY"]]
    assert 180 * 257 < refined["inside"].max() < 65535 and (refined["status"] == "refined").sum() > 10
    # In steps of 65536 levels, and told in those of the image.
    np.testing.assert_allclose(extractor.refine(eyes[0] / 5 - 3, markers)["outside"], refined["outside"] / 257 / 5 - 3, atol=1e-3)

    points = extractor.stereo(*eyes, refine=True, match="path")
    assert points.covariances.shape == (len(points), 3, 3) and points.left[0].position.tolist() == points.xyz[0].tolist()
    for left, right, disc, row in zip(*points.estimates, points.discs, points):
        again = rig.measure_disc(left, right)
        np.testing.assert_allclose([*again.centre, *again.normal, again.radius, again.radiusSigma, again.chiSquare],
                                   [*disc.centre, *disc.normal, row["radius"], row["sigmaRadius"], row["chiSquare"]], rtol=1e-6)
        np.testing.assert_allclose(np.cross(*disc.tangents), disc.normal, atol=1e-12)
        assert disc.covariance.shape == (6, 6) and disc.normalCovariance.shape == disc.calibrationCovariance.shape == (3, 3)
    for whole in (markers, refined, points):
        copy = pickle.loads(pickle.dumps(whole))
        assert copy == whole and pickle.dumps(copy.estimates) == pickle.dumps(whole.estimates)
    assert list(copy.discs) == list(points.discs) and copy.discs[0] != copy.discs[1] and "MarkerEstimate at" in repr(copy.estimates)


def test_matches_by_probability_are_those_of_the_program_and_travel(demo, rig, eyes, tmp_path):
    settings = settings_of("bright-complex", skipUndistort=False, markerRadii=RADII)
    settings.write(tmp_path / "s.yaml")
    extractor, known = Extractor(settings, rig), dict(radii=RADII, depth_range=(600, 1200), sure=1 - 1e-12)
    run("stereo", "--left", demo / "stereo-left.png", "--right", demo / "stereo-right.png", "--calibration",
        demo / "stereo-calibration.yaml", "--settings", tmp_path / "s.yaml", "--min-share", 0, "--csv", tmp_path / "p.csv",
        "--radii", ",".join(map(str, RADII)), "--depth-range", "600,1200", "--sure", known["sure"])
    points = extractor.stereo(*eyes, min_share=0, picture=True, **known)
    theirs = rows(tmp_path / "p-ambiguous.csv")
    assert len(points) and len(points.ambiguous) == len(theirs) > 0 and set(points.unmatched[0]["test"]) == {"ambiguous"}
    for column in points.ambiguous.columns:
        ours, given = points.ambiguous[column], [row[column] for row in theirs]
        assert list(ours) == given if ours.dtype.kind == "U" else np.array_equal(
            ours, [float(value) if value else np.nan for value in given], equal_nan=True), column
    assert set(points.ambiguous.columns) == set(points.ambiguous.array.dtype.names)

    lists = [extractor.extract(image, eye, refine=True) for image, eye in zip(eyes, ("left", "right"))]
    match = kestrune.match_markers(*lists, rig, **known)
    assert set(match.columns) == set(match.array.dtype.names) and match["sure"].sum() == len(points)
    assert match == points.match and list(match["probability"][match["sure"]]) == list(points["probability"])
    assert match == kestrune.match_markers(*(extractor.refine(*found, eye) for *found, eye in zip(eyes, lists, ("left", "right"))), rig, **known)
    assert match == kestrune.match_markers(*(list(found.estimates) for found in lists), rig, **known)
    assert len(kestrune.match_markers(lists[0], [], rig)) == 0
    for whole in (points, match, match.rivals):
        assert pickle.loads(pickle.dumps(whole)) == whole
    assert [*match.discs] == [*pickle.loads(pickle.dumps(match)).discs] and points.text.startswith("  left  right probability")
    turned = rig.with_orientation(rig.rotation, 2 * rig.translation)
    np.testing.assert_allclose(turned.translation, 2 * rig.translation, rtol=1e-12)


def test_lists_and_depth_are_those_of_the_program(demo, rig, eyes, tmp_path):
    settings = settings_of("bright-radial", skipUndistort=False, markerRadii=RADII)
    settings.write(tmp_path / "s.yaml")
    calibration = ["--calibration", demo / "stereo-calibration.yaml"]
    for eye in ("left", "right"):
        run("extract", demo / f"stereo-{eye}.png", "--eye", eye, "--settings", tmp_path / "s.yaml", *calibration, "--csv",
            tmp_path / f"{eye}.csv")
    run("match", tmp_path / "left.csv", tmp_path / "right.csv", *calibration, "--csv", tmp_path / "m.csv")
    extractor = Extractor(settings, rig)
    lists = [extractor.extract(image, eye) for image, eye in zip(eyes, ("left", "right"))]
    pairs, theirs = extractor.match(*lists), rows(tmp_path / "m.csv")
    assert len(pairs) > 5 and all(list(pairs[c]) == [float(row[c]) for row in theirs] for c in pairs.columns)
    # z is the column's number, so that a depth between two pixels is the centre's own column.
    ramp = np.tile(np.arange(eyes[0].shape[1], dtype=np.float32), (eyes[0].shape[0], 1))
    depths = extractor.depth(eyes[0], ramp, scale=2)
    assert len(depths) == len(lists[0])
    np.testing.assert_allclose(depths["Z"], 2 * depths["x"], rtol=1e-6)
    np.testing.assert_allclose(depths["X"], depths["Z"] * (depths["x"] - rig.left_matrix[0, 2]) / rig.left_matrix[0, 0], rtol=1e-4, atol=1e-3)


def test_any_form_of_an_image_gives_the_same(eyes):
    extractor, image = Extractor(settings_of("bright-complex")), eyes[0]
    expected = extractor.extract(image)
    wide = np.zeros((image.shape[0] + 3, 2 * image.shape[1] + 7), np.uint8)
    wide[3:, 5:5 + image.shape[1]] = image
    spread = np.zeros((*image.shape, 2), np.uint8)
    spread[..., 1] = image
    frozen = image.copy()
    frozen.flags.writeable = False
    forms = {
        "window": wide[3:, 5:5 + image.shape[1]],
        "upside down, twice": np.ascontiguousarray(image[::-1])[::-1],
        "mirrored, twice": np.ascontiguousarray(image[:, ::-1])[:, ::-1],
        "columns first": np.asfortranarray(image),
        "every second byte": spread[..., 1],
        "one channel": image[..., None],
        "read-only": frozen,
        "inverted": (255 - image, {"invert": True}),
        "16 bits": (image.astype(np.uint16) * 257, {"range": (0, 65535)}),
        "other order of bytes": ((image.astype(np.uint16) * 257).astype(">u2"), {"range": (0, 65535)}),
        "from elsewhere": pickle.loads(pickle.dumps(image)),
        "double precision, four channels": (np.dstack([image.astype(float)] * 4), {"range": (0, 255)}),
        "floating point": (image.astype(np.float32), {"range": (0, 255)}),
    }
    for name, form in forms.items():
        array, more = form if isinstance(form, tuple) else (form, {})
        assert extractor.extract(array, **more) == expected, name
    colours = extractor.extract(np.dstack([image] * 3))
    assert colours == extractor.extract(np.dstack([image] * 3 + [np.full_like(image, 9)])) and len(colours) == len(expected)
    assert len(extractor.extract(np.empty((0, 5), np.uint8))) == 0


def test_bad_input_is_refused_by_name(demo, rig, eyes, tmp_path):
    good, image = settings_of("bright-complex", markerRadii=RADII), eyes[0]
    extractor = Extractor(good, rig)
    (tmp_path / "text.png").write_text("no image")
    cases = [
        (lambda: extractor.extract("left.png"), "image: is no NumPy array"),
        (lambda: extractor.extract(image.astype(np.int32)), "image: is of int32"),
        (lambda: good.replace(markerRadii=[[1, 2]]), "field 'markerRadii': [1, 2] is no value"),
        (lambda: good.replace(markerRadii=["1"]), "field 'markerRadii': '1' is no value"),
        (lambda: good.replace(scale=10**30), "field 'scale': 1000000000000000000000000000000 is no value"),
        (lambda: good.replace(useComplexExtract=False), "field 'useComplexExtract' chooses the path"),
        (lambda: rig.with_size(10**7, 5), "size 10000000 x 5 is none of an image"),
        (lambda: Settings.read(b"d\xf6.yaml"), "d\ufffd.yaml: cannot be read"),
        (lambda: extractor.extract(np.dstack([image] * 2)), "3 dimensions and 2 channels"),
        (lambda: extractor.extract(image[0]), "has 1 dimensions"),
        (lambda: extractor.extract(image[:9]), "image: is 640 x 9 px, the calibration is for 640 x 512"),
        (lambda: extractor.extract(image, "middle"), "eye: 'middle'"),
        (lambda: extractor.extract(image, range=(5, 5)), "range: is not (low, high)"),
        (lambda: extractor.stereo(image, image), "right: shows the same as left"),
        (lambda: extractor.stereo(*eyes, min_share=2), "min_share: 2 is outside 0 to 1"),
        (lambda: extractor.stereo_files("none.png", demo / "stereo-right.png"), "none.png: cannot be read: No such file"),
        (lambda: Extractor(good).stereo(*eyes), "rig: is missing"),
        (lambda: Extractor(settings_of("bright-complex", skipUndistort=False)).extract(image), "field 'skipUndistort' false needs a rig"),
        (lambda: Extractor(settings_of("bright-clutter-subpixel"), rig).stereo(*eyes), "use='stereo' tells what is missing"),
        (lambda: Settings.read(f"{READY}/bright-clutter-subpixel.yaml", use="stereo"), "field 'markerRadii' is missing: stereo"),
        (lambda: extractor.match([[1, 2, 3]], [[1, 2]]), "left: is no array of centres by 2"),
        (lambda: extractor.refine(image, [1]), "markers: is neither Markers nor Corners"),
        (lambda: extractor.refine(image[:9], extractor.extract(image)), "image: is 640 x 9 px"),
        (lambda: extractor.match(extractor.extract(image), [[1, 2]]), "left: is of distorted pixels"),
        (lambda: extractor.depth(image, image), "skipUndistort"),
        (lambda: extractor.stereo(*eyes, match="best"), "match: 'best' is neither 'trusted' nor 'path'"),
        (lambda: extractor.stereo(*eyes, match="path", sure=0.9), "are for match='trusted'"),
        (lambda: kestrune.match_markers([], [], rig, radii=[1, 0]), "radii: 0 is no radius above 0"),
        (lambda: kestrune.match_markers([], [], rig, radius_tolerance=0), "radius tolerance: 0 is no share above 0"),
        (lambda: kestrune.match_markers([], [], rig, depth_range=(2, 1)), "depth range: 2 and 1 are no depths"),
        (lambda: kestrune.match_markers([], [], rig, sure=0.5), "sure: 0.5 is no probability above 0.5 and below 1"),
        (lambda: kestrune.match_markers([], [], rig, object=[[1, 2, 3]]), "object: is neither Points nor rows of"),
        (lambda: kestrune.match_markers([], [], rig, object=[[1, 2, 3, 0]]), "object: holds a marker whose"),
        (lambda: kestrune.match_markers([], [], rig, object="none.csv"), "none.csv: cannot be read"),
        (lambda: kestrune.read_image(tmp_path / "text.png"), "text.png: is in no image format"),
        (lambda: setattr(good, "sigma", -1), "field 'sigma': -1 is outside 0 to 40"),
        (lambda: setattr(good, "sigma", "wide"), "field 'sigma': 'wide' is not a number"),
        (lambda: setattr(good, "scale", 1.5), "field 'scale': '1.5' is not a whole number"),
        (lambda: good.replace(minDiameter=9, maxDiameter=8), "'minDiameter' 9 and 'maxDiameter' 8"),
        (lambda: Settings(path="fast", enableAreaFilter=False), "field 'enableCircularityFilter' is missing: path fast"),
        (lambda: Settings(path="slow"), "path: 'slow' is none of"),
        (lambda: Rig(np.eye(3), [0] * 5, np.eye(3), [0] * 5, np.ones((3, 3)), [1, 0, 0]), "rig: field 'R' is no rotation"),
        (lambda: Rig(np.eye(3), [0] * 5, np.eye(3), [0] * 5, np.eye(3), [0, 0, 0]), "rig: field 'T': both cameras stand in one place"),
        (lambda: Rig(np.eye(2), [0] * 5, np.eye(3), [0] * 5, np.eye(3), [1, 0, 0]), "rig: field 'M1' is 2 by 2"),
        (lambda: kestrune.set_threads(0), "count: 0 must be 1 or more"),
    ]
    for call, expected in cases:
        with pytest.raises(InputError) as raised:
            call()
        assert expected in str(raised.value)
        assert raised.type.__module__ == "kestrune" and isinstance(raised.value, ValueError)
    with pytest.raises(MemoryError):
        extractor.extract(np.broadcast_to(image[:1, :1], (400000000, 400000000)))
    with pytest.raises(TypeError, match="is no kestrune.Settings"):
        Extractor("settings.yaml")
    with pytest.raises(AttributeError, match="no field 'sigmo'"):
        good.sigmo = 1
    with pytest.raises(InputError, match="/proc/nothing/s.yaml: cannot be written"):
        good.write("/proc/nothing/s.yaml")
    assert good.sigma == 1.3 and good == settings_of("bright-complex", markerRadii=RADII)


def test_settings_and_rigs_come_from_files_and_from_values(rig, tmp_path):
    settings = settings_of("bright-complex")
    assert Settings(settings.to_dict()) == settings and Settings(dict(settings), path="complex") == settings
    assert settings.nmsFactor == 0.96 and settings.use == "stereo"  # a float field, as it is written
    changed = settings.replace(sigma=np.float32(2), markerRadii=np.array([1, 2]), scale=np.array(2))
    assert changed != settings and changed.markerRadii == [1, 2] and changed.sigma == 2
    (tmp_path / "s.yaml").write_text("# of plate 7\nsigma: 1  # px\n")
    changed.write(tmp_path / "s.yaml")
    assert (tmp_path / "s.yaml").read_text().startswith("# of plate 7\nsigma: 2  # px\n")
    assert Settings.read(tmp_path / "s.yaml") == changed
    made = Rig(rig.left_matrix, rig.left_distortion, rig.right_matrix, rig.right_distortion, rig.rotation, rig.translation,
               rig.size, rig.rectify_flags)
    np.testing.assert_allclose(made.translation, rig.translation, rtol=1e-14)
    assert made.size == (640, 512) and np.array_equal(made.left_distortion, rig.left_distortion)
    assert rig.with_size(9, 8).size == (9, 8) and rig.with_size(*rig.size) == rig
    rig.write(tmp_path / "r.yaml")
    plain = (tmp_path / "r.yaml").read_text()
    (tmp_path / "r.yaml").write_text(plain + "R_sigma: [ 1e-4, 0., 0. ]\n")
    known = Rig.read(tmp_path / "r.yaml")
    assert known != rig and pickle.loads(pickle.dumps(known)) == known


def test_settings_for_stereo_alone_serve_stereo_alone(rig, eyes, tmp_path):
    whole = settings_of("bright-complex", markerRadii=RADII)
    text = (tmp_path / "s.yaml", whole.write(tmp_path / "s.yaml"))[0].read_text()
    (tmp_path / "s.yaml").write_text("".join(line for line in text.splitlines(True) if not line.startswith("skipUndistort")))
    settings = Settings.read(tmp_path / "s.yaml")
    for extractor in (Extractor(settings, rig), pickle.loads(pickle.dumps(Extractor(settings, rig)))):
        assert len(extractor.stereo(*eyes)) > 5
        with pytest.raises(InputError, match="s.yaml: field 'skipUndistort' is missing"):
            extractor.extract(eyes[0])
    settings.write(tmp_path / "s.yaml")
    assert "skipUndistort" not in (tmp_path / "s.yaml").read_text()
    assert len(Extractor(settings.replace(skipUndistort=True), rig).extract(eyes[0])) > 5


def test_a_bad_exposure_leaves_the_extractor_as_it_was(rig, eyes):
    matrices = rig.left_matrix, rig.left_distortion, rig.right_matrix, rig.right_distortion
    sizeless = Rig(*matrices, rig.rotation, rig.translation, None, rig.rectify_flags)
    extractor = Extractor(settings_of("bright-complex", markerRadii=RADII), sizeless)
    with pytest.raises(InputError, match="calibration is for 100 x 100"):
        extractor.stereo(eyes[0][:100, :100], eyes[1])
    assert len(extractor.stereo(*eyes)) > 5


def test_whatever_travels_is_the_same_after_it(rig, eyes):
    settings = settings_of("bright-complex", markerRadii=RADII)
    extractor = Extractor(settings, rig)
    points, markers, explained = extractor.stereo(*eyes), extractor.extract(eyes[0]), extractor.explain(eyes[0])
    for thing in (settings, rig, points, markers, explained, points.unmatched[0]):
        assert pickle.loads(pickle.dumps(thing)) == thing
    assert pickle.loads(pickle.dumps(extractor)).stereo(*eyes) == points
    there = pickle.loads(pickle.dumps(points))
    for a, b in zip(points.left, there.left):
        assert (a.id, a.x, a.y, a.ellipse, a.markerRadius, a.fitResidual) == (b.id, b.x, b.y, b.ellipse, b.markerRadius, b.fitResidual)
        for name in ("contour", "conic", "scatter", "normal", "position"):
            assert np.array_equal(getattr(a, name), getattr(b, name)) and getattr(a, name).size, name


def test_a_corner_says_what_the_ellipse_says(eyes):
    for corner, marker in zip(*(lambda m: (m.corners, m))(Extractor(settings_of("bright-complex")).extract(eyes[0]))):
        a, b, c, d, e, f = corner.conic
        gradient = np.array([2 * a * corner.x + b * corner.y + d, b * corner.x + 2 * c * corner.y + e])
        np.testing.assert_allclose(gradient, 0, atol=1e-4)
        x, y = corner.contour.T.astype(float)
        value = a * x * x + b * x * y + c * y * y + d * x + e * y + f
        assert np.sqrt(np.mean(value**2)) == pytest.approx(corner.fitResidual, rel=1e-2)
        assert corner.x == marker["x"]


def test_explanations_tell_of_every_marker(eyes):
    extractor = Extractor(settings_of("bright-complex"))
    explained, markers = extractor.explain(eyes[0], picture=True), extractor.extract(eyes[0], picture=True)
    found = explained[explained["gate"] == ""]
    assert sorted(found["marker"]) == list(markers["id"])
    assert len(explained.contours) == len(explained) and all(contour.shape[1] == 2 for contour in explained.contours)
    assert "marker" in explained.text and len(explained.dropped) > 0
    for picture in (explained.picture, markers.picture):
        assert picture.dtype == np.uint8 and picture.ndim == 3
    strict = Extractor(settings_of("bright-complex", maxFitResidual=1e-6)).explain(eyes[0])
    assert not (strict["gate"] == "").any() and "fit residual" in set(strict["gate"])


def test_one_extractor_serves_many_threads_and_leaves_the_interpreter_free(rig, eyes):
    extractor = Extractor(settings_of("bright-complex", markerRadii=RADII), rig)
    expected, results, ticks = extractor.stereo(*eyes), [], []
    working = [threading.Thread(target=lambda: results.extend(extractor.stereo(*eyes) for _ in range(5))) for _ in range(4)]
    for thread in working:
        thread.start()
    while any(thread.is_alive() for thread in working):
        ticks.append(len(results))
        time.sleep(0.0005)
    assert len(results) == 20 and all(result == expected for result in results)
    assert max(map(ticks.count, range(20))) > 2  # this thread ran while calls did, and not only between them


def test_tables_go_to_pandas(eyes):
    pytest.importorskip("pandas")
    markers = Extractor(settings_of("bright-complex")).extract(eyes[0])
    frame = markers.to_pandas()
    assert list(frame.columns) == list(markers.columns) and frame["x"].tolist() == markers["x"].tolist()

// SPDX-License-Identifier: Apache-2.0
//
// The stereo command from outside, and the calibration files it starts from.
#include <kestrune_scene/stereo_score.h>
#include <map>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ordered_pool.h"
#include "stereo_exposure.h"
#include "support/program.h"

namespace kestrune::measure::stereo_program_test {

constexpr const char* kColumns =
    "exposure,pair,leftX,leftY,rightX,rightY,X,Y,Z,normalX,normalY,normalZ,radius,rowResidual,leftResidual,rightResidual,leftMarkers,"
    "rightMarkers,pairs,leftUnmatched,rightUnmatched,error";

std::map<std::string, std::vector<scene::MeasuredMarker>> readExposures(const std::string& file) {
    std::map<std::string, std::vector<scene::MeasuredMarker>> exposures;
    for (const auto& [name, v] : rowsOf(file, kColumns)) {
        if (std::isnan(v[0])) continue;  // a failed one
        EXPECT_EQ(v[0], static_cast<double>(exposures[name].size())) << name;
        exposures[name].push_back({{cv::Point2d(v[1], v[2]), {v[3], v[4]}}, {v[5], v[6], v[7]}, {v[8], v[9], v[10]}, v[11]});
    }
    return exposures;
}

/// Two exposures and between them one that is dark in one eye.
TEST(HostStereo, MeasuresReportsAndEndsCleanly) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    writeRig("rig.yaml", rig);
    std::map<std::string, scene::Exposure> truth;
    for (const auto& [name, seed] : {std::pair(std::string("a"), 1u), {"c", 2u}}) {
        truth[name] = scene::render(rig, scene::makeCurvedObject(rig, 14, 5, 8, 200, seed), {}, {.seed = seed});
        cv::imwrite(name + ".png", truth[name].image[0]);
        cv::imwrite(name + "-right.png", truth[name].image[1]);
    }
    cv::imwrite("dark.png", cv::Mat(640, 800, CV_8UC1, cv::Scalar(40)));
    writeSettings("settings.yaml", "ready/bright-radial.yaml", {{"markerRadii", "[ 5, 8 ]"}});
    const std::string common =
        "stereo --no-refine --match path --settings settings.yaml --calibration rig.yaml --csv t.csv --json t.json --ply t.ply ";
    expectOutcome(common + "--left a.png dark.png c.png --right a-right.png c-right.png c-right.png --jobs 3 --overlay pictures", 1,
                  "dark.png, c-right.png): no markers in the left eye");
    std::size_t points = 0;
    const auto rows = readExposures("t.csv");
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& [name, measured] : rows) {
        const scene::StereoScore score = scene::scoreStereo(truth[name], measured, scene::PixelMeaning::projectedCentre, 2);
        EXPECT_EQ(score.missed.size() + score.wrong.size(), 0u) << name;
        EXPECT_LT(score.pointRms, std::min(0.1, 2 * score.impliedRms));
        EXPECT_LT(score.normalRms, 4);
        points += measured.size();
        EXPECT_GT(readImage("pictures/" + name + ".png", false).cols + readImage("pictures/" + name + "-3d.png", false).cols, 3200);
    }
    const std::string csv = readText("t.csv"), ply = readText("t.ply");
    EXPECT_LT(csv.rfind("\na,"), csv.find("\nc,"));
    EXPECT_NE(ply.find("element vertex " + std::to_string(points) + "\n"), std::string::npos);
    EXPECT_EQ(static_cast<std::size_t>(std::count(ply.begin() + static_cast<long>(ply.find("end_header\n")), ply.end(), '\n')), points + 1);
    const auto json = nlohmann::json::parse(readText("t.json"));
    EXPECT_EQ(json["complete"], true);
    EXPECT_EQ(json["exposures"][1]["error"], "no markers in the left eye");
    EXPECT_EQ(json["exposures"][1]["found"], (nlohmann::json{0, 14}));
    EXPECT_EQ(json["exposures"][0]["markers"].size() + json["exposures"][2]["markers"].size(), points);
    EXPECT_EQ(json["exposures"][2]["markers"][3]["radius"], rows.at("c")[3].radius);

    expectOutcome(common + "--left a.png --right a-right.png a-right.png", 2, "1 left and 2 right images are no pairs");
}

/// A dense object, whose markers have many others in their rows: taken right, with the eyes exchanged, and with one eye's
/// image for both.
TEST(HostStereo, TellsResidualsAndRefusesWhatOnlyChancePaired) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    writeRig("rig.yaml", rig);
    for (const unsigned seed : {1u, 2u}) {  // the same object twice
        const scene::Exposure exposure = scene::render(rig, scene::makeCurvedObject(rig, 60, 3, 4.5, 200, 2), {}, {.seed = seed});
        cv::imwrite(seed == 1 ? "l.png" : "l2.png", exposure.image[0]), cv::imwrite(seed == 1 ? "r.png" : "r2.png", exposure.image[1]);
    }
    scene::Rig ideal = rig;
    ideal.left.distortion = ideal.right.distortion = {};
    const std::string stereo =
        "stereo --no-refine --match path --settings settings.yaml --calibration rig.yaml --csv t.csv --json t.json --ply t.ply ";
    for (const char* ready : {"ready/bright-radial.yaml", "ready/bright-subpixel.yaml"}) {
        writeSettings("settings.yaml", ready, {{"markerRadii", "[ 3, 4.5 ]"}});
        expectOutcome(stereo + "--left l.png --right r.png", 0, "60 pairs of 60 left and 60 right markers, 0 and 0 unmatched; RMS rows 0.0");
        for (const auto& [name, v] : rowsOf("t.csv", kColumns)) {
            const cv::Vec3d point(v[5], v[6], v[7]);
            EXPECT_LT(std::abs(v[12]), 0.2);
            EXPECT_NEAR(v[13], cv::norm(scene::projectPoint(ideal.left, point) - cv::Point2d(v[1], v[2])), 1e-7);
            EXPECT_NEAR(v[14], cv::norm(scene::projectPoint(ideal.right, point) - cv::Point2d(v[3], v[4])), 1e-7);
            EXPECT_EQ(std::vector(v.begin() + 15, v.begin() + 20), (std::vector<double>{60, 60, 60, 0, 0}));
        }
        for (const char* images : {"--left r.png --right l.png", "--left l.png --right l2.png", "--left r.png --right r2.png"}) {
            expectOutcome(stereo + images, 1, " of 60 markers paired; eyes exchanged, or the calibration of another rig? ");
            EXPECT_NE(readText("t.ply").find("element vertex 0\n"), std::string::npos);
            const std::vector<Row> failed = rowsOf("t.csv", kColumns);
            ASSERT_EQ(failed.size(), 1u);
            const std::vector<double>& v = failed[0].values;
            EXPECT_TRUE(std::isnan(v[5]));
            EXPECT_EQ(cv::Vec2d(v[15], v[18]), cv::Vec2d(60, 60 - v[17]));
            const auto record = nlohmann::json::parse(readText("t.json"))["exposures"][0];
            EXPECT_FALSE(record.contains("markers"));
            EXPECT_EQ(record["rejected"].size(), record["pairs"]);
            if (images[7] == 'r') expectOutcome(stereo + images + " --min-share 0", record["pairs"] == 0, "");
        }
    }
    const std::string images = " --settings settings.yaml --calibration rig.yaml --left l.png --right r.png";
    expectOutcome("stereo --min-share nan" + images, 2, "--min-share");
    expectOutcome("stereo --calibration rig.yaml --settings settings.yaml --left l.png --right l.png", 1, "l.png: shows the same as l.png");

    // Radii, least depth, and what is told; explain-stereo has all markers in its table and pictures both eyes.
    const std::tuple<const char*, const char*, const char*, const char*> obstacles[] = {
        {"ready/bright-radial.yaml", "[ 1.5, 2.5 ]", "600.", "29 of 60 markers paired; 31 of 31 without a partner ended at radius (mostly 4.3"},
        {"ready/bright-radial.yaml", "[ 3, 4.5 ]", "1100.", "of 60 without a partner ended at depth (mostly 90"},
        {"ready/bright-subpixel.yaml", "[ 20 ]", "600.", "60 of 60 without a partner ended at radius (mostly 2.98 to 4.488; markerRadii 20"}};
    for (const auto& [ready, radii, depth, expected] : obstacles) {
        writeSettings("settings.yaml", ready, {{"markerRadii", radii}, {"minDepth", depth}});
        expectOutcome("explain-stereo --match path --csv e.csv --out e.png" + images, 0, expected);
        EXPECT_GT(readImage("e.png", false).cols, 2560);
        EXPECT_EQ(std::ranges::count(readText("e.csv"), '\n'), 121);
    }
}

TEST(HostStereo, ResidualsAreThoseOfTheFrame) {
    scene::Rig rig = scene::makeVergedRig({1280, 1024});
    const CircleMarkerExtractor e = test::calibrated(rig);
    rig.left.distortion = rig.right.distortion = {};
    const cv::Vec3d point(30, -20, 900);
    for (const bool corners : {false, true}) {
        const scene::Rig seen = corners ? test::rectifiedRig(e, rig) : rig;
        const cv::Point2d left = scene::projectPoint(seen.left, point), right = scene::projectPoint(seen.right, point);
        for (const bool output : {false, true}) {
            CicrleConfigs c{};
            c.cornersRectified = corners, c.outputRectified = output;
            const cv::Vec3d given = output ? cv::Matx33d(e.leftRectification) * point : point;
            const Residuals none = residualsOf(e, c, {left, right}, given);
            const Residuals some = residualsOf(e, c, {left + cv::Point2d(3, 4), right + cv::Point2d(0, -2)}, given);
            EXPECT_LT(std::abs(none.row) + none.eye[0] + none.eye[1], 1e-8) << corners << output;
            EXPECT_TRUE(std::abs(some.eye[0] - 5) < 1e-8 && std::abs(some.eye[1] - 2) < 1e-8) << corners << output;
            EXPECT_NEAR(some.row, 6, corners ? 1e-8 : 0.3);
        }
    }
}

/// All in order, and few at a time however long the first takes, which waits until no other is begun any more.
TEST(HostPool, DeliversInOrderWhatItCanHold) {
    std::atomic<bool> stop = false;
    std::atomic<std::size_t> begun = 0, held = 0;
    std::vector<std::size_t> order;
    const auto work = [&](std::size_t index, std::size_t) {
        ++begun;
        for (std::size_t last = 0; index == 0 && last != begun; std::this_thread::sleep_for(std::chrono::milliseconds(200))) last = begun;
        if (index == 0) held = begun.load();
        return index;
    };
    const auto deliver = [&](std::size_t index, std::size_t result) { order.push_back(index == result ? index : 0); };
    EXPECT_EQ(inOrder<std::size_t>(500, 3, stop, work, deliver, [](std::size_t) {}), 500u);
    EXPECT_LE(held, 12u);
    EXPECT_TRUE(order.size() == 500 && std::ranges::is_sorted(order) && order[1] == 1);
}

TEST(HostStereo, DoubtsPairsThatAreOffTheirRows) {
    const std::pair<std::vector<double>, const char*> cases[] = {{{0.01, -0.02, 0.03, 0.24}, ""},
                                                                 {{0.01, -0.02, 0.03, -0.26, 1.4}, "2 of 5 pairs lie 0.26 to 1.40 px off"},
                                                                 {{0.3, -0.5, 0.4, 0.6}, "rows disagree by 0.46 px RMS"},
                                                                 {{}, ""}};
    for (const auto& [rows, expected] : cases) {
        StereoResult result;
        for (const double row : rows) result.markers.emplace_back().residuals.row = row;
        const std::string doubt = doubtAbout(result);
        EXPECT_TRUE(doubt.empty() == (*expected == 0) && doubt.starts_with(expected)) << doubt;
    }
}

/// Points in space to two lists in different orders, back to pairs and points; and lists that are none.
TEST(HostStereo, MatchesProjectedLists) {
    enterOwnDirectory();
    scene::Rig rig = scene::makeVergedRig({800, 640});
    writeRig("rig.yaml", rig);
    rig.left.distortion = rig.right.distortion = {};
    const std::vector<scene::Disc> discs = scene::makeCurvedObject(rig, 30, 2, 3, 200, 7);
    std::ofstream left("l.csv"), right("r.csv");
    left.precision(12), right.precision(12);
    left << "image,id,x,y,pixels\r\n", right << "y,note,x\n";
    for (std::size_t k = 0; k < discs.size(); ++k) {
        const cv::Point2d l = scene::projectPoint(rig.left, discs[k].centre);
        const cv::Point2d r = scene::projectPoint(rig.right, discs[discs.size() - 1 - k].centre);
        left << "\"a,b\"," << 100 + k << ',' << l.x << ", " << l.y << ",undistorted\r\n";
        right << r.y << ",\"say \"\"x\"\"\"," << r.x << "\n\n";
    }
    left.close(), right.close();
    // [T]x R between two cameras whose first is the world, of any scale.
    const cv::Vec3d t = rig.right.translation;
    const cv::Matx33d f = -7 * (rig.right.intrinsic.inv().t() * cv::Matx33d(0, -t[2], t[1], t[2], 0, -t[0], -t[1], t[0], 0) * rig.right.rotation *
                                rig.left.intrinsic.inv());
    cv::FileStorage("f.yaml", cv::FileStorage::WRITE).write("F", cv::Mat(f));
    const std::string match = "match l.csv r.csv --calibration rig.yaml --csv p.csv --pixels undistorted";
    for (const char* fundamental : {"", " --fundamental f.yaml"}) {
        expectOutcome(match + fundamental, 0, "30 pairs of 30 left and 30 right markers");
        const std::vector<Row> rows = rowsOf("p.csv", "pair,left,right,leftX,leftY,rightX,rightY,X,Y,Z");
        EXPECT_EQ(rows.size(), discs.size());
        for (const auto& [pair, v] : rows) {
            EXPECT_EQ(v[0] - 100, static_cast<double>(discs.size()) - 1 - v[1]) << pair;
            EXPECT_LT(cv::norm(cv::Vec3d(v[6], v[7], v[8]) - discs.at(static_cast<std::size_t>(v[0] - 100)).centre), 1e-4) << pair;
        }
    }
    writeRig("plain.yaml", rig);
    const std::string undistorted = " rig.yaml --pixels undistorted";
    const std::tuple<const char*, std::string, int, const char*> lists[] = {
        {"a,b\n1,2\n", undistorted, 2, "bad.csv: line 1: the header names no column 'x'"},
        {"x,y\n1,2\n3;4\n", undistorted, 2, "bad.csv: line 3: 1 fields, the header names 2"},
        {"x,y\n\n1,2e\n", undistorted, 2, "line 3: field 'y': '2e' is no finite number"},
        {"x,y\nnan,\n", undistorted, 2, "bad.csv: line 2: field 'y': '' is no finite number"},
        {"x,y,id\n1,2,0.5\n", undistorted, 2, "line 2: field 'id': '0.5' is no whole number"},
        {"x,y,image\n1,2,a\n1,2,b\n", undistorted, 2, "line 3: image 'b' after 'a'"},
        {"x,y\n1,\"2\n", undistorted, 2, "line 2: a quote is not closed"},
        {"\n", undistorted, 2, "holds no header row"},
        {"x,y\n1,2\n", " rig.yaml", 2, "line 1: the header names no column 'pixels'"},
        {"x,y,pixels\n1,2,raw\n", " rig.yaml", 2, "line 2: field 'pixels': 'raw' is none of undistorted, distorted, rectified"},
        {"x,y,pixels\n1,2,undistorted\n1,2,distorted\n", " rig.yaml", 2, "line 3: pixels 'distorted', where"},
        {"x,y,pixels\n1,2,distorted\n", undistorted, 2, "line 2: pixels 'distorted', where --pixels says 'undistorted'"},
        {"x,y,pixels\n1,2,distorted\n", " rig.yaml", 2, "bad.csv: is of distorted pixels, and rig.yaml has distortion"},
        {"x,y,pixels\n1,2,rectified\n", " plain.yaml", 2, "bad.csv: is of rectified pixels"},
        {"x,y,pixels\n1,2,distorted\n", " plain.yaml", 1, "0 pairs"},
        {"x,y,pixels\n", " rig.yaml", 1, "0 pairs of 30 left and 0 right"},
    };
    for (const auto& [list, options, code, expected] : lists) {
        std::ofstream("bad.csv") << list;
        expectOutcome("match l.csv bad.csv --csv p.csv --calibration" + options, code, expected);
    }
    expectOutcome(match + " --fundamental rig.yaml", 2, "field 'F' is missing");
}

TEST(HostCalibration, BothFormsAgreeAndBrokenFilesNameTheField) {
    enterOwnDirectory();
    const std::string camera = "{ fx: 900, fy: 910, cx: 320, cy: 240, distortion: [ -0.1, 0.02, 1e-3, 2e-3, 0.5 ] }";
    const std::string eye = "{ rotation: [ 1, 0, 0, 0, 1, 0, 0, 0, 1 ], position: [ 0, 0, 0 ] }";
    const std::string records = "%YAML:1.0\n---\nimage_width: 640\nimage_height: 480\ncameras: { left: " + camera + ", right: " + camera +
                                " }\nposes: { left: " + eye +
                                ", right: { rotation: [ 0.8, 0, -0.6, 0, 1, 0, 0.6, 0, 0.8 ], position: [ 100, 2, 3 ] } }\n";
    const std::string matrices = R"(%YAML:1.0
---
imageSize: [ 640, 480 ]
M1: !!opencv-matrix { rows: 3, cols: 3, dt: d, data: [ 900., 0., 320., 0., 910., 240., 0., 0., 1. ] }
D1: !!opencv-matrix { rows: 1, cols: 5, dt: d, data: [ -0.1, 0.02, 1e-3, 2e-3, 0.5 ] }
M2: !!opencv-matrix { rows: 3, cols: 3, dt: d, data: [ 900., 0., 320., 0., 910., 240., 0., 0., 1. ] }
D2: !!opencv-matrix { rows: 1, cols: 5, dt: d, data: [ -0.1, 0.02, 1e-3, 2e-3, 0.5 ] }
R: !!opencv-matrix { rows: 3, cols: 3, dt: d, data: [ 0.8, 0., -0.6, 0., 1., 0., 0.6, 0., 0.8 ] }
T: !!opencv-matrix { rows: 3, cols: 1, dt: d, data: [ -78.2, -2., -62.4 ] }
)";
    Rig read;
    const auto expectLoaded = [&read](const std::string& text, const std::string& expected) {
        expectComplaint(
            text, [&read](const std::string& file) { read = readRig(file); }, expected);
        return read;
    };
    const Rig a = expectLoaded(records, ""), b = expectLoaded(matrices, "");
    for (std::size_t e = 0; e < 2; ++e) {
        for (int k = 0; k < 12; ++k) EXPECT_NEAR(a.poses[e].values[k], b.poses[e].values[k], 1e-12) << k;
        EXPECT_TRUE(std::equal(a.cameras[e].values, a.cameras[e].values + 9, b.cameras[e].values));
    }
    EXPECT_EQ(a.poses[1].values[9], 100);
    EXPECT_TRUE(a.size == cv::Size(640, 480) && b.size == a.size && a.rectifyFlags == 1024);

    const struct {
        const std::string& form;
        std::string field, from, to, expected;  ///< in the line of `field`, `from` becomes `to`; without `from`, all of it
    } cases[] = {
        {records, "cameras", "fx: 900", "fx: 0", "'cameras.left.fx': focal length 0 must be above 0"},
        {records, "cameras", "fy: 910", "fz: 910", "'cameras.left.fy' is missing"},
        {records, "cameras", "-0.1, ", "", ""},
        {records, "cameras", "-0.1, 0.02, ", "", "'cameras.left.distortion' is no list"},
        {records, "poses", "-0.6", "0.6", "'poses.right.rotation' is no rotation"},
        {records, "poses", "0, 0, 1 ], p", "0, 0, -1 ], p", "'poses.left.rotation' is a reflection"},
        {records, "poses", "100", ".Nan", "'poses.right.position' holds a value"},
        {records, "poses", "100, 2, 3", "0, 0, 0", "'poses': both cameras stand in one place"},
        {records, "image_height", "", "", "'image_height' is missing"},
        {records, "image_width", "", "image_width: -5", "'image_width': -5 is no number of pixels"},
        {matrices, "imageSize", "", "", ""},
        {matrices, "M2", "910.", "-910.", "'M2': focal length -910"},
        {matrices, "M1", "900., 0.", "900., 2.", "'M1' is no camera matrix"},
        {matrices, "D2", "", "D2: !!opencv-matrix { rows: 1, cols: 8, dt: d, data: [ 0, 0, 0, 0, 0, 0, 0, 0. ] }", ""},
        {matrices, "D2", "", "D2: !!opencv-matrix { rows: 1, cols: 8, dt: d, data: [ 0, 0, 0, 0, 0, 0.5, 0, 0. ] }", "'D2': coefficient 6 is 0.5"},
        {matrices, "D1", "", "D1: !!opencv-matrix { rows: 2, cols: 3, dt: d, data: [ 0, 0, 0, 0, 0, 0. ] }", "'D1' is 2 by 3"},
        {matrices, "R", "", "", "'R' is missing"},
        {matrices, "R", "0.8, 0., -0.6", "0.800007, 0., -0.6", "'R' is no rotation"},  // 1.12e-5 too long
        {matrices, "R", "0.8, 0., -0.6", "0.800005, 0., -0.6", ""},
        {matrices, "T", "", "T: !!opencv-matrix { rows: 2, cols: 1, dt: d, data: [ 1., 2. ] }", "'T' is 2 by 1, not 3 by 1"},
        {matrices, "T", "-78.2, -2., -62.4", "0., 0., 0.", "'T': both cameras"},
        {matrices, "imageSize", "", "imageSize: [ 640 ]", "'imageSize' is no list of numbers of 2"},
    };
    for (const auto& c : cases) {
        std::string text = c.form;
        const auto start = text.find("\n" + c.field + ":");
        if (!c.from.empty()) text.replace(text.find(c.from, start), c.from.size(), c.to);
        expectLoaded(c.from.empty() ? withLine(text, c.field + ":", c.to) : text, c.expected);
    }
    expectLoaded(records + "M1: 7\n", "'M1' beside");
}

}  // namespace kestrune::measure::stereo_program_test

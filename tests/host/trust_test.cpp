// SPDX-License-Identifier: Apache-2.0
//
// Pairs by probability through the program: what is known beforehand, what is told of pairs in doubt, and the match of
// the library in the frames and tables of a measurement.
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "known_object.h"
#include "stereo_exposure.h"
#include "stereo_output.h"
#include "stereo_pictures.h"
#include "support/program.h"
#include "trust_explanation.h"

namespace kestrune::measure::trust_test {

TEST(HostTrust, KnownObjectsAreReadOrRefusedByTheirLines) {
    enterOwnDirectory();
    const std::pair<const char*, const char*> wrong[] = {
        {"x,y,z\n", "line 1: the header names no column 'sigma'"},
        {"x,y,sigma\n", "line 1: the header names no column 'z'"},
        {"x,y,z,sigmaX\n", "line 1: the header names no column 'sigmaY'"},
        {"x,y,z,sigma\n1,2,3,4\n1,2\n1,2,c,4\n", "line 3: 2 fields, the header names 4\ngiven.yaml: line 4: field 'z': 'c' is no finite"},
        {"x,y,z,sigma\n1,2,3,0\n", "line 2: field 'sigma': 0 is not above 0"},
        {"x,y,z,radius,sigma\n1,2,3,-1,1\n", "line 2: field 'radius': -1 is below 0"},
        {"x,y,z,sigma\n1,2,3,1\n2,3,4,1\n", "holds 2 markers; an object needs 3"},
        {"x,y,z,sigma\n1,2,3,.1\n2,3,4,.1\n3,4,5,.1\n", ""},
        {"X,name,Y,Z,radius,sigmaX,sigmaY,sigmaZ\r\n1,\"a,b\",2,3,,1,5,2\r\n1,,2,4,7,1,1,1\n\n1,,2,5,0,1,1,1\n", ""}};
    std::vector<KnownMarker> object;
    const auto read = [&](const char* file) { object = readKnownObject(file); };
    for (const auto& [text, expected] : wrong) expectComplaint(text, read, expected);
    ASSERT_EQ(object.size(), 3u);
    EXPECT_EQ(object[0].centre, cv::Vec3d(1, 2, 3));
    EXPECT_EQ(cv::Vec4d(object[0].radius, object[0].sigma, object[1].radius, object[1].sigma), cv::Vec4d(0, 5, 7, 1));
}

TEST(HostTrust, SettingsTellWhatTheUserDoesNot) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    const CircleMarkerExtractor e = test::calibrated(rig);
    CicrleConfigs c{};
    c.markerRadii = {1.5, 0, 2.5}, c.sizeTolerance = 0.1, c.minDepth = 600, c.maxDepth = 1200;
    const MatchOptions own = matchOptions({}, c, e, rig.left.size);
    EXPECT_EQ(own.radii, (std::vector<double>{1.5, 2.5}));
    EXPECT_EQ(own.radiusTolerance, 0.05);
    EXPECT_EQ(own.sure, MatchOptions{}.sure);
    // What has a depth between the settings' in the rectified frame is inside, and a corner of the image is at each end.
    std::array<double, 2> ends = {1e9, 0};
    for (const double x : {0., 640., 1279.})
        for (const double y : {0., 512., 1023.}) {
            const cv::Vec3d ray = rig.left.intrinsic.inv() * cv::Vec3d(x, y, 1);
            const double ratio = (cv::Matx33d(e.leftRectification) * ray)[2];
            ends = {std::min(ends[0], 600 / ratio), std::max(ends[1], 1200 / ratio)};
        }
    EXPECT_NEAR(own.depth[0], ends[0], 1e-9);
    EXPECT_NEAR(own.depth[1], ends[1], 1e-9);
    c.cornersRectified = true;
    EXPECT_EQ(matchOptions({}, c, e, rig.left.size).depth, (std::array<double, 2>{600, 1200}));
    const MatchOptions told = matchOptions({{3}, {}, {{1, 2}}, 0.9, {{{}, 0, 1}}}, c, e, rig.left.size);
    EXPECT_EQ(std::tuple(told.radii[0], told.radiusTolerance, told.depth[1], told.sure, told.object.size()),
              std::tuple(3., MatchOptions{}.radiusTolerance, 2., 0.9, 1u));
}

TEST(HostTrust, AMovedRigKeepsAllButItsOrientation) {
    enterOwnDirectory();
    writeRig("rig.yaml", scene::makeVergedRig({800, 640}));
    std::ofstream("rig.yaml", std::ios::app) << "R_sigma: [ 1e-4, 2e-4, 3e-4 ]\n";
    const RigMatrices before = matricesOf(readRig("rig.yaml"));
    MovedRig moved{true, 1, 1, {}, {-240, 3, 50}};
    cv::Rodrigues(cv::Vec3d(0.01, 0.2, -0.02), moved.rotation);
    kestrune::writeRig("moved.yaml", movedRig(readRig("rig.yaml"), moved));
    const RigMatrices after = matricesOf(readRig("moved.yaml"));
    EXPECT_LT(cv::norm(after.rotation, moved.rotation) + cv::norm(cv::Vec3d(after.translation), moved.translation), 1e-9);
    EXPECT_EQ(cv::norm(after.cameras[1].matrix, before.cameras[1].matrix) + cv::norm(after.cameras[0].distortion, before.cameras[0].distortion), 0);
    EXPECT_EQ(after.uncertainty.rotation, before.uncertainty.rotation);
    EXPECT_EQ(after.size, before.size);
}

StereoMarker markerAt(int left, int right, double x, double probability) {
    StereoMarker m{};
    m.number = {left, right};
    for (auto* pixel : {&m.pixel[0], &m.pixel[1]}) *pixel = {x, 60};
    for (auto& rim : m.rim) rim = {cv::Point2f(static_cast<float>(x), 60), cv::Size2f(30, 24), 0};
    m.point = {x, 0, 900 + x}, m.normal = {0, 0, -1}, m.radius = 5;
    m.estimate = PairEstimate{};
    m.trust = PairTrust{probability, {.epipolar = 0.25, .shape = 3}};
    return m;
}

/// A sure pair, one in doubt with a rival, and a marker that the left eye alone sees.
StereoResult doubtful() {
    StereoResult result;
    result.found = {3, 3};
    result.markers = {markerAt(0, 2, 40, 0.99999)};
    TrustedResult& trusted = result.trusted.emplace();
    trusted.ambiguous = {{markerAt(1, 0, 100, 0.75), {markerAt(1, 1, 150, 0.25)}, Decider::nominalRadius}};
    const auto unmatched = [](const StereoMarker& m, std::size_t eye, double p, bool single) {
        return UnmatchedMarker{
            m.number[eye], m.rim[eye], {kNobody, kNobody, PairGate::none, p}, single ? kNobody : 1, single ? "single" : "ambiguous"};
    };
    const AmbiguousPair& pair = trusted.ambiguous[0];
    result.unmatched = {{{unmatched(pair.marker, 0, 0.75, false), unmatched(markerAt(2, 0, 260, 0), 0, 0.875, true)},
                         {unmatched(pair.marker, 1, 0.75, false), unmatched(pair.rivals[0], 1, 0.25, false)}}};
    return result;
}

TEST(HostTrust, PairsInDoubtAreToldEverywhere) {
    enterOwnDirectory();
    StereoResult result = doubtful();
    CicrleConfigs c{};
    EXPECT_EQ(objectionTo(result, c, 0), "");
    EXPECT_EQ(doubtAbout(result), "1 pair is ambiguous and left out; would be told apart: 1 by nominal radius");
    EXPECT_EQ(objectionTo(result, c, 0.5), "1 of 3 markers paired; " + doubtAbout(result));
    StereoMatch& match = result.trusted->match;
    match.moved = {true, 0.5, 0.1, cv::Matx33d::eye(), {7, 8, 9}};
    const StereoDetail detail{true, true, true};
    StereoOutput output({"t.csv", "t.ply", "t.json", ambiguousTableOf("t.csv")}, {}, detail);
    output.add({"a,1", "l", "r"}, result);
    match.objection = MatchObjection::patternRepeats, match.reason = "it repeats", match.repeat = 30;
    EXPECT_EQ(result.failure = objectionTo(result, c, 0), "it repeats");
    output.add({"b", "l", "r"}, result);
    EXPECT_TRUE(output.close("").empty());
    EXPECT_EQ(ambiguousTableOf("d/t.csv") + ambiguousTableOf("/dev/null"), "d/t-ambiguous.csv");

    std::istringstream points(readText("t.csv"));
    for (const char* ending : {",error,leftStatus", ",0.99999", ",it repeats,"}) {
        std::string line;
        std::getline(points, line);
        EXPECT_NE((line + ",").find(ending), std::string::npos) << line;
        EXPECT_EQ(std::ranges::count(line, ','), 34 + (line[0] == '"' ? 1 : 0)) << line;
    }
    const std::string rows = readText("t-ambiguous.csv"), header = rows.substr(0, rows.find('\n'));
    EXPECT_TRUE(header.starts_with("exposure,pair,standing,left,right,leftX,")) << header;
    const std::string cues = ",0.25,0,3,0,0,0,0,0,0,";
    EXPECT_EQ(rows.substr(header.size()), "\n\"a,1\",0,ambiguous,1,0,100,60,100,60,100,0,1000,0,0,-1,5,0.75" + cues +
                                              "nominal radius\n\"a,1\",0,rival,1,1,150,60,150,60,150,0,1050,0,0,-1,5,0.25" + cues +
                                              "\nb,0,ambiguous,1,0,100,60,100,60,100,0,1000,0,0,-1,5,0.75" + cues +
                                              "nominal radius\nb,0,rival,1,1,150,60,150,60,150,0,1050,0,0,-1,5,0.25" + cues + "\n");
    const auto json = nlohmann::json::parse(readText("t.json"))["exposures"];
    EXPECT_EQ(json[0]["markers"][0]["probability"], 0.99999);
    EXPECT_EQ(json[0]["markers"][0]["cues"]["shape"], 3);
    EXPECT_EQ(json[0]["ambiguous"][0]["rivals"][0]["numbers"], (nlohmann::json{1, 1}));
    EXPECT_EQ(json[0]["ambiguous"][0]["decider"], "nominal radius");
    EXPECT_EQ(json[0]["moved"]["translation"], (nlohmann::json{7, 8, 9}));
    EXPECT_EQ(json[0]["objection"], "none");
    EXPECT_EQ(json[1]["objection"], "pattern repeats");
    EXPECT_EQ(json[1]["repeat"], 30);
    EXPECT_EQ(json[1]["rejected"].size() + json[1]["ambiguous"].size(), 2u);

    const std::string table = trustTable(result);
    for (const char* line :
         {"     0      2     0.99999 sure        +0.250    0.000     3.0", "     1      1     0.25000 rival ", "would decide: nominal radius\n",
          "left        2    260.0     60.0  0.87500\n", "\npattern repeats: it repeats\n", "     1  markers that one eye alone sees", "0.500 px RMS"})
        EXPECT_NE(table.find(line), std::string::npos) << line << "\n" << table;
    std::ostringstream csv;
    writeTrustCsv(csv, result);
    std::istringstream lines(csv.str());
    for (std::string line; std::getline(lines, line);) EXPECT_EQ(std::ranges::count(line, ','), std::ranges::count(header, ',') - 1) << line;
}

/// Pixels of a picture that are more of this colour than of any other.
int pixelsOf(const cv::Mat& picture, const cv::Scalar& colour) {
    cv::Mat mask;
    cv::inRange(picture, colour - cv::Scalar::all(30), colour + cv::Scalar::all(30), mask);
    return cv::countNonZero(mask);
}

TEST(HostTrust, PicturesShowPairsInDoubtAsSuch) {
    StereoResult result = doubtful();
    const std::array<cv::Mat, 2> images = {cv::Mat(120, 300, CV_8UC1, cv::Scalar(90)), cv::Mat(120, 300, CV_8UC1, cv::Scalar(90))};
    const cv::Scalar doubt(0, 200, 255), inSpace(0, 130, 235);
    const cv::Mat pairs = drawPairs(images, result, ""), view = drawPoints(result, "");
    EXPECT_GT(pixelsOf(pairs, doubt), 1000);
    EXPECT_GT(pixelsOf(drawTrust(images, result, ""), doubt), 1000);
    const cv::Scalar line = 0.85 * doubt;  // below the marks, as the image
    const int withRival = pixelsOf(pairs, line);
    EXPECT_GT(pixelsOf(view, inSpace), 100);
    result.trusted->ambiguous[0].rivals.clear();
    EXPECT_LT(pixelsOf(drawPairs(images, result, ""), line), withRival - 50);
    result.trusted->ambiguous.clear(), result.unmatched = {};
    EXPECT_EQ(pixelsOf(drawPoints(result, ""), inSpace), 0);
}

/// Markers of a verged rig, and of a nearly parallel one through its rectified cameras, refined and as the path found them.
TEST(HostTrust, SurePairsStandInTheFrameOfTheirPoints) {
    enterOwnDirectory();
    for (const char* ready : {"ready/bright-complex.yaml", "ready/bright-subpixel.yaml"}) {
        for (const bool rectified : {false, true}) {
            scene::Rig rig = scene::makeVergedRig({1280, 1024});
            if (rectified)
                cv::Rodrigues(cv::Vec3d(0.004, -0.02, 0.003), rig.right.rotation),
                    rig.right.translation = -(rig.right.rotation * cv::Vec3d(60, 1, 2));
            const auto discs = scene::makeCurvedObject(rig, 16, 4, 6, 190, 3);
            CircleMarkerExtractor e = test::calibrated(rig);
            const scene::Exposure exposure = scene::render(rectified ? test::rectifiedRig(e, rig) : rig, discs, {}, {});
            writeSettings("s.yaml", ready, {{"markerRadii", "[ 4, 6 ]"}, {"cornersRectified", rectified ? "true" : "false"}});
            Settings settings = readStereoSettings("s.yaml", {});
            const RefinementInput refinement{{GreyImage{exposure.image[0]}, GreyImage{exposure.image[1]}}};
            for (const bool refine : {false, true}) {
                std::vector<cv::Vec3d> inCamera;
                for (const bool output : {false, true}) {
                    SCOPED_TRACE(std::string(ready) + (rectified ? " rectified" : "") + (refine ? " refined" : "") + (output ? " output" : ""));
                    settings.configs.outputRectified = output;
                    std::vector<std::pair<Corner, Corner>> records;
                    const TrustedInput trusted;
                    const StereoResult result = measureExposure(e, exposure.image, settings, 0, refine ? &refinement : nullptr, &records, &trusted);
                    ASSERT_GE(result.markers.size(), discs.size() - 2) << result.failure;
                    for (std::size_t k = 0; k < result.markers.size(); ++k) {
                        const StereoMarker& m = result.markers[k];
                        EXPECT_GT(m.trust->probability, 0.999);
                        EXPECT_LT(std::abs(m.residuals.row) + m.residuals.eye[0] + m.residuals.eye[1], refine ? 0.03 : 0.3);
                        EXPECT_EQ(cv::norm(cv::Vec3d(records[k].first.position.data()) - m.point) < 1e-9, rectified == output);
                        EXPECT_EQ(records[k].second.x, m.pixel[1].x);
                        if (!output) inCamera.push_back(m.point);
                        const auto truth = std::ranges::min_element(discs, {}, [&](const auto& d) { return cv::norm(d.centre - inCamera[k]); });
                        EXPECT_LT(cv::norm(truth->centre - inCamera[k]), 0.3);
                        const cv::Matx33d turn = output ? cv::Matx33d(e.leftRectification) : cv::Matx33d::eye();
                        EXPECT_LT(cv::norm(turn * inCamera[k] - m.point), 1e-9);
                    }
                }
            }
        }
    }
}

/// Exchanged eyes, and a calibration whose right camera was turned by a tenth of a degree.
TEST(HostTrust, TheProgramTellsWhatIsWrongWithAnExposure) {
    enterOwnDirectory();
    scene::Rig rig = scene::makeVergedRig({1280, 1024});
    const auto discs = scene::makeCurvedObject(rig, 40, 3, 4.5, 190, 3);
    const scene::Exposure exposure = scene::render(rig, discs, {}, {});
    cv::imwrite("l.png", exposure.image[0]), cv::imwrite("r.png", exposure.image[1]);
    writeRig("rig.yaml", rig);
    cv::Matx33d turn;
    cv::Rodrigues(cv::Vec3d(CV_PI / 1800, 0, 0), turn);
    rig.right.rotation = turn * rig.right.rotation, rig.right.translation = turn * rig.right.translation;
    writeRig("turned.yaml", rig);
    writeSettings("s.yaml", "ready/bright-radial.yaml", {{"markerRadii", "[ 3, 4.5 ]"}});
    const std::string run = "stereo --settings s.yaml --json t.json --csv t.csv --calibration ", eyes = " --left l.png --right r.png";
    const auto record = [] { return nlohmann::json::parse(readText("t.json"))["exposures"][0]; };
    expectOutcome(run + "rig.yaml" + eyes + " --write-moved moved.yaml", 0, "40 pairs of 40 left");
    EXPECT_FALSE(std::filesystem::exists("moved.yaml"));
    expectOutcome(run + "rig.yaml --left r.png --right l.png", 1, "exchange the images");
    expectOutcome(run + "turned.yaml" + eyes + " --write-moved moved.yaml", 1, "moved.yaml has the corrected calibration");
    EXPECT_EQ(record()["objection"], "rig moved");
    EXPECT_EQ(record()["rejected"].size(), 40u);
    EXPECT_NEAR(record()["moved"]["angle"], 0.1, 0.01);
    expectOutcome(run + "moved.yaml" + eyes, 0, "40 pairs of 40 left");
    const nlohmann::json measured = record();
    for (const auto& marker : measured["markers"]) {
        const cv::Vec3d point(marker["point"][0], marker["point"][1], marker["point"][2]);
        const auto truth = std::ranges::min_element(discs, {}, [&](const auto& d) { return cv::norm(d.centre - point); });
        EXPECT_LT(cv::norm(truth->centre - point), 1);
    }
    expectOutcome("explain-stereo --settings s.yaml --csv e.csv --out e.png --calibration turned.yaml" + eyes, 0, "\nrig moved: ");
    EXPECT_EQ(std::ranges::count(readText("e.csv"), '\n'), 41);
}

TEST(HostTrust, TheProgramRefusesWhatNoMatchTakes) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    writeRig("rig.yaml", rig);
    writeSettings("s.yaml", "ready/bright-radial.yaml", {{"cornersRectified", "true"}});
    std::ofstream("o.csv") << "x,y,z\n";
    const std::tuple<const char*, const char*> cases[] = {
        {"--match path --radii 3", "are for --match trusted"},
        {"--match path --write-moved m.yaml", "--write-moved: is for --match trusted"},
        {"--write-moved m.yaml", "cornersRectified"},
        {"--radii 3,,4", "--radii: 3,,4 is no numbers with commas"},
        {"--depth-range 3", "--depth-range: 3 is no 2 numbers"},
        {"--depth-range 3,2", "depth range: 3 and 2 are no depths above 0"},
        {"--object o.csv", "o.csv: line 1: the header names no column 'sigma'"},
        {"--csv t.csv --json t-ambiguous.csv", "t-ambiguous.csv: is the same file as --csv"},
        {"--csv o.csv --object o.csv", "is the same file as --object"},
    };
    for (const auto& [options, expected] : cases)
        expectOutcome(std::string("stereo --settings s.yaml --calibration rig.yaml --left l.png --right r.png ") + options, 2, expected);
}

}  // namespace kestrune::measure::trust_test

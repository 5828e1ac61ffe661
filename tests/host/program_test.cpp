// SPDX-License-Identifier: Apache-2.0
//
// The program from outside: exit codes, what it writes, and whether its figures are those of the full, undistorted image.
#include <gtest/gtest.h>

#include <kestrune_scene/scene.h>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <sstream>
#include <tuple>

#include "calibration.h"
#include "explanation.h"
#include "inputs.h"
#include "markers.h"
#include "support/program.h"
#include "support/rigs.h"

namespace kestrune::host {
namespace {

namespace fs = std::filesystem;

const std::string kReady = KESTRUNE_SETTINGS_DIR "/";

/// One demonstration's exposure is the input of all that follows.
TEST(HostProgram, DemoThenExtract) {
    const std::string at = testing::TempDir() + "kestrune-program-test/";
    fs::remove_all(at);
    fs::create_directories(at);
    const auto demo = measure("demo --size 800x640 --markers 12 --seed 3 --out " + at + "demo");
    ASSERT_EQ(demo.first, 0) << demo.second;
    for (const char* picture : {"left-radial", "right-radial", "left-simple", "right-simple", "left-fast", "right-fast", "left-complex",
                                "right-complex", "mixed-left-complex", "mixed-right-complex"}) {
        EXPECT_GT(readImage(at + "demo/" + picture + ".png", false).cols, 800) << picture;
    }

    const std::string image = " " + at + "demo/left.png";
    std::ofstream(at + "broken.png") << "no picture";
    cv::Mat deep;
    readImage(at + "demo/left.png", false).convertTo(deep, CV_16U, 256);
    cv::imwrite(at + "deep.png", deep);
    const std::string radial = " --settings " + kReady + "bright-radial.yaml";
    const std::string subpixel = " --settings " + kReady + "bright-subpixel.yaml";
    struct Case {
        std::string arguments;
        int code;
        std::string expected;
    };
    const Case cases[] = {
        {"", 2, "subcommand is required"},
        {"extract" + image, 2, "--settings is required"},
        {"extract" + image + radial + " --path round", 2, "--path"},
        {"extract" + image + radial + " --eye 5", 2, "--eye"},
        {"extract" + image + " --settings none.yaml", 2, "none.yaml: cannot be read"},
        {"extract" + image + radial + " --overlay picture.jpg", 2, "picture.jpg: an overlay is written as .png"},
        {"extract" + image + radial + " --csv " + at + "no/where.csv", 2, "where.csv: cannot be written"},
        {"extract" + image + radial + " --calibration " + kReady + "bright-radial.yaml", 2, "field 'M1' is missing"},
        {"extract" + image + radial + " --calibration " + at + "demo/calibration.yaml", 0, "is not used"},
        {"extract " + at + "broken.png" + image + radial, 1, "broken.png: cannot be read as an image"},
        {"extract " + at + "broken.png" + image + radial, 1, "left.png: 12 markers"},
        {"extract " + at + "deep.png" + radial, 1, "deep.png: "},
        {"extract" + image + subpixel, 0, ": 12 markers"},
        {"extract" + image + radial + " --invert", 0, ": 0 markers"},
        {"extract " + at + "demo/mixed-left.png --path complex --csv " + at + "m.csv --settings " + kReady + "mixed-complex.yaml", 0, ": 12 markers"},
        {"explain" + image + radial + " --csv " + at + "e.csv --out " + at + "e.png", 0, "\n    12  marker\n"},
        {"explain" + image + radial + " --out picture.jpg", 2, "picture.jpg: a picture is written as .png"},
        {"explain " + at + "broken.png" + radial, 1, "broken.png: cannot be read as an image"},
        {"extract" + image + radial + " --path hand", 0, ": 0 markers"},  // they stand out too little for it
        {"depth" + image + image + radial + " --csv " + at + "d.csv", 2, "--calibration is required"},
        {"depth" + image + " " + at + "deep.png" + radial + " --depth-scale -1 --csv " + at + "d.csv --calibration " + at + "demo/calibration.yaml",
         2, "--depth-scale"},
        {"depth" + image + image + radial + " --csv " + at + "d.csv --calibration " + at + "demo/calibration.yaml", 1, "left.png: is of type CV_8UC"},
        {"settings " + kReady + "bright-radial.yaml none.yaml", 2, "good for path radial"},
        {"demo --size 10x10 --out " + at + "small", 2, "10x10"},
        {"extract" + image + image + " --path fast --csv " + at + "t.csv --overlay " + at + "o.png --settings " + kReady + "bright-fast.yaml", 0,
         "o-left-2.png"},
    };
    for (const Case& c : cases) {
        const auto [code, output] = measure(c.arguments);
        EXPECT_EQ(code, c.code) << c.arguments << "\n" << output;
        EXPECT_NE(output.find(c.expected), std::string::npos) << c.arguments << "\n" << output;
        EXPECT_EQ(output.find('\r'), std::string::npos) << "a progress bar where no terminal is";
    }
    // The last case's table: both images, thirteen fields a row, and those empty that this path does not measure.
    const std::string csv = readText(at + "t.csv");
    EXPECT_TRUE(csv.starts_with("image,id,x,y,major,minor,angle,area,eccentricity,circularity,fitError,fitResidual,polarity\n"));
    EXPECT_EQ(std::ranges::count(csv, '\n'), 25);
    EXPECT_EQ(std::ranges::count(csv, ','), 25 * 12);
    EXPECT_EQ(csv.substr(csv.size() - 5), ",,,,\n");
    EXPECT_TRUE(fs::exists(at + "o-left.png") && fs::exists(at + "o-left-2.png"));
    // Every other marker of that scene is dark.
    std::istringstream rows(readText(at + "m.csv"));
    std::map<std::string, int> ends;
    for (std::string row; std::getline(rows, row);) ++ends[row.substr(row.rfind(','))];
    EXPECT_EQ(ends, (std::map<std::string, int>{{",polarity", 1}, {",bright", 6}, {",dark", 6}}));
}

/// Depths of a tilted plane, with a hole of each kind, and of a plate parallel to the image.
TEST(HostProgram, DepthPlacesMarkersOnThePlane) {
    const std::string at = testing::TempDir() + "kestrune-depth-test-";
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    const scene::Exposure exposure = scene::render(rig, scene::makeScatteredDiscs(rig, 12, 10, 20, 20, 200, 4), {}, {});
    writeCalibration(at + "rig.yaml",
                     {{test::poseOf(rig.left), test::poseOf(rig.right)}, {test::cameraOf(rig.left), test::cameraOf(rig.right)}, {800, 640}, 0});
    cv::imwrite(at + "left.png", exposure.image[0]);
    Settings settings = loadSettings(kReady + "bright-radial.yaml", {});
    CircleMarkerExtractor extractor;
    const std::vector<Marker> markers = findMarkers(extractor, exposure.image[0], 0, {}, settings);
    ASSERT_GE(markers.size(), 10u);
    const auto plane = [](double x, double y) { return 900 + 0.05 * x - 0.03 * y; };
    cv::Mat depth(640, 800, CV_32FC1);
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x) depth.at<float>(y, x) = static_cast<float>(plane(x, y));
    const std::vector<float> holes = {0, -3, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()};
    for (std::size_t k = 0; k < holes.size(); ++k) depth.at<float>(markers[2 * k].centre) = holes[k];
    cv::imwrite(at + "plane.tiff", depth);
    cv::imwrite(at + "plate.png", cv::Mat(640, 800, CV_16UC1, cv::Scalar(8000)));
    for (const auto& [file, scale, dropped] : {std::tuple("plane.tiff", "1", 4u), {"plate.png", "0.125", 0u}}) {
        const auto [code, output] = measure("depth " + at + "left.png " + at + file + " --depth-scale " + scale + " --settings " + kReady +
                                            "bright-radial.yaml --calibration " + at + "rig.yaml --csv " + at + "points.csv");
        EXPECT_EQ(code, 0) << output;
        EXPECT_NE(output.find(std::to_string(dropped) + " dropped"), std::string::npos) << output;
        std::istringstream rows(readText(at + "points.csv"));
        std::string row;
        std::getline(rows, row);
        EXPECT_EQ(row, "id,x,y,X,Y,Z");
        std::size_t count = 0;
        for (; std::getline(rows, row); ++count) {
            double v[6] = {};
            ASSERT_EQ(std::sscanf(row.c_str(), "%lf,%lf,%lf,%lf,%lf,%lf", v, v + 1, v + 2, v + 3, v + 4, v + 5), 6) << row;
            EXPECT_EQ(cv::Point2d(v[1], v[2]), markers[static_cast<std::size_t>(v[0])].centre);
            const double z = dropped > 0 ? plane(v[1], v[2]) : 1000;
            EXPECT_NEAR(v[5], z, 1e-3);
            EXPECT_NEAR(v[3], (v[1] - rig.left.intrinsic(0, 2)) * z / rig.left.intrinsic(0, 0), 1e-3);
            EXPECT_NEAR(v[4], (v[2] - rig.left.intrinsic(1, 2)) * z / rig.left.intrinsic(1, 1), 1e-3);
        }
        EXPECT_EQ(count, markers.size() - dropped);
    }
}

/// Markers explained are those found, and what was refused is refused is the disc that is seen askew, for what is true of it.
TEST(HostExplanation, AgreesWithTheExtractionAndTheScene) {
    const scene::Rig rig = scene::makeVergedRig({1001, 803});
    std::vector<scene::Disc> discs = scene::makeScatteredDiscs(rig, 12, 14, 20, 20, 250, 5);
    const double across = std::sin(0.9) * std::sqrt(0.5);
    discs[5].normal = {-across, across, -std::cos(0.9)};  // along a diagonal, since a flat box would be no candidate of path complex
    const scene::Exposure exposure = scene::render(rig, discs, {}, {.background = 10});  // path hand takes no less
    const scene::EllipseTruth& askew = exposure.markers[5].eye[1];
    const double ratio = askew.minorHalfAxis / askew.majorHalfAxis;
    const Camera camera{cv::Mat(rig.right.intrinsic), cv::Mat(rig.right.distortion, true)};
    const std::tuple<const char*, Path, int> ways[] = {{"bright-subpixel.yaml", Path::simple, 1}, {"bright-subpixel.yaml", Path::simple, 3},
                                                       {"bright-radial.yaml", Path::radial, 2},   {"bright-complex.yaml", Path::complex, 2},
                                                       {"bright-fast.yaml", Path::fast, 1},       {"bright-subpixel.yaml", Path::hand, 1}};
    for (const auto& [name, path, scale] : ways) {
        SCOPED_TRACE(testing::Message() << nameOf(path) << " at scale " << scale);
        Settings settings = loadSettings(kReady + name, path);
        settings.configs.scale = scale;
        settings.configs.maxEccentricity = 0.8;
        settings.configs.minCircularity = 0.6;  // asked before the eccentricity by path fast
        settings.configs.minAxisRatio = 0.7F;
        settings.configs.skipUndistort = false;
        CircleMarkerExtractor extractor;
        const std::vector<Marker> markers = findMarkers(extractor, exposure.image[1], 1, camera, settings);
        const std::vector<Candidate> candidates = explainMarkers(extractor, exposure.image[1], 1, camera, settings);
        std::vector<int> seen(markers.size());
        int refusedAskew = 0;
        for (const Candidate& c : candidates) {
            const cv::Point2d middle = 0.5 * (c.box.tl() + c.box.br());
            if (!c.gate.empty()) {
                EXPECT_FALSE(c.wanted.empty());
                if (cv::norm(middle - askew.distortedCentre) > 3) continue;
                ++refusedAskew;
                EXPECT_TRUE(c.gate == "eccentricity" || c.gate == "axis ratio") << c.gate;
                EXPECT_NEAR(c.measured, c.gate == "axis ratio" ? ratio : std::sqrt(1 - ratio * ratio), 0.05);
                continue;
            }
            const Marker& marker = markers.at(static_cast<std::size_t>(c.marker));
            ++seen[static_cast<std::size_t>(c.marker)];
            EXPECT_LT(cv::norm(c.rim->centre - marker.centre), 1e-4);
            EXPECT_TRUE(c.rim->majorHalfAxis == marker.majorHalfAxis || path == Path::fast);
            EXPECT_LT(cv::norm(middle - marker.centre), 12) << "but for the lens";
        }
        EXPECT_EQ(seen, std::vector<int>(markers.size(), 1));
        EXPECT_GE(markers.size(), 10u);
        EXPECT_GE(refusedAskew, 1);
        std::ostringstream csv;
        writeExplanationCsv(csv, "a", candidates);
        EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(csv.str(), '\n')), candidates.size() + 1);
        EXPECT_GT(drawExplanation(exposure.image[1], candidates, "").rows, 803);
    }
    // More than 200 alike are counted, not listed; the others still are.
    Candidate speck{0, {{5, 5}}, {5, 5, 0, 0}, {}, "area", 1.5, "minArea 20 to maxArea 30", -1};
    std::vector<Candidate> many(201, speck);
    many.push_back({201, {{9, 9}}, {9, 9, 0, 0}, {}, "", std::nan(""), "", 0});
    const std::string table = explanationTable(many);
    EXPECT_LT(std::ranges::count(table, '\n'), 8) << table;
    EXPECT_NE(table.find("   201  area"), std::string::npos) << table;
    EXPECT_NE(table.find("marker 0\n"), std::string::npos) << table;
}

/// Strong edges, in grey as well as in colour: whole-pixel contours around the discs of the image as it is.
TEST(HostMarkers, ByHandAgreeWithTheTruth) {
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    const scene::Exposure exposure = scene::render(rig, scene::makeScatteredDiscs(rig, 15, 10, 20, 25, 250, 6), {}, {.background = 20});
    const Settings settings = loadSettings(kReady + "bright-subpixel.yaml", Path::hand);
    CircleMarkerExtractor extractor;
    const std::vector<Marker> markers = findMarkers(extractor, exposure.image[0], 0, {}, settings);
    std::vector<cv::Point2d> centres;
    for (const Marker& marker : markers) centres.push_back(marker.centre);
    const scene::DetectionScore score = scene::scoreDetections(exposure.markers, 0, centres, false, 2);
    EXPECT_TRUE(score.missed.empty() && score.falseOnes.empty() && score.matches.size() >= 12) << markers.size();
    EXPECT_LT(score.centreRms, 0.25);
    for (const scene::DetectionMatch& match : score.matches) {
        const Marker& marker = markers[static_cast<std::size_t>(match.detection)];
        EXPECT_EQ(marker.id, match.detection);
        EXPECT_NEAR(marker.majorHalfAxis, exposure.markers[static_cast<std::size_t>(match.marker)].eye[0].majorHalfAxis, 2);
        EXPECT_NEAR(marker.area, 4 * marker.majorHalfAxis * marker.minorHalfAxis, 1e-3 * marker.area);
    }
}

/// Whatever the scale, centres and axes are those of the full image, with the lens taken out.
TEST(HostMarkers, AgreeWithTheTruthAtEveryScale) {
    const scene::Rig rig = scene::makeVergedRig({1001, 803});  // no multiple of 2 or 3
    const scene::Exposure exposure = scene::render(rig, scene::makeScatteredDiscs(rig, 20, 24, 30, 30, 200, 5), {}, scene::RenderOptions{});
    const Camera camera{cv::Mat(rig.right.intrinsic), cv::Mat(rig.right.distortion, true)};
    for (const int scale : {1, 2, 3}) {
        for (const std::string name : {"bright-subpixel.yaml", "bright-radial.yaml", "bright-complex.yaml"}) {
            const bool complex = name == "bright-complex.yaml";
            if (complex && scale != 2) continue;  // its blobs are rims of a few pixels of the reduced image
            SCOPED_TRACE(testing::Message() << name << " at scale " << scale);
            Settings settings = loadSettings(kReady + name, {});
            settings.configs.scale = scale;
            settings.configs.skipUndistort = false;
            CircleMarkerExtractor extractor;
            const std::vector<Marker> markers = findMarkers(extractor, exposure.image[1], 1, camera, settings);
            std::vector<cv::Point2d> centres;
            centres.reserve(markers.size());
            for (const Marker& marker : markers) centres.push_back(marker.centre);
            const scene::DetectionScore score = scene::scoreDetections(exposure.markers, 1, centres, true, 2);
            EXPECT_TRUE(score.missed.empty() && score.falseOnes.empty() && score.matches.size() >= 15);
            EXPECT_LT(score.centreRms, complex ? 0.03 : 0.06 * scale);  // half a pixel of the reduced image would be 0.5 or 1
            for (const scene::DetectionMatch& match : score.matches) {
                const scene::EllipseTruth& rim = exposure.markers[static_cast<std::size_t>(match.marker)].eye[1];
                const Marker& marker = markers[static_cast<std::size_t>(match.detection)];
                EXPECT_NEAR(marker.majorHalfAxis, rim.majorHalfAxis, complex ? 0.3 : 1.5);
                EXPECT_EQ(marker.polarity, complex ? Polarity::bright : Polarity::unknown);
            }
        }
    }
}

}  // namespace
}  // namespace kestrune::host

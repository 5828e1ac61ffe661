// SPDX-License-Identifier: Apache-2.0
//
// The program from outside: exit codes, what it writes, and whether its figures are those of the full, undistorted image.
#include <map>
#include <opencv2/imgcodecs.hpp>

#include "MarkerExtractor/stereo/index.h"
#include "csv.h"
#include "explanation.h"
#include "overlay.h"
#include "support/configs.h"
#include "support/program.h"

namespace kestrune::measure::program_test {

/// One demonstration's exposure is the input of all that follows.
TEST(HostProgram, DemoThenExtract) {
    enterOwnDirectory();
    expectOutcome("demo --size 800x640 --markers 12 --seed 3 --out demo", 0, "");
    for (const char* picture : {"left-radial", "right-radial", "left-simple", "right-simple", "left-fast", "right-fast", "left-complex",
                                "right-complex", "mixed-left-complex", "mixed-right-complex"}) {
        EXPECT_GT(readImage(std::string("demo/") + picture + ".png", false).cols, 800) << picture;
    }

    std::ofstream("broken.png") << "no picture";
    const std::tuple<const char*, int, const char*> cases[] = {
        {"", 2, "subcommand is required"},
        {"extract demo/left.png", 2, "--settings is required"},
        {"extract demo/left.png --settings ready/bright-radial.yaml --eye 5", 2, "--eye"},
        {"extract demo/left.png --settings ready/bright-radial.yaml --overlay picture.jpg", 2, "picture.jpg: an overlay is written as .png"},
        {"extract demo/left.png --settings ready/bright-radial.yaml --calibration ready/bright-radial.yaml", 2, "field 'M1' is missing"},
        {"extract demo/left.png --settings ready/bright-radial.yaml --calibration demo/calibration.yaml", 0, "is not used"},
        {"extract broken.png demo/left.png --settings ready/bright-radial.yaml", 1, "left.png: 12 markers"},
        {"extract demo/left.png --settings ready/bright-subpixel.yaml", 0, ": 12 markers"},
        {"extract demo/left.png --settings ready/bright-radial.yaml --invert", 0, ": 0 markers"},
        {"extract demo/mixed-left.png --path complex --csv m.csv --settings ready/mixed-complex.yaml", 0, ": 12 markers"},
        {"explain demo/left.png --settings ready/bright-radial.yaml --csv e.csv --out e.png", 0, "\n    12  marker\n"},
        {"explain demo/left.png --settings ready/bright-fast.yaml --path fast", 0, "\n    12  marker\n"},
        {"extract demo/left.png --settings ready/bright-subpixel.yaml --path hand", 0, ": 0 markers"},  // they stand out too little for it
        {"depth demo/left.png demo/left.png --settings ready/bright-radial.yaml --csv d.csv", 2, "--calibration is required"},
        {"depth demo/left.png z.png --settings ready/bright-radial.yaml --calibration demo/calibration.yaml --depth-scale -1", 2, "--depth-scale"},
        {"settings ready/bright-radial.yaml none.yaml", 2, "good for path radial, in stereo too\n"},
        {"settings ready/bright-fast.yaml --path fast", 0, "good for path fast\n"},
        {"demo --size 10x10 --out small", 2, "10x10"},
        {"extract demo/left.png demo/left.png --path fast --csv t.csv --overlay o.png --settings ready/bright-fast.yaml", 0, "o-left-2.png"},
    };
    for (const auto& [arguments, code, expected] : cases) expectOutcome(arguments, code, expected);
    // The last case's table: both images, fourteen fields a row, and those empty that this path does not measure.
    const std::string csv = readText("t.csv");
    EXPECT_TRUE(csv.starts_with("image,id,x,y,major,minor,angle,area,eccentricity,circularity,fitError,fitResidual,polarity,pixels\n"));
    EXPECT_EQ(std::ranges::count(csv, '\n'), 25);
    EXPECT_EQ(std::ranges::count(csv, ','), 25 * 13);
    EXPECT_EQ(csv.substr(csv.size() - 14), ",,,,distorted\n");
    // Every other marker of that scene is dark.
    std::istringstream rows(readText("m.csv"));
    std::map<std::string, int> ends;
    for (std::string row; std::getline(rows, row);) ++ends[row.substr(row.rfind(',', row.rfind(',') - 1))];
    EXPECT_EQ(ends, (std::map<std::string, int>{{",polarity,pixels", 1}, {",bright,distorted", 6}, {",dark,distorted", 6}}));
}

/// Depths of a plate parallel to the image, of both kinds of file, one with a hole of each kind.
TEST(HostProgram, DepthPlacesMarkersOnThePlate) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    const scene::Exposure exposure = scene::render(rig, scene::makeScatteredDiscs(rig, 12, 10, 20, 20, 200, 4), {}, {});
    writeRig("rig.yaml", rig);
    cv::imwrite("left.png", exposure.image[0]);
    CircleMarkerExtractor extractor;
    writeSettings("free.yaml", "ready/bright-radial.yaml", {{"skipUndistort", "false"}});
    const std::vector<Marker> markers = findMarkers(extractor, exposure.image[0], 0, readCameras("rig.yaml", 0)[0], readSettings("free.yaml", {}));
    ASSERT_GE(markers.size(), 10u);
    cv::Mat plate(640, 800, CV_32FC1, cv::Scalar(1000));
    int hole = 0;
    for (const double value : {0.0, -3.0, test::kNaN, test::kInf}) plate.at<float>(markers[asIndex(2 * hole++)].centre) = static_cast<float>(value);
    cv::imwrite("plate.tiff", plate);
    cv::imwrite("plate.png", cv::Mat(640, 800, CV_16UC1, cv::Scalar(8000)));
    for (const auto& [arguments, dropped] : {std::pair("plate.tiff --depth-scale 1", 4u), {"plate.png --depth-scale 0.125", 0u}}) {
        const std::string rest = " --settings free.yaml --calibration rig.yaml --csv points.csv";
        expectOutcome(std::string("depth left.png ") + arguments + rest, 0, std::to_string(dropped) + " dropped");
        const std::vector<Row> rows = rowsOf("points.csv", "id,x,y,X,Y,Z");
        EXPECT_EQ(rows.size(), markers.size() - dropped);
        for (const auto& [id, v] : rows) {
            EXPECT_EQ(cv::Point2d(v[0], v[1]), markers[std::stoul(id)].centre);
            const cv::Vec3d expected = 1000 * (rig.left.intrinsic.inv() * cv::Vec3d(v[0], v[1], 1));
            EXPECT_LT(cv::norm(cv::Vec3d(v[2], v[3], v[4]) - expected, cv::NORM_INF), 1e-3);
        }
    }
}

/// What of an image, a calibration and settings does not belong together is refused, and what is assumed is said.
TEST(HostProgram, HoldsPixelsToTheirCalibration) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({400, 320});
    writeRig("rig.yaml", rig);
    const std::string ready = "ready/bright-radial.yaml";
    writeSettings("free.yaml", ready, {{"skipUndistort", "false"}});
    writeSettings("twice.yaml", "free.yaml", {{"cornersRectified", "true"}});
    writeSettings("rectified.yaml", ready, {{"cornersRectified", "true"}});
    std::ofstream("unsized.yaml") << withLine(withLine(readText("rig.yaml"), "image_width", ""), "image_height", "");
    scene::Rig plain = rig;
    plain.left.distortion = plain.right.distortion = {};
    writeRig("plain.yaml", plain);
    const scene::Exposure exposure = scene::render(plain, scene::makeScatteredDiscs(plain, 3, 10, 12, 20, 200, 4), {}, {});
    cv::imwrite("a.png", exposure.image[0]);
    cv::imwrite("other.png", cv::Mat(300, 400, CV_8UC1, cv::Scalar(0)));
    cv::imwrite("z.png", cv::Mat(320, 400, CV_16UC1, cv::Scalar(8000)));
    cv::imwrite("otherZ.png", cv::Mat(300, 400, CV_16UC1, cv::Scalar(8000)));
    const std::tuple<const char*, int, const char*> cases[] = {
        {"extract a.png other.png --settings free.yaml --calibration rig.yaml", 1, "other.png: is 400 x 300 px, the calibration is for 400 x 320"},
        {"extract other.png --settings ready/bright-radial.yaml --calibration rig.yaml", 1, "other.png: is 400 x 300 px"},
        {"extract a.png other.png --settings free.yaml --calibration unsized.yaml", 1, "no image size; taken to be for 400 x 320 px, as a.png"},
        {"explain other.png --settings free.yaml --calibration rig.yaml", 1, "other.png: is 400 x 300 px"},
        {"explain a.png --settings free.yaml --calibration unsized.yaml", 0, "unsized.yaml: tells no image size"},
        {"depth other.png otherZ.png --settings free.yaml --calibration rig.yaml --csv d.csv", 1, "other.png: is 400 x 300 px"},
        {"depth a.png z.png --settings free.yaml --calibration unsized.yaml --csv d.csv", 0, "unsized.yaml: tells no image size"},
        {"depth a.png z.png --settings ready/bright-radial.yaml --calibration rig.yaml --csv d.csv", 2, "field 'skipUndistort' true leaves the lens"},
        {"depth a.png z.png --settings ready/bright-fast.yaml --path fast --calibration rig.yaml --csv d.csv", 2, "path fast leaves the lens"},
        {"depth a.png z.png --settings rectified.yaml --calibration rig.yaml --csv d.csv", 2, "'cornersRectified' true, but rig.yaml has distortion"},
        {"depth a.png z.png --settings ready/bright-radial.yaml --calibration plain.yaml --csv d.csv", 0, "3 with a depth"},
        {"depth a.png a.png --settings free.yaml --calibration rig.yaml --csv d.csv", 1, "a.png: is of type CV_8UC"},
        {"extract a.png --settings twice.yaml --calibration rig.yaml", 2, "field 'cornersRectified' true"},
    };
    for (const auto& [arguments, code, expected] : cases) expectOutcome(arguments, code, expected);
    for (const auto& [settings, pixels] : {std::pair("free.yaml --calibration rig.yaml", "undistorted"),
                                           {"rectified.yaml", "rectified"},
                                           {"ready/bright-radial.yaml", "distorted"},
                                           {"ready/bright-radial.yaml --calibration plain.yaml", "undistorted"}}) {
        expectOutcome(std::string("extract a.png --csv t.csv --settings ") + settings, 0, ": 3 markers");
        const std::string csv = readText("t.csv");
        EXPECT_EQ(csv.substr(csv.rfind(',') + 1), std::string(pixels) + "\n") << settings;
    }
}

/// Whatever the scale, markers are those of the full image, with the lens taken out. The account names each of them once,
/// and refuses the disc that is seen askew for what is true of it.
TEST(HostMarkers, AreTrueAndAccountedForAtEveryScale) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({1001, 803});  // no multiple of 2 or 3
    std::vector<scene::Disc> discs = scene::makeScatteredDiscs(rig, 20, 24, 30, 30, 250, 5);
    const double across = std::sin(0.9) * std::sqrt(0.5);
    discs[5].normal = {-across, across, -std::cos(0.9)};  // along a diagonal, since a flat box would be no candidate of path complex
    const scene::Exposure exposure = scene::render(rig, discs, {}, {.background = 20});  // the path by hand wants strong edges
    const scene::EllipseTruth& askew = exposure.markers[5].eye[1];
    const double ratio = askew.minorHalfAxis / askew.majorHalfAxis;
    const Camera camera{cv::Mat(rig.right.intrinsic), cv::Mat(rig.right.distortion, true)};
    // Settings, another path, scale, worst RMS of the centres, worst half axis. By hand, contours are made of whole pixels
    // and their discs those of the image as it is.
    const std::tuple<std::string, std::optional<Path>, int, double, double> cases[] = {
        {"bright-subpixel.yaml", Path::hand, 1, 0.25, 2}, {"bright-subpixel.yaml", {}, 1, 0.06, 1.5}, {"bright-subpixel.yaml", {}, 2, 0.12, 1.5},
        {"bright-subpixel.yaml", {}, 3, 0.18, 1.5},       {"bright-radial.yaml", {}, 1, 0.06, 1.5},   {"bright-radial.yaml", {}, 2, 0.12, 1.5},
        {"bright-radial.yaml", {}, 3, 0.18, 1.5},         {"bright-complex.yaml", {}, 2, 0.03, 0.3}};
    for (const auto& [name, path, scale, worstRms, worstAxis] : cases) {
        SCOPED_TRACE(testing::Message() << name << " at scale " << scale);
        Settings settings = readSettings("ready/" + name, path);
        settings.configs.scale = scale, settings.configs.skipUndistort = false;
        settings.configs.maxEccentricity = 0.8, settings.configs.minAxisRatio = 0.7F;
        CircleMarkerExtractor extractor;
        const std::vector<Marker> markers = findMarkers(extractor, exposure.image[1], 1, camera, settings);
        std::vector<cv::Point2d> centres;
        for (const Marker& marker : markers) centres.push_back(marker.centre);
        const bool byHand = settings.path == Path::hand;
        const auto score = scene::scoreDetections(exposure.markers, 1, centres, !byHand, 2);
        EXPECT_EQ(score.missed, std::vector<int>{5});
        EXPECT_TRUE(score.falseOnes.empty());
        EXPECT_GE(score.matches.size(), 15u);
        EXPECT_LT(score.centreRms, worstRms);  // half a pixel of the reduced image would be 0.5 or 1
        for (const scene::DetectionMatch& match : score.matches) {
            const Marker& marker = markers[static_cast<std::size_t>(match.detection)];
            EXPECT_NEAR(marker.majorHalfAxis, exposure.markers[static_cast<std::size_t>(match.marker)].eye[1].majorHalfAxis, worstAxis);
            EXPECT_EQ(marker.id, match.detection);
            EXPECT_NEAR(marker.area / marker.majorHalfAxis / marker.minorHalfAxis, 4, 0.01);
            EXPECT_EQ(marker.polarity, settings.path == Path::complex ? Polarity::bright : Polarity::unknown);
        }
        std::vector<int> seen(markers.size());
        int refusedAskew = 0;
        for (const Candidate& c : explainMarkers(extractor, exposure.image[1], 1, camera, settings)) {
            const cv::Point2d middle = 0.5 * (c.box.tl() + c.box.br());
            EXPECT_NE(c.gate.empty(), !c.wanted.empty());
            if (c.gate.empty()) {
                const Marker& marker = markers.at(static_cast<std::size_t>(c.marker));
                ++seen[static_cast<std::size_t>(c.marker)];
                EXPECT_LT(cv::norm(c.rim->centre - marker.centre), 1e-4);
                EXPECT_EQ(c.rim->majorHalfAxis, marker.majorHalfAxis);
                EXPECT_LT(cv::norm(middle - marker.centre), 12) << "but for the lens";
            } else if (cv::norm(middle - askew.distortedCentre) < 3) {
                ++refusedAskew;
                EXPECT_NEAR(c.measured,
                            c.gate == "axis ratio"     ? ratio
                            : c.gate == "eccentricity" ? std::sqrt(1 - ratio * ratio)
                                                       : -1,
                            0.05)
                    << c.gate;
            }
        }
        EXPECT_EQ(seen, std::vector<int>(markers.size(), 1));
        EXPECT_GE(refusedAskew, 1);
    }
}

/// What no candidate came of: the setting that dropped it, the change that would show it, the other polarity.
TEST(HostExplanation, TellsWhatNeverBecameACandidate) {
    enterOwnDirectory();
    const auto write = [](const char* file, double disc, double ground) {
        cv::Mat image(300, 400, CV_8UC1, cv::Scalar(ground));
        for (int k = 0; k < 6; ++k) test::addDisc(image, {70.3 + 120 * (k % 3), 80.6 + 130 * (k / 3)}, 12 + 2 * k, disc, ground);
        cv::imwrite(file, image);
    };
    write("bright.png", 200, 60), write("dark.png", 60, 200), write("faint.png", 80, 60), write("fainter.png", 70, 60), write("mid.png", 88, 60);
    const std::string radial = ".png --settings ready/bright-radial.yaml --csv e.csv --out e.png ";
    const std::pair<std::string, const char*> cases[] = {
        {"dark" + radial, "\nnothing bright is round here, but 6 dark shapes are: --invert, or path complex\n"},
        {"bright" + radial + "--invert", "\nnothing dark is round here, but 6 bright shapes are: leave --invert out, or path complex\n"},
        {"dark.png --settings ready/bright-fast.yaml --path fast", "but 6 dark shapes are"},
        {"faint.png --settings ready/bright-fast.yaml --path fast", "\n     6  blob: grey level                       70 to 70"},
        {"faint.png --settings ready/bright-subpixel.yaml", "\n     6      0  cannyLow 15 instead of 20 and cannyHigh 20 instead of 40\n"},
        {"fainter" + radial, "\n     6      0  thresholdC -2 instead of -8 and contrast 7 instead of 30\n"},
        {"mid" + radial, "\n     6      0  thresholdC -6 instead of -8 and contrast 22 instead of 30\n"},
        {"mid" + radial, "\n     6  blob: no rim  "},
    };
    for (const auto& [arguments, expected] : cases) expectOutcome("explain " + arguments, 0, expected);
    const std::string csv = readText("e.csv");
    for (const char* part : {"\nmid.png,,70.5,80.5,22,22,,,,,,blob: no rim,23.", "\"contrast 30 or more, of its mean to the ring around it\",\n"})
        EXPECT_NE(csv.find(part), std::string::npos) << csv;
    const std::string good = shell(KESTRUNE_MEASURE " explain bright" + radial).second;
    for (const char* hint : {" shapes are", " instead of "}) EXPECT_EQ(good.find(hint), std::string::npos) << good;
}

TEST(HostMarkers, TheReducedCameraSeesTheSamePlaceAndFieldsAreQuoted) {
    const Camera camera{(cv::Mat_<double>(3, 3) << 900, 0, 321.5, 0, 910, 241, 0, 0, 1), cv::Mat::zeros(1, 5, CV_64F)};
    const Enlargement enlarge{2.5, 3};
    CircleMarkerExtractor e;
    setCamera(e, 0, camera, enlarge, {{}, Path::simple});
    const cv::Mat& k = e.leftIntrinsic;
    EXPECT_EQ(enlarge.point({k.at<double>(0, 2), k.at<double>(1, 2)}), cv::Point2d(321.5, 241)) << "the principal point";
    EXPECT_EQ(cv::Vec2d(k.at<double>(0, 0), k.at<double>(1, 1)), cv::Vec2d(360, 910 / 3.0));
    for (const auto& [text, field] : {std::pair("a b", "a b"), {"a,b", "\"a,b\""}, {"say \"x\"", "\"say \"\"x\"\"\""}, {"a\nb", "\"a\nb\""}})
        EXPECT_EQ(csvField(std::string(text)), field);
}

/// More than 200 alike are counted, not listed; the others still are.
TEST(HostExplanation, CountsWhatIsTooMuchToList) {
    std::vector<Candidate> many(201, {0, {{5, 5}}, {5, 5, 0, 0}, {}, "area", 1.5, "minArea 20 to maxArea 30", -1});
    many.push_back({201, {{9, 9}}, {9, 9, 0, 0}, {}, "", std::nan(""), "", 0});
    const std::string table = explanationTable(many);
    EXPECT_LT(std::ranges::count(table, '\n'), 8) << table;
    for (const char* line : {"   201  area", "marker 0\n"}) EXPECT_NE(table.find(line), std::string::npos) << table;
}

/// Discs of 30 px: noise tears the faint ones, and the program says so, but only where the setting is to blame.
TEST(HostProgram, WarnsOfCentresThatRefinementSpoilt) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    writeSettings("refined.yaml", "ready/bright-radial.yaml", {{"refineAtFullSize", "true"}});
    for (const auto& [file, grey, noise] : {std::tuple("faint.png", 110, 4), {"strong.png", 190, 2}})
        cv::imwrite(file, scene::render(rig, scene::makeScatteredDiscs(rig, 12, 30, 30, 20, grey, 4), {}, {50, 0.8, double(noise)}).image[0]);
    const char* const warning = "refineAtFullSize: against the search without it";
    for (const char* command : {"extract", "explain"}) {
        const std::string run = std::string(KESTRUNE_MEASURE) + " " + command + " ";
        expectOutcome(std::string(command) + " faint.png --settings refined.yaml", 0, warning);
        for (const char* good : {"strong.png --settings refined.yaml", "faint.png --settings ready/bright-radial.yaml"})
            EXPECT_EQ(shell(run + good).second.find(warning), std::string::npos) << good;
    }
}

/// At most twice the image, however small the markers, and no name so long that the banner cuts it off.
TEST(HostOverlay, IsAtMostTwiceTheImageUnderAWholeBanner) {
    for (const int width : {100, 640, 2448}) {
        const cv::Mat image(80, width, CV_8UC1, cv::Scalar(90));
        const std::vector<Mark> marks(9, {MarkKind::found, "", {40, 40}, 2, 2, 0});
        const cv::Mat picture = drawOverlay(image, marks, std::string(60, 'W'), {{MarkKind::found, 9}});
        EXPECT_EQ(picture.cols, 2 * width);
        const cv::Mat banner = picture.rowRange(0, picture.rows - 2 * image.rows);
        cv::Mat margin = banner.colRange(picture.cols - 3, picture.cols).clone();
        EXPECT_EQ(cv::norm(margin, cv::Mat(margin.size(), CV_8UC3, margin.at<cv::Vec3b>(0, 2)), cv::NORM_INF), 0) << width;
    }
}

}  // namespace kestrune::measure::program_test

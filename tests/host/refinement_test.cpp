// SPDX-License-Identifier: Apache-2.0
//
// Markers that are refined, through the program: the library's estimates, in the right pixels, levels and frames.
#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "MarkerExtractor/stereo/index.h"
#include "csv.h"
#include "error_ellipse.h"
#include "overlay.h"
#include "stereo_exposure.h"
#include "support/program.h"

namespace kestrune::measure::refinement_test {

using Table = std::vector<std::map<std::string, std::string>>;

/// A table without quotes.
Table tableOf(const std::string& file) {
    const auto fieldsOf = [](const std::string& line) {
        std::vector<std::string> fields(1);
        for (const char c : line) c == ',' ? fields.emplace_back() : fields.back() += c, void();
        return fields;
    };
    std::istringstream text(readText(file));
    std::string line;
    std::getline(text, line);
    const std::vector<std::string> names = fieldsOf(line);
    Table table;
    while (std::getline(text, line)) {
        const std::vector<std::string> fields = fieldsOf(line);
        EXPECT_EQ(fields.size(), names.size()) << line;
        auto& row = table.emplace_back();
        for (std::size_t k = 0; k < names.size(); ++k) row[names[k]] = fields[k];
    }
    return table;
}

struct Case {
    const char *image, *settings, *path;
    double level, zero;  ///< of the image, in grey levels of the file
};

/// Bright discs of a lens with distortion, two of which touch.
scene::Exposure rendered() {
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    std::vector<scene::Disc> discs = scene::makeScatteredDiscs(rig, 12, 9, 20, 30, 190, 4);
    discs[1] = discs[0];
    discs[1].centre[0] += 2.1 * discs[0].radius;
    return scene::render(rig, discs, {}, {});
}

TEST(HostRefinement, RowsAreTheLibrarysEstimates) {
    enterOwnDirectory();
    const scene::Exposure exposure = rendered();
    const cv::Mat& grey = exposure.image[0];
    writeRig("rig.yaml", exposure.rig);
    const Camera camera = readCameras("rig.yaml", 0)[0];
    cv::Mat deep, real;
    grey.convertTo(deep, CV_16U, 16, 100), grey.convertTo(real, CV_32F, 0.5, -3);
    cv::imwrite("grey.png", grey), cv::imwrite("deep.png", deep), cv::imwrite("real.tif", real), cv::imwrite("dark.png", 255 - grey);
    writeSettings("free.yaml", "ready/bright-complex.yaml", {{"skipUndistort", "false"}});
    writeSettings("half.yaml", "ready/bright-subpixel.yaml", {{"skipUndistort", "false"}, {"scale", "2"}});
    double low = 0, high = 0;
    cv::minMaxLoc(real, &low, &high);
    const Case cases[] = {{"grey.png", "free.yaml", "complex", 1, 0},
                          {"deep.png", "free.yaml", "complex", 1, 0},
                          {"real.tif", "free.yaml", "complex", (high - low) / 65535, low},
                          {"grey.png", "half.yaml", "simple", 1, 0},
                          {"grey.png", "ready/bright-fast.yaml", "fast", 1, 0},
                          {"dark.png", "ready/bright-radial.yaml", "radial", 1, 0}};
    for (const auto& [file, from, path, level, zero] : cases) {
        SCOPED_TRACE(std::string(file) + " " + from);
        const Settings settings = readSettings(from, pathNamed(path));
        const bool undistorts = deliversUndistorted(settings), invert = file[0] == 'd' && file[1] == 'a';
        const std::string run = std::string("extract ") + file + " --settings " + from + " --path " + path + (invert ? " --invert" : "") +
                                (undistorts ? " --calibration rig.yaml" : "");
        CircleMarkerExtractor extractor;
        std::vector<Corner> records;
        const auto markers = findMarkers(extractor, readImage(file, invert), 0, camera, settings, &records);
        RefinementOptions options;
        if (undistorts) options.camera = camera;
        if (path == std::string("simple")) options.recordSize = {400, 320};
        cv::Mat fitted = decodeImage(file);
        if (fitted.depth() == CV_32F) fitted = toSixteenBits(fitted, {low, high});
        const auto estimates = refineMarkers(fitted, records, options);
        const auto refined = std::ranges::count(estimates, RefinementStatus::refined, &MarkerEstimate::status);
        EXPECT_GE(refined, 8);
        expectOutcome(run + " --csv plain.csv", 0, fmt::format(": {} markers\n", markers.size()));
        expectOutcome(run + " --refine --csv t.csv --overlay o.png", 0, fmt::format(" markers, {} refined", refined));
        const Table plain = tableOf("plain.csv"), rows = tableOf("t.csv");
        ASSERT_TRUE(plain.size() == rows.size() && rows.size() == estimates.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const MarkerEstimate e = undistorts ? undistorted(estimates[i], camera) : estimates[i];
            auto row = rows[i];
            EXPECT_EQ(row["status"], nameOf(e.status));
            EXPECT_EQ(row["sigmaY"], csvField(std::sqrt(e.covariance(1, 1))));
            EXPECT_EQ(row["sigmaMajor"], csvField(axisSigmas(e).major));
            auto expected = plain[i];
            if (e.isRefined()) {
                expected["x"] = csvField(e.centre.x), expected["y"] = csvField(e.centre.y), expected["angle"] = csvField(e.angle * 180 / CV_PI);
                expected["major"] = csvField(e.majorHalfAxis), expected["minor"] = csvField(e.minorHalfAxis);
                EXPECT_NEAR(std::stod(row["inside"]), zero + level * e.inside, 1e-9 * std::abs(e.inside));
                EXPECT_NEAR(std::stod(row["sigmaInside"]), level * std::sqrt(e.covariance(5, 5)), 1e-9 * level);
                EXPECT_EQ(row["blur"], csvField(e.blur));
                EXPECT_EQ(std::stod(row["inside"]) > std::stod(row["outside"]), !invert);
            } else {
                EXPECT_EQ(row["inside"] + row["blur"] + row["fitPixels"], "");
            }
            for (const auto& [name, value] : expected) EXPECT_EQ(row[name], value) << name;
        }
    }
}

/// The discs of a verged rig, and of a nearly parallel one through its rectified cameras.
TEST(HostRefinement, DiscsStandInTheFrameOfTheirPoints) {
    enterOwnDirectory();
    for (const char* ready : {"ready/bright-complex.yaml", "ready/bright-subpixel.yaml"}) {
        for (const bool rectified : {false, true}) {
            SCOPED_TRACE(std::string(ready) + (rectified ? " rectified" : ""));
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
            std::vector<std::pair<Corner, Corner>> records;
            const cv::Matx33d toRectified(e.leftRectification);
            std::vector<StereoMarker> inCamera;
            for (const bool output : {false, true}) {
                settings.configs.outputRectified = output;
                const StereoResult result = measureExposure(e, exposure.image, settings, 0, &refinement, &records);
                ASSERT_GE(result.markers.size(), 8u);
                for (std::size_t k = 0; k < result.markers.size(); ++k) {
                    const StereoMarker& m = result.markers[k];
                    const DiscEstimate& disc = m.estimate->disc;
                    ASSERT_TRUE(disc.found);
                    EXPECT_TRUE(m.point == disc.centre && m.normal == disc.normal && m.radius == disc.radius);
                    EXPECT_EQ(cv::Vec3d(records[k].first.position.data()) == m.point, rectified == output);
                    EXPECT_LT(std::abs(m.residuals.row) + m.residuals.eye[0] + m.residuals.eye[1], 0.3);
                    if (!output) {
                        inCamera.push_back(m);
                        const auto truth = std::ranges::min_element(discs, {}, [&](const auto& d) { return cv::norm(d.centre - m.point); });
                        const cv::Vec3d error = m.point - truth->centre;
                        EXPECT_LT(error.dot(disc.centreCovariance().inv() * error), 30) << k;
                        EXPECT_NEAR(m.radius, truth->radius, 0.1);
                        continue;
                    }
                    const DiscEstimate& there = inCamera[k].estimate->disc;
                    EXPECT_LT(cv::norm(toRectified * there.centre - disc.centre) + cv::norm(toRectified * there.normal - disc.normal), 1e-9);
                    const cv::Matx33d covariance = toRectified * there.centreCovariance() * toRectified.t();
                    EXPECT_LT(cv::norm(covariance - disc.centreCovariance()), 1e-9 * cv::norm(covariance));
                    EXPECT_LT(cv::norm(toRectified * there.normalCovariance() * toRectified.t() - disc.normalCovariance()),
                              1e-9 * cv::norm(disc.normalCovariance()));
                }
            }
        }
    }
}

/// What the matcher takes is refined, and what it then finds is told of each pair.
TEST(HostRefinement, PairsAreThoseOfRefinedMarkers) {
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({800, 640});
    writeRig("rig.yaml", rig);
    const scene::Exposure exposure = scene::render(rig, scene::makeCurvedObject(rig, 14, 5, 8, 200, 1), {}, {});
    cv::imwrite("l.png", exposure.image[0]), cv::imwrite("r.png", exposure.image[1]),
        cv::imwrite("none.png", cv::Mat(640, 800, CV_8UC1, cv::Scalar(40)));
    writeSettings("s.yaml", "ready/bright-subpixel.yaml", {{"markerRadii", "[ 5, 8 ]"}});
    expectOutcome(
        "stereo --match path --refine --settings s.yaml --calibration rig.yaml --csv t.csv --json t.json --ply t.ply --overlay p --left l.png "
        "none.png "
        "--right r.png r.png",
        1, "; left: 14 refined; right: 14 refined; RMS rows");
    std::array<std::vector<MarkerEstimate>, 2> eyes;
    CircleMarkerExtractor extractor = calibratedExtractor(readRig("rig.yaml"));
    for (const int eye : {0, 1}) {
        const Camera camera = readCameras("rig.yaml", eye)[asIndex(eye)];
        std::vector<Corner> corners;
        ExtractCircleMarker(exposure.image[asIndex(eye)], extractor, corners, eye, readStereoSettings("s.yaml", {}).configs);
        for (const auto& e : refineMarkers(exposure.image[asIndex(eye)], corners, {.camera = camera}))
            eyes[asIndex(eye)].push_back(undistorted(e, camera));
    }
    const Table rows = tableOf("t.csv");
    const auto json = nlohmann::json::parse(readText("t.json"))["exposures"][0]["markers"];
    ASSERT_TRUE(rows.size() == 15 && json.size() == 14);
    for (std::size_t k = 0; k < json.size(); ++k) {
        auto row = rows[k];
        std::array<MarkerEstimate, 2> pair;
        for (std::size_t eye = 0; eye < 2; ++eye) {
            const auto told = json[k]["eyes"][eye];
            const auto found = std::ranges::find_if(eyes[eye], [&](const auto& e) {
                return told["centre"] == nlohmann::json{e.centre.x, e.centre.y};
            });
            ASSERT_NE(found, eyes[eye].end());
            pair[eye] = *found;
            EXPECT_EQ(told["sigmaBlur"], std::sqrt(found->covariance(7, 7)));
            EXPECT_NEAR(std::stod(row[eye == 0 ? "leftX" : "rightX"]), found->centre.x, 1e-4) << "the centre that the matcher had";
        }
        const DiscEstimate disc = measureDisc(pair, matricesOf(readRig("rig.yaml")));
        const auto expect = [&](const char* name, double value) { EXPECT_NEAR(std::stod(row[name]), value, 1e-6 * std::abs(value) + 1e-12) << name; };
        expect("X", disc.centre[0]), expect("Z", disc.centre[2]), expect("normalX", disc.normal[0]), expect("radius", disc.radius);
        expect("sigmaZ", std::sqrt(disc.covariance(2, 2))), expect("covarianceYZ", disc.covariance(1, 2)), expect("chiSquare", disc.chiSquare);
        const auto angles = disc.normalCovariance();
        expect("sigmaNormal", std::sqrt(cv::trace(angles)) * 180 / CV_PI), expect("sigmaRadius", disc.radiusSigma());
        EXPECT_EQ(row["leftStatus"] + row["rightStatus"] + row["pointSource"], "refinedrefineddisc");
        EXPECT_EQ(json[k]["covariance"][2][1], std::stod(row["covarianceYZ"]));
    }
    auto failed = rows.back();
    EXPECT_EQ(failed["error"] + failed["sigmaX"] + failed["pointSource"], "no markers in the left eye");
}

TEST(HostRefinement, ErrorEllipsesAreRoundMultiples) {
    const ErrorEllipse e = errorEllipseOf({2.5, 1.5, 1.5, 2.5});
    EXPECT_NEAR(e.majorHalfAxis, 2, 1e-12);
    EXPECT_NEAR(e.minorHalfAxis, 1, 1e-12);
    EXPECT_NEAR(e.angle, 45, 1e-12);
    const std::tuple<std::vector<double>, double, double> scales[] = {
        {{0.004, 0.005, 1}, 4, 500}, {{0.003}, 4, 1000}, {{0.001, test::kNaN, 0}, 2.1, 2000}, {{3}, 1, 0.2}, {{}, 1, 0}};
    for (const auto& [axes, size, scale] : scales) EXPECT_NEAR(errorScale(axes, size), scale, 1e-9 * scale);
}

}  // namespace kestrune::measure::refinement_test

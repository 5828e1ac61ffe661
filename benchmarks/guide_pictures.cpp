// SPDX-License-Identifier: Apache-2.0
//
// Makes the pictures of the guides: for the settings one scene, one setting, and what is found with too low, a good and
// too high a value; for the README two of a demonstration, made smaller.
// usage: kestrune_guide_pictures FOLDER [FOLDER_OF_DEMO]
#include <fmt/format.h>
#include <kestrune_scene/scene.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "files/inputs.h"
#include "image_file.h"
#include "markers.h"
#include "overlay.h"

namespace kestrune::measure {
namespace {

constexpr int kPanelWidth = 480;  ///< px; three side by side are legible where a page shows them at two thirds
constexpr int kPanelGap = 8;
constexpr int kCaptionHeight = 40;
constexpr double kCaptionText = 0.8;
constexpr int kZoom = 2;           ///< of the panels as they are drawn
constexpr int kDemoWidth = 1200;   ///< px
constexpr int kColourStep = 16;    ///< the noise of the scenes would make the files four times as large
constexpr MarkStyle kStyle{3, 0};  ///< ids do not matter here

const cv::Size kImageSize(320, 240);
constexpr double kFocal = 2000, kDistance = 1000;  ///< px, mm

/// What stands in front of the camera, drawn by pixels.
class Stage {
  public:
    Stage(double ground, double noise) : options_{ground, 0.8, noise, 3} {}

    /// A disc that is turned by `tilt` about an axis in the image, degrees; `radius` is that of its longer half axis.
    void disc(cv::Point2d at, double radius, double grey, double tilt = 0, double axis = 90) {
        const double t = tilt * CV_PI / 180, a = (axis - 90) * CV_PI / 180;
        const cv::Vec3d centre((at.x - kImageSize.width / 2.0) * kDistance / kFocal,
                               (at.y - kImageSize.height / 2.0) * kDistance / kFocal, kDistance);
        const cv::Vec3d normal(std::sin(t) * std::cos(a), std::sin(t) * std::sin(a), -std::cos(t));
        discs_.push_back({centre, normal, radius * kDistance / kFocal, grey});
    }

    /// A polygon of `corners` on an ellipse; `dents` makes it irregular.
    void patch(cv::Point2d at, cv::Size2d halfAxes, double turn, double grey, int corners, double dents = 0) {
        const double c = std::cos(turn * CV_PI / 180), s = std::sin(turn * CV_PI / 180);
        scene::Patch patch{0, {}, grey};
        for (int k = 0; k < corners; ++k) {
            const double angle = (k + 0.5) * 2 * CV_PI / corners, reach = 1 - dents * ((k * 7) % 5) / 5.0;
            const double x = halfAxes.width * std::cos(angle) * reach, y = halfAxes.height * std::sin(angle) * reach;
            patch.outline.emplace_back(at.x + c * x - s * y, at.y + s * x + c * y);
        }
        patches_.push_back(std::move(patch));
    }

    cv::Mat image() const {
        const cv::Matx33d intrinsic(kFocal, 0, kImageSize.width / 2.0, 0, kFocal, kImageSize.height / 2.0, 0, 0, 1);
        const scene::PinholeCamera camera{intrinsic, {}, cv::Matx33d::eye(), {}, kImageSize};
        return scene::render({camera, camera}, discs_, patches_, options_).image[0];
    }

  private:
    scene::RenderOptions options_;
    std::vector<scene::Disc> discs_;
    std::vector<scene::Patch> patches_;
};

cv::Mat tiltedDiscsAndStreaks() {
    Stage stage(35, 2);
    for (int k = 0; k < 5; ++k) {
        stage.disc({44.0 + 58 * k, 58}, 18, 160, 15 * k);
        stage.disc({44.0 + 58 * k, 124}, 12, 100, 15 * k, 180);
    }
    const double turns[] = {60, 170, 110};
    for (int k = 0; k < 3; ++k) stage.patch({70.0 + 90 * k, 196}, {25, 6.5}, turns[k], 150, 40);
    return stage.image();
}

cv::Mat contrastsAndStains() {
    Stage stage(35, 2);
    for (int k = 0; k < 10; ++k)
        stage.disc({42.0 + 58 * (k % 5), k < 5 ? 54.0 : 120.0}, k % 2 == 0 ? 16 : 11, 75 + 150.0 * k / 9);
    for (int k = 0; k < 12; ++k)
        stage.patch({36.0 + 50 * (k % 6), k < 6 ? 178.0 : 212.0}, {7, 6}, 31 * k, 50 + k % 6, 9, 0.25);
    return stage.image();
}

cv::Mat noisyNeighbours() {
    Stage stage(56, 7);
    const double radii[] = {8, 12, 17, 20, 24};
    for (int k = 0; k < 5; ++k) {
        stage.disc({22.0 + 60 * k, 42}, 9.5, 176);
        stage.disc({42.0 + 60 * k + k, 42}, 9.5, 176);
        stage.disc({30.0 + 62 * k, 100}, radii[k], 116);
        stage.disc({30.0 + 62 * k, 180}, radii[k], 186, 10 + 8 * k, 30 * k);
    }
    return stage.image();
}

cv::Mat brightFaintAndDark() {
    Stage stage(95, 2);
    const double radii[] = {5, 8, 13, 18, 28}, columns[] = {20, 58, 104, 162, 236};
    for (int k = 0; k < 5; ++k) {
        stage.disc({columns[k], 48}, radii[k], 175, 10);
        stage.disc({columns[k], 118}, radii[k], 135, 10);
        stage.disc({columns[k], 190}, radii[k], 45, 10);
    }
    return stage.image();
}

cv::Mat discsAndBoxes() {
    Stage stage(35, 2);
    for (int k = 0; k < 10; ++k)
        stage.disc({42.0 + 58 * (k % 5), k < 5 ? 50.0 : 115.0}, k % 2 == 0 ? 17 : 8, 90 + 12 * k, 20, 35 * k);
    for (int k = 0; k < 5; ++k)
        stage.patch({42.0 + 58 * k, 190}, {11.0 + 3 * k, 11.0 + 3 * k - (k > 2 ? 7 : 0)}, 17 * k, 110 + 18 * k, 4);
    return stage.image();
}

struct Picture {
    const char* file;
    const char* field;
    cv::Mat (*scene)();
    const char* settings;
    std::function<void(CicrleConfigs&)> prepare;
    std::function<void(CicrleConfigs&, double)> set;
    double values[3];
};

const Picture kPictures[] = {
    {"settings-eccentricity.png",
     "maxEccentricity",
     tiltedDiscsAndStreaks,
     "bright-radial.yaml",
     [](CicrleConfigs& c) { c.enableCircularityFilter = false, c.minCircularity = 0; },
     [](CicrleConfigs& c, double value) { c.maxEccentricity = value; },
     {0.5, 0.92, 0.98}},
    {"settings-contrast.png",
     "contrast",
     contrastsAndStains,
     "bright-radial.yaml",
     [](CicrleConfigs& c) { c.thresholdC = -4; },
     [](CicrleConfigs& c, double value) { c.contrast = static_cast<int>(value); },
     {5, 25, 60}},
    {"settings-canny.png",
     "cannyHigh",
     contrastsAndStains,
     "bright-subpixel.yaml",
     [](CicrleConfigs& c) { c.cannyLow = 5; },
     [](CicrleConfigs& c, double value) { c.cannyHigh = static_cast<int>(value); },
     {10, 30, 80}},
    {"settings-sigma.png",
     "sigma",
     noisyNeighbours,
     "bright-subpixel.yaml",
     [](CicrleConfigs&) {},
     [](CicrleConfigs& c, double value) { c.sigma = value; },
     {0.3, 0.7, 2}},
    {"settings-aperture.png",
     "aperture",
     brightFaintAndDark,
     "mixed-complex.yaml",
     [](CicrleConfigs& c) { c.maxDiameter = 90; },
     [](CicrleConfigs& c, double value) { c.aperture = static_cast<int>(value); },
     {3, 11, 41}},
    {"settings-residual.png",
     "maxFitResidual",
     discsAndBoxes,
     "mixed-complex.yaml",
     [](CicrleConfigs&) {},
     [](CicrleConfigs& c, double value) { c.maxFitResidual = static_cast<float>(value); },
     {0.01, 0.06, 1}},
};

cv::Mat shrunk(const cv::Mat& picture, int width) {
    cv::Mat small;
    cv::resize(picture, small, {width, picture.rows * width / picture.cols}, 0, 0, cv::INTER_AREA);
    return small;
}

/// The colours of an image with noise, rounded to steps.
cv::Mat inSteps(cv::Mat picture) {
    picture.forEach<cv::Vec3b>([](cv::Vec3b& pixel, const int*) {
        for (uchar& part : pixel.val)
            part = cv::saturate_cast<uchar>((part + kColourStep / 2) / kColourStep * kColourStep);
    });
    return picture;
}

std::string countsOf(const std::vector<Mark>& marks) {
    const auto dark = std::ranges::count(marks, MarkKind::dark, &Mark::kind);
    if (dark == 0) return fmt::format("{} found", marks.size());
    return fmt::format("{} bright, {} dark", marks.size() - static_cast<std::size_t>(dark), dark);
}

/// One value: what is found with it under a caption.
cv::Mat panelOf(const Picture& picture, const cv::Mat& image, double value) {
    Settings settings = readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + picture.settings, {});
    settings.configs.skipUndistort = true;
    picture.prepare(settings.configs);
    picture.set(settings.configs, value);
    CircleMarkerExtractor extractor;
    std::vector<Mark> marks;
    for (const Marker& marker : findMarkers(extractor, image, 0, {}, settings)) {
        marks.push_back(markOf(marker, foundKind(marker.polarity)));
        marks.back().label.clear();
    }
    cv::Mat panel = inSteps(shrunk(drawMarks(image, marks, kZoom, kStyle), kPanelWidth));
    cv::copyMakeBorder(panel, panel, kCaptionHeight, 0, 0, kPanelGap, cv::BORDER_CONSTANT, cv::Scalar::all(255));
    cv::putText(panel, fmt::format("{} {:g}: {}", picture.field, value, countsOf(marks)), {4, kCaptionHeight - 12},
                cv::FONT_HERSHEY_SIMPLEX, kCaptionText, cv::Scalar::all(0), 2, cv::LINE_AA);
    return panel;
}

void makeSettingsPictures(const std::string& folder) {
    for (const Picture& picture : kPictures) {
        const cv::Mat image = picture.scene();
        std::vector<cv::Mat> panels;
        for (const double value : picture.values) panels.push_back(panelOf(picture, image, value));
        cv::Mat row;
        cv::hconcat(panels, row);
        writePicture(folder + "/" + picture.file, row.colRange(0, row.cols - kPanelGap));
    }
}

/// @param demo  where `kestrune-measure demo --out` put its pictures.
void makeDemoPictures(const std::string& folder, const std::string& demo) {
    writePicture(folder + "/demo.png", inSteps(shrunk(readImage(demo + "/left-radial.png", false), kDemoWidth)));
    writePicture(folder + "/stereo-3d.png",
                 inSteps(shrunk(readImage(demo + "/stereo-conic-3d.png", false), kDemoWidth)));
}

}  // namespace
}  // namespace kestrune::measure

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        std::fputs("usage: kestrune_guide_pictures FOLDER [FOLDER_OF_DEMO]\n", stderr);
        return 2;
    }
    try {
        kestrune::measure::makeSettingsPictures(argv[1]);
        if (argc == 3) kestrune::measure::makeDemoPictures(argv[1], argv[2]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}

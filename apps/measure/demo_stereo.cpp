// SPDX-License-Identifier: Apache-2.0
#include "demo_stereo.h"

#include <fmt/format.h>

#include <kestrune_scene/stereo_score.h>
#include <array>
#include <cmath>
#include <functional>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "files/inputs.h"
#include "files/output_file.h"
#include "overlay.h"
#include "progress.h"
#include "stereo_exposure.h"
#include "stereo_pictures.h"

namespace kestrune::measure {
namespace {

namespace fs = std::filesystem;

const cv::Size kDefaultStereoSize(2448, 2048);
// The markers of an image of the default width. The field is 300 mm wide whatever the image, so that in smaller images
// larger discs are needed for the same number of pixels: these are 12 and 20 px.
constexpr std::array<double, 2> kRadiiMm = {1.5, 2.5};
constexpr double kMarkerGrey = 190;
// A depth image of 16 bits reaches 1310 mm in these steps, and the object is nearer.
constexpr double kDepthStepMm = 0.02;

struct Branch {
    Path path;
    const char* name;
    const char* file;
    scene::PixelMeaning meaning;
};
constexpr std::size_t kBestBranch = 1;  // the most exact one, whose settings are written for the user
constexpr std::array kBranches = {
    Branch{Path::radial, "conic", "bright-radial.yaml", scene::PixelMeaning::projectedCentre},
    Branch{Path::complex, "edge-conic", "bright-complex.yaml", scene::PixelMeaning::projectedCentre},
    Branch{Path::simple, "constellation", "bright-subpixel.yaml", scene::PixelMeaning::ellipseCentre},
};

// What a user may measure again.
constexpr std::array kInputs = {"stereo-left.png", "stereo-right.png", "stereo-depth.png", "stereo-calibration.yaml",
                                "stereo-settings.yaml"};

/// What one branch made of the exposure.
struct Outcome {
    StereoResult result;
    scene::StereoScore score;
    // Of a measurement that refines: root mean squares of errors over their sigmas.
    int discs = 0;  ///< markers that were matched rightly and whose disc was measured
    cv::Vec3d point;
    double normal = 0, radius = 0;
};

double sizeFactor(cv::Size size) {
    return static_cast<double>(kDefaultStereoSize.width) / size.width;
}

scene::Exposure renderObject(const DemoOptions& options, cv::Size size) {
    const scene::Rig rig = scene::makeVergedRig(size);
    const std::vector<scene::Disc> discs =
        scene::makeCurvedObject(rig, options.markers, kRadiiMm[0] * sizeFactor(size), kRadiiMm[1] * sizeFactor(size),
                                kMarkerGrey, options.seed);
    scene::RenderOptions light;
    light.seed = options.seed;
    return scene::render(rig, discs,
                         scene::makeClutter(rig, discs, cvRound(kClutterPerPixel * size.area()), options.seed), light);
}

/// What a depth camera in the place of the left eye sees, without its lens: the discs; 0 on the ground between them.
cv::Mat renderDepth(const scene::Exposure& exposure) {
    const cv::Matx33d& k = exposure.rig.left.intrinsic;
    cv::Mat depth = cv::Mat::zeros(exposure.rig.left.size, CV_16U);
    for (const scene::MarkerTruth& marker : exposure.markers) {
        const scene::EllipseTruth& rim = marker.eye[0];
        const cv::Size2f axes(cv::Size2d(2 * rim.majorHalfAxis, 2 * rim.minorHalfAxis));
        const cv::RotatedRect ellipse(rim.centre, axes, static_cast<float>(rim.angle * 180 / CV_PI));
        cv::Mat inside = cv::Mat::zeros(depth.size(), CV_8U);
        cv::ellipse(inside, ellipse, cv::Scalar::all(255), cv::FILLED);
        const cv::Rect box = ellipse.boundingRect() & cv::Rect({}, depth.size());
        for (int y = box.y; y < box.br().y; ++y) {
            for (int x = box.x; x < box.br().x; ++x) {
                if (inside.at<uchar>(y, x) == 0) continue;
                const cv::Vec3d ray((x - k(0, 2)) / k(0, 0), (y - k(1, 2)) / k(1, 1), 1);
                const double z = marker.disc.normal.dot(marker.disc.centre) / marker.disc.normal.dot(ray);
                depth.at<ushort>(y, x) = cv::saturate_cast<ushort>(z / kDepthStepMm);
            }
        }
    }
    return depth;
}

/// The ready settings of a branch, with the radii of this exposure's markers.
Settings settingsFor(const Branch& branch, const fs::path& folder, cv::Size size) {
    Settings settings = readStereoSettings((folder / branch.file).string(), branch.path);
    for (double& radius : settings.configs.markerRadii) radius = std::round(1000 * radius * sizeFactor(size)) / 1000;
    return settings;
}

/// The ready file of the most exact branch with its comments, changed to fit this exposure. The lens is taken out,
/// which stereo does anyway and a depth image needs.
void writeBestSettings(const std::string& file, const fs::path& folder, cv::Size size) {
    Settings settings = settingsFor(kBranches[kBestBranch], folder, size);
    settings.configs.skipUndistort = false;
    const std::string ready = readText((folder / kBranches[kBestBranch].file).string());
    writeWhole(file, ready.data(), ready.size());
    for (const Use use : {Use::stereo, Use::extraction}) writeSettings(file, settings, use);
}

void rateSigmas(Outcome& outcome, const std::vector<scene::MarkerTruth>& truth) {
    for (const scene::StereoMatch& match : outcome.score.matches) {
        const StereoMarker& m = outcome.result.markers[static_cast<std::size_t>(match.measured)];
        if (!m.estimate || !m.estimate->disc.found) continue;
        const DiscEstimate& disc = m.estimate->disc;
        const cv::Vec3d error = m.point - truth[static_cast<std::size_t>(match.marker)].disc.centre;
        for (int k = 0; k < 3; ++k) outcome.point[k] += error[k] * error[k] / disc.covariance(k, k);
        outcome.normal += std::pow(match.normalError / normalSigma(disc), 2);
        outcome.radius += std::pow(match.radiusError / disc.radiusSigma(), 2);
        ++outcome.discs;
    }
    for (int k = 0; k < 3; ++k) outcome.point[k] = std::sqrt(outcome.point[k] / outcome.discs);
    outcome.normal = std::sqrt(outcome.normal / outcome.discs);
    outcome.radius = std::sqrt(outcome.radius / outcome.discs);
}

Outcome measureBranch(const Branch& branch, const fs::path& folder, const scene::Exposure& exposure,
                      CircleMarkerExtractor extractor, const DemoOptions& options) {
    Outcome outcome;
    const bool refine = options.refine;
    const TrustedInput trusted{};
    const RefinementInput refinement{{GreyImage{exposure.image[0]}, GreyImage{exposure.image[1]}}};
    outcome.result = measureExposure(extractor, exposure.image, settingsFor(branch, folder, exposure.rig.left.size), 0,
                                     refine ? &refinement : nullptr, nullptr,
                                     options.matching == Matching::trusted ? &trusted : nullptr);
    std::vector<scene::MeasuredMarker> measured;
    for (const StereoMarker& m : outcome.result.markers) measured.push_back({m.pixel, m.point, m.normal, m.radius});
    const scene::PixelMeaning meaning = outcome.result.trusted ? scene::PixelMeaning::projectedCentre : branch.meaning;
    outcome.score = scene::scoreStereo(exposure, measured, meaning, kMatchDistancePx);
    if (refine) rateSigmas(outcome, exposure.markers);
    return outcome;
}

void drawBranch(const Branch& branch, const scene::Exposure& exposure, const Rig& calibration, const Outcome& outcome,
                const fs::path& out) {
    std::array<cv::Mat, 2> behind;
    std::array<std::vector<Mark>, 2> missed;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const Camera camera = asMatrices(calibration.cameras[eye]);
        cv::undistort(exposure.image[eye], behind[eye], camera.matrix, camera.distortion);
        for (const int m : outcome.score.missed) {
            const scene::EllipseTruth& rim = exposure.markers[static_cast<std::size_t>(m)].eye[eye];
            missed[eye].push_back({MarkKind::missed, fmt::format("missed {}", m), rim.centre, rim.majorHalfAxis,
                                   rim.minorHalfAxis, rim.angle * 180 / CV_PI});
        }
    }
    std::vector<std::string> labels(outcome.result.markers.size(), "false");
    std::vector<ViewDisc> discs;
    for (const scene::StereoMatch& match : outcome.score.matches) {
        const StereoMarker& m = outcome.result.markers[static_cast<std::size_t>(match.measured)];
        labels[static_cast<std::size_t>(match.measured)] = fmt::format("{}", match.marker);
        discs.push_back(
            {fmt::format("{}", match.marker), m.point, m.normal, m.radius, 1000 * match.error, spreadOf(m)});
    }
    writePicture((out / fmt::format("stereo-{}.png", branch.name)).string(),
                 drawPairs(behind, outcome.result, fmt::format("left eye, right eye   {} branch", branch.name), labels,
                           outcome.score.wrong, missed, true));
    writePicture(
        (out / fmt::format("stereo-{}-3d.png", branch.name)).string(),
        drawView(discs, {fmt::format("{} branch: {} markers in space, colour tells the distance from the truth",
                                     branch.name, discs.size()),
                         "error, um", "mm"}));
}

/// One line for each figure, one column for each branch.
void printTable(const std::vector<Outcome>& outcomes, bool refined) {
    using Figure = std::function<std::string(const Outcome&)>;
    const auto number = [](double value, const char* form) {
        return std::isnan(value) ? std::string("-") : fmt::format(fmt::runtime(form), value);
    };
    std::vector<std::pair<const char*, Figure>> rows = {
        {"pairs right", [](const Outcome& o) { return fmt::format("{}", o.score.matches.size()); }},
        {"pairs wrong", [](const Outcome& o) { return fmt::format("{}", o.score.wrong.size()); }},
        {"markers missed", [](const Outcome& o) { return fmt::format("{}", o.score.missed.size()); }},
        {"3-D error RMS, mm", [&](const Outcome& o) { return number(o.score.pointRms, "{:.4f}"); }},
        {"  as a part of the object's size",
         [&](const Outcome& o) { return "1 / " + number(o.score.objectSize / o.score.pointRms, "{:.0f}"); }},
        {"  largest, mm", [&](const Outcome& o) { return number(o.score.pointMax, "{:.4f}"); }},
        {"centre error RMS left, px", [&](const Outcome& o) { return number(o.score.centreRms[0], "{:.4f}"); }},
        {"centre error RMS right, px", [&](const Outcome& o) { return number(o.score.centreRms[1], "{:.4f}"); }},
        {"  3-D RMS that these imply, mm", [&](const Outcome& o) { return number(o.score.impliedRms, "{:.4f}"); }},
        {"  3-D RMS over that",
         [&](const Outcome& o) { return number(o.score.pointRms / o.score.impliedRms, "{:.2f}"); }},
        {"normal error RMS, degrees", [&](const Outcome& o) { return number(o.score.normalRms, "{:.2f}"); }},
        {"  largest, degrees", [&](const Outcome& o) { return number(o.score.normalMax, "{:.2f}"); }},
        {"radius error mean, mm", [&](const Outcome& o) { return number(o.score.radiusMean, "{:+.4f}"); }},
        {"radius error RMS, mm", [&](const Outcome& o) { return number(o.score.radiusRms, "{:.4f}"); }},
    };
    if (refined) {
        rows.insert(rows.end(),
                    {{"discs measured", [](const Outcome& o) { return fmt::format("{}", o.discs); }},
                     {"X error / sigma, RMS", [&](const Outcome& o) { return number(o.point[0], "{:.2f}"); }},
                     {"Y error / sigma, RMS", [&](const Outcome& o) { return number(o.point[1], "{:.2f}"); }},
                     {"Z error / sigma, RMS", [&](const Outcome& o) { return number(o.point[2], "{:.2f}"); }},
                     {"normal error / sigma, RMS", [&](const Outcome& o) { return number(o.normal, "{:.2f}"); }},
                     {"radius error / sigma, RMS", [&](const Outcome& o) { return number(o.radius, "{:.2f}"); }}});
    }
    std::string table = fmt::format("{:<34}", "branch");
    for (std::size_t i = 0; i < outcomes.size(); ++i) table += fmt::format("{:>15}", kBranches[i].name);
    for (const auto& [name, figure] : rows) {
        table += fmt::format("\n{:<34}", name);
        for (const Outcome& outcome : outcomes) table += fmt::format("{:>15}", figure(outcome));
    }
    say(table + "\n");
}

}  // namespace

Rig calibrationOf(const scene::Rig& rig) {
    Rig calibration;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const scene::PinholeCamera& camera = eye == 0 ? rig.left : rig.right;
        const cv::Vec3d place = -(camera.rotation.t() * camera.translation);
        std::copy(camera.rotation.val, camera.rotation.val + 9, calibration.poses[eye].values);
        std::copy(place.val, place.val + 3, calibration.poses[eye].values + 9);
        const cv::Matx33d& k = camera.intrinsic;
        calibration.cameras[eye] = {{k(0, 0), k(1, 1), k(0, 2), k(1, 2)}};
        std::copy(camera.distortion.begin(), camera.distortion.end(), calibration.cameras[eye].values + 4);
    }
    calibration.size = rig.left.size;
    calibration.rectifyFlags = cv::CALIB_ZERO_DISPARITY;
    return calibration;
}

void nameStereoFiles(RunFiles& files, const fs::path& settings, const fs::path& out) {
    for (const char* name : kInputs) files.writes("--out", (out / name).string());
    for (const Branch& branch : kBranches) {
        files.reads("--settings", (settings / branch.file).string());
        for (const char* ending : {"", "-3d"})
            files.writes("--out", (out / fmt::format("stereo-{}{}.png", branch.name, ending)).string());
    }
}

bool demoStereo(const DemoOptions& options, const fs::path& settings, const fs::path& out,
                const InterruptWatch& watch) {
    const cv::Size size = options.size.empty() ? kDefaultStereoSize : options.size;
    Progress progress(kBranches.size() + 1);
    progress.show(0, "rendering");
    const scene::Exposure exposure = renderObject(options, size);
    const Rig calibration = calibrationOf(exposure.rig);
    writePicture((out / "stereo-left.png").string(), exposure.image[0]);
    writePicture((out / "stereo-right.png").string(), exposure.image[1]);
    writePicture((out / "stereo-depth.png").string(), renderDepth(exposure));
    writeRig((out / "stereo-calibration.yaml").string(), calibration);
    writeBestSettings((out / "stereo-settings.yaml").string(), settings, size);

    std::vector<Outcome> outcomes;
    for (const Branch& branch : kBranches) {
        if (watch.asked()) break;
        progress.show(outcomes.size() + 1, branch.name);
        outcomes.push_back(measureBranch(branch, settings, exposure, calibratedExtractor(calibration), options));
        drawBranch(branch, exposure, calibration, outcomes.back(), out);
    }
    progress.clear();
    if (outcomes.empty()) return false;

    say(fmt::format(
        "stereo: 2 x {} x {} px, {} markers of radius {:.3g} and {:.3g} mm on a curved object, {:.0f} mm across\n\n",
        size.width, size.height, exposure.markers.size(), kRadiiMm[0] * sizeFactor(size),
        kRadiiMm[1] * sizeFactor(size), outcomes[0].score.objectSize));
    printTable(outcomes, options.refine);
    say(fmt::format(
        "\n(centre errors with the lens taken out; the conic branches measure the image of the disc's centre, the\n"
        "constellation branch the centre of its image)\n"
        "exposure and calibration: {0}/stereo-left.png {0}/stereo-right.png {0}/stereo-calibration.yaml\n"
        "settings of the {1} branch: {0}/stereo-settings.yaml\n"
        "depth of the left eye's markers, {2} mm a step: {0}/stereo-depth.png\n"
        "pictures to look at:\n",
        out.string(), kBranches[kBestBranch].name, kDepthStepMm));
    for (std::size_t i = 0; i < outcomes.size(); ++i)
        say(fmt::format("  {0}/stereo-{1}.png\n  {0}/stereo-{1}-3d.png\n", out.string(), kBranches[i].name));

    return outcomes.size() == kBranches.size() && std::ranges::all_of(outcomes, [](const Outcome& o) {
               return o.score.missed.empty() && o.score.wrong.empty() && !o.score.matches.empty();
           });
}

}  // namespace kestrune::measure

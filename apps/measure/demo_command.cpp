// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <kestrune_scene/scene.h>
#include <array>
#include <cmath>
#include <filesystem>
#include <optional>

#include "commands.h"
#include "demo_stereo.h"
#include "files/inputs.h"
#include "markers.h"
#include "overlay.h"
#include "progress.h"
#include "refined_markers.h"

namespace kestrune::measure {
namespace {

namespace fs = std::filesystem;

// The scene: markers small and large, seen from straight ahead to askew, on a ground with things that are no
// markers.
const cv::Size kDefaultSize(1632, 1360);
constexpr double kSmallestRadiusPx = 7, kLargestRadiusPx = 30;
constexpr double kMaxTiltDegrees = 25;

constexpr std::array<const char*, 2> kEyeNames = {"left", "right"};

struct Contestant {
    Path path;
    const char* file;
};
const std::vector<Contestant> kBrightContestants = {{Path::radial, "bright-radial.yaml"},
                                                    {Path::simple, "bright-subpixel.yaml"},
                                                    {Path::fast, "bright-fast.yaml"},
                                                    {Path::complex, "bright-complex.yaml"}};
const std::vector<Contestant> kMixedContestants = {{Path::complex, "mixed-complex.yaml"}};

/// One scene and the paths that can find its markers.
struct Act {
    const char* prefix;  ///< of its files
    const char* markers;
    double background;
    std::array<double, 2> grey;  ///< of every other marker
    const std::vector<Contestant>& contestants;
};
const std::array<Act, 2> kActs = {
    Act{"", "markers", 40, {190, 190}, kBrightContestants},
    Act{"mixed-", "markers, by turns brighter and darker than their ground", 120, {210, 30}, kMixedContestants}};

/// Beside the program in a build tree, under share in an installation.
fs::path readySettings() {
    const fs::path home = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& folder : {home / "settings", home.parent_path() / "share" / "kestrune" / "settings"}) {
        if (fs::is_directory(folder)) return folder;
    }
    throw InputError((home / "settings").string(),
                     "the ready settings are not there; name their folder with --settings");
}

/// The ready files leave the lens alone, since they must serve without a calibration. Here there is one, and every path
/// that can use it does.
Settings demoSettings(const fs::path& folder, const Contestant& contestant) {
    Settings settings = readSettings((folder / contestant.file).string(), contestant.path);
    settings.configs.skipUndistort = false;
    return settings;
}

/// The marks of one eye: each found marker under its number in the scene, which is the same in both eyes.
std::vector<Mark> marksAgainstTruth(const std::vector<Marker>& markers, const std::vector<scene::MarkerTruth>& truth,
                                    std::size_t eye, const scene::DetectionScore& score, bool undistorted) {
    const auto at = [](const auto& list, int i) -> const auto& {
        return list[static_cast<std::size_t>(i)];
    };
    std::vector<Mark> marks;
    for (const scene::DetectionMatch& match : score.matches) {
        marks.push_back(markOf(at(markers, match.detection), foundKind(at(markers, match.detection).polarity)));
        marks.back().label = fmt::format("{}", at(truth, match.marker).id);
    }
    for (const int i : score.falseOnes) {
        marks.push_back(markOf(at(markers, i), MarkKind::wrong));
        marks.back().label = "false";
    }
    for (const int i : score.missed) {
        const scene::EllipseTruth& rim = at(truth, i).eye[eye];
        marks.push_back({MarkKind::missed, fmt::format("missed {}", at(truth, i).id),
                         undistorted ? rim.centre : rim.distortedCentre, rim.majorHalfAxis, rim.minorHalfAxis,
                         rim.angle * 180 / CV_PI});
    }
    return marks;
}

std::string overlayName(const Act& act, std::size_t eye, Path path) {
    return fmt::format("{}{}-{}.png", act.prefix, kEyeNames[eye], nameOf(path));
}

struct Round {
    std::string row;
    bool perfect;
};

/// How many markers were refined, and the root mean squares of their errors in x and y over their sigmas.
///
/// @param lens  still in the estimates; empty: none.
std::string honestyOf(const std::vector<MarkerEstimate>& estimates, const std::vector<scene::MarkerTruth>& truth,
                      std::size_t eye, const scene::DetectionScore& score, const std::optional<Camera>& lens) {
    cv::Vec2d sum;
    int count = 0;
    for (const scene::DetectionMatch& match : score.matches) {
        MarkerEstimate e = estimates[static_cast<std::size_t>(match.detection)];
        if (!e.isRefined()) continue;
        if (lens) e = undistorted(e, *lens);
        const cv::Point2d error = e.centre - truth[static_cast<std::size_t>(match.marker)].eye[eye].centre;
        sum += cv::Vec2d(error.x * error.x / e.covariance(0, 0), error.y * error.y / e.covariance(1, 1));
        ++count;
    }
    return fmt::format("{:>9}{:>8.2f}{:>6.2f}", count, std::sqrt(sum[0] / count), std::sqrt(sum[1] / count));
}

/// One path on one eye: extracts, refines where that is asked for, scores, and writes the overlay.
Round play(const Settings& settings, std::size_t eye, const scene::Exposure& exposure, const Camera& camera,
           const fs::path& overlay, bool refine) {
    CircleMarkerExtractor extractor;
    const cv::Mat& image = exposure.image[eye];
    const bool undistorted = deliversUndistorted(settings);
    std::vector<Corner> records;
    std::vector<Marker> markers = findMarkers(extractor, image, static_cast<int>(eye), camera, settings, &records);
    std::vector<MarkerEstimate> estimates;
    if (refine) {
        estimates = refineDelivered({image}, records, refinementOptions(image.size(), camera, settings));
        applyEstimates(markers, estimates);
    }
    std::vector<cv::Point2d> centres;
    centres.reserve(markers.size());
    for (const Marker& marker : markers) centres.push_back(marker.centre);
    const scene::DetectionScore score =
        scene::scoreDetections(exposure.markers, static_cast<int>(eye), centres, undistorted, kMatchDistancePx);

    const std::vector<Mark> marks = marksAgainstTruth(markers, exposure.markers, eye, score, undistorted);
    Legend legend = foundLegend(marks);
    legend.push_back({MarkKind::missed, score.missed.size()});
    legend.push_back({MarkKind::wrong, score.falseOnes.size()});
    writePicture(overlay.string(),
                 drawOverlay(imageBehind(image, camera, settings), marks,
                             fmt::format("{} eye   path {}", kEyeNames[eye], nameOf(settings.path)), legend));

    const bool perfect = score.missed.empty() && score.falseOnes.empty() && !score.matches.empty();
    std::string row = fmt::format("{:<9}{:<8}{:>6}{:>7}{:>8}{:>7}{:>16.4f}{:>9.4f}", nameOf(settings.path),
                                  kEyeNames[eye], score.matches.size() + score.missed.size(), score.matches.size(),
                                  score.missed.size(), score.falseOnes.size(), score.centreRms, score.centreMax);
    if (refine)
        row += honestyOf(estimates, exposure.markers, eye, score, undistorted ? std::nullopt : std::optional(camera));
    return {row, perfect};
}

scene::Exposure renderScene(const DemoOptions& options, const Act& act) {
    const cv::Size size = options.size.empty() ? kDefaultSize : options.size;
    const scene::Rig rig = scene::makeVergedRig(size);
    std::vector<scene::Disc> discs = scene::makeScatteredDiscs(
        rig, options.markers, kSmallestRadiusPx, kLargestRadiusPx, kMaxTiltDegrees, act.grey[0], options.seed);
    for (std::size_t i = 0; i < discs.size(); ++i) discs[i].grey = act.grey[i % 2];
    const int clutter = cvRound(kClutterPerPixel * size.area());
    scene::RenderOptions light;
    light.background = act.background;
    light.seed = options.seed;
    return scene::render(rig, discs, scene::makeClutter(rig, discs, clutter, options.seed), light);
}

/// The first part: every path that can on both eyes of scattered markers.
bool demoExtraction(const DemoOptions& options, const Act& act, const fs::path& folder, const fs::path& out,
                    const InterruptWatch& watch) {
    std::vector<Settings> contestants;
    contestants.reserve(act.contestants.size());
    for (const Contestant& contestant : act.contestants) contestants.push_back(demoSettings(folder, contestant));

    const scene::Exposure exposure = renderScene(options, act);
    const Rig rig = calibrationOf(exposure.rig);
    const Cameras calibration = {asMatrices(rig.cameras[0]), asMatrices(rig.cameras[1])};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        writePicture((out / fmt::format("{}{}.png", act.prefix, kEyeNames[eye])).string(), exposure.image[eye]);
    }
    writeRig((out / "calibration.yaml").string(), rig);

    std::vector<std::string> rows, overlays;
    bool perfect = true;
    Progress progress(contestants.size() * 2);
    for (const Settings& settings : contestants) {
        for (std::size_t eye = 0; eye < 2; ++eye) {
            if (watch.asked()) break;
            const fs::path overlay = out / overlayName(act, eye, settings.path);
            progress.show(rows.size(), overlay.string());
            const Round round = play(settings, eye, exposure, calibration[eye], overlay, options.refine);
            rows.push_back(round.row);
            overlays.push_back(overlay.string());
            perfect = perfect && round.perfect;
        }
    }
    progress.clear();

    say(fmt::format("rendered: {} x {} px, {} {}, seed {}\n\n", exposure.rig.left.size.width,
                    exposure.rig.left.size.height, exposure.markers.size(), act.markers, options.seed));
    say(fmt::format("path     eye      truth  found  missed  false   centre RMS px   max px{}\n",
                    options.refine ? "  refined  RMS of x, y / sigma" : ""));
    for (const std::string& row : rows) say(row + "\n");
    say(fmt::format(
        "\n(with the lens taken out, but for path fast)\nexposure and calibration: {0}/{1}left.png {0}/{1}right.png "
        "{0}/calibration.yaml\npictures to look at:\n",
        out.string(), act.prefix));
    for (const std::string& overlay : overlays) say("  " + overlay + "\n");
    say("\n");
    return perfect;
}

void nameFiles(const fs::path& folder, const fs::path& out) {
    RunFiles files;
    const auto writes = [&](const std::string& name) { files.writes("--out", (out / name).string()); };
    writes("calibration.yaml");
    for (const Act& act : kActs) {
        for (std::size_t eye = 0; eye < 2; ++eye) {
            writes(fmt::format("{}{}.png", act.prefix, kEyeNames[eye]));
            for (const Contestant& contestant : act.contestants) writes(overlayName(act, eye, contestant.path));
        }
        for (const Contestant& contestant : act.contestants)
            files.reads("--settings", (folder / contestant.file).string());
    }
    nameStereoFiles(files, folder, out);
    files.check();
}

}  // namespace

int runDemo(const DemoOptions& options) {
    const fs::path folder = options.settings.empty() ? readySettings() : fs::path(options.settings);
    const fs::path out = options.out;
    const InterruptWatch watch;
    nameFiles(folder, out);
    fs::create_directories(out);
    bool perfect = true;
    for (const Act& act : kActs)
        if (!watch.asked()) perfect = demoExtraction(options, act, folder, out, watch) && perfect;
    if (!watch.asked()) perfect = demoStereo(options, folder, out, watch) && perfect;
    return watch.exitCode(perfect ? kSuccess : kPartlyFailed, "the demonstration is not complete");
}

}  // namespace kestrune::measure

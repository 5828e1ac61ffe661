// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <omp.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <numeric>
#include <optional>
#include <set>
#include <thread>

#include <kestrune/MarkerMetrology.h>
#include "commands.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "image_file.h"
#include "interrupt.h"
#include "markers.h"
#include "ordered_pool.h"
#include "progress.h"
#include "range_of_run.h"
#include "stereo_output.h"
#include "stereo_pictures.h"

namespace kestrune::measure {
namespace {

namespace fs = std::filesystem;

/// Names the exposures after their left images, each once.
std::vector<ExposureNames> nameExposures(const StereoOptions& options) {
    if (options.left.size() != options.right.size()) {
        throw InputError("--left, --right", fmt::format("{} left and {} right images are no pairs", options.left.size(),
                                                        options.right.size()));
    }
    std::vector<ExposureNames> names;
    std::set<std::string> used;
    std::map<std::string, int> lastNumber;  // of the names made after one stem
    for (std::size_t k = 0; k < options.left.size(); ++k) {
        const std::string stem = fs::path(options.left[k]).stem().string();
        std::string name = stem;
        for (int& n = lastNumber.try_emplace(stem, 1).first->second; !used.insert(name).second;)
            name = fmt::format("{}-{}", stem, ++n);
        names.push_back({name, options.left[k], options.right[k]});
    }
    return names;
}

/// Empty where none is written.
std::string ambiguousTable(const StereoOptions& options) {
    return options.match.matching == Matching::trusted ? ambiguousTableOf(options.csv) : "";
}

/// Names the pictures of each exposure, none where none are asked for; checks all files of the run.
std::vector<std::string> namePictures(const StereoOptions& options, const std::vector<ExposureNames>& names) {
    RunFiles files;
    files.reads("--left", options.left);
    files.reads("--right", options.right);
    files.reads("--settings", options.settings);
    files.reads("--calibration", options.calibration);
    options.match.addTo(files);
    files.writesTable("--csv", options.csv);
    files.writesTable("--csv", ambiguousTable(options));
    files.writes("--ply", options.ply);
    files.writes("--json", options.json);
    files.writes("--write-moved", options.moved);
    std::vector<std::string> pictures;
    if (!options.overlay.empty()) {
        for (const ExposureNames& exposure : names)
            pictures.push_back(files.claim("--overlay", options.overlay, exposure.name, {".png", "-3d.png"}));
    }
    files.check();
    return pictures;
}

/// That of the first image which can be read.
cv::Size sizeOfImages(const StereoOptions& options) {
    for (const std::string& file : options.left) {
        try {
            return decodeImage(file).size();
        } catch (const InputError&) {  // its own exposure will report it
        }
    }
    throw InputError(options.calibration, "has no image size, and no left image can be read to take it from");
}

struct Measured {
    StereoResult result;
    std::string lostPicture;          ///< why there is no picture of it; empty if there is one or none was asked for
    bool unreadable = false;          ///< an image could not be read
    std::optional<OutputError> lost;  ///< why its pictures could not be written
};

/// What all exposures share, checked before the first is opened.
struct StereoWork {
    StereoWork(const StereoOptions& options, const std::vector<ExposureNames>& names)
        : pictures(namePictures(options, names)),
          settings(readStereoSettings(options.settings, options.path)),
          calibration(readRig(options.calibration)),
          trusted(trustedInput(options.match, calibration)),
          intake{options.invert, {}},
          minShare(options.minShare),
          refine(options.refine),
          overlays(options.overlay) {
        if (!options.moved.empty() && !trusted)
            throw InputError("--write-moved", "is for --match trusted, which notices that a rig has moved");
        if (!options.moved.empty() && settings.configs.cornersRectified)
            throw InputError("--write-moved",
                             "needs images as the cameras took them, and the settings say that these "
                             "are rectified (cornersRectified)");
        if (calibration.size.empty()) calibration.size = sizeOfImages(options);
        if (!options.overlay.empty()) fs::create_directories(overlays);
    }

    Measured measure(const ExposureNames& names, std::size_t index, CircleMarkerExtractor& extractor) const {
        Measured measured;
        std::string* problem = &measured.result.failure;
        measured.unreadable = true;
        try {
            RefinementInput refinement{{}, calibration.uncertainty};
            const auto images =
                readExposure(names.left, names.right, intake, calibration.size, refine ? &refinement.grey : nullptr);
            measured.unreadable = false;
            measured.result = measureExposure(extractor, images, settings, minShare, refine ? &refinement : nullptr,
                                              nullptr, trusted ? &*trusted : nullptr);
            problem = &measured.lostPicture;  // the points stay
            if (!overlays.empty()) draw(names.name, pictures[index], images, measured.result);
        } catch (const OutputError& error) {
            measured.lost = error;
        } catch (const std::exception& error) {
            *problem = plainText(error);
        }
        return measured;
    }

    std::string pictureTitle(const std::string& name, const StereoResult& result) const {
        return fmt::format("{}   path {}{}", name, nameOf(settings.path), result.failure.empty() ? "" : "   FAILED");
    }

    /// Pairs to draw as false: all of an exposure that failed.
    static std::vector<int> untrusted(const StereoResult& result) {
        std::vector<int> pairs(result.failure.empty() ? 0 : result.markers.size());
        std::iota(pairs.begin(), pairs.end(), 0);
        return pairs;
    }

    void draw(const std::string& name, const std::string& picture, const std::array<cv::Mat, 2>& images,
              const StereoResult& result) const {
        std::array<cv::Mat, 2> behind;
        for (std::size_t eye = 0; eye < 2; ++eye)
            behind[eye] = imageBehind(images[eye], asMatrices(calibration.cameras[eye]), settings);
        writePicture((overlays / (picture + ".png")).string(),
                     drawPairs(behind, result, pictureTitle(name, result), {}, untrusted(result)));
        const cv::Mat view = drawPoints(result, name + "   markers in space");
        if (!view.empty()) writePicture((overlays / (picture + "-3d.png")).string(), view);
    }

    std::vector<std::string> pictures;  ///< first, since naming them checks all files
    Settings settings;
    Rig calibration;
    std::optional<TrustedInput> trusted;
    ImageIntake intake;
    double minShare;
    bool refine;
    fs::path overlays;
};

std::string summaryOf(const StereoResult& result) {
    std::string counts =
        fmt::format("{} pairs of {} left and {} right markers, {} and {} unmatched", result.markers.size(),
                    result.found[0], result.found[1], result.unmatched[0].size(), result.unmatched[1].size());
    if (result.trusted) counts += fmt::format(", {} ambiguous", result.trusted->ambiguous.size());
    for (std::size_t eye = 0; eye < 2; ++eye)
        if (result.refined && !result.estimates[eye].empty())
            counts += fmt::format("; {}: {}", eye == 0 ? "left" : "right", countsOf(result.estimates[eye]));
    if (!result.failure.empty()) return counts;
    const Residuals rms = rootMeanSquares(result);
    return fmt::format("{}; RMS rows {:.3f}, reprojection {:.3f} and {:.3f} px", counts, rms.row, rms.eye[0],
                       rms.eye[1]);
}

/// The rig that has moved as the exposure with most pairs shows it.
struct SeenToMove {
    MovedRig rig;
    std::string exposure;
    std::size_t pairs = 0;

    void take(const std::string& name, const StereoResult& result) {
        if (!result.trusted || result.trusted->match.objection != MatchObjection::rigMoved) return;
        if (rig.found && result.markers.size() <= pairs) return;
        rig = result.trusted->match.moved;
        exposure = name;
        pairs = result.markers.size();
    }

    /// @throws InputError, OutputError
    void write(const std::string& file, const Rig& calibration) const {
        if (!rig.found) {
            if (!file.empty())
                complain(
                    fmt::format("--write-moved: no exposure shows a rig that has moved, {} is not "
                                "written",
                                file));
            return;
        }
        const std::string what = fmt::format("{}: the rig has moved by {:.4f} degrees, which is {:.3f} px RMS",
                                             exposure, rig.angle, rig.size);
        if (file.empty()) return complain(what + "; --write-moved FILE writes the corrected calibration");
        writeRig(file, movedRig(calibration, rig));
        say(fmt::format("{}; {} has the corrected calibration\n", what, file));
    }
};

/// Tells of each exposure and writes it, in their order.
struct Delivery {
    const std::vector<ExposureNames>& names;
    StereoOutput& output;
    Progress& progress;
    std::size_t done = 0, read = 0, failed = 0;
    SeenToMove moved{};

    /// @throws OutputError
    void take(std::size_t index, const Measured& measured) {
        const ExposureNames& exposure = names[index];
        const StereoResult& result = measured.result;
        ++done;
        read += measured.unreadable ? 0 : 1;
        progress.clear();
        if (result.failure.empty())
            say(fmt::format("{}: {}\n", exposure.name, summaryOf(result)));
        else
            complain(fmt::format("{} ({}, {}): {}{}", exposure.name, exposure.left, exposure.right, result.failure,
                                 result.found[0] + result.found[1] > 0 ? "; " + summaryOf(result) : ""));
        if (!result.doubt.empty()) complain(fmt::format("{}: {}", exposure.name, result.doubt));
        if (!measured.lostPicture.empty()) complain(fmt::format("{}: {}", exposure.name, measured.lostPicture));
        if (!result.failure.empty() || !measured.lostPicture.empty()) ++failed;
        moved.take(exposure.name, result);
        output.add(exposure, result);
        if (measured.lost) throw OutputError(*measured.lost);
    }
};

std::size_t workerCount(int jobs) {
    return jobs > 0 ? static_cast<std::size_t>(jobs) : std::max(1U, std::thread::hardware_concurrency());
}

}  // namespace

int runStereo(const StereoOptions& options) {
    if (!(options.minShare >= 0 && options.minShare <= 1))
        throw InputError("--min-share", fmt::format("{} is no share of 0 to 1", options.minShare));
    const InterruptWatch watch;
    const std::vector<ExposureNames> names = nameExposures(options);
    StereoWork run(options, names);
    std::vector<std::string> images = options.left;
    images.insert(images.end(), options.right.begin(), options.right.end());
    run.intake.range = rangeOfRun(images, options.range, watch.asked());
    StereoOutput output({options.csv, options.ply, options.json, ambiguousTable(options)},
                        {options.calibration, options.settings, nameOf(run.settings.path),
                         run.settings.configs.outputRectified ? "rectified left" : "left camera", run.intake.range},
                        {matchesConics(run.settings.path) || options.refine || run.trusted,
                         options.refine || run.trusted, run.trusted.has_value()});

    const std::size_t workers = std::min(workerCount(options.jobs), names.size());
    std::vector<CircleMarkerExtractor> extractors(workers, calibratedExtractor(run.calibration));
    Progress progress(names.size());
    Delivery delivery{names, output, progress};
    const auto work = [&](std::size_t index, std::size_t worker) {
        // One thread an exposure; the parallel loops of the matching would only get in each other's way.
        if (workers > 1) omp_set_num_threads(1);
        if (const std::size_t after = index + workers; after < names.size()) {
            announceRead(names[after].left);
            announceRead(names[after].right);
        }
        return run.measure(names[index], index, extractors[worker]);
    };
    std::set<std::string> lost;  // why outputs could not be written
    try {
        const auto deliver = [&](std::size_t index, const Measured& measured) { delivery.take(index, measured); };
        inOrder<Measured>(names.size(), workers, watch.asked(), work, deliver, [&](std::size_t finished) {
            progress.show(finished, names[std::min(finished, names.size() - 1)].name);
        });
    } catch (const OutputError& error) {
        lost.insert(error.what());
    }
    progress.clear();

    const std::string held = delivery.done < names.size() || !lost.empty()
                                 ? fmt::format("{} of {} exposures", delivery.done, names.size())
                                 : "";
    if (delivery.read > 0)
        lost.merge(output.close(held));
    else if (!(options.csv + options.ply + options.json).empty())
        complain("no table is written, since no exposure was read");
    try {
        delivery.moved.write(options.moved, run.calibration);
    } catch (const std::runtime_error& error) {
        lost.insert(error.what());
    }
    for (const std::string& reason : lost) complain(reason);
    if (delivery.failed > 0) complain(fmt::format("{} of {} exposures failed", delivery.failed, names.size()));
    return watch.exitCode(delivery.failed == 0 && lost.empty() ? kSuccess : kPartlyFailed,
                          fmt::format("{} of {} exposures are done", delivery.done, names.size()));
}

}  // namespace kestrune::measure

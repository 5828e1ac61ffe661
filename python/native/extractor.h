// SPDX-License-Identifier: Apache-2.0
//
// The operations for Python. One object serves any number of threads: each call works on an extractor of its own, taken
// from those that are idle, since the library's own serves one thread at a time.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "grey_range.h"
#include "markers.h"
#include "native/held.h"
#include "stereo_exposure.h"

namespace kestrune::python {

namespace py = pybind11;

/// Extractors that are not at work, of one calibration.
class IdleExtractors {
  public:
    using Pointer = std::unique_ptr<CircleMarkerExtractor>;

    /// One that is idle, else by `make`.
    template <typename Make>
    Pointer take(const Make& make) {
        {
            const std::lock_guard lock(mutex_);
            if (!idle_.empty()) {
                Pointer extractor = std::move(idle_.back());
                idle_.pop_back();
                return extractor;
            }
        }
        return std::make_unique<CircleMarkerExtractor>(make());
    }

    void giveBack(Pointer extractor) {
        const std::lock_guard lock(mutex_);
        idle_.push_back(std::move(extractor));
    }

  private:
    std::mutex mutex_;
    std::vector<Pointer> idle_;
};

/// How an exposure is to be measured.
struct StereoWishes {
    double minShare;
    bool refine, picture;
    std::optional<measure::MatchKnowledge> known;  ///< none: by the path's matcher
};

class PythonExtractor {
  public:
    /// @throws InputError  for settings that need a rig, without one.
    PythonExtractor(HeldSettings settings, std::optional<HeldRig> rig);

    const HeldSettings& settings() const { return settings_; }
    const std::optional<HeldRig>& rig() const { return rig_; }

    /// (table, corners, pixels, picture, estimates)
    py::tuple extract(const py::object& image, int eye, bool invert, const py::object& range, bool refine,
                      bool picture);

    /// (table, estimates)
    py::tuple refine(const py::object& image, const py::object& corners, int eye, const py::object& range);

    /// (candidates, contours, dropped, text, picture)
    py::tuple explain(const py::object& image, int eye, bool invert, const py::object& range, bool picture);

    /// What `refineAtFullSize` has spoilt, as a sentence.
    std::string fullSizeWarning(const py::object& image, int eye, bool invert, const py::object& range);

    /// (table, left corners, right corners, failure, warning, found, left unmatched, right unmatched, text, pictures,
    /// (left estimates, right estimates, discs), None or (ambiguous pairs, match))
    py::tuple stereo(const py::object& left, const py::object& right, bool invert, const py::object& range,
                     const StereoWishes& wishes);
    py::tuple stereoFiles(const std::string& left, const std::string& right, bool invert, const py::object& range,
                          const StereoWishes& wishes);

    /// table
    py::array match(const py::array& left, const py::array& right);
    py::array depth(const py::object& image, const py::object& depth, double scale, int eye, bool invert,
                    const py::object& range);

  private:
    /// Both images in 8 bits, and all their bits where they are refined.
    struct Exposure {
        std::array<cv::Mat, 2> images;
        std::optional<measure::RefinementInput> refinement;
    };

    Camera cameraOf(int eye) const;
    void requireSize(const cv::Mat& image, const char* name, int eye) const;
    const HeldSettings& stereoSettings() const;
    py::tuple measured(const Exposure& exposure, const StereoWishes& wishes);
    /// In 8 bits, mapped alike, and held to the size of all exposures.
    void takeIn(Exposure& exposure, const std::array<std::string, 2>& names, bool invert,
                const std::optional<measure::GreyRange>& range, bool refine);
    CircleMarkerExtractor calibrated(cv::Size size);

    HeldSettings settings_;
    std::optional<HeldRig> rig_;
    IdleExtractors mono_, stereo_;
    std::mutex sizeMutex_;
    cv::Size size_;  ///< of the exposures; empty until the first where the rig does not tell
};

}  // namespace kestrune::python

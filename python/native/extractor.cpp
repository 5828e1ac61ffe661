// SPDX-License-Identifier: Apache-2.0
#include "native/extractor.h"

#include <fmt/format.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <numeric>

#include "centre_match.h"
#include "depth_points.h"
#include "explanation.h"
#include "files/inputs.h"
#include "full_size_check.h"
#include "image_file.h"
#include "native/estimates.h"
#include "native/images.h"
#include "native/matching.h"
#include "native/module.h"
#include "native/result_tables.h"
#include "native/tables.h"
#include "native/threads.h"
#include "overlay.h"
#include "pair_explanation.h"
#include "pixels.h"
#include "stereo_pictures.h"

namespace kestrune::python {
namespace {

using measure::Candidate;
using measure::Dropped;
using measure::Marker;
using measure::StereoResult;

/// An extractor for one call; it goes back when the call ends, also by an exception.
class Lease {
  public:
    template <typename Make>
    Lease(IdleExtractors& idle, const Make& make) : idle_(idle), extractor_(idle.take(make)) {
        applyWantedThreads();
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() { idle_.giveBack(std::move(extractor_)); }

    CircleMarkerExtractor& operator*() const { return *extractor_; }

  private:
    IdleExtractors& idle_;
    IdleExtractors::Pointer extractor_;
};

CircleMarkerExtractor uncalibrated() {
    return {};
}

/// An image of a call, in 8 bits, with the array that it may share pixels with.
struct Taken {
    ArrayImage source;
    cv::Mat image;
};

Taken taken(const py::object& object, const char* name, bool invert, const std::optional<measure::GreyRange>& range) {
    Taken result{imageOf(object, name), {}};
    const py::gil_scoped_release others;
    if (!result.source.image.empty()) result.image = measure::inEightBits(result.source.image, invert, range);
    return result;
}

/// Both images of an exposure are mapped alike, by the range of the data of both; none where they have 8 bits.
std::optional<measure::GreyRange> commonRange(const std::array<cv::Mat, 2>& images) {
    measure::RangeOfData data;
    bool deep = false;
    for (const cv::Mat& image : images) {
        if (image.depth() == CV_8U) continue;
        data.add(image);
        deep = true;
    }
    return deep ? std::optional(data.range()) : std::nullopt;
}

/// Two columns of numbers. @throws InputError
std::vector<Corner> cornersOf(const py::array& array, const char* name) {
    const auto centres = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(array);
    if (!centres) throw py::error_already_set();
    if (centres.ndim() != 2 || centres.shape(1) != 2) throw InputError(name, "is no array of centres by 2 (x, y)");
    std::vector<Corner> corners(static_cast<std::size_t>(centres.shape(0)));
    for (std::size_t i = 0; i < corners.size(); ++i) {
        corners[i].x = centres.at(static_cast<py::ssize_t>(i), 0);
        corners[i].y = centres.at(static_cast<py::ssize_t>(i), 1);
    }
    return corners;
}

}  // namespace

PythonExtractor::PythonExtractor(HeldSettings settings, std::optional<HeldRig> rig)
    : settings_(std::move(settings)), rig_(std::move(rig)) {
    const bool undistorts = measure::deliversUndistorted(settings_.settings);
    if (undistorts && settings_.settings.configs.cornersRectified)
        throw InputError(settings_.origin,
                         "field 'cornersRectified' true, so that the image has no distortion, and 'skipUndistort' "
                         "false, which would take it out once more");
    if (rig_) size_ = rig_->rig.size;
}

Camera PythonExtractor::cameraOf(int eye) const {
    if (!settings_.lacks.empty()) throw InputError(settings_.lacks);
    if (eye != 0 && eye != 1) throw InputError("eye", fmt::format("{} is neither 0 (left) nor 1 (right)", eye));
    if (!rig_) {
        if (measure::deliversUndistorted(settings_.settings))
            throw InputError(settings_.origin, "field 'skipUndistort' false needs a rig");
        return {};
    }
    Camera camera = asMatrices(rig_->rig.cameras[static_cast<std::size_t>(eye)]);
    camera.size = rig_->rig.size;
    return camera;
}

py::tuple PythonExtractor::extract(const py::object& object, int eye, bool invert, const py::object& range, bool refine,
                                   bool picture) {
    const Camera camera = cameraOf(eye);
    const auto wanted = rangeOf(range);
    const Taken input = taken(object, "image", invert, wanted);
    std::vector<Marker> markers;
    std::vector<Corner> corners;
    std::vector<MarkerEstimate> estimates;
    cv::Mat drawn;
    {
        const py::gil_scoped_release others;
        const Lease extractor(mono_, uncalibrated);
        measure::CalibratedSize(rig_ ? rig_->origin : "", camera.size, true).require("image", input.image.size());
        if (!input.image.empty()) {
            markers = measure::findMarkers(*extractor, input.image, eye, camera, settings_.settings, &corners);
            if (refine) {
                estimates = measure::refineDelivered(
                    measure::inAllBits(input.source.image, wanted), corners,
                    measure::refinementOptions(input.image.size(), camera, settings_.settings));
                measure::applyEstimates(markers, estimates);
            }
            if (picture)
                drawn = measure::drawFound(measure::imageBehind(input.image, camera, settings_.settings), markers,
                                           fmt::format("path {}", nameOf(settings_.settings.path)),
                                           refine ? &estimates : nullptr);
        }
    }
    return py::make_tuple(markerTable(markers, refine ? &estimates : nullptr), pythonCorners(std::move(corners)),
                          measure::nameOf(measure::pixelsOf(settings_.settings, camera)),
                          picture ? py::object(arrayOf(drawn)) : py::none(), pythonEstimates(estimates));
}

py::tuple PythonExtractor::refine(const py::object& object, const py::object& records, int eye,
                                  const py::object& range) {
    const Camera camera = cameraOf(eye);
    const auto wanted = rangeOf(range);
    const ArrayImage source = imageOf(object, "image");
    const SharedCorners corners = cornersIn(records);
    std::vector<MarkerEstimate> estimates;
    {
        const py::gil_scoped_release others;
        applyWantedThreads();
        measure::CalibratedSize(rig_ ? rig_->origin : "", camera.size, true).require("image", source.image.size());
        if (!source.image.empty())
            estimates = measure::refineOn(measure::inAllBits(source.image, wanted), *corners,
                                          measure::refinementOptions(source.image.size(), camera, settings_.settings));
    }
    return py::make_tuple(estimateTable(estimates), pythonEstimates(estimates));
}

py::tuple PythonExtractor::explain(const py::object& object, int eye, bool invert, const py::object& range,
                                   bool picture) {
    const Camera camera = cameraOf(eye);
    const Taken input = taken(object, "image", invert, rangeOf(range));
    if (input.image.empty()) throw InputError("image", "is empty");
    std::vector<Candidate> candidates;
    std::vector<Dropped> dropped;
    std::string text;
    cv::Mat drawn;
    {
        const py::gil_scoped_release others;
        const Lease extractor(mono_, uncalibrated);
        measure::CalibratedSize(rig_ ? rig_->origin : "", camera.size, true).require("image", input.image.size());
        candidates = measure::explainMarkers(*extractor, input.image, eye, camera, settings_.settings, &dropped);
        text = measure::explanationTable(candidates) + measure::droppedTable(dropped);
        if (picture)
            drawn = measure::drawExplanation(input.image, candidates,
                                             fmt::format("path {}", nameOf(settings_.settings.path)), dropped);
    }
    py::list contours;
    for (const Candidate& c : candidates) contours.append(arrayOf(cv::Mat(c.contour, true).reshape(1)));
    return py::make_tuple(candidateTable(candidates), contours, dropTable(dropped), text,
                          picture ? py::object(arrayOf(drawn)) : py::none());
}

std::string PythonExtractor::fullSizeWarning(const py::object& object, int eye, bool invert, const py::object& range) {
    const Camera camera = cameraOf(eye);
    const Taken input = taken(object, "image", invert, rangeOf(range));
    if (input.image.empty()) return "";
    const py::gil_scoped_release others;
    const Lease extractor(mono_, uncalibrated);
    measure::CalibratedSize(rig_ ? rig_->origin : "", camera.size, true).require("image", input.image.size());
    const std::vector<Marker> markers = measure::findMarkers(*extractor, input.image, eye, camera, settings_.settings);
    return measure::fullSizeWarning(*extractor, input.image, eye, camera, settings_.settings, markers);
}

const HeldSettings& PythonExtractor::stereoSettings() const {
    if (!rig_) throw InputError("rig", "is missing: stereo needs the calibration of both cameras");
    if (settings_.use != Use::stereo)
        throw InputError(settings_.origin,
                         "was taken for extraction alone: use='stereo' tells what is missing for stereo");
    return settings_;
}

CircleMarkerExtractor PythonExtractor::calibrated(cv::Size size) {
    Rig rig = rig_->rig;
    rig.size = size;
    return calibratedExtractor(rig);
}

py::tuple PythonExtractor::stereo(const py::object& left, const py::object& right, bool invert, const py::object& range,
                                  const StereoWishes& wishes) {
    stereoSettings();
    const std::array<ArrayImage, 2> sources = {imageOf(left, "left"), imageOf(right, "right")};
    for (std::size_t eye = 0; eye < 2; ++eye)
        if (sources[eye].image.empty()) throw InputError(eye == 0 ? "left" : "right", "is empty");
    const auto wanted = rangeOf(range);
    Exposure exposure{{sources[0].image, sources[1].image}, {}};
    {
        const py::gil_scoped_release others;
        takeIn(exposure, {"left", "right"}, invert, wanted, wishes.refine);
    }
    return measured(exposure, wishes);
}

py::tuple PythonExtractor::stereoFiles(const std::string& left, const std::string& right, bool invert,
                                       const py::object& range, const StereoWishes& wishes) {
    stereoSettings();
    const auto wanted = rangeOf(range);
    Exposure exposure;
    {
        const py::gil_scoped_release others;
        exposure.images = {measure::decodeImage(left), measure::decodeImage(right)};
        takeIn(exposure, {left, right}, invert, wanted, wishes.refine);
    }
    return measured(exposure, wishes);
}

void PythonExtractor::takeIn(Exposure& exposure, const std::array<std::string, 2>& names, bool invert,
                             const std::optional<measure::GreyRange>& range, bool refine) {
    std::array<cv::Mat, 2>& images = exposure.images;
    const auto common = range ? range : commonRange(images);
    if (refine)
        exposure.refinement = measure::RefinementInput{
            {measure::inAllBits(images[0], common), measure::inAllBits(images[1], common)}, rig_->rig.uncertainty};
    for (cv::Mat& image : images) image = measure::inEightBits(image, invert, common);
    const auto known = [this] {
        const std::lock_guard lock(sizeMutex_);
        return size_;
    }();
    measure::requireExposure(images, names, known.empty() ? images[0].size() : known);
    const std::lock_guard lock(sizeMutex_);
    if (size_.empty()) size_ = images[0].size();  // only that of a good exposure
}

py::tuple PythonExtractor::measured(const Exposure& exposure, const StereoWishes& wishes) {
    const std::array<cv::Mat, 2>& images = exposure.images;
    const double minShare = wishes.minShare;
    if (!(minShare >= 0 && minShare <= 1)) throw InputError("min_share", fmt::format("{} is outside 0 to 1", minShare));
    StereoResult result;
    std::vector<std::pair<Corner, Corner>> records;
    std::string text;
    cv::Mat drawn, view;
    {
        const py::gil_scoped_release others;
        const Settings settings = measure::asStereo(settings_.settings, settings_.origin);
        const Lease extractor(stereo_, [&] { return calibrated(images[0].size()); });
        const measure::RefinementInput* const refinement = exposure.refinement ? &*exposure.refinement : nullptr;
        std::optional<measure::TrustedInput> trusted;
        if (wishes.known) trusted = {*wishes.known, rig_->rig.uncertainty};
        result = measure::measureExposure(*extractor, images, settings, minShare, refinement, &records,
                                          trusted ? &*trusted : nullptr);
        if (wishes.picture) {
            std::array<cv::Mat, 2> behind;
            for (std::size_t eye = 0; eye < 2; ++eye)
                behind[eye] = measure::imageBehind(images[eye], asMatrices(rig_->rig.cameras[eye]), settings);
            std::vector<int> untrusted(result.failure.empty() ? 0 : result.markers.size());
            std::iota(untrusted.begin(), untrusted.end(), 0);
            drawn = measure::drawPairs(behind, result, fmt::format("path {}", nameOf(settings.path)), {}, untrusted);
            view = measure::drawPoints(result, "markers in space");
        }
    }
    std::vector<Corner> left, right;
    for (auto& [l, r] : records) {
        left.push_back(std::move(l));
        right.push_back(std::move(r));
    }
    return py::make_tuple(pointTable(result), pythonCorners(std::move(left)), pythonCorners(std::move(right)),
                          result.failure, result.doubt, py::make_tuple(result.found[0], result.found[1]),
                          unmatchedTable(result.unmatched[0]), unmatchedTable(result.unmatched[1]),
                          measure::pairExplanationTable(result, settings_.settings.configs),
                          wishes.picture ? py::object(py::make_tuple(arrayOf(drawn), arrayOf(view))) : py::none(),
                          pythonPairEstimates(result.markers), pythonTrust(result));
}

py::array PythonExtractor::match(const py::array& left, const py::array& right) {
    if (!rig_) throw InputError("rig", "is missing: a match needs the calibration of both cameras");
    std::vector<Corner> lists[2] = {cornersOf(left, "left"), cornersOf(right, "right")};
    std::vector<measure::CentrePair> pairs;
    {
        const py::gil_scoped_release others;
        CircleMarkerExtractor rig = measure::rigOfLists(rig_->rig, rig_->origin);
        pairs = measure::matchCentres(rig, measure::fundamentalOf(rig), lists[0], lists[1]);
    }
    std::vector<std::int32_t> number(pairs.size());
    std::iota(number.begin(), number.end(), 0);
    using P = measure::CentrePair;
    return tableOf({{"pair", number},
                    {"left", cellsOf(pairs, [](const P& r) { return r.place[0]; })},
                    {"right", cellsOf(pairs, [](const P& r) { return r.place[1]; })},
                    {"leftX", cellsOf(pairs, [](const P& r) { return r.pixel[0].x; })},
                    {"leftY", cellsOf(pairs, [](const P& r) { return r.pixel[0].y; })},
                    {"rightX", cellsOf(pairs, [](const P& r) { return r.pixel[1].x; })},
                    {"rightY", cellsOf(pairs, [](const P& r) { return r.pixel[1].y; })},
                    {"X", cellsOf(pairs, [](const P& r) { return r.point[0]; })},
                    {"Y", cellsOf(pairs, [](const P& r) { return r.point[1]; })},
                    {"Z", cellsOf(pairs, [](const P& r) { return r.point[2]; })}},
                   pairs.size());
}

py::array PythonExtractor::depth(const py::object& object, const py::object& depth, double scale, int eye, bool invert,
                                 const py::object& range) {
    if (!rig_) throw InputError("rig", "is missing: depth needs the camera's matrix");
    const Camera camera = cameraOf(eye);
    measure::requireUndistorted(settings_.origin, rig_->origin, settings_.settings, camera);
    const Taken input = taken(object, "image", invert, rangeOf(range));
    const ArrayImage given = imageOf(depth, "depth");
    std::vector<measure::DepthPoint> points;
    if (!input.image.empty()) {
        const py::gil_scoped_release others;
        const Lease extractor(mono_, uncalibrated);
        measure::CalibratedSize(rig_->origin, camera.size, true).require("image", input.image.size());
        cv::Mat z = measure::asDepth(given.image, "depth", scale, input.image.size());
        points = measure::placeByDepth(*extractor,
                                       measure::findMarkers(*extractor, input.image, eye, camera, settings_.settings),
                                       z, camera.matrix);
    }
    using P = measure::DepthPoint;
    return tableOf({{"id", cellsOf(points, [](const P& r) { return r.id; })},
                    {"x", cellsOf(points, [](const P& r) { return r.pixel.x; })},
                    {"y", cellsOf(points, [](const P& r) { return r.pixel.y; })},
                    {"X", cellsOf(points, [](const P& r) { return r.point[0]; })},
                    {"Y", cellsOf(points, [](const P& r) { return r.point[1]; })},
                    {"Z", cellsOf(points, [](const P& r) { return r.point[2]; })}},
                   points.size());
}

void defineExtractor(py::module_& module) {
    using E = PythonExtractor;
    py::class_<E>(module, "Extractor")
        .def(py::init<HeldSettings, std::optional<HeldRig>>(), py::arg("settings"), py::arg("rig") = py::none())
        .def_property_readonly("settings", [](const E& e) { return e.settings(); })
        .def_property_readonly("rig", [](const E& e) { return e.rig(); })
        .def("extract", &E::extract)
        .def("refine", &E::refine)
        .def("explain", &E::explain)
        .def("full_size_warning", &E::fullSizeWarning)
        .def("stereo",
             [](E& e, const py::object& left, const py::object& right, bool invert, const py::object& range,
                double minShare, bool refine, bool picture, const py::object& known) {
                 return e.stereo(left, right, invert, range, {minShare, refine, picture, knowledgeOf(known)});
             })
        .def("stereo_files",
             [](E& e, const std::string& left, const std::string& right, bool invert, const py::object& range,
                double minShare, bool refine, bool picture, const py::object& known) {
                 return e.stereoFiles(left, right, invert, range, {minShare, refine, picture, knowledgeOf(known)});
             })
        .def("match", &E::match)
        .def("depth", &E::depth);
}

}  // namespace kestrune::python

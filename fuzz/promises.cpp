// SPDX-License-Identifier: Apache-2.0
#include "promises.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "MarkerExtractor/extraction/plain_road.h"
#include "parallel/parallel_loop.h"

namespace kestrune::fuzz {

namespace {

const std::int64_t kUsualWork = leastSharedWork;
constexpr std::int64_t kAnyWork = 1;  ///< ns

constexpr int kManyThreads = 3;
constexpr std::uint64_t kMixer = 0x9E3779B97F4A7C15;  ///< odd, with its bits in no order
constexpr int kMargin = 9;                            ///< px around a window
constexpr std::size_t kSpareScratch = 20'000;

}  // namespace

void Record::add(const void* data, std::size_t bytes, std::uint64_t& digest) {
    const auto* next = static_cast<const unsigned char*>(data);
    while (bytes > 0) {
        const std::size_t count = std::min(bytes, sizeof(std::uint64_t));
        std::uint64_t word = 0;
        std::memcpy(&word, next, count);
        digest = (digest ^ word) * kMixer;
        digest ^= digest >> 32;
        next += count;
        bytes -= count;
    }
}

std::uint64_t& Record::digestOf(const char* part) {
    for (auto& [name, digest] : parts_) {
        if (std::strcmp(name, part) == 0) return digest;
    }
    return parts_.emplace_back(part, kMixer).second;
}

void Record::text(const char* part, const std::string& value) {
    numbers(part, value.size());
    add(value.data(), value.size(), digestOf(part));
}

void Record::matrix(const char* part, const cv::Mat& value) {
    numbers(part, value.dims, value.rows, value.cols, value.type(), value.data != nullptr);
    if (value.empty()) return;
    const cv::Mat whole = value.isContinuous() ? value : value.clone();
    add(whole.data, whole.total() * whole.elemSize(), digestOf(part));
}

void Record::matrix(const char* part, const Eigen::MatrixXd& value) {
    numbers(part, value.rows(), value.cols());
    add(value.data(), static_cast<std::size_t>(value.size()) * sizeof(double), digestOf(part));
}

void Record::rects(const char* part, const std::vector<cv::RotatedRect>& list) {
    numbers(part, list.size());
    for (const cv::RotatedRect& r : list) numbers(part, r.center.x, r.center.y, r.size.width, r.size.height, r.angle);
}

void Record::points(const char* part, const std::vector<Point3_<double>>& list) {
    numbers(part, list.size());
    for (const Point3_<double>& p : list) numbers(part, p.x, p.y, p.z);
}

void Record::pairs(const char* part, const std::vector<std::pair<int, int>>& list) {
    numbers(part, list.size());
    for (const auto& [left, right] : list) numbers(part, left, right);
}

void Record::corners(const char* part, const std::vector<Corner>& list) {
    numbers(part, list.size());
    for (const Corner& c : list) {
        numbers(part, c.id, c.x, c.y, c.fitResidual, c.conicValid, c.matchIndex, c.flagA, c.matched, c.flagB, c.flagC,
                c.auxMetricA, c.auxMetricB, c.area, c.compactness, c.fitError, c.eccentricity, c.convexRatio,
                c.circularity, c.contour.size());
        for (int k = 0; k < 3; ++k) numbers(part, c.normal[k], c.position[k]);
        if (c.conicValid) numbers(part, c.conic);
        matrix(part, c.scatter);
        rects(part, {c.ellipse});
        add(c.contour.data(), c.contour.size() * sizeof(cv::Point2f), digestOf(part));
    }
}

void Record::outcome(const Outcome& outcome) {
    numbers("end of the call", outcome.end);
    text("exception", outcome.text);
}

void Record::members(const CircleMarkerExtractor& e) {
    text("markerName", e.markerName);
    text("spareName", e.spareName);
    for (const cv::Mat* m :
         {&e.rotation,           &e.translation,      &e.fundamental,       &e.leftIntrinsic,      &e.rightIntrinsic,
          &e.leftDistortion,     &e.rightDistortion,  &e.leftProjection,    &e.rightProjection,    &e.leftRectification,
          &e.rightRectification, &e.disparityToDepth, &e.leftTriangulation, &e.rightTriangulation, &e.leftMapX,
          &e.leftMapY,           &e.rightMapX,        &e.rightMapY,         &e.leftHomography,     &e.rightHomography})
        matrix("calibration", *m);
    for (const Eigen::MatrixXd* m : {&e.triangulationA, &e.triangulationB, &e.triangulationC, &e.triangulationD})
        matrix("triangulationA to D", *m);
    rects("markerRects", e.markerRects);
    numbers("image size", e.imageWidth, e.imageHeight);
    for (const auto* table : {&e.rayDirections, &e.probeDirections}) {
        numbers("directions", table->size());
        add(table->data(), table->size() * sizeof(cv::Point2f), digestOf("directions"));
    }
}

Record Record::operator+(const Record& other) const {
    Record sum = *this;
    sum.parts_.insert(sum.parts_.end(), other.parts_.begin(), other.parts_.end());
    return sum;
}

Record::Parts Record::partsBut(const char* name) const {
    Parts parts = parts_;
    std::erase_if(parts, [name](const auto& part) { return std::strcmp(part.first, name) == 0; });
    return parts;
}

std::string Record::differenceFrom(const Record& other) const {
    const auto tells = [](const Record& record) { return record.partsBut(kReasons).size() < record.parts_.size(); };
    const char* const leftOut = tells(*this) && tells(other) ? "" : kReasons;
    const Parts mine = partsBut(leftOut), theirs = other.partsBut(leftOut);
    for (std::size_t k = 0; k < std::max(mine.size(), theirs.size()); ++k) {
        if (k >= mine.size()) return theirs[k].first;
        if (k >= theirs.size() || mine[k] != theirs[k]) return mine[k].first;
    }
    return {};
}

void requireSame(const Record& a, const Record& b, const char* promise) {
    const std::string difference = a.differenceFrom(b);
    if (difference.empty()) return;
    std::fprintf(stderr, "differs: %s\n", difference.c_str());
    require(false, promise);
}

void setThreads(const Circumstances& circumstances) {
    takePlainRoad = circumstances.plainRoad;
    const int threads = circumstances.manyThreads || circumstances.teamsAreLate ? kManyThreads : 1;
    omp_set_num_threads(threads);
    cv::setNumThreads(threads);
    leastSharedWork = circumstances.manyThreads ? 0 : circumstances.teamsAreLate ? kAnyWork : kUsualWork;
}

void prepare(const Circumstances& circumstances, CircleMarkerExtractor& e) {
    setThreads(circumstances);
    if (!circumstances.garbageInScratch) return;
    const auto fill = [](auto& list, auto value) { list.assign(list.size() + kSpareScratch, value); };
    for (auto* list : {&e.scratchBlurFull, &e.scratchEdgeMask, &e.scratchBinary, &e.scratchGray, &e.scratchWorking})
        fill(*list, uchar{0xA5});
    fill(e.scratchLabels, std::int32_t{0x5A5A5A5A});
    for (auto* list : {&e.scratchFloatA, &e.scratchFloatB, &e.scratchGrad, &e.scratchDx, &e.scratchDy})
        fill(*list, 1e30f);
    fill(e.scratchBlur16, std::uint16_t{0xA5A5});
}

cv::Mat Circumstances::imageOf(const cv::Mat& image) const {
    if (!imagesAreWindows || image.empty() || image.dims != 2) return image.clone();
    cv::Mat larger(image.rows + 2 * kMargin, image.cols + 2 * kMargin, image.type());
    cv::RNG(7).fill(larger, cv::RNG::UNIFORM, 0, 256);
    cv::Mat window = larger(cv::Rect(kMargin, kMargin, image.cols, image.rows));
    image.copyTo(window);
    return window;
}

}  // namespace kestrune::fuzz

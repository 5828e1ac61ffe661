// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_rays.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

namespace kestrune {

namespace {

constexpr float kLeastStart = 1.5f;  ///< px: nearer to the centre, neighbouring rays read the same pixels
constexpr int kFineSamples = 7;      ///< 1 px apart, from half a coarse step before the steepest coarse step
constexpr float kFineLead = 1.5f;
/// Px behind the outer radius that are read: the last step begins there, and 5.5 px on the parabola looks at its last
/// difference, between pixels; one more for rounding.
constexpr int kReachBeyond = 8;
constexpr float kLeastCurvature = 0.0001f;  ///< below it the three differences lie on a line
constexpr float kNoRadius = -1.0f;
constexpr int kHalfWindow = 2;            ///< rays to either side in the clean-up passes
constexpr float kRadiusTolerance = 3.0f;  ///< px
constexpr std::size_t kLeastMedian = 3;   ///< radii that make a median

/// What is common to all rays of a candidate.
struct RayPlan {
    const GreyView& image;
    cv::Point2f centre;
    float start;    ///< radius of the first coarse sample
    int steps;      ///< number of coarse steps
    bool isInside;  ///< all that a ray reads lies on the image, with a pixel to its right and one below

    GreySample at(cv::Point2f direction, float radius) const {
        return sampleBilinear(image, centre.x + radius * direction.x, centre.y + radius * direction.y);
    }
    float coarseRadius(int i) const { return kCoarseStep * static_cast<float>(i) + start; }
};

bool isAllInside(const GreyView& image, cv::Point2f centre, float rOut) {
    const auto reach = static_cast<float>(reachOfRays(rOut));
    return centre.x >= reach && centre.y >= reach && centre.x + reach + 2 <= static_cast<float>(image.cols) &&
           centre.y + reach + 2 <= static_cast<float>(image.rows);
}

/// How far the outer circle and a step leave the image, px.
double reachBeyond(const GreyView& image, cv::Point2f centre, float rOut) {
    const double room = std::min({static_cast<double>(centre.x), static_cast<double>(centre.y),
                                  image.cols - 1.0 - centre.x, image.rows - 1.0 - centre.y});
    return static_cast<double>(rOut) + kCoarseStep - room;
}

struct Fall {
    int index = -1;
    float height = -1;

    /// The first of equal falls stays.
    void offer(int candidate, float candidateHeight) {
        if (candidateHeight > height) {
            index = candidate;
            height = candidateHeight;
        }
    }
};

/// `roundf` for a coordinate that is not negative, halves away from zero, without the call into the mathematics
/// library.
int nearestPixel(float coordinate) {
    const int whole = static_cast<int>(coordinate);
    return whole + static_cast<int>(coordinate - static_cast<float>(whole) >= 0.5f);
}

/// The steepest coarse fall of every ray: step by step for all rays at once, whose samples do not depend on each other.
/// @tparam Offset  holds a place in the image.
template <typename Offset>
void findCoarseFalls(const RayPlan& plan, const std::vector<cv::Point2f>& directions, RayScratch& scratch) {
    const std::size_t n = directions.size();
    std::vector<Offset>& offsets = scratch.offsetsOf<Offset>();
    offsets.resize(n);
    scratch.before.resize(n);
    scratch.here.resize(n);
    scratch.steepest.assign(n, -1);
    scratch.heights.assign(n, -1);
    const auto step = static_cast<Offset>(plan.image.step);
    const uchar* const origin = plan.image.at(plan.image.left, plan.image.top);
    for (int i = 0; i <= plan.steps; ++i) {
        const float r = std::max(0.0f, plan.coarseRadius(i));
        // The ray guard keeps every sample on the image.
        for (std::size_t ray = 0; ray < n; ++ray) {
            const int column = nearestPixel(plan.centre.x + r * directions[ray].x) - plan.image.left;
            const int row = nearestPixel(plan.centre.y + r * directions[ray].y) - plan.image.top;
            offsets[ray] = static_cast<Offset>(row) * step + static_cast<Offset>(column);
        }
        for (std::size_t ray = 0; ray < n; ++ray) scratch.here[ray] = origin[offsets[ray]];
        for (std::size_t ray = 0; i > 0 && ray < n; ++ray) {
            const int fall = scratch.before[ray] - scratch.here[ray];
            const bool isSteeper = fall > scratch.heights[ray];  // the first of equal falls stays
            scratch.steepest[ray] = isSteeper ? i - 1 : scratch.steepest[ray];
            scratch.heights[ray] = isSteeper ? fall : scratch.heights[ray];
        }
        std::swap(scratch.before, scratch.here);
    }
}

void findCoarseFalls(const RayPlan& plan, const std::vector<cv::Point2f>& directions, RayScratch& scratch) {
    if (plan.image.step * plan.image.rows <= std::numeric_limits<int>::max()) {
        findCoarseFalls<int>(plan, directions, scratch);
    } else {
        findCoarseFalls<std::ptrdiff_t>(plan, directions, scratch);
    }
}

/// The fine samples of a ray, and one that none asks for.
using FineSamples = std::array<float, kFineSamples + 1>;

/// `sampleBilinear` of all of them, where no bound has to be looked at.
FineSamples readFineSamples(const RayPlan& plan, cv::Point2f direction, float coarse) {
    constexpr std::size_t kCount = kFineSamples + 1;
    std::array<int, kCount> columns, rows;
    FineSamples fx, fy, a, b, c, d, values;
    for (std::size_t k = 0; k < kCount; ++k) {
        const float radius = coarse - kFineLead + static_cast<float>(static_cast<int>(k));
        const float x = plan.centre.x + radius * direction.x;
        const float y = plan.centre.y + radius * direction.y;
        columns[k] = static_cast<int>(x);
        rows[k] = static_cast<int>(y);
        fx[k] = x - static_cast<float>(columns[k]);
        fy[k] = y - static_cast<float>(rows[k]);
    }
    for (std::size_t k = 0; k < kCount; ++k) {
        const uchar* const upper = plan.image.at(columns[k], rows[k]);
        const uchar* const lower = upper + plan.image.step;
        a[k] = upper[0], b[k] = upper[1], c[k] = lower[0], d[k] = lower[1];
    }
    for (std::size_t k = 0; k < kCount; ++k) {
        values[k] = (1 - fy[k]) * (a[k] * (1 - fx[k]) + b[k] * fx[k]) + fy[k] * (c[k] * (1 - fx[k]) + d[k] * fx[k]);
    }
    return values;
}

/// The steepest of the fine samples, which become `values`, 0 where a place lies off the image.
Fall steepestFineFall(const RayPlan& plan, cv::Point2f direction, float coarse, FineSamples& values) {
    Fall fall;
    if (plan.isInside) {
        values = readFineSamples(plan, direction, coarse);
        for (int k = 0; k + 1 < kFineSamples; ++k) {
            const auto i = static_cast<std::size_t>(k);
            fall.offer(k, values[i] - values[i + 1]);
        }
        return fall;
    }
    bool isValid = false;
    for (int k = 0; k < kFineSamples; ++k) {
        const GreySample sample = plan.at(direction, coarse - kFineLead + static_cast<float>(k));
        const auto i = static_cast<std::size_t>(k);
        values[i] = sample.value;
        if (isValid && sample.valid) fall.offer(k - 1, values[i - 1] - sample.value);
        isValid = sample.valid;
    }
    return fall;
}

/// Radius of the edge near the coarse step that begins at `coarse`. It may be as low as -1 for a blob of a few pixels.
std::optional<float> fineRadius(const RayPlan& plan, cv::Point2f direction, float coarse) {
    FineSamples f{};
    const int k = steepestFineFall(plan, direction, coarse, f).index;
    if (k < 0) return std::nullopt;  // the grey value rises all along, by more than one level a pixel

    const float rk = coarse - kFineLead + static_cast<float>(k);
    const auto i = static_cast<std::size_t>(k);
    const float p0 = k >= 1 ? f[i - 1] : plan.at(direction, rk - 1.0f).value;
    const float p1 = f[i];
    const float p2 = f[i + 1];
    const float p3 = k < kFineSamples - 2 ? f[i + 2] : plan.at(direction, rk + 2.0f).value;
    const float a = p0 - p1;
    const float b = p2 - p3;
    const float curvature = a - 2.0f * (p1 - p2) + b;
    float offset = 0;
    if (std::abs(curvature) > kLeastCurvature) offset = std::clamp((a - b) * 0.5f / curvature, -1.0f, 1.0f);
    return rk + offset;
}

/// Place on the circle of n rays, by steps instead of a division: the passes call it some thousand times a blob.
std::size_t wrapped(std::ptrdiff_t place, std::size_t n) {
    const auto count = static_cast<std::ptrdiff_t>(n);
    while (place < 0) place += count;
    while (place >= count) place -= count;
    return static_cast<std::size_t>(place);
}

/// Whether a radius is far from the mean of its neighbours. Without any neighbour the mean is NaN, and the
/// radius stays.
bool isOutlier(const std::vector<float>& radii, std::size_t ray, float tolerance, int halfWindow) {
    float sum = 0;
    int count = 0;
    for (int k = -halfWindow; k <= halfWindow; ++k) {
        if (k == 0) continue;
        const float radius = radii[wrapped(static_cast<std::ptrdiff_t>(ray) + k, radii.size())];
        if (radius < 0) continue;
        sum += radius;
        ++count;
    }
    return std::abs(sum / static_cast<float>(count) - radii[ray]) > tolerance;
}

/// Mean of the nearest rays that are kept, forward first; none if there is none within reach.
float meanOfNearest(const std::vector<float>& radii, const std::vector<char>& kept, std::size_t ray, int halfWindow) {
    float sum = 0;
    int count = 0;
    for (const int direction : {1, -1}) {
        int found = 0;
        for (int step = 1; step <= 3 * halfWindow && found < halfWindow; ++step) {
            const std::size_t place = wrapped(static_cast<std::ptrdiff_t>(ray) + direction * step, radii.size());
            if (!kept[place] || place == ray) continue;
            sum += radii[place];
            ++found;
        }
        count += found;
    }
    return count > 0 ? sum / static_cast<float>(count) : kNoRadius;
}

/// Copies the radii, and `kHalfWindow` of either end behind the other one, where the usual window is asked for.
/// @return the first of them, or null where each place has to be wrapped around.
const float* copyAround(const std::vector<float>& radii, int halfWindow, RayScratch& scratch) {
    scratch.given = radii;
    if (halfWindow != kHalfWindow || radii.size() <= 2 * kHalfWindow) return nullptr;
    std::vector<float>& around = scratch.around;
    around.assign(radii.end() - kHalfWindow, radii.end());
    around.insert(around.end(), radii.begin(), radii.end());
    around.insert(around.end(), radii.begin(), radii.begin() + kHalfWindow);
    return around.data() + kHalfWindow;
}

float medianOfFive(float a, float b, float c, float d, float e) {
    const float low = std::max(std::min(a, b), std::min(c, d));
    const float high = std::min(std::max(a, b), std::max(c, d));
    return std::max(std::min(low, high), std::min(std::max(low, high), e));
}

float medianOfPositive(const std::vector<float>& given, std::size_t ray, int halfWindow, std::vector<float>& sorted) {
    sorted.resize(2 * static_cast<std::size_t>(halfWindow) + 1);
    std::size_t count = 0;
    for (int k = -halfWindow; k <= halfWindow; ++k) {
        const float radius = given[wrapped(static_cast<std::ptrdiff_t>(ray) + k, given.size())];
        if (!(radius > 0)) continue;
        std::size_t place = count++;
        for (; place > 0 && sorted[place - 1] > radius; --place) sorted[place] = sorted[place - 1];
        sorted[place] = radius;
    }
    return count < kLeastMedian ? kNoRadius : sorted[count / 2];
}

void medianFilter(std::vector<float>& radii, int halfWindow, RayScratch& scratch) {
    const std::size_t n = radii.size();
    std::vector<char>& isWhole = scratch.kept;  // all radii of a window count, as nearly everywhere
    isWhole.assign(n, 0);
    if (const float* p = copyAround(radii, halfWindow, scratch)) {
        for (std::size_t ray = 0; ray < n; ++ray, ++p) {
            isWhole[ray] = (p[-2] > 0) & (p[-1] > 0) & (p[0] > 0) & (p[1] > 0) & (p[2] > 0);
            radii[ray] = medianOfFive(p[-2], p[-1], p[0], p[1], p[2]);
        }
    }
    for (std::size_t ray = 0; ray < n; ++ray) {
        if (!isWhole[ray]) radii[ray] = medianOfPositive(scratch.given, ray, halfWindow, scratch.sorted);
    }
}

void rejectAndSmooth(std::vector<float>& radii, float tolerance, int halfWindow, RayScratch& scratch) {
    const float* const around = copyAround(radii, halfWindow, scratch);
    const std::vector<float>& given = scratch.given;
    const float* const first = around != nullptr ? around : given.data();
    std::vector<char>& kept = scratch.kept;
    kept.resize(given.size());
    for (std::size_t ray = 0; ray < given.size(); ++ray) {
        const float* const p = first + ray;
        const bool isWhole = around != nullptr && !(p[-2] < 0) && !(p[-1] < 0) && !(p[1] < 0) && !(p[2] < 0);
        const bool isFar = isWhole ? std::abs((p[-2] + p[-1] + p[1] + p[2]) / 4.0f - *p) > tolerance
                                   : isOutlier(given, ray, tolerance, halfWindow);
        kept[ray] = !(given[ray] < 0) && !isFar;
    }
    const std::size_t n = given.size(), side = kHalfWindow;
    for (std::size_t ray = 0; ray < n; ++ray) {
        const float* const p = first + ray;
        const bool isWhole = around != nullptr && ray >= side && ray + side < n && kept[ray - 2] && kept[ray - 1] &&
                             kept[ray + 1] && kept[ray + 2];
        // A kept radius is replaced, too: its neighbours know it better than it does itself.
        if (!kept[ray]) {
            radii[ray] = kNoRadius;
        } else {
            radii[ray] = isWhole ? (p[1] + p[2] + p[-1] + p[-2]) / 4.0f : meanOfNearest(given, kept, ray, halfWindow);
        }
    }
}

}  // namespace

void medianFilterRadii(std::vector<float>& radii, int halfWindow) {
    RayScratch scratch;
    medianFilter(radii, halfWindow, scratch);
}

void rejectAndSmoothRadii(std::vector<float>& radii, float tolerance, int halfWindow) {
    RayScratch scratch;
    rejectAndSmooth(radii, tolerance, halfWindow, scratch);
}

int reachOfRays(float rOut) {
    return static_cast<int>(std::ceil(rOut)) + kReachBeyond;
}

bool areRaysOnImage(cv::Size image, cv::Point2f centre, float rOut) {
    // In this form a centre or radius that is NaN stays outside.
    return centre.x - rOut - kCoarseStep >= 0 && centre.y - rOut - kCoarseStep >= 0 &&
           centre.x + rOut + kCoarseStep <= static_cast<float>(image.width - 1) &&
           centre.y + rOut + kCoarseStep <= static_cast<float>(image.height - 1);
}

RaySearch searchRadialEdges(const cv::Mat& image, cv::Point2f centre, float rIn, float rOut,
                            std::vector<cv::Point2f>& points, const std::vector<cv::Point2f>& directions,
                            int dropThreshold, float minRayRatio) {
    RayScratch scratch;
    return searchRadialEdges(GreyView(image), centre, {rIn, rOut}, points, directions, dropThreshold, minRayRatio,
                             scratch);
}

RaySearch searchRadialEdges(const GreyView& image, cv::Point2f centre, const RayReach& reach,
                            std::vector<cv::Point2f>& points, const std::vector<cv::Point2f>& directions,
                            int dropThreshold, float minRayRatio, RayScratch& scratch) {
    const auto [rIn, rOut] = reach;
    points.clear();
    if (!areRaysOnImage(cv::Size(image.cols, image.rows), centre, rOut)) return {reachBeyond(image, centre, rOut), 0};
    const float start = std::max(kLeastStart, rIn - kCoarseStep);
    if (!(rOut + kCoarseStep >= start)) return {};  // no room for a sample
    const int steps = static_cast<int>(std::floor((rOut + kCoarseStep - start) / kCoarseStep));
    const RayPlan plan = {image, centre, start, steps, isAllInside(image, centre, rOut)};

    std::vector<float>& radii = scratch.radii;
    radii.assign(directions.size(), kNoRadius);
    findCoarseFalls(plan, directions, scratch);
    int found = 0;
    for (std::size_t ray = 0; ray < directions.size(); ++ray) {
        if (static_cast<float>(dropThreshold) > static_cast<float>(scratch.heights[ray])) continue;
        // With a threshold below 0 a ray that only rises comes here too, and is looked at before its first sample.
        const std::optional<float> radius = fineRadius(plan, directions[ray], plan.coarseRadius(scratch.steepest[ray]));
        if (!radius) continue;
        radii[ray] = *radius;
        ++found;
    }
    const float bearing = static_cast<float>(found) / static_cast<float>(directions.size());
    if (minRayRatio > bearing) return {0, bearing};

    medianFilter(radii, kHalfWindow, scratch);
    rejectAndSmooth(radii, kRadiusTolerance, kHalfWindow, scratch);
    for (std::size_t ray = 0; ray < directions.size(); ++ray) {
        const float radius = radii[ray];
        if (radius >= 0)
            points.emplace_back(radius * directions[ray].x + centre.x, radius * directions[ray].y + centre.y);
    }
    return {0, bearing};
}

}  // namespace kestrune

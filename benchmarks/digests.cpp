// SPDX-License-Identifier: Apache-2.0
//
// One number for all that each operation gives on fixed scenes. Two builds on one kind of CPU, or two numbers of
// threads, that print the same table give the same bits; where a row differs, `--each` names the scenes.
//
// usage: kestrune_digests [--scenes N] [--threads N] [--plain] [--each]
#include <fmt/format.h>
#include <kestrune/MarkerExtractor.h>
#include <kestrune_scene/records.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "MarkerExtractor/extraction/plain_road.h"
#include "parallel/parallel_loop.h"

#if defined(_OPENMP)
#include <omp.h>
#endif

namespace kestrune::bench {
namespace {

/// FNV-1a over the bits of what is added, in order.
class Digest {
  public:
    template <typename T>
    void add(const T& value) {
        static_assert(std::is_arithmetic_v<T>, "padding has no fixed bits");
        unsigned char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        for (const unsigned char byte : bytes) value_ = (value_ ^ byte) * 1099511628211ULL;
    }
    void add(const cv::Point2f& p) { add(p.x), add(p.y); }
    void add(const cv::RotatedRect& r) { add(r.center), add(r.size.width), add(r.size.height), add(r.angle); }
    void add(const Point3_<double>& p) { add(p.x), add(p.y), add(p.z); }
    void add(const std::string& text) {
        for (const char c : text) add(c);
    }
    void add(const Corner& c) {
        add(c.id), add(c.x), add(c.y), add(c.ellipse), add(c.fitResidual), add(c.conicValid), add(c.matched);
        if (c.conicValid)
            for (const double coefficient : c.conic) add(coefficient);
        for (Eigen::Index k = 0; k < c.scatter.size(); ++k) add(c.scatter.data()[k]);
        for (int k = 0; k < 3; ++k) add(c.normal[k]), add(c.position[k]);
        for (const double value : {c.area, c.compactness, c.fitError, c.eccentricity, c.convexRatio, c.circularity})
            add(value);
        addAll(c.contour);
    }
    void add(const std::pair<int, int>& pair) { add(pair.first), add(pair.second); }
    void add(const std::pair<Corner, Corner>& pair) {
        add(pair.first), add(pair.second);
        if (pair.first.conicValid) add(pair.first.markerRadius);
    }
    template <typename T>
    void addAll(const std::vector<T>& list) {
        add(list.size());
        for (const T& one : list) add(one);
    }
    std::uint64_t value() const { return value_; }

  private:
    std::uint64_t value_ = 14695981039346656037ULL;
};

struct DigestScene {
    cv::Mat left, right;
    CircleMarkerExtractor calibrated;
};

/// Sizes, numbers, radii, tilts, contrast, light and dark, blur, noise and clutter all change with the number.
DigestScene sceneOf(int number) {
    static const std::vector<cv::Size> kSizes = {{640, 512}, {801, 600}, {512, 640}, {1280, 1024}, {333, 251}};
    const auto n = static_cast<std::size_t>(number);
    const scene::Rig rig = scene::makeVergedRig(kSizes[n % kSizes.size()]);
    const double grey = std::array{180, 110, 240, 70}[n / 5 % 4];
    const int count = std::array{12, 30, 60, 5}[n / 3 % 4];
    const std::vector<scene::Disc> discs =
        n % 2 == 0 ? scene::makeScatteredDiscs(rig, count, 4 + number % 5, 10 + number % 7, 10 * (number % 7), grey, n)
                   : scene::makeCurvedObject(rig, count, 4, 6, grey, n);
    std::vector<scene::Patch> clutter;
    if (n % 3 == 2) clutter = scene::makeClutter(rig, discs, 20, n);
    scene::RenderOptions options;
    options.seed = n + 1;
    options.blurSigma = 0.5 + 0.3 * (number % 6);
    options.noiseSigma = 0.5 * (number % 9);
    scene::Exposure exposure = scene::render(rig, discs, clutter, options);
    if (n % 8 >= 6)
        for (cv::Mat& image : exposure.image) image = 255 - image;
    return {exposure.image[0], exposure.image[1], scene::calibrated(rig)};
}

/// Settings under which each path finds most discs of the scenes.
CicrleConfigs settings(bool radial, bool complex, int scale) {
    CicrleConfigs c{};
    c.useRadialContours = radial, c.useComplexExtract = complex, c.scale = scale, c.skipUndistort = true;
    c.markerName = "digest", c.sigma = radial || complex ? 1.0 : 0.7, c.aperture = complex ? 11 : radial ? 21 : 5;
    c.thresholdC = complex ? -5 : -8, c.minArea = 20, c.maxArea = 1e6, c.maxCircularity = 2, c.maxConvexRatio = 2;
    c.maxEccentricity = 0.9, c.cannyLow = 10, c.cannyHigh = 25, c.minContourSize = 12, c.maxFitError = 2;
    c.maxPointError = 2, c.minRayRatio = 0.6F, c.contrast = 15, c.maxFitResidual = 0.2F, c.minDiameter = 3.8F;
    c.maxDiameter = 200, c.minAxisRatio = 0.3F, c.nmsFactor = 0.95F, c.edgePercentile = 0.8F;
    c.maxRowDifference = 3, c.minDepth = 300, c.maxDepth = 3000, c.markerRadii = {4, 6}, c.sizeTolerance = 0.25;
    c.minRadiusRatio = 0.8F, c.plainRowGate = true, c.deviationFactor = 3;
    c.edgeLengthTolerance = c.edgeAngleTolerance = 0.2;
    return c;
}

using Operation = std::function<void(const DigestScene&, Digest&)>;

/// What a call throws belongs to what it gives.
template <typename Call>
void addCall(Digest& digest, const Call& call) {
    try {
        digest.add(call());
    } catch (const cv::Exception& error) {
        digest.add(error.err);
    } catch (const std::runtime_error& error) {
        digest.add(std::string(error.what()));
    }
}

Operation extraction(CicrleConfigs configs, bool colour = false) {
    return [configs, colour](const DigestScene& scene, Digest& digest) {
        static CircleMarkerExtractor kept;  // its scratch storage comes from whatever came before
        for (const bool fresh : {true, false}) {
            CircleMarkerExtractor own;
            CircleMarkerExtractor& extractor = configs.skipUndistort && !fresh ? kept : own;
            if (!configs.skipUndistort) extractor = scene.calibrated;
            for (const int eye : {0, 1}) {
                cv::Mat image = eye == 0 ? scene.left : scene.right;
                if (colour) cv::cvtColor(image, image, cv::COLOR_GRAY2BGR);
                std::vector<Corner> corners;
                addCall(digest, [&] { return ExtractCircleMarker(image, extractor, corners, eye, configs); });
                digest.addAll(corners), digest.addAll(extractor.markerRects), digest.add(extractor.markerName);
            }
        }
    };
}

Operation stereo(CicrleConfigs configs) {
    return [configs](const DigestScene& scene, Digest& digest) {
        CircleMarkerExtractor extractor = scene.calibrated;
        std::vector<Point3_<double>> points;
        std::vector<cv::RotatedRect> left, right;
        addCall(digest, [&] {
            digest.addAll(getStereoMarker3dPoints(scene.left, scene.right, extractor, points, left, right, configs));
            return true;
        });
        digest.addAll(points), digest.addAll(left), digest.addAll(right);
    };
}

void byCentres(const DigestScene& scene, Digest& digest) {
    CircleMarkerExtractor e = scene.calibrated;
    CicrleConfigs configs = settings(true, false, 1);
    configs.skipUndistort = false;
    std::vector<Corner> left, right;
    std::vector<Point3_<double>> points;
    e.CircleExtractSimple(scene.left, left, 0, configs);
    e.CircleExtractSimple(scene.right, right, 1, configs);
    cv::Mat pose;
    cv::hconcat(e.rotation, e.translation, pose);
    addCall(digest, [&] {
        digest.addAll(
            getStereoMarker3dPoints(left, right, pose, e.leftIntrinsic, e.rightIntrinsic, e.fundamental, points));
        return true;
    });
    digest.addAll(points), digest.addAll(left), digest.addAll(right);
}

/// Calibration members, markers carried into the rectified image, and the displacement of their centres.
void camera(const DigestScene& scene, Digest& digest) {
    CircleMarkerExtractor e = scene.calibrated;
    for (const cv::Mat& member : {e.rotation, e.translation, e.fundamental, e.leftProjection, e.rightProjection,
                                  e.leftRectification, e.rightRectification, e.disparityToDepth, e.leftTriangulation,
                                  e.rightTriangulation, e.leftHomography, e.rightHomography})
        for (const double value : cv::Mat_<double>(member)) digest.add(value);
    for (const bool radial : {true, false}) {
        std::vector<Corner> corners, rectified;
        ExtractCircleMarker(scene.left, e, corners, 0, settings(radial, !radial, 1));
        e.StereoRectifyCorners(corners, rectified, e.leftIntrinsic, e.leftDistortion, e.leftRectification,
                               e.leftProjection, e.leftHomography);
        digest.addAll(rectified);
        for (Corner& corner : corners) {
            cv::Mat none, position = (cv::Mat_<double>(3, 1) << corner.x - 300, corner.y - 200, -900);
            double x = 0, y = 0, norm = 0;
            e.correctedEccentricityAhn(none, position, corner.ellipse, x, y, norm, 1800, 4);
            digest.add(x), digest.add(y), digest.add(norm);
        }
    }
    e.SetTriangulationIntrinsicMatrix(e.leftIntrinsic, e.rightIntrinsic);
    for (const Eigen::MatrixXd& m : {e.triangulationA, e.triangulationB, e.triangulationC, e.triangulationD})
        for (Eigen::Index k = 0; k < m.size(); ++k) digest.add(m.data()[k]);
}

void depth(const DigestScene& scene, Digest& digest) {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;
    extractor.CircleExtractSimple(scene.left, corners, 0, settings(true, false, 1));
    cv::Mat z(scene.left.size(), CV_32F);
    for (int y = 0; y < z.rows; ++y)
        for (int x = 0; x < z.cols; ++x)
            z.at<float>(y, x) =
                (x + y) % 97 == 0 ? 0 : 800 + 0.1F * static_cast<float>(x) + 0.07F * static_cast<float>(y);
    extractor.DetectFeaturePointsAndInterpolate_binocular(corners, z, scene.calibrated.leftIntrinsic);
    digest.addAll(corners);
}

void plainPaths(const DigestScene& scene, Digest& digest) {
    CicrleConfigs configs = settings(false, false, 1);
    configs.enableAreaFilter = true;
    CircleMarkerExtractor extractor;
    std::vector<Corner> fast, hand;
    addCall(digest, [&] { return extractor.extractMarkPointsFast(scene.left, fast, 0, configs); });
    for (const Corner& c : fast) digest.add(c.x), digest.add(c.y), digest.add(c.area), digest.add(c.eccentricity);
    cv::Mat colour;
    cv::cvtColor(scene.left, colour, cv::COLOR_GRAY2BGR);
    addCall(digest, [&] { return extractor.CircleExtractSimpleForHand(colour, hand, 0, configs); });
    digest.addAll(hand);
}

std::vector<std::pair<std::string, Operation>> operations() {
    std::vector<std::pair<std::string, Operation>> list;
    for (const int scale : {1, 2, 3}) {
        for (const char* path : {"subpixel", "radial", "complex"}) {
            const CicrleConfigs configs = settings(path[0] == 'r', path[0] == 'c', scale);
            list.emplace_back(fmt::format("{} scale {}", path, scale), extraction(configs));
        }
    }
    CicrleConfigs again = settings(true, false, 2), noisy = settings(false, true, 1);
    again.refineAtFullSize = true;
    noisy.edgePercentile = 0.6F, noisy.minDiameter = 2, noisy.maxFitResidual = 0.5F;
    list.emplace_back("radial refined", extraction(again));
    list.emplace_back("complex loose", extraction(noisy));
    for (const bool radial : {false, true}) {
        CicrleConfigs lens = settings(radial, false, 1);
        lens.skipUndistort = false;
        list.emplace_back(radial ? "radial undistorted" : "subpixel undistorted", extraction(lens, true));
        list.emplace_back(radial ? "stereo radial" : "stereo constellation", stereo(lens));
    }
    CicrleConfigs lens = settings(false, true, 2);
    lens.skipUndistort = false;
    list.emplace_back("complex undistorted", extraction(lens, true));
    list.emplace_back("stereo complex", stereo(lens));
    list.emplace_back("stereo by centres", byCentres);
    list.emplace_back("fast and hand", plainPaths);
    list.emplace_back("depth", depth);
    list.emplace_back("camera", camera);
    return list;
}

int run(int scenes, bool each) {
    const auto list = operations();
    std::vector<Digest> digests(list.size());
    for (int number = 0; number < scenes; ++number) {
        const DigestScene scene = sceneOf(number);
        for (std::size_t k = 0; k < list.size(); ++k) {
            Digest one;
            list[k].second(scene, one);
            if (each) fmt::print("{:<22} {:>4} {:016x}\n", list[k].first, number, one.value());
            digests[k].add(one.value());
        }
    }
    for (std::size_t k = 0; k < list.size(); ++k)
        fmt::print("{:<22} {:>4} {:016x}\n", list[k].first, "all", digests[k].value());
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace kestrune::bench

int main(int argc, char** argv) {
    int scenes = 60;
    bool each = false;
    for (int k = 1; k < argc; ++k) {
        const std::string argument = argv[k];
        if (argument == "--each") {
            each = true;
        } else if (argument == "--plain") {
            kestrune::takePlainRoad = true;
        } else if (k + 1 < argc && argument == "--scenes") {
            scenes = std::atoi(argv[++k]);
        } else if (k + 1 < argc && argument == "--threads") {
#if defined(_OPENMP)
            omp_set_num_threads(std::max(1, std::atoi(argv[++k])));
            kestrune::leastSharedWork = 0;  // however small a loop is
#endif
        } else {
            fmt::print(stderr, "usage: kestrune_digests [--scenes N] [--threads N] [--plain] [--each]\n");
            return EXIT_FAILURE;
        }
    }
    return kestrune::bench::run(scenes, each);
}

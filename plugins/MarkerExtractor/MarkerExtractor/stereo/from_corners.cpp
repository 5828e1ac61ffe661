// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <opencv2/calib3d.hpp>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/stereo/space_points.h"
#include "kestrune/MarkerExtractor/stereo.h"
#include "kestrune_geometry/pinhole.h"
#include "logging/report_sites.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

using Pairs = std::vector<std::pair<int, int>>;
using Pixels = std::vector<cv::Point2d>;

/// A marker nearer than this to the epipolar line of another may be the same, px, exclusive: room for the error of the
/// centres and of the calibration.
constexpr double kBand = 1.5;
/// Bound of the time to test one marker against one epipolar line, ns.
constexpr std::int64_t kTestTime = 20;

/// What `cv::computeCorrespondEpilines` calls the image that its points are of.
enum WhichImage { kLeftImage = 1, kRightImage = 2 };

/// The markers of one eye, in px.
struct SearchedEye {
    geometry::Pinhole camera;
    Pixels centres;
    std::vector<std::vector<int>> candidates;  ///< of each marker: the markers of the other eye on its epipolar line

    SearchedEye(const std::vector<Corner>& corners, const cv::Mat& cameraMatrix)
        : camera(geometry::Pinhole::of(cameraMatrix)), candidates(corners.size()) {
        centres.reserve(corners.size());
        for (const Corner& corner : corners) centres.emplace_back(corner.x, corner.y);
    }
    int count() const { return static_cast<int>(centres.size()); }
    const cv::Point2d& centre(int marker) const { return centres[static_cast<std::size_t>(marker)]; }
    std::vector<int>& candidatesOf(int marker) { return candidates[static_cast<std::size_t>(marker)]; }
    const std::vector<int>& candidatesOf(int marker) const { return candidates[static_cast<std::size_t>(marker)]; }
};

/// The eye with fewer markers is searched from: fewer epipolar lines.
struct Search {
    SearchedEye a, b;
    WhichImage imageOfA;
    cv::Matx34d relativePose;
};

/// Finds for each marker those of the other eye that lie on its epipolar line. The threads fill A's lists, each its
/// own; B's are filled from these afterwards, so that neither depends on the threads.
void findCandidates(Search& search, const cv::Mat& fundamental) {
    std::vector<cv::Vec3d> lines;
    cv::computeCorrespondEpilines(search.a.centres, search.imageOfA, fundamental, lines);
    forEachInParallel(search.a.count(), kTestTime * search.b.count(), [&](int i) {
        const cv::Vec3d& line = lines[static_cast<std::size_t>(i)];
        for (int j = 0; j < search.b.count(); ++j) {
            const cv::Point2d& p = search.b.centre(j);
            const bool isNear = std::abs(line[0] * p.x + line[1] * p.y + line[2]) < kBand;
            if (isNear) search.a.candidatesOf(i).push_back(j);
        }
    });
    for (int i = 0; i < search.a.count(); ++i) {
        for (const int j : search.a.candidatesOf(i)) search.b.candidatesOf(j).push_back(i);
    }
}

/// Points of pairs of (index in A, index in B) in the left camera frame.
std::vector<cv::Vec3d> triangulate(const Search& search, const Pairs& pairs) {
    Pixels fromA, fromB;
    for (const auto& [i, j] : pairs) {
        fromA.push_back(search.a.camera.normalised(search.a.centre(i)));
        fromB.push_back(search.b.camera.normalised(search.b.centre(j)));
    }
    if (search.imageOfA == kRightImage) fromA.swap(fromB);
    cv::Mat_<double> homogeneous;  // 4 rows, one column a pair
    cv::triangulatePoints(cv::Matx34d::eye(), search.relativePose, fromA, fromB, homogeneous);
    std::vector<cv::Vec3d> points;
    for (int k = 0; k < homogeneous.cols; ++k) {
        const double w = homogeneous(3, k);
        points.emplace_back(homogeneous(0, k) / w, homogeneous(1, k) / w, homogeneous(2, k) / w);
    }
    return points;
}

/// Markers that are each other's one candidate.
Pairs unambiguousPairs(const Search& search) {
    Pairs pairs;
    for (int i = 0; i < search.a.count(); ++i) {
        const std::vector<int>& candidates = search.a.candidatesOf(i);
        if (candidates.size() != 1 || search.b.candidatesOf(candidates[0]).size() != 1) continue;
        pairs.emplace_back(i, candidates[0]);
    }
    return pairs;
}

/// Positions within the candidates of A's marker i of those that put it in front of the left camera.
std::vector<int> positionsInFront(const Search& search, int i) {
    Pairs tried;
    for (const int j : search.a.candidatesOf(i)) tried.emplace_back(i, j);
    std::vector<int> positions;
    int position = 0;
    for (const cv::Vec3d& point : triangulate(search, tried)) {
        if (point[2] > 0) positions.push_back(position);
        ++position;
    }
    return positions;
}

/// How far the distances of a marker of A to the sure markers of its image differ from those of a marker of B in its
/// own, px.
double signatureDifference(const Search& search, int i, int j, const Pairs& sure) {
    double sum = 0;
    for (const auto& [sureA, sureB] : sure) {
        const double difference = cv::norm(search.a.centre(i) - search.a.centre(sureA)) -
                                  cv::norm(search.b.centre(j) - search.b.centre(sureB));
        sum += difference * difference;
    }
    return std::sqrt(sum);
}

/// Position within the candidates of A's marker i that it is settled on, if it is.
std::optional<int> settle(const Search& search, int i, const Pairs& sure) {
    const std::vector<int> inFront = positionsInFront(search, i);
    if (inFront.empty()) return std::nullopt;
    if (inFront.size() == 1) return inFront[0];
    std::vector<double> differences;
    for (const int position : inFront) {
        const int j = search.a.candidatesOf(i)[static_cast<std::size_t>(position)];
        differences.push_back(signatureDifference(search, i, j, sure));
    }
    // This counts among the candidates in front, and is taken as a position among all: behind a candidate that was
    // thrown out, another marker is named than the one chosen. The operation is declared so.
    return static_cast<int>(std::ranges::min_element(differences) - differences.begin());
}

/// Pairs of (index in A, index in B): those taken as sure, then the settled ones, each ascending in A.
Pairs matchMarkers(const Search& search) {
    const Pairs sure = unambiguousPairs(search);
    Pairs pairs = sure;
    for (int i = 0; i < search.a.count(); ++i) {
        const std::vector<int>& candidates = search.a.candidatesOf(i);
        if (candidates.size() < 2) continue;
        const std::optional<int> position = settle(search, i, sure);
        if (position) pairs.emplace_back(i, candidates[static_cast<std::size_t>(*position)]);
    }
    return pairs;
}

}  // namespace

std::vector<std::pair<int, int>> getStereoMarker3dPoints(std::vector<Corner>& leftCorners,
                                                         std::vector<Corner>& rightCorners, const cv::Mat& relativePose,
                                                         const cv::Mat& leftCamera, const cv::Mat& rightCamera,
                                                         const cv::Mat& fundamental,
                                                         std::vector<Point3_<double>>& points) {
    const ParallelCall call;
    if (leftCorners.empty() || rightCorners.empty()) {
        reportWarning(report_sites::kCornerListEmpty);
        return {};
    }
    requireMatrix(relativePose, 3, 4, "relativePose");
    requireMatrix(leftCamera, 3, 3, "leftCamera");
    requireMatrix(rightCamera, 3, 3, "rightCamera");
    requireMatrixOfEitherPrecision(fundamental, 3, 3, "fundamental");

    Search search{{leftCorners, leftCamera}, {rightCorners, rightCamera}, kLeftImage, relativePose};
    if (rightCorners.size() < leftCorners.size()) {
        std::swap(search.a, search.b);
        search.imageOfA = kRightImage;
    }
    findCandidates(search, fundamental);
    Pairs pairs = matchMarkers(search);
    if (pairs.empty()) return pairs;

    const std::vector<cv::Vec3d> inLeft = triangulate(search, pairs);
    points.clear();
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        if (search.imageOfA == kRightImage) std::swap(pairs[k].first, pairs[k].second);
        const cv::Vec3d& p = inLeft[k];
        points.push_back(recordOf(p));
        Corner& left = leftCorners[static_cast<std::size_t>(pairs[k].first)];
        Corner& right = rightCorners[static_cast<std::size_t>(pairs[k].second)];
        left.matched = right.matched = true;
        left.position = eigenOf(p);
        right.position = eigenOf(search.relativePose * cv::Vec4d(p[0], p[1], p[2], 1));
    }
    return pairs;
}

}  // namespace kestrune

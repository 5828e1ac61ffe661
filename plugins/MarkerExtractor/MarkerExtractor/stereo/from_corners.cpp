// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <opencv2/calib3d.hpp>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/stereo/constellation.h"
#include "kestrune/MarkerExtractor/stereo.h"
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

/// The markers of one eye.
struct Eye {
    std::vector<MarkerMatchRecord> records;  ///< centres in pixels, and `matches`
    cv::Mat camera;

    cv::Point2d pixel(int index) const {
        const MarkerMatchRecord& record = records[static_cast<std::size_t>(index)];
        return {record.x, record.y};
    }
    /// Pixels of an ideal camera of unit focal length.
    cv::Point2d normalised(int index) const {
        const cv::Point2d p = pixel(index);
        return {(p.x - camera.at<double>(0, 2)) / camera.at<double>(0, 0),
                (p.y - camera.at<double>(1, 2)) / camera.at<double>(1, 1)};
    }
};

/// The eye with fewer markers is searched from: fewer epipolar lines.
struct Search {
    Eye a, b;
    WhichImage imageOfA;
    cv::Mat relativePose;
};

Eye eyeOf(const std::vector<Corner>& corners, const cv::Mat& camera) {
    Eye eye{{}, camera};
    eye.records.reserve(corners.size());
    for (const Corner& corner : corners) eye.records.push_back({corner.x, corner.y, {}, {}, {}, {}, corner.area});
    return eye;
}

/// Finds for each marker those of the other eye that lie on its epipolar line. The threads fill A's lists, each its
/// own; B's are filled from these afterwards, so that neither depends on the threads.
void findCandidates(Search& search, const cv::Mat& fundamental) {
    const int countA = static_cast<int>(search.a.records.size());
    const int countB = static_cast<int>(search.b.records.size());
    Pixels points;
    for (int i = 0; i < countA; ++i) points.push_back(search.a.pixel(i));
    std::vector<cv::Vec3d> lines;
    cv::computeCorrespondEpilines(points, search.imageOfA, fundamental, lines);
    forEachInParallel(countA, kTestTime * countB, [&](int i) {
        const cv::Vec3d& line = lines[static_cast<std::size_t>(i)];
        for (int j = 0; j < countB; ++j) {
            const cv::Point2d p = search.b.pixel(j);
            const bool near = std::abs(line[0] * p.x + line[1] * p.y + line[2]) < kBand;
            if (near) search.a.records[static_cast<std::size_t>(i)].matches.push_back(j);
        }
    });
    for (int i = 0; i < countA; ++i) {
        for (const int j : search.a.records[static_cast<std::size_t>(i)].matches) {
            search.b.records[static_cast<std::size_t>(j)].matches.push_back(i);
        }
    }
}

/// Homogeneous points of pairs of (index in A, index in B) in the left camera frame: 4 rows, one column a pair.
cv::Mat triangulate(const Search& search, const Pairs& pairs) {
    Pixels fromA;
    Pixels fromB;
    for (const auto& [i, j] : pairs) {
        fromA.push_back(search.a.normalised(i));
        fromB.push_back(search.b.normalised(j));
    }
    if (search.imageOfA == kRightImage) fromA.swap(fromB);
    cv::Mat homogeneous;
    cv::triangulatePoints(cv::Mat::eye(3, 4, CV_64F), search.relativePose, fromA, fromB, homogeneous);
    return homogeneous;
}

/// Markers that are each other's one candidate.
Pairs unambiguousPairs(const Search& search) {
    Pairs pairs;
    for (std::size_t i = 0; i < search.a.records.size(); ++i) {
        const std::vector<int>& matches = search.a.records[i].matches;
        if (matches.size() != 1) continue;
        if (search.b.records[static_cast<std::size_t>(matches[0])].matches.size() == 1) {
            pairs.emplace_back(static_cast<int>(i), matches[0]);
        }
    }
    return pairs;
}

/// Positions within the candidates of A's marker i of those that put it in front of the left camera.
std::vector<int> positionsInFront(const Search& search, int i) {
    const std::vector<int>& matches = search.a.records[static_cast<std::size_t>(i)].matches;
    Pairs tried;
    for (const int j : matches) tried.emplace_back(i, j);
    const cv::Mat points = triangulate(search, tried);
    std::vector<int> kept;
    for (int c = 0; c < points.cols; ++c) {
        if (points.at<double>(2, c) / points.at<double>(3, c) > 0) kept.push_back(c);
    }
    return kept;
}

/// How far the distances of a marker of A to the sure markers of its image differ from those of a marker of B in its
/// own, px.
double signatureDifference(const Search& search, int i, int j, const Pairs& sure) {
    double sum = 0;
    for (const auto& [sureA, sureB] : sure) {
        const double difference =
            cv::norm(search.a.pixel(i) - search.a.pixel(sureA)) - cv::norm(search.b.pixel(j) - search.b.pixel(sureB));
        sum += difference * difference;
    }
    return std::sqrt(sum);
}

/// Position within the candidates of A's marker i that it is settled on, if it is.
std::optional<int> settle(const Search& search, int i, const Pairs& sure) {
    const std::vector<int>& matches = search.a.records[static_cast<std::size_t>(i)].matches;
    const std::vector<int> kept = positionsInFront(search, i);
    if (kept.empty()) return std::nullopt;
    if (kept.size() == 1) return kept[0];
    const auto differenceOf = [&](int position) {
        return signatureDifference(search, i, matches[static_cast<std::size_t>(position)], sure);
    };
    int best = 0;
    double least = differenceOf(kept[0]);
    for (int t = 1; t < static_cast<int>(kept.size()); ++t) {
        const double difference = differenceOf(kept[static_cast<std::size_t>(t)]);
        if (!(difference < least)) continue;
        best = t;
        least = difference;
    }
    // Deliberately the position among the kept candidates, taken as one among all: where a candidate behind the camera
    // stood before the chosen one, the pair names another candidate than the one chosen. Stored pairings depend on it.
    return best;
}

/// Pairs of (index in A, index in B): those taken as sure, then the settled ones, each ascending in A.
Pairs matchMarkers(const Search& search) {
    const Pairs sure = unambiguousPairs(search);
    Pairs pairs = sure;
    for (int i = 0; i < static_cast<int>(search.a.records.size()); ++i) {
        const std::vector<int>& matches = search.a.records[static_cast<std::size_t>(i)].matches;
        if (matches.size() < 2) continue;
        const std::optional<int> position = settle(search, i, sure);
        if (position) pairs.emplace_back(i, matches[static_cast<std::size_t>(*position)]);
    }
    return pairs;
}

}  // namespace

std::vector<std::pair<int, int>> getStereoMarker3dPoints(std::vector<Corner>& leftCorners,
                                                         std::vector<Corner>& rightCorners, const cv::Mat& relativePose,
                                                         const cv::Mat& leftCamera, const cv::Mat& rightCamera,
                                                         const cv::Mat& fundamental,
                                                         std::vector<Point3_<double>>& points) {
    if (leftCorners.empty() || rightCorners.empty()) {
        reportWarning(report_sites::kCornerListEmpty);
        return {};
    }
    requireMatrix(relativePose, 3, 4, "relativePose");
    requireMatrix(leftCamera, 3, 3, "leftCamera");
    requireMatrix(rightCamera, 3, 3, "rightCamera");
    requireMatrixOfEitherPrecision(fundamental, 3, 3, "fundamental");

    Search search{eyeOf(leftCorners, leftCamera), eyeOf(rightCorners, rightCamera), kLeftImage, relativePose};
    if (rightCorners.size() < leftCorners.size()) {
        std::swap(search.a, search.b);
        search.imageOfA = kRightImage;
    }
    findCandidates(search, fundamental);
    Pairs pairs = matchMarkers(search);
    if (pairs.empty()) return pairs;

    const cv::Mat homogeneous = triangulate(search, pairs);
    const cv::Matx34d toRight(relativePose);
    points.resize(pairs.size());
    for (std::size_t m = 0; m < pairs.size(); ++m) {
        if (search.imageOfA == kRightImage) std::swap(pairs[m].first, pairs[m].second);
        const int column = static_cast<int>(m);
        const double w = homogeneous.at<double>(3, column);
        const cv::Vec3d p(homogeneous.at<double>(0, column) / w, homogeneous.at<double>(1, column) / w,
                          homogeneous.at<double>(2, column) / w);
        const cv::Vec3d q = toRight * cv::Vec4d(p[0], p[1], p[2], 1);
        points[m] = {p[0], p[1], p[2]};
        Corner& left = leftCorners[static_cast<std::size_t>(pairs[m].first)];
        Corner& right = rightCorners[static_cast<std::size_t>(pairs[m].second)];
        left.matched = right.matched = true;
        left.position = {p[0], p[1], p[2]};
        right.position = {q[0], q[1], q[2]};
    }
    return pairs;
}

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
//
// Corner lists and a rig of any kind to pairs and points, by each matcher.
#include "MarkerExtractor/stereo/conic_match.h"
#include "fuzz_input.h"

namespace kestrune::fuzz {
namespace {

using Pairs = std::vector<std::pair<int, int>>;
using Points = std::vector<Point3_<double>>;

void checkPairs(const Pairs& pairs, std::size_t left, std::size_t right, std::size_t points) {
    require(pairs.size() == points, "a point for each pair");
    for (const auto& [i, j] : pairs) {
        require(i >= 0 && j >= 0 && static_cast<std::size_t>(i) < left && static_cast<std::size_t>(j) < right,
                "pairs are places in the lists");
    }
}

void checkFundamental(Input& input, std::vector<Corner> left, std::vector<Corner> right) {
    Points points;
    Pairs pairs;
    const cv::Mat pose = input.matrix(3, 4, -2, 2), leftCamera = input.camera(), rightCamera = input.camera();
    const cv::Mat fundamental = input.matrix(3, 3, -1, 1);
    if (survives(
            [&] { pairs = getStereoMarker3dPoints(left, right, pose, leftCamera, rightCamera, fundamental, points); }))
        checkPairs(pairs, left.size(), right.size(), points.size());
}

void checkRectified(Input& input, std::vector<Corner> left, std::vector<Corner> right) {
    const CicrleConfigs c = input.configs();
    Points points;
    Pairs pairs;
    cv::Mat rotation = input.matrix(3, 3, -1, 1), leftProjection = input.matrix(3, 4, -500, 500),
            rightProjection = input.matrix(3, 4, -500, 500);
    if (survives([&] {
            pairs = getStereoRectifiedMarker3dPoints(
                left, right, c.markerRadii, points, rotation, leftProjection, rightProjection, c.maxRowDifference,
                c.minDepth, c.maxDepth, c.radiusScoreGate, c.looseSizeGate, c.sizeTolerance, c.deviationFactor,
                c.plainRowGate, c.edgeLengthTolerance, c.edgeAngleTolerance);
        }))
        checkPairs(pairs, left.size(), right.size(), points.size());
}

void checkConics(Input& input, std::vector<Corner> left, std::vector<Corner> right) {
    const CicrleConfigs configs = input.configs();
    CircleMarkerExtractor e;
    e.leftIntrinsic = input.camera(), e.rightIntrinsic = input.camera();
    e.leftRectification = input.matrix(3, 3, -1, 1), e.rightRectification = input.matrix(3, 3, -1, 1);
    e.leftProjection = input.matrix(3, 4, -500, 500), e.rightProjection = input.matrix(3, 4, -500, 500);
    e.leftTriangulation = input.matrix(3, 4, -2, 2), e.rightTriangulation = input.matrix(3, 4, -2, 2);
    e.fundamental = input.matrix(3, 3, -1, 1), e.disparityToDepth = input.matrix(4, 4, -500, 500);
    Pairs pairs;
    Points points, normals;
    std::vector<double> radii;
    if (!survives([&] { matchConicCorners(left, right, pairs, points, normals, radii, e, configs); })) return;
    checkPairs(pairs, left.size(), right.size(), points.size());
    require(normals.size() == points.size() && radii.size() == points.size(), "a disc for each point");
}

void checkOne(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int matcher = input.whole(0, 2);
    const std::vector<Corner> left = input.corners(12), right = input.corners(12);
    if (matcher == 0) checkFundamental(input, left, right);
    if (matcher == 1) checkRectified(input, left, right);
    if (matcher == 2) checkConics(input, left, right);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::checkOne(data, size);
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
//
// Calibration, exact and spoiled, taken in and used on markers that were found.
#include <algorithm>
#include <opencv2/calib3d.hpp>

#include "fuzz_input.h"
#include "promises.h"

namespace kestrune::fuzz {
namespace {

constexpr int kWidest = 4000;  ///< px: for more, the maps of an intake may find no memory, which is no finding

Record recordOf(const CircleMarkerExtractor& e) {
    Record record;
    record.members(e);
    return record;
}

Record recordOf(const std::vector<Corner>& corners, const Outcome& outcome) {
    Record record;
    record.corners("corners", corners);
    record.outcome(outcome);
    return record;
}

/// A call that changes calibration members alone: all of them or, if it is refused, none; and no copy's.
template <typename Call>
void checkIntake(const CircleMarkerExtractor& base, const Call& call) {
    const CircleMarkerExtractor copy = base;
    const Record before = recordOf(copy);
    requireSameUnderAll(base, [&](const Circumstances&, CircleMarkerExtractor& e) {
        const Record membersBefore = recordOf(e);
        const Outcome outcome = outcomeOf([&] { call(e); });
        if (outcome.refused()) requireSame(membersBefore, recordOf(e), "a refused call changes no member");
        require(outcome.end != End::kNoEigen, "exceptions are those that are told");
        Record ending;
        ending.outcome(outcome);
        return recordOf(e) + ending;
    });
    requireSame(before, recordOf(copy), "an intake leaves copies of the object alone");
}

void checkHostCalibration(Input& input, const RenderedExposure& from) {
    auto poses = from.poses;
    auto cameras = from.cameras;
    for (int k = input.whole(0, 3); k > 0; --k) input.oneOf(input.oneOf(poses).values) += input.real(-1, 1);
    for (int k = input.whole(0, 3); k > 0; --k) input.oneOf(input.oneOf(cameras).values) += input.real(-1, 1);
    if (input.isOdd()) poses.resize(static_cast<std::size_t>(input.whole(0, 3)));
    if (input.isOdd()) cameras.resize(static_cast<std::size_t>(input.whole(0, 3)));
    const int width = input.isOdd() ? std::min(input.integer(-2, 300), kWidest) : from.extractor.imageWidth;
    const int height = input.isOdd() ? input.whole(-2, 300) : from.extractor.imageHeight;
    const int flags = input.isOdd() ? input.integer(0, 2000) : cv::CALIB_ZERO_DISPARITY;
    CircleMarkerExtractor base;
    base.imageWidth = base.imageHeight = 0;
    checkIntake(input.flag() ? from.extractor : base, [&](CircleMarkerExtractor& e) {
        e.transform_kestruneData2cvMat(poses, cameras, width, height, flags);
    });
}

void checkMatrices(Input& input, const RenderedExposure& from) {
    const CircleMarkerExtractor& e = from.extractor;
    std::vector<cv::Mat> matrices{e.leftProjection, e.rightProjection, e.leftRectification, e.rightRectification};
    for (int k = input.whole(0, 2); k > 0; --k) {
        cv::Mat& matrix = input.oneOf(matrices);
        matrix = input.spoiled(matrix);
    }
    if (input.isOdd()) matrices.resize(static_cast<std::size_t>(input.whole(0, 5)));
    checkIntake(e, [&](CircleMarkerExtractor& changed) { changed.SetStereorectifyParam(matrices); });

    std::vector<cv::Mat> cameras{e.leftIntrinsic, e.rightIntrinsic, e.rotation, e.translation};
    for (int k = input.whole(0, 2); k > 0; --k) {
        cv::Mat& matrix = input.oneOf(cameras);
        matrix = input.spoiled(matrix);
    }
    if (input.isOdd() && !cameras[3].empty()) cameras[3] = cameras[3].t();
    checkIntake(
        e, [&](CircleMarkerExtractor& changed) { changed.SetTriangulationIntrinsicMatrix(cameras[0], cameras[1]); });
    checkIntake(e, [&](CircleMarkerExtractor& changed) {
        changed.CalcFoundationMat(cameras[2], cameras[3], cameras[0], cameras[1], changed.fundamental);
    });
}

/// A call on a list of corners that touches no member: it changes the list or, if it is refused, nothing.
template <typename Call>
void checkOnCorners(const CircleMarkerExtractor& base, const std::vector<Corner>& list, const Call& call) {
    requireSameUnderAll(base, [&](const Circumstances& circumstances, CircleMarkerExtractor& e) {
        const Record members = recordOf(e), before = recordOf(list, {});
        std::vector<Corner> corners = list;
        const Outcome outcome = outcomeOf([&] { call(circumstances, e, corners); });
        if (outcome.refused()) requireSame(before, recordOf(corners, {}), "a refused call changes no corner");
        requireSame(members, recordOf(e), "members are only read");
        require(outcome.end == End::kAnswered || outcome.end == End::kRefused || outcome.end == End::kOpenCv,
                "exceptions are those that are told");
        return recordOf(corners, outcome);
    });
}

void checkLens(Input& input, const RenderedExposure& from) {
    const CircleMarkerExtractor& base = from.extractor;
    const std::vector<Corner> list = input.spoiled(from.found[static_cast<std::size_t>(input.whole(0, kRims))].left, 4);
    const cv::Mat camera = input.isOdd() ? input.spoiled(base.leftIntrinsic) : base.leftIntrinsic;
    const cv::Mat lens = input.flag() ? input.distortion() : base.leftDistortion;
    const cv::Mat turn = input.isOdd() ? input.spoiled(base.leftRectification) : base.leftRectification;
    const cv::Mat projection = input.isOdd() ? input.spoiled(base.leftProjection) : base.leftProjection;
    const cv::Mat homography = input.isOdd() ? input.spoiled(base.leftHomography) : base.leftHomography;
    checkOnCorners(base, list, [&](const Circumstances&, CircleMarkerExtractor& e, std::vector<Corner>& corners) {
        e.UndistortCorners(corners, camera, lens);
    });
    std::vector<Corner> rectified;
    checkOnCorners(base, list, [&](const Circumstances&, CircleMarkerExtractor& e, std::vector<Corner>& corners) {
        rectified.clear();
        e.StereoRectifyCorners(list, rectified, camera, lens, turn, projection, homography);
        e.StereoRectifyCorners(corners, corners, camera, lens, turn, projection, homography);
        requireSame(recordOf(rectified, {}), recordOf(corners, {}), "a list will do as its own result");
    });
}

void checkDepth(Input& input, const RenderedExposure& from) {
    const std::vector<Corner> list = input.spoiled(from.found[kRadial].left, 4);
    cv::Mat depth(from.image[0].size(), CV_32FC1, cv::Scalar(input.real(0, 1000)));
    for (int k = input.whole(0, 3); k > 0; --k)
        depth.at<float>(input.whole(0, depth.rows - 1), input.whole(0, depth.cols - 1)) = input.single(-1, 1000);
    if (input.isOdd()) depth = input.spoiled(from.image[0], 2);
    if (input.isOdd()) depth = input.spoiled(depth);
    const cv::Mat camera = input.isOdd() ? input.spoiled(from.extractor.leftIntrinsic) : from.extractor.leftIntrinsic;
    checkOnCorners(from.extractor, list,
                   [&](const Circumstances& circumstances, CircleMarkerExtractor& e, std::vector<Corner>& corners) {
                       cv::Mat image = circumstances.imageOf(depth);
                       e.DetectFeaturePointsAndInterpolate_binocular(corners, image, camera);
                       for (std::size_t k = 0; k < corners.size(); ++k)
                           require(list.empty() || (corners[k].id == static_cast<int>(k) && corners[k].matched),
                                   "ids count the list");
                   });
}

void checkEccentricity(Input& input, const RenderedExposure& from) {
    cv::RotatedRect ellipse({input.single(-200, 300), input.single(-50, 200)},
                            {input.single(0, 40), input.single(0, 40)}, input.single(0, 180));
    cv::Mat position = (cv::Mat_<double>(3, 1) << input.real(-100, 100), input.real(-100, 100), input.real(-1000, 10));
    if (input.flag()) position = position.t();
    if (input.isOdd()) position = input.spoiled(position);
    const cv::Mat image = input.spoiled(from.image[0], input.isOdd() ? 3 : 0);
    const double distance = input.real(0, 1000), radius = input.real(0, 10);
    const bool isShort = input.flag();
    requireSameUnderAll(from.extractor, [&](const Circumstances& circumstances, CircleMarkerExtractor& e) {
        cv::Mat pixels = circumstances.imageOf(image);
        double x = 1, y = 2, norm = 3;
        const Outcome outcome = outcomeOf([&] {
            if (isShort) {
                e.correctedEccentricityAhn(pixels, position, ellipse, x, y, norm);
            } else {
                e.correctedEccentricityAhn(pixels, position, ellipse, x, y, norm, distance, radius);
            }
        });
        require(!outcome.refused() || (x == 1 && y == 2 && norm == 3), "a refused call changes nothing");
        Record result;
        result.matrix("image", pixels);
        result.numbers("eccentricity", x, y, norm);
        result.outcome(outcome);
        return result;
    });
}

void checkOne(Input& input) {
    const int what = input.whole(0, 4);
    const RenderedExposure& from = exposure(input.whole(0, kExposureCount - 1));
    if (what == 0) checkLens(input, from);
    if (what == 1) checkHostCalibration(input, from);
    if (what == 2) checkMatrices(input, from);
    if (what == 3) checkDepth(input, from);
    if (what == 4) checkEccentricity(input, from);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}

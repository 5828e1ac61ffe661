// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/index.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/rigs.h"

namespace kestrune::test::from_images {

/// One rendered exposure of discs on a curved object.
const scene::Exposure& exposed() {
    static const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    static const scene::Exposure exposure = scene::render(rig, scene::makeCurvedObject(rig, 24, 4, 6, 190, 11), {}, {});
    return exposure;
}

enum Path { kRows, kRadial, kRims };

CicrleConfigs configsOf(Path path) {
    CicrleConfigs c = path == kRims ? rimConfigs() : discConfigs(path == kRadial);
    c.skipUndistort = false, c.sigma = path == kRows ? 0.7 : 1.0, c.maxFitError = c.maxPointError = 2;
    c.maxRowDifference = 3, c.minDepth = 300, c.maxDepth = 3000, c.markerRadii = {4, 6};
    c.sizeTolerance = 0.25, c.minRadiusRatio = 0.8f, c.plainRowGate = true, c.deviationFactor = 3;
    c.edgeLengthTolerance = c.edgeAngleTolerance = 0.2;
    return c;
}

struct Outcome {
    std::vector<std::pair<Corner, Corner>> pairs;
    std::vector<Point3_<double>> points{{1, 2, 3}};
    std::vector<cv::RotatedRect> left{3}, right{3};

    /// The warnings of the call.
    std::string run(const cv::Mat& leftImage, const cv::Mat& rightImage, CircleMarkerExtractor& e, const CicrleConfigs& configs) {
        return warningsOf([&] { pairs = getStereoMarker3dPoints(leftImage, rightImage, e, points, left, right, configs); });
    }
};

TEST(StereoFromImages, MeasuresTheDiscsOnEveryPathInAllFrames) {
    // A nearly parallel rig, photographed through its rectified cameras. Its short baseline sees depth badly.
    scene::Rig parallel = exposed().rig;
    cv::Rodrigues(cv::Vec3d(0.004, -0.02, 0.003), parallel.right.rotation);
    parallel.right.translation = -(parallel.right.rotation * cv::Vec3d(30, 1, 2));
    const scene::Rig rectifiedCameras = rectifiedRig(calibrated(parallel), parallel);
    const scene::Exposure rectified = scene::render(rectifiedCameras, scene::makeCurvedObject(parallel, 16, 4, 6, 190, 3), {}, {});
    std::vector<Eigen::Vector3d> normals[12];
    for (int run = 0; run < 12; ++run) {
        const Path path = std::array{kRows, kRadial, kRims}[asIndex(run / 4)];
        const bool cornersRectified = run & 1, outputRectified = run & 2;
        const scene::Exposure& exposure = cornersRectified ? rectified : exposed();
        CircleMarkerExtractor extractor = calibrated(cornersRectified ? parallel : exposed().rig);
        const cv::Matx33d turn(extractor.leftRectification), none = cv::Matx33d::eye(), ofCorners = cornersRectified ? turn : none;
        const cv::Matx33d toOutput = outputRectified == cornersRectified ? none : outputRectified ? turn : turn.t();
        CicrleConfigs c = configsOf(path);
        c.skipUndistort = c.cornersRectified = cornersRectified, c.outputRectified = outputRectified;
        cv::Mat images[2] = {exposure.image[0].clone(), exposure.image[1].clone()};
        if (path == kRims) images[0] = 255 - images[0], images[1] = 255 - images[1];  // dark discs
        Outcome o;
        EXPECT_EQ(o.run(images[0], images[1], extractor, c), "");
        // By their rows, markers whose parallax stands out are dropped.
        const std::size_t least = cornersRectified ? 10 : path == kRims ? 24 : 22;
        EXPECT_GE(o.pairs.size(), least) << run;
        EXPECT_TRUE(cornersRectified || (o.left.size() == 24 && o.right.size() == 24));
        ASSERT_EQ(o.points.size(), o.pairs.size());
        std::ptrdiff_t lastLeft = -1;
        for (std::size_t k = 0; k < o.pairs.size(); ++k) {
            const auto& [l, r] = o.pairs[k];
            EXPECT_TRUE(asIndex(l.id) == k && r.id == l.id && l.matched && r.matched && l.position == r.position) << run;
            const cv::Vec3d position(l.position.data());
            EXPECT_LT(cv::norm(cv::Vec3d(&o.points[k].x) - toOutput * position), 1e-9) << "the corners' positions stay in the corners' frame";
            const auto error = [&](const scene::MarkerTruth& m) { return cv::norm(ofCorners * m.disc.centre - position); };
            const auto isNearer = [&](const scene::MarkerTruth& a, const scene::MarkerTruth& b) { return error(a) < error(b); };
            const scene::MarkerTruth& marker = *std::min_element(exposure.markers.begin(), exposure.markers.end(), isNearer);
            EXPECT_LT(error(marker), (cornersRectified ? 4 : std::array{1.0, 0.3, 0.05}[path])) << run << " " << k;
            normals[run].push_back(l.normal);
            if (!cornersRectified && path != kRows) {
                EXPECT_NEAR(l.markerRadius, marker.disc.radius, path == kRims ? 0.1 : 0.4);
                EXPECT_GT(cv::Vec3d(l.normal.data()).dot(marker.disc.normal), path == kRims ? 0.99 : 0.97);
            }
            const auto isHere = [&l = l](const cv::RotatedRect& rect) { return std::hypot(rect.center.x - l.x, rect.center.y - l.y) < 2; };
            const std::ptrdiff_t left = std::find_if(o.left.begin(), o.left.end(), isHere) - o.left.begin();
            EXPECT_GT(left, lastLeft) << "ascending left";
            lastLeft = left;
        }
        EXPECT_EQ(normals[run], normals[outputRectified ? run - 2 : run]) << "and so do their normals";
    }
}

TEST(StereoFromImages, SaysWhatFailed) {
    const cv::Mat empty, blank(1024, 1280, CV_8UC1, cv::Scalar(40)), &left = exposed().image[0], &right = exposed().image[1];
    const std::string site = "MarkerExtractor.cpp:", eyes = "Please check the left eye camera or right eye camera, ";
    const std::string noLeft = site + "2411   CircleMarkerExtractor: Please check the left eye camera, failed to extract Marker Points.\n";
    const std::string noRight = site + "2418   CircleMarkerExtractor: Please check the right eye camera, failed to extract Marker Points.\n";
    const std::string none = site + "4525   StereoMarkerMatcher: " + eyes + "there are not any Marker Points in one of the frames.\n";
    const std::string noMatch = site + "4520   StereoMarkerMatcher: " + eyes + "failed to match Marker Points.\n";
    const std::string noRadius = site + "3184   Wrong Parameter: Please check the radius of circular marker.\n";
    // Images, branch, least depth, radii; the warnings, the points that are left, and whether the rectangles are.
    const std::tuple<cv::Mat, cv::Mat, Path, double, std::vector<double>, std::string, std::size_t, bool> cases[] = {
        {empty, right, kRadial, 300, {4, 6}, "", 1, true},
        {left, empty, kRows, 300, {4, 6}, "", 1, true},
        {blank, right, kRadial, 300, {4, 6}, noLeft + none, 1, false},
        {left, blank, kRows, 300, {4, 6}, noRight + none, 1, false},
        {blank, blank, kRadial, 300, {4, 6}, noLeft + noRight + none, 1, false},
        {left, right, kRadial, 2900, {4, 6}, "", 0, false},
        {left, right, kRows, 2900, {4, 6}, noMatch, 0, false},
        {left, right, kRows, 300, {0, -1}, noRadius + noMatch, 0, false}};
    using E = CircleMarkerExtractor;
    const std::array members = {&E::leftIntrinsic,     &E::rightIntrinsic,     &E::leftProjection, &E::rightProjection,
                                &E::leftRectification, &E::rightRectification, &E::leftHomography, &E::rightHomography};
    const E whole = calibrated(exposed().rig);
    E e = whole;
    for (const auto& [leftImage, rightImage, path, minDepth, markerRadii, warnings, points, rectsKept] : cases) {
        CicrleConfigs c = configsOf(path);
        c.minDepth = minDepth, c.markerRadii = markerRadii;
        Outcome o;
        EXPECT_EQ(o.run(leftImage, rightImage, e, c), warnings);
        EXPECT_TRUE(o.pairs.empty() && o.points.size() == points) << warnings;
        EXPECT_EQ(o.left.size() == 3 && o.right.size() == 3, rectsKept) << warnings;
    }
    e = whole;
    for (const auto member : members) (e.*member).convertTo(e.*member, CV_32F);
    Outcome single;
    EXPECT_EQ(single.run(left, right, e, configsOf(kRows)), "");
    EXPECT_GE(single.pairs.size(), 22U);
}

TEST(StereoFromImages, GivesTheRectanglesOfBothEyesAlsoToTheExtractorsOwnList) {
    CircleMarkerExtractor e = calibrated(exposed().rig);
    Outcome apart, own;
    for (const bool leftIsOwn : {true, false}) {
        apart.run(exposed().image[0], exposed().image[1], e, configsOf(kRims));
        auto &left = leftIsOwn ? e.markerRects : own.left, &right = leftIsOwn ? own.left : e.markerRects;
        getStereoMarker3dPoints(exposed().image[0], exposed().image[1], e, own.points, left, right, configsOf(kRims));
        EXPECT_TRUE(std::ranges::equal(left, apart.left, same) && std::ranges::equal(right, apart.right, same)) << leftIsOwn;
    }
}

TEST(StereoFromImages, ARefusedCallChangesNoMemberAndNoResult) {
    using E = CircleMarkerExtractor;
    const cv::Mat wide(1024, 1280, CV_16UC1, cv::Scalar(9)), tiny(2, 2, CV_8UC1, cv::Scalar(9)), &right = exposed().image[1];
    const cv::Mat pairs(1, 5, CV_64FC2, cv::Scalar::all(0));
    const std::tuple<const char*, Path, cv::Mat E::*, cv::Mat, cv::Mat> cases[] = {
        {"image", kRows, nullptr, {}, wide},
        {"scale", kRims, nullptr, {}, tiny},
        {"rightDistortion", kRims, &E::rightDistortion, pairs, right},
        {"rightDistortion", kRadial, &E::rightDistortion, hollow(1, 5), right},
        {"leftDistortion", kRows, &E::leftDistortion, pairs, right}};
    for (const auto& [name, path, member, value, image] : cases) {
        E e = calibrated(exposed().rig);
        if (member != nullptr) e.*member = value;
        e.markerRects.resize(2), e.markerName = "before";
        CicrleConfigs c = configsOf(path);
        c.scale = 3;
        Outcome o;
        EXPECT_EQ(refused([&, &r = image] { o.run(exposed().image[0], r, e, c); }), name);
        testing::internal::GetCapturedStdout();
        EXPECT_TRUE(e.markerRects.size() == 2 && e.markerName == "before" && e.rayDirections.empty()) << name;
        EXPECT_TRUE(o.points.size() == 1 && o.left.size() == 3 && o.right.size() == 3) << name;
    }
}

}  // namespace kestrune::test::from_images

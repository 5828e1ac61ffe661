// SPDX-License-Identifier: Apache-2.0
#include "scenes.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include "draws.h"
#include "eyes.h"

namespace kestrune::bench {
namespace {

constexpr double kDepthMargin = 0.05;  ///< of the range that is told, in distances, to both sides

std::array<double, 2> depthOf(const std::vector<scene::Disc>& discs, double distance) {
    std::array<double, 2> depth{std::numeric_limits<double>::max(), 0};
    for (const scene::Disc& disc : discs) {
        depth[0] = std::min(depth[0], disc.centre[2] - kDepthMargin * distance);
        depth[1] = std::max(depth[1], disc.centre[2] + kDepthMargin * distance);
    }
    return depth;
}

double rmsDistance(const MatchingScene& scene, const RigMatrices& told) {
    double squares = 0;
    int count = 0;
    for (const int k : scene.identity[0]) {
        if (k < 0 || std::find(scene.identity[1].begin(), scene.identity[1].end(), k) == scene.identity[1].end())
            continue;
        const cv::Vec3d& centre = scene.discs[static_cast<std::size_t>(k)].centre;
        squares += std::pow(epipolarDistance(told, scene::projectPoint(scene.truth.left, centre),
                                             scene::projectPoint(scene.truth.right, centre)),
                            2);
        ++count;
    }
    return count > 0 ? std::sqrt(squares / count) : 0;
}

}  // namespace

int MatchingScene::markerOf(std::size_t eye, int detection) const {
    const int number = identity[eye][static_cast<std::size_t>(detection)];
    return number < -1 ? -2 - number : number;
}

int MatchingScene::common() const {
    const std::set<int> right(identity[1].begin(), identity[1].end());
    return static_cast<int>(
        std::count_if(identity[0].begin(), identity[0].end(), [&](int k) { return k >= 0 && right.count(k) > 0; }));
}

MatchingScene sceneOf(const Stage& stage, std::array<Sight, 2> sights, std::uint64_t seed) {
    MatchingScene scene;
    scene.layout = nameOf(stage.kind.layout);
    scene.kind = stage.kind;
    scene.truth = stage.truth.cameras;
    scene.discs = stage.object.discs;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        for (int& number : sights[eye].identity)
            if (number != -1) number += number >= 0 ? stage.firstNumber[eye] : -stage.firstNumber[eye];
        scene.markers[eye] = std::move(sights[eye].markers);
        scene.identity[eye] = std::move(sights[eye].identity);
    }
    scene.rig = toldRig(stage, seed);
    scene.radii = stage.object.radii;
    scene.depth = depthOf(stage.object.discs, cv::norm(stage.told.target));
    scene.moved = rmsDistance(scene, scene.rig);
    if (stage.kind.trouble == Trouble::exchanged) {
        std::swap(scene.markers[0], scene.markers[1]);
        std::swap(scene.identity[0], scene.identity[1]);
    }
    return scene;
}

MatchingScene makeScene(const SceneKind& kind, std::uint64_t seed) {
    const Stage stage = makeStage(kind, seed);
    std::array<Sight, 2> sights;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        Draws draws(seed, eye == 0 ? kLeft : kRight);
        const scene::PinholeCamera& camera = eye == 0 ? stage.truth.cameras.left : stage.truth.cameras.right;
        sights[eye] = look(stage.kind, camera, stage.shown[eye], stage.seen[eye], draws);
    }
    return sceneOf(stage, std::move(sights), seed);
}

std::uint64_t sceneSeed(std::uint64_t series, int number) {
    return series * 1000003U + static_cast<std::uint64_t>(number);
}

MatchingScene makeScene(Trouble trouble, std::uint64_t series, int number) {
    const std::uint64_t seed = sceneSeed(series, number);
    return makeScene(drawKind(seed, trouble), seed);
}

}  // namespace kestrune::bench

// SPDX-License-Identifier: Apache-2.0
#include "photographs.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "draws.h"
#include "photograph_settings.h"
#include "refined_pairs.h"

namespace kestrune::bench {
namespace {

constexpr std::array<std::array<int, 2>, 5> kImages{
    {{1624, 1240}, {1920, 1200}, {2048, 1536}, {2448, 2048}, {2448, 2048}}};

// What is no marker.
constexpr int kMostClutter = 60;                     ///< lines, specks and corners in each eye
constexpr int kMostCovers = 3;                       ///< things in front of the object in each eye
constexpr double kCoverDepth = 0.8;                  ///< where they are, in distances
constexpr double kLeastCover = 15, kMostCover = 80;  ///< radius, px
constexpr int kFalseTries = 50;

// Markers of which something hides a part, in one eye or differently in both.
constexpr double kHiddenShare = 0.5;                 ///< of the exposures that have some
constexpr double kMostHalfHidden = 0.1;              ///< of the markers
constexpr double kLeastPart = 0.6, kMostPart = 1.6;  ///< distance of what hides it, in radii of the marker

/// A detection that is farther from the true centre than this is no measurement of the marker, px.
constexpr double kFarthest = 1.5;

void setLens(scene::PinholeCamera& camera, Draws& draws) {
    camera.distortion = {draws.uniform(-0.12, 0.08), draws.uniform(-0.03, 0.03), draws.normal(3e-4), draws.normal(3e-4),
                         0};
}

/// A disc whose image is about here.
scene::Disc discAt(const scene::PinholeCamera& camera, const cv::Point2d& pixel, double depth, double radius,
                   double tilt, Draws& draws) {
    const cv::Matx33d& k = camera.intrinsic;
    const cv::Vec3d ray((pixel.x - k(0, 2)) / k(0, 0), (pixel.y - k(1, 2)) / k(1, 1), 1);
    const cv::Vec3d inCamera = ray * depth, view = cv::normalize(ray);
    const cv::Vec3d aside = cv::normalize(view.cross(draws.direction()));
    const cv::Vec3d normal = -(view * std::cos(tilt) + aside * std::sin(tilt));
    const cv::Matx33d back = camera.rotation.t();
    return {back * (inCamera - camera.translation), back * normal, radius * depth / k(0, 0), 0};
}

double distanceTo(const scene::PinholeCamera& camera, const scene::Disc& disc) {
    return (camera.rotation * disc.centre + camera.translation)[2];
}

/// What is drawn for an eye, and which marker each is; -1 for none.
struct Drawing {
    std::vector<scene::Disc> discs;
    std::vector<int> identity;

    void addNone(const scene::Disc& disc) {
        discs.push_back(disc);
        identity.push_back(-1);
    }
};

void addFalse(Drawing& drawing, const scene::PinholeCamera& camera, const Stage& stage, Draws& draws) {
    const std::size_t markers = drawing.discs.size();
    if (markers == 0) return;
    const auto count = static_cast<int>(stage.kind.falseShare * static_cast<double>(markers));
    const double depth = cv::norm(stage.told.target);
    for (int k = 0; k < count; ++k)
        for (int tries = kFalseTries; tries > 0; --tries) {
            const cv::Point2d pixel(draws.uniform(40, camera.size.width - 40),
                                    draws.uniform(40, camera.size.height - 40));
            const bool alike = draws.chance(0.5);
            const auto& model = drawing.discs[static_cast<std::size_t>(draws.whole(0, static_cast<int>(markers) - 1))];
            const double radius = alike ? model.radius * camera.intrinsic(0, 0) / depth : draws.logUniform(4, 25);
            const scene::Disc disc = discAt(camera, pixel, depth, radius, draws.uniform(0, 0.8), draws);
            const auto touches = [&](const scene::Disc& other) {
                const cv::Point2d p = scene::projectDisc(camera, other).centre;
                return std::hypot(p.x - pixel.x, p.y - pixel.y) <
                       1.3 * radius + 1.3 * other.radius * camera.intrinsic(0, 0) / distanceTo(camera, other) + 4;
            };
            if (std::any_of(drawing.discs.begin(), drawing.discs.end(), touches)) continue;
            drawing.addNone(disc);
            break;
        }
}

/// Hides a part of these markers, by what has the ground's colour or any.
void hideParts(Drawing& drawing, std::size_t markers, double share, const scene::PinholeCamera& camera,
               const Exposition& light, std::size_t eye, Draws& draws) {
    for (std::size_t k = 0; k < markers; ++k) {
        if (!draws.chance(share)) continue;
        const scene::EllipseTruth image = scene::projectDisc(camera, drawing.discs[k]);
        const double radius = image.majorHalfAxis * draws.uniform(0.5, 1.5), angle = draws.angle(),
                     away = radius + image.majorHalfAxis * (draws.uniform(kLeastPart, kMostPart) - 1);
        const cv::Point2d pixel = image.centre + away * cv::Point2d(std::cos(angle), std::sin(angle));
        scene::Disc cover = discAt(camera, pixel, kCoverDepth * distanceTo(camera, drawing.discs[k]), radius, 0, draws);
        cover.grey = draws.chance(0.5) ? light.gain[eye] * light.ground : draws.uniform(0, 220);
        drawing.addNone(cover);
    }
}

Drawing drawingFor(const Stage& stage, std::size_t eye, const scene::PinholeCamera& camera, const Exposition& light,
                   double halfHidden, Draws& draws) {
    Drawing drawing;
    for (const int k : stage.seen[eye]) {
        drawing.discs.push_back(stage.shown[eye][static_cast<std::size_t>(k)]);
        drawing.identity.push_back(k);
    }
    const std::size_t markers = drawing.discs.size();
    addFalse(drawing, camera, stage, draws);
    for (scene::Disc& disc : drawing.discs) disc.grey = light.markerGrey(eye, draws.uniform(0.9, 1.1));
    hideParts(drawing, markers, halfHidden, camera, light, eye, draws);
    const double depth = kCoverDepth * cv::norm(stage.told.target);
    for (int covers = draws.whole(0, kMostCovers); covers > 0; --covers) {
        const cv::Point2d pixel(draws.uniform(0, camera.size.width), draws.uniform(0, camera.size.height));
        scene::Disc cover = discAt(camera, pixel, depth, draws.logUniform(kLeastCover, kMostCover), 0, draws);
        cover.grey = draws.chance(0.5) ? light.gain[eye] * light.ground : draws.uniform(0, 220);
        drawing.addNone(cover);
    }
    return drawing;
}

cv::Mat photograph(const Drawing& drawing, std::size_t eye, const scene::Rig& cameras, const Exposition& light,
                   int clutter, std::uint64_t seed) {
    scene::Rig seen = cameras;
    // The other eye's image has other discs: a pixel of it will do.
    (eye == 0 ? seen.right : seen.left).size = {1, 1};
    const scene::PinholeCamera& camera = eye == 0 ? cameras.left : cameras.right;
    auto patches = scene::makeClutter(cameras, drawing.discs, clutter, seed);
    std::erase_if(patches, [eye](const scene::Patch& patch) { return patch.eye != static_cast<int>(eye); });
    auto discs = drawing.discs;
    std::stable_sort(discs.begin(), discs.end(), [&](const scene::Disc& a, const scene::Disc& b) {
        return distanceTo(camera, a) > distanceTo(camera, b);
    });
    return scene::render(seen, discs, patches,
                         {.background = light.gain[eye] * light.ground,
                          .blurSigma = light.blur[eye],
                          .noiseSigma = light.noise,
                          .seed = seed,
                          .shade = light.shade[eye]})
        .image[eye];
}

MarkerSizes sizesOf(const std::array<Drawing, 2>& drawings, const scene::Rig& cameras) {
    MarkerSizes sizes{1e9, 1e9, 0};
    for (std::size_t eye = 0; eye < 2; ++eye)
        for (std::size_t k = 0; k < drawings[eye].discs.size(); ++k) {
            if (drawings[eye].identity[k] < 0) continue;
            const scene::EllipseTruth image =
                scene::projectDisc(eye == 0 ? cameras.left : cameras.right, drawings[eye].discs[k]);
            sizes.leastMinor = std::min(sizes.leastMinor, image.minorHalfAxis);
            sizes.least = std::min(sizes.least, image.majorHalfAxis);
            sizes.most = std::max(sizes.most, image.majorHalfAxis);
        }
    return sizes.most > 0 ? sizes : MarkerSizes{5, 5, 25};
}

/// Numbers for the detections of an eye: of each marker the nearest one is its measurement. Others that lie on it are
/// wrong ones, as of its visible half, of what covers it, and where it is found twice; what was drawn elsewhere keeps
/// off.
Sight sightOf(std::vector<MarkerEstimate> estimates, const scene::PinholeCamera& camera, const Drawing& drawing) {
    Sight sight;
    sight.identity.assign(estimates.size(), -1);
    std::vector<int> wrong(estimates.size(), -1);
    for (std::size_t k = 0; k < drawing.discs.size(); ++k) {
        if (drawing.identity[k] < 0) continue;
        const scene::EllipseTruth truth = scene::projectDisc(camera, drawing.discs[k]);
        double nearest = kFarthest;
        std::size_t found = estimates.size();
        for (std::size_t e = 0; e < estimates.size(); ++e) {
            const double distance =
                std::hypot(truth.centre.x - estimates[e].centre.x, truth.centre.y - estimates[e].centre.y);
            if (distance < truth.majorHalfAxis + 0.5 * estimates[e].majorHalfAxis) wrong[e] = -2 - drawing.identity[k];
            if (!(distance < nearest)) continue;
            nearest = distance;
            found = e;
        }
        if (found < estimates.size()) sight.identity[found] = drawing.identity[k];
    }
    for (std::size_t e = 0; e < estimates.size(); ++e)
        if (sight.identity[e] == -1) sight.identity[e] = wrong[e];
    sight.markers = std::move(estimates);
    return sight;
}

double medianSigma(const std::array<Sight, 2>& sights) {
    std::vector<double> sigmas;
    for (const Sight& sight : sights)
        for (const MarkerEstimate& e : sight.markers)
            sigmas.push_back(std::sqrt(0.5 * (e.covariance(0, 0) + e.covariance(1, 1))));
    if (sigmas.empty()) return 0;
    std::nth_element(sigmas.begin(), sigmas.begin() + static_cast<std::ptrdiff_t>(sigmas.size() / 2), sigmas.end());
    return sigmas[sigmas.size() / 2];
}

/// The same field on a sensor with so many pixels.
SceneKind onSensor(SceneKind kind, const std::array<int, 2>& size) {
    const double scale = static_cast<double>(size[0]) / kind.image.width;
    kind.image = {size[0], size[1]};
    kind.focal *= scale;
    return kind;
}

}  // namespace

MatchingScene makePhotographedScene(const SceneKind& given, std::uint64_t seed) {
    Draws draws(seed, kPhotograph);
    Stage stage = makeStage(
        onSensor(given, kImages[static_cast<std::size_t>(draws.whole(0, static_cast<int>(kImages.size()) - 1))]), seed);
    const Exposition light = drawExposition(stage.kind.dark, draws);
    const double halfHidden = draws.chance(kHiddenShare) ? draws.uniform(0, kMostHalfHidden) : 0;
    setLens(stage.truth.cameras.left, draws);
    setLens(stage.truth.cameras.right, draws);
    stage.told.cameras.left.distortion = stage.truth.cameras.left.distortion;
    stage.told.cameras.right.distortion = stage.truth.cameras.right.distortion;
    std::array<cv::Mat, 2> images, shown;
    std::array<Drawing, 2> drawings;
    const std::array<const scene::PinholeCamera*, 2> cameras{&stage.truth.cameras.left, &stage.truth.cameras.right};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        drawings[eye] = drawingFor(stage, eye, *cameras[eye], light, halfHidden, draws);
        images[eye] = photograph(drawings[eye], eye, stage.truth.cameras, light, draws.whole(0, kMostClutter), seed);
        shown[eye] = images[eye];
        if (light.isInverted()) cv::bitwise_not(images[eye], shown[eye]);
    }
    const Settings settings = settingsFor(sizesOf(drawings, stage.truth.cameras), light);
    // A foreign rig's lens would move the markers from where they are known to be.
    const RigMatrices lenses =
        stage.kind.trouble == Trouble::foreign ? matricesOf(stage.truth.cameras) : toldRig(stage, seed);
    CircleMarkerExtractor extractor = calibratedExtractor(rigOf(lenses));
    measure::RefinedEyes eyes =
        measure::refineEyes(extractor, shown, {measure::GreyImage{images[0]}, measure::GreyImage{images[1]}}, settings);
    std::array<Sight, 2> sights;
    for (std::size_t eye = 0; eye < 2; ++eye)
        sights[eye] = sightOf(std::move(eyes.estimates[eye]), *cameras[eye], drawings[eye]);
    stage.kind.noise = medianSigma(sights);
    return sceneOf(stage, std::move(sights), seed);
}

}  // namespace kestrune::bench

// SPDX-License-Identifier: Apache-2.0
#include "photographs.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "draws.h"
#include "refined_pairs.h"

namespace kestrune::bench {
namespace {

// The path's bounds, as a user sets them who knows the markers and looks at an image.
constexpr double kLeastAreaShare = 0.3, kMostAreaShare = 1.6;  ///< of round ones
constexpr double kOpenCircularity = 0.5, kOpenEccentricity = 0.97, kOpenResidual = 0.15, kOpenAxisRatio = 0.28;
constexpr int kBlock = 21, kSmallBlock = 15;
constexpr double kLeastHalved = 5;  ///< minor half axis, px: smaller ones are sought at full size
constexpr float kMostDiameter = 130, kMostFullDiameter = 300;

constexpr double kEnlarged = 1.4;  ///< radius of a marker's image over the nominal: an eye may be nearer
constexpr double kSlant = 0.6;     ///< least share of the minor half axis that bounds count on

// What is no marker.
constexpr int kMostClutter = 60;                     ///< lines, specks and corners in each eye
constexpr int kMostCovers = 3;                       ///< things in front of the object in each eye
constexpr double kCoverDepth = 0.8;                  ///< where they are, in distances
constexpr double kLeastCover = 15, kMostCover = 80;  ///< radius, px
constexpr int kFalseTries = 50;

constexpr double kLeastSignal = 8;  ///< contrast over noise: of fainter markers the paths find few

/// Light and lens of an exposure.
struct Exposition {
    double ground, contrast, noise, blur;
    double gain[2];  ///< of the eyes
    bool edgeBased;
};

Exposition drawExposition(Draws& draws) {
    Exposition e{};
    e.ground = draws.uniform(20, 60);
    e.contrast = draws.uniform(40, 170);
    e.noise = std::min(draws.logUniform(0.5, 12), e.contrast / kLeastSignal);
    e.blur = draws.uniform(0.6, 1.5);
    for (double& gain : e.gain) gain = draws.uniform(0.85, 1.1);
    e.edgeBased = draws.chance(0.5);
    return e;
}

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
            scene::Disc disc = discAt(camera, pixel, depth, radius, draws.uniform(0, 0.8), draws);
            const auto touches = [&](const scene::Disc& other) {
                const cv::Point2d p = scene::projectDisc(camera, other).centre;
                return std::hypot(p.x - pixel.x, p.y - pixel.y) <
                       1.3 * radius + 1.3 * other.radius * camera.intrinsic(0, 0) / distanceTo(camera, other) + 4;
            };
            if (std::any_of(drawing.discs.begin(), drawing.discs.end(), touches)) continue;
            drawing.discs.push_back(disc);
            drawing.identity.push_back(-1);
            break;
        }
}

Drawing drawingFor(const Stage& stage, std::size_t eye, const scene::PinholeCamera& camera, const Exposition& light,
                   Draws& draws) {
    Drawing drawing;
    for (const int k : stage.seen[eye]) {
        drawing.discs.push_back(stage.shown[eye][static_cast<std::size_t>(k)]);
        drawing.identity.push_back(k);
    }
    addFalse(drawing, camera, stage, draws);
    for (scene::Disc& disc : drawing.discs)
        disc.grey = std::min(250., light.gain[eye] * (light.ground + light.contrast * draws.uniform(0.9, 1.1)));
    const double depth = kCoverDepth * cv::norm(stage.told.target);
    for (int covers = draws.whole(0, kMostCovers); covers > 0; --covers) {
        const cv::Point2d pixel(draws.uniform(0, camera.size.width), draws.uniform(0, camera.size.height));
        drawing.discs.push_back(discAt(camera, pixel, depth, draws.logUniform(kLeastCover, kMostCover), 0, draws));
        drawing.discs.back().grey = draws.chance(0.5) ? light.ground : draws.uniform(0, 220);
        drawing.identity.push_back(-1);
    }
    return drawing;
}

Settings settingsFor(const SceneKind& kind, const Exposition& light) {
    const std::string folder = std::string(KESTRUNE_SETTINGS_DIR) + "/";
    Settings settings = light.edgeBased ? readSettings(folder + "mixed-complex.yaml", Path::complex, Use::stereo)
                                        : readSettings(folder + "bright-radial.yaml", Path::radial, Use::stereo);
    CicrleConfigs& configs = settings.configs;
    configs.skipUndistort = false;
    const double least = kind.radius, most = kind.radius * kind.sizeSpread * kEnlarged;
    const bool small = kSlant * least < kLeastHalved;
    configs.minArea = kLeastAreaShare * CV_PI * least * least;
    configs.maxArea = kMostAreaShare * CV_PI * most * most;
    configs.minCircularity = kOpenCircularity;
    configs.maxEccentricity = kOpenEccentricity;
    configs.maxFitResidual = static_cast<float>(kOpenResidual);
    configs.minAxisRatio = static_cast<float>(kOpenAxisRatio);
    const double noises = light.edgeBased ? 2.5 : 4, floor = light.edgeBased ? 0.05 : 0.04,
                 roof = light.edgeBased ? 0.08 : 0.13;
    configs.thresholdC =
        -static_cast<int>(std::lround(std::clamp(noises * light.noise, floor * light.contrast, roof * light.contrast)));
    configs.contrast = static_cast<int>(0.5 * light.contrast);
    configs.aperture = kBlock;
    if (light.edgeBased) configs.maxDiameter = 2 * kMostDiameter;
    if (!small) return settings;
    configs.scale = 1;
    if (!light.edgeBased) return settings;
    configs.aperture = kSmallBlock;
    configs.maxDiameter = kMostFullDiameter;
    configs.minDiameter = static_cast<float>(std::min(3.0, kSlant * least));
    return settings;
}

/// The marker whose image the estimate lies on.
int identityOf(const MarkerEstimate& estimate, const Drawing& drawing, const std::vector<scene::EllipseTruth>& images) {
    int number = -1;
    double nearest = std::numeric_limits<double>::max();
    for (std::size_t k = 0; k < images.size(); ++k) {
        const double distance =
            std::hypot(images[k].centre.x - estimate.centre.x, images[k].centre.y - estimate.centre.y);
        if (!(distance < 0.5 * images[k].majorHalfAxis) || distance >= nearest) continue;
        nearest = distance;
        number = drawing.identity[k];
    }
    return number;
}

Sight sightOf(std::vector<MarkerEstimate> estimates, const scene::PinholeCamera& camera, const Drawing& drawing) {
    std::vector<scene::EllipseTruth> images;
    for (const scene::Disc& disc : drawing.discs) images.push_back(scene::projectDisc(camera, disc));
    Sight sight;
    for (const MarkerEstimate& estimate : estimates) {
        const int number = identityOf(estimate, drawing, images);
        // A marker that was found twice is there once.
        const bool again = std::find(sight.identity.begin(), sight.identity.end(), number) != sight.identity.end();
        sight.identity.push_back(again ? -1 : number);
    }
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

}  // namespace

MatchingScene makePhotographedScene(const SceneKind& kind, std::uint64_t seed) {
    Stage stage = makeStage(kind, seed);
    Draws draws(seed, kPhotograph);
    const Exposition light = drawExposition(draws);
    setLens(stage.truth.cameras.left, draws);
    setLens(stage.truth.cameras.right, draws);
    stage.told.cameras.left.distortion = stage.truth.cameras.left.distortion;
    stage.told.cameras.right.distortion = stage.truth.cameras.right.distortion;
    std::array<cv::Mat, 2> images;
    std::array<Drawing, 2> drawings;
    const std::array<const scene::PinholeCamera*, 2> cameras{&stage.truth.cameras.left, &stage.truth.cameras.right};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        drawings[eye] = drawingFor(stage, eye, *cameras[eye], light, draws);
        auto patches = scene::makeClutter(stage.truth.cameras, drawings[eye].discs, draws.whole(0, kMostClutter), seed);
        std::erase_if(patches, [eye](const scene::Patch& patch) { return patch.eye != static_cast<int>(eye); });
        auto discs = drawings[eye].discs;
        std::stable_sort(discs.begin(), discs.end(), [&](const scene::Disc& a, const scene::Disc& b) {
            return distanceTo(*cameras[eye], a) > distanceTo(*cameras[eye], b);
        });
        const scene::RenderOptions options{.background = light.gain[eye] * light.ground,
                                           .blurSigma = light.blur,
                                           .noiseSigma = light.noise,
                                           .seed = seed};
        images[eye] = scene::render(stage.truth.cameras, discs, patches, options).image[eye];
    }
    const Settings settings = settingsFor(kind, light);
    // A foreign rig's lens would move the markers from where they are known to be.
    const RigMatrices lenses =
        kind.trouble == Trouble::foreign ? matricesOf(stage.truth.cameras) : toldRig(stage, seed);
    CircleMarkerExtractor extractor = calibratedExtractor(rigOf(lenses));
    measure::RefinedEyes eyes = measure::refineEyes(
        extractor, images, {measure::GreyImage{images[0]}, measure::GreyImage{images[1]}}, settings);
    std::array<Sight, 2> sights;
    for (std::size_t eye = 0; eye < 2; ++eye)
        sights[eye] = sightOf(std::move(eyes.estimates[eye]), *cameras[eye], drawings[eye]);
    stage.kind.noise = medianSigma(sights);
    return sceneOf(stage, std::move(sights), seed);
}

}  // namespace kestrune::bench

// SPDX-License-Identifier: Apache-2.0
#include "kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "draws.h"

namespace kestrune::bench {
namespace {

constexpr std::uint64_t kKindStream = 1;

constexpr int kFewest = 20, kMost = 300;                             ///< markers
constexpr double kSteepest = 50;                                     ///< degrees
constexpr double kSmallest = 4, kLargest = 25;                       ///< radii of images, px
constexpr double kLeastNoise = 0.02, kMostNoise = 0.3;               ///< px
constexpr double kLeastAngle = 6, kMostAngle = 22;                   ///< degrees
constexpr double kLeastTurn = 0.02, kMostTurn = 0.2;                 ///< degrees
constexpr double kLeastCalibration = 1e-5, kMostCalibration = 1e-4;  ///< of the rotation, rad
constexpr double kNearest = 300, kFarthest = 5000;                   ///< mm
constexpr double kShortFocal = 2000, kLongFocal = 5000;              ///< px
constexpr double kDarkShare = 0.3;
constexpr double kParallelFocal = 3000, kParallelAngle = 14;  ///< where parallel axes still have a field in common

template <typename Value, std::size_t n>
Value oneOf(Draws& draws, const std::array<Value, n>& values) {
    return values[static_cast<std::size_t>(draws.whole(0, static_cast<int>(n) - 1))];
}

void drawObject(SceneKind& kind, Draws& draws) {
    kind.layout = static_cast<Layout>(draws.whole(0, 6));
    kind.markers = static_cast<int>(draws.logUniform(kFewest, kMost + 1));
    const bool isGrid = kind.layout == Layout::gridPlane || kind.layout == Layout::gridCylinder;
    // Level grids are what rigs are often shown, and the hardest.
    const double stance = draws.uniform(0, 1);
    kind.stance = stance < (isGrid ? 0.4 : 0.7)    ? Stance::any
                  : stance < (isGrid ? 0.6 : 0.85) ? Stance::frontal
                                                   : Stance::level;
    const double tilt = draws.uniform(0, kSteepest);
    kind.tilt = kind.stance == Stance::frontal || (kind.stance == Stance::level && draws.chance(0.5)) ? 0 : tilt;
    kind.jitter = draws.chance(0.6) ? 0 : draws.logUniform(0.002, 0.1);
    kind.radius = draws.logUniform(kSmallest, kLargest);
    kind.sizes = oneOf(draws, std::array{1, 1, 2, 3, 0});
    kind.sizeSpread = kind.sizes == 1 ? 1 : draws.uniform(1.2, 2.5);
    kind.sizeScatter = draws.chance(0.5) ? 0 : draws.uniform(0, 0.01);
    kind.fill = draws.uniform(0.4, 1);
    kind.unit = draws.chance(0.8) ? 1 : 0.001;
}

void drawRig(SceneKind& kind, Draws& draws) {
    kind.rig = oneOf(draws, std::array{RigShape::symmetric, RigShape::symmetric, RigShape::lopsided, RigShape::rolled,
                                       RigShape::parallel});
    const bool parallel = kind.rig == RigShape::parallel;
    kind.axesAngle = draws.uniform(kLeastAngle, parallel ? kParallelAngle : kMostAngle);
    kind.focal = draws.uniform(kShortFocal, parallel ? kParallelFocal : kLongFocal);
    kind.distance = draws.logUniform(kNearest, kFarthest);
}

void drawDetections(SceneKind& kind, Draws& draws) {
    kind.noise = draws.logUniform(kLeastNoise, kMostNoise);
    kind.noiseSpread = draws.chance(0.7) ? 1 : 3;
    kind.single = draws.chance(0.2) ? 0 : draws.uniform(0, 0.4);
    kind.hidden = draws.chance(0.3);
    kind.falseShare = draws.chance(0.2) ? 0 : draws.uniform(0, 0.3);
    kind.falseNear = draws.chance(0.7);
    kind.levels = draws.chance(0.5);
    kind.dark = draws.chance(kDarkShare);
}

void drawTrouble(SceneKind& kind, Draws& draws) {
    switch (kind.trouble) {
        case Trouble::sigmas:
            kind.factor = oneOf(draws, std::array{0.5, 2.});
            return;
        case Trouble::outliers:
            kind.factor = 5;
            return;
        case Trouble::turned:
            kind.factor = draws.logUniform(kLeastTurn, kMostTurn);
            return;
        case Trouble::calibration:
            kind.factor = draws.logUniform(kLeastCalibration, kMostCalibration);
            return;
        case Trouble::shifted:
            kind.layout = Layout::gridPlane;
            kind.stance = Stance::level;
            kind.rig = RigShape::symmetric;
            kind.jitter = 0;
            kind.sizes = 1;
            kind.sizeSpread = 1;
            kind.sizeScatter = 0;
            kind.single = kind.falseShare = 0;
            kind.shift = oneOf(draws, std::array{1, 1, 1, 2, 3});
            return;
        default:
            return;
    }
}

}  // namespace

SceneKind drawKind(std::uint64_t seed) {
    return drawKind(seed, Trouble::none);
}

SceneKind drawKind(std::uint64_t seed, Trouble trouble) {
    Draws draws(seed, kKindStream);
    SceneKind kind;
    kind.trouble = trouble;
    drawObject(kind, draws);
    drawRig(kind, draws);
    drawDetections(kind, draws);
    drawTrouble(kind, draws);
    return kind;
}

const std::vector<std::string>& troubleNames() {
    static const std::vector<std::string> names{"all",     "sigmas",  "outliers", "turned",     "exchanged",
                                                "foreign", "nothing", "shifted",  "calibration"};
    return names;
}

const char* nameOf(Layout layout) {
    static constexpr std::array names{"random plane", "grid plane", "random cylinder", "grid cylinder",
                                      "layers",       "volume",     "clusters"};
    return names[static_cast<std::size_t>(layout)];
}

const char* nameOf(Stance stance) {
    static constexpr std::array names{"any", "frontal", "level"};
    return names[static_cast<std::size_t>(stance)];
}

const char* nameOf(RigShape shape) {
    static constexpr std::array names{"symmetric", "lopsided", "rolled", "parallel"};
    return names[static_cast<std::size_t>(shape)];
}

std::string textOf(const SceneKind& kind) {
    const std::string& trouble = troubleNames()[static_cast<std::size_t>(kind.trouble)];
    return fmt::format(
        "{} ({:.3g}), {}, {}, tilt {:.0f}, {} markers of {:.1f} px, {} sizes x {:.2f} +- {:.2f} %, jitter {:.3f}, "
        "fill {:.2f}, {} {:.1f} deg, {} x {} px, f {:.0f}, {:.0f} mm, noise {:.3f} x {:.0f}, single {:.0f} %{}, false "
        "{:.0f} %{}{}",
        trouble, kind.factor, nameOf(kind.layout), nameOf(kind.stance), kind.tilt, kind.markers, kind.radius,
        kind.sizes, kind.sizeSpread, 100 * kind.sizeScatter, kind.jitter, kind.fill, nameOf(kind.rig), kind.axesAngle,
        kind.image.width, kind.image.height, kind.focal, kind.distance, kind.noise, kind.noiseSpread, 100 * kind.single,
        kind.hidden ? " in one place" : "", 100 * kind.falseShare, kind.falseNear ? " near" : "",
        kind.levels ? ", levels" : "");
}

}  // namespace kestrune::bench

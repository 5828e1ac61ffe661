// SPDX-License-Identifier: Apache-2.0
#include "staging.h"

#include <algorithm>

#include "draws.h"
#include "eyes.h"

namespace kestrune::bench {
namespace {

constexpr double kShiftedFill = 0.6;  ///< so that all columns are on both images
constexpr double kLeastUneven = 0.2;  ///< of the markers that one eye alone sees, what the one sees at least

/// Keeps of a grid what the eye sees of it: as many columns in both.
void cutColumns(const TrueObject& object, int shift, bool first, std::vector<int>& seen) {
    std::erase_if(seen, [&](int k) {
        const int column = object.columns[static_cast<std::size_t>(k)];
        return first ? column >= object.columnCount - shift : column < shift;
    });
}

/// Probability of either eye to miss a marker, for a share of those that any sees.
std::array<double, 2> missing(double single, Draws& draws) {
    const double each = single / (2 - single), part = draws.uniform(kLeastUneven, 1 - kLeastUneven);
    return {2 * each * part, 2 * each * (1 - part)};
}

/// Another object before the same rig.
TrueObject otherObject(const SceneKind& kind, const TrueRig& rig, std::uint64_t seed) {
    SceneKind other = drawKind(seed ^ 0x9e3779b97f4a7c15U);
    other.focal = kind.focal;
    Draws draws(seed, kOther);
    return makeObject(other, rig, draws);
}

RigMatrices foreignRig(std::uint64_t seed) {
    const SceneKind other = drawKind(seed ^ 0x9e3779b97f4a7c15U);
    Draws draws(seed, kOther);
    return matricesOf(makeRig(other, draws).cameras);
}

}  // namespace

RigMatrices toldRig(const Stage& stage, std::uint64_t seed) {
    if (stage.kind.trouble == Trouble::foreign) return foreignRig(seed);
    if (stage.kind.trouble != Trouble::calibration) return matricesOf(stage.told.cameras);
    Draws draws(seed, kTurn);
    return calibrated(stage.told.cameras, stage.kind.factor, draws);
}

Stage makeStage(const SceneKind& given, std::uint64_t seed) {
    Stage stage;
    stage.kind = given;
    SceneKind& kind = stage.kind;
    if (kind.trouble == Trouble::shifted) kind.fill = std::min(kind.fill, kShiftedFill);
    Draws rigDraws(seed, kRig), objectDraws(seed, kObject), hiddenDraws(seed, kHidden), turnDraws(seed, kTurn);
    stage.told = stage.truth = makeRig(kind, rigDraws);
    if (kind.trouble == Trouble::turned) stage.truth = turned(stage.told, turnDraws.direction(), kind.factor);
    stage.object = makeObject(kind, stage.told, objectDraws);
    stage.shown = {stage.object.discs, stage.object.discs};
    if (kind.trouble == Trouble::nothing) {
        stage.shown[1] = otherObject(kind, stage.told, seed).discs;
        stage.firstNumber[1] = static_cast<int>(stage.object.discs.size());
    }
    const std::array<double, 2> missed = missing(kind.single, hiddenDraws);
    const bool leftFirst = hiddenDraws.chance(0.5);
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const scene::PinholeCamera& camera = eye == 0 ? stage.truth.cameras.left : stage.truth.cameras.right;
        stage.seen[eye] = visibleDiscs(camera, stage.shown[eye]);
        if (kind.trouble == Trouble::shifted)
            cutColumns(stage.object, kind.shift, (eye == 0) == leftFirst, stage.seen[eye]);
        hide(stage.seen[eye], camera, stage.shown[eye], missed[eye], kind.hidden, hiddenDraws);
    }
    return stage;
}

}  // namespace kestrune::bench

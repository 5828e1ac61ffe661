// SPDX-License-Identifier: Apache-2.0
#include "refinement/pixel_steps.h"

#include <algorithm>

#include "refinement/lanes.h"
#include "refinement/noise_model.h"

namespace kestrune::refinement {
namespace {

// Of Gaussian steps, those within three standard deviations have this share of the variance.
constexpr double kWithinThree = 0.9733;
constexpr double kFewestDifferences = 8;
constexpr int kClippings = 3;
constexpr float kAnyStep = 1e12F;

struct Squares {
    double sum = 0, count = 0;
};

/// Of the steps whose square is at most `most`.
KESTRUNE_BOTH void addSquaresBoth(const FlatRun& run, float most, Squares& squares) {
    Lanes sums{}, counts{};
    const Lanes places = {0, 1, 2, 3, 4, 5, 6, 7};
    for (int i = 0; i + 1 < run.count; i += kLanes) {
        Lanes a, b;
        load(run.grey + i, a);
        load(run.grey + i + 1, b);
        const Lanes square = (b - a) * (b - a);
        const IntLanes counted = (square <= most) & (places < static_cast<float>(run.count - 1 - i));
        sums += counted ? square : Lanes{};
        counts += counted ? Lanes{1, 1, 1, 1, 1, 1, 1, 1} : Lanes{};
    }
    squares.sum += static_cast<double>(sum(sums)), squares.count += static_cast<double>(sum(counts));
}
void addSquaresAny(const FlatRun& run, float most, Squares& squares) {
    addSquaresBoth(run, most, squares);
}
KESTRUNE_WIDE void addSquaresWide(const FlatRun& run, float most, Squares& squares) {
    addSquaresBoth(run, most, squares);
}

}  // namespace

double varianceBySteps(const std::vector<FlatRun>& runs) {
    float most = kAnyStep;
    double variance = 0;
    for (int i = 0; i <= kClippings; ++i) {
        Squares squares;
        for (const FlatRun& run : runs) (hasWideLanes() ? addSquaresWide : addSquaresAny)(run, most, squares);
        if (squares.count < kFewestDifferences) return 0;
        variance = squares.sum / squares.count / (i > 0 ? kWithinThree : 1);
        // Whole grey levels: a single step of one is no outlier.
        most = static_cast<float>(9 * std::max(variance, 2 * kRounding));
    }
    return variance / 2;
}

}  // namespace kestrune::refinement

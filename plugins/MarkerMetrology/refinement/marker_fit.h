// SPDX-License-Identifier: Apache-2.0
//
// One marker from its start to its end: windows that follow the rim, the noise as the pixels show it, the fit, and
// whether it may be believed.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "kestrune/MarkerMetrology/refinement.h"
#include "refinement/disc_fit.h"
#include "refinement/first_guess.h"
#include "refinement/hidden_sectors.h"
#include "refinement/light_prior.h"
#include "refinement/marker_window.h"

namespace kestrune::refinement {

/// What is known of another marker nearby.
struct KnownNeighbour {
    geometry::SmoothEllipse ellipse;
    double gap = 0;                  ///< px between the rims, at least
    std::optional<DiscModel> model;  ///< of a fit before, so that its light can be taken away
};

struct FittedMarker {
    RefinementStatus status = RefinementStatus::noOutline;
    DiscFit::Outcome outcome;
    NoiseModel noise;
    int pixels = 0;  ///< that took part
    Sectors hidden;  ///< parts that something lies over
};

/// Scratch storage of one thread.
struct FitScratch {
    MarkerWindow window;
    DiscFit fit;
    DiscImage other;
    std::vector<Neighbour> neighbours;
    DiscFit::Knowledge known;
    std::vector<SectorResidual> sectors;
    std::vector<ResidualSample> samples;
};

/// @param image       `CV_8UC1` or `CV_16UC1`
/// @param start       the record's ellipse, px of the image
/// @param neighbours  markers whose rims or blur may reach the window
/// @param before      a fit of this marker, to begin from; none that is not refined
FittedMarker fitMarker(const cv::Mat& image, const geometry::SmoothEllipse& start,
                       const std::vector<KnownNeighbour>& neighbours, const LightPrior& light,
                       const FittedMarker* before, FitScratch& scratch);

}  // namespace kestrune::refinement

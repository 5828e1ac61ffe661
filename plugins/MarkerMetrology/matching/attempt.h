// SPDX-License-Identifier: Apache-2.0
//
// An exposure matched as if one rig were right, and whether what came out can be believed as a whole.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "matching/hypotheses.h"
#include "matching/rig_motion.h"

namespace kestrune::matching {

using MarkerLists = std::array<const std::vector<MarkerEstimate>*, 2>;

/// Not to be moved: its parts refer to each other.
struct Attempt {
    EpipolarFrame frame;
    Views views;
    ExposureSolver solver;
    Decision decision;

    Attempt(const MarkerLists& markers, const EpipolarFrame& rig, const Beforehand& known)
        : frame(rig), views(viewsOf(markers, rig)), solver(views, frame, known), decision(decide(views, solver)) {
        if (!known.object.empty()) useObject(known.object);
    }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    const Solution& best() const { return decision.best; }
    /// Expected pairs, of as many as there could be.
    double share() const;
    /// What speaks for it against no pairs at all, nats.
    double gain() const { return best().assignment.logSum; }
    /// Median standard deviation of a pair's distance from its epipolar plane, as the exposure shows it, px.
    double epipolarNoise() const;
    /// Whether two views of different things, or a foreign rig, would not look like it.
    bool isPlausible() const;
    /// Decides again with what a known object says, if it is found.
    void useObject(const std::vector<KnownMarker>& object);
    /// Place of a candidate's disc in the epipolar frame.
    Eigen::Vector3d placeOf(const Candidate& candidate) const;
    /// Whether it is plausible and its pairs are not farther off than their standard deviations explain.
    bool agreesWithSigmas() const;
    /// Whether it is as good as exposures of a right rig are.
    bool isGood() const;
};

struct Attempts {
    std::unique_ptr<Attempt> best;
    bool hasMoved = false;           ///< a common pattern of the distances from the epipolar planes was taken out
    bool isMotionAmbiguous = false;  ///< and another turn would do as well
    bool isExchanged = false;        ///< the lists are of the other eyes
};

/// The exposure with the rig as told; where that is not good, with a rig that has moved; and with exchanged eyes.
///
/// @param cameras  of the eyes: markers of exchanged eyes were freed of the other one's lens.
Attempts attemptAll(const MarkerLists& markers, const Cameras& cameras, const EpipolarFrame& frame,
                    const Beforehand& known);

}  // namespace kestrune::matching

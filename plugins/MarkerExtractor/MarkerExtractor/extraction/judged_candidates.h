// SPDX-License-Identifier: Apache-2.0
//
// What became of the candidates of a call, as data: nobody but who asks pays for it, and no result depends on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/extraction/contour_verdict.h"
#include "MarkerExtractor/extraction/gate_rules.h"
#include "checks/drops.h"

namespace kestrune {

/// What became of a candidate.
enum class Outcome {
    kRefused,     ///< by a gate
    kMarker,      ///< it is one
    kRepetition,  ///< passed all gates, and another one has its place in the result
    kMerged,      ///< passed the gates of a rim, and an ellipse like it went on
    kNested,      ///< passed all gates of a rim, and an overlapping one of its polarity stands
};

struct JudgedCandidate {
    std::vector<cv::Point2f> contour;  ///< px, as the front end gave it
    cv::RotatedRect ellipse;           ///< last fit; all zero for one that was refused before
    Outcome outcome = Outcome::kRefused;
    GateRule gate;              ///< that refused
    double measured = 0;        ///< by that gate
    std::int32_t marker = -1;   ///< place among the markers, of itself or, of a repetition, of the other; -1: none
    std::ptrdiff_t rival = -1;  ///< of one that was merged: place of the candidate that went on; -1: none
};

/// What a call tells beside its markers.
struct Findings {
    std::vector<JudgedCandidate> candidates;  ///< in the order of the front end
    Drops* drops = nullptr;                   ///< appended to: what the front end met and did not deliver; may be null
};

inline Drops* dropsOf(const Findings* findings) {
    return findings != nullptr ? findings->drops : nullptr;
}

/// Keeps account of a path that judges and admits one candidate after the other. Without findings it does nothing.
class CandidateAccount {
  public:
    CandidateAccount(Findings* findings, const GateTable& gates) : findings_(findings), gates_(gates) {}

    /// @param admission  of an accepted candidate.
    template <typename Point>
    void add(const std::vector<Point>& contour, const cv::RotatedRect& ellipse, const Verdict& verdict,
             const std::optional<Admission>& admission) {
        if (findings_ == nullptr) return;
        JudgedCandidate& candidate = findings_->candidates.emplace_back();
        candidate.contour.assign(contour.begin(), contour.end());
        candidate.ellipse = ellipse;
        candidate.gate = gates_[verdict.refusedBy];
        candidate.measured = verdict.measured;
        if (admission) settle(*admission);
    }

  private:
    void settle(const Admission& admission);

    Findings* findings_;
    const GateTable& gates_;
    std::vector<std::size_t> holders_;  ///< of each marker: the candidate that it is
};

}  // namespace kestrune

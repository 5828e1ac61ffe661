// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/judged_candidates.h"

namespace kestrune {

void CandidateAccount::settle(const Admission& admission) {
    const std::size_t place = findings_->candidates.size() - 1;
    JudgedCandidate& candidate = findings_->candidates.back();
    candidate.marker = admission.id;
    candidate.outcome = admission.outcome == Admission::kDropped ? Outcome::kRepetition : Outcome::kMarker;
    if (admission.outcome == Admission::kReplaced) {
        std::size_t& holder = holders_[static_cast<std::size_t>(admission.id)];
        findings_->candidates[holder].outcome = Outcome::kRepetition;
        holder = place;
    } else if (admission.outcome == Admission::kAdded) {
        holders_.push_back(place);
    }
}

}  // namespace kestrune

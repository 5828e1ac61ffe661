// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/mutual_best.h"

namespace kestrune {

void MutualBest::offer(const DiscCandidate& candidate) {
    Marker& left = left_[static_cast<std::size_t>(candidate.left)];
    Marker& right = right_[static_cast<std::size_t>(candidate.right)];
    const double score = candidate.score;
    if (left.score > score || right.score > score) return;
    if (score > left.score) {
        if (left.partner != kNobody) right_[static_cast<std::size_t>(left.partner)].free();
        left.centres = candidate.discs->left.centres;
    }
    if (score > right.score) {
        if (right.partner != kNobody) left_[static_cast<std::size_t>(right.partner)].free();
        right.centres = candidate.discs->right.centres;
    }
    left.partner = candidate.right;
    right.partner = candidate.left;
    left.score = right.score = score;
}

std::optional<MutualBest::Centres> MutualBest::centresOf(const DiscCandidate& candidate) const {
    const Marker& left = left_[static_cast<std::size_t>(candidate.left)];
    const Marker& right = right_[static_cast<std::size_t>(candidate.right)];
    if (left.partner != candidate.right || right.partner != candidate.left || !left.centres || !right.centres) {
        return std::nullopt;
    }
    return Centres{(*left.centres)[candidate.discs->leftNormal], (*right.centres)[candidate.discs->rightNormal]};
}

}  // namespace kestrune

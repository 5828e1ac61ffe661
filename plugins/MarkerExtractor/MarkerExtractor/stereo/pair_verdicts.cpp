// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/pair_verdicts.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace kestrune {

namespace {

int nearest(const std::vector<double>& rows, double row) {
    int best = kNobody;
    double least = kUnbounded;
    for (std::size_t k = 0; k < rows.size(); ++k) {
        if (!(std::abs(rows[k] - row) < least)) continue;
        least = std::abs(rows[k] - row);
        best = static_cast<int>(k);
    }
    return best;
}

}  // namespace

double PairVerdict::excess() const {
    const double beyond = std::max({least - measured, measured - largest, 0.0});
    return std::isnan(measured) ? kUnbounded : beyond;
}

void addNearestRows(const std::vector<double>& leftRows, const std::vector<double>& rightRows, double maxRowDifference,
                    PairVerdicts& verdicts) {
    std::vector<bool> leftJudged(leftRows.size()), rightJudged(rightRows.size());
    for (const PairVerdict& v : verdicts) {
        if (v.left != kNobody) leftJudged[static_cast<std::size_t>(v.left)] = true;
        if (v.right != kNobody) rightJudged[static_cast<std::size_t>(v.right)] = true;
    }
    std::set<std::pair<int, int>> pairs;
    for (std::size_t i = 0; i < leftRows.size(); ++i)
        if (!leftJudged[i]) pairs.emplace(static_cast<int>(i), nearest(rightRows, leftRows[i]));
    for (std::size_t j = 0; j < rightRows.size(); ++j)
        if (!rightJudged[j]) pairs.emplace(nearest(leftRows, rightRows[j]), static_cast<int>(j));
    for (const auto& [i, j] : pairs) {
        PairVerdict v{i, j, PairGate::rows};
        v.largest = maxRowDifference;
        if (i != kNobody && j != kNobody)
            v.measured = std::abs(leftRows[static_cast<std::size_t>(i)] - rightRows[static_cast<std::size_t>(j)]);
        verdicts.push_back(v);
    }
}

}  // namespace kestrune

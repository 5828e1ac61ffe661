// SPDX-License-Identifier: Apache-2.0
//
// Candidates by the markers that they join, with what they are worth now.
#pragma once

#include <array>
#include <vector>

#include "matching/candidates.h"

namespace kestrune::matching {

struct PairGraph {
    const Views& views;
    const std::vector<Candidate>& candidates;
    std::array<std::vector<std::vector<int>>, 2> own;  ///< candidates of each line
    std::vector<double> probability;                   ///< of each candidate
    std::vector<int> end;                              ///< of each candidate the fit that counts; empty: the first
    /// Of each line those candidates that were worth something, to be taken out where the line itself is judged.
    std::array<std::vector<std::vector<int>>, 2> believed;

    PairGraph(const Views& v, const std::vector<Candidate>& all) : views(v), candidates(all) {
        for (std::size_t eye = 0; eye < 2; ++eye) own[eye].resize(v.lines[eye].size());
        for (int c = 0; c < static_cast<int>(all.size()); ++c)
            for (std::size_t eye = 0; eye < 2; ++eye) own[eye][static_cast<std::size_t>(line(eye, c))].push_back(c);
        believed = {std::vector<std::vector<int>>(own[0].size()), std::vector<std::vector<int>>(own[1].size())};
        probability.assign(all.size(), 0.0);
    }

    /// @param ends  of each candidate the fit that counts; none: the first.
    void setProbability(const std::vector<double>& now, const std::vector<int>& ends) {
        probability = now;
        end = ends;
        for (std::size_t eye = 0; eye < 2; ++eye) {
            for (std::size_t i = 0; i < own[eye].size(); ++i) {
                believed[eye][i].clear();
                for (const int c : own[eye][i])
                    if (worth(c) >= kLeastOwn) believed[eye][i].push_back(c);
            }
        }
    }

    int line(std::size_t eye, int candidate) const {
        const Candidate& its = candidates[static_cast<std::size_t>(candidate)];
        return eye == 0 ? its.left : its.right;
    }
    const Sightline& sight(std::size_t eye, int line) const { return views.lines[eye][static_cast<std::size_t>(line)]; }
    const CircleFit& fit(int candidate) const {
        const auto c = static_cast<std::size_t>(candidate);
        return candidates[c].agreement.fits[end.empty() ? 0 : static_cast<std::size_t>(end[c])];
    }
    double worth(int candidate) const { return probability[static_cast<std::size_t>(candidate)]; }

    /// What the markers at hand said before, worth being taken out: candidates of the line, and of the other eye's line
    /// unless it is -1.
    template <typename Body>
    void forOwn(std::size_t eye, int at, int other, const Body& body) const {
        for (const int c : believed[eye][static_cast<std::size_t>(at)]) body(c);
        if (other < 0) return;
        for (const int c : believed[1 - eye][static_cast<std::size_t>(other)])
            if (line(eye, c) != at) body(c);
    }

    /// Of the pairs that are more probable than not.
    template <typename Sigma>
    std::vector<double> believedSigmas(const Sigma& sigma) const {
        std::vector<double> sigmas;
        for (int c = 0; c < static_cast<int>(candidates.size()); ++c)
            if (worth(c) > 0.5) sigmas.push_back(sigma(fit(c)));
        return sigmas;
    }

    static constexpr double kLeastOwn = 0.01;
};

}  // namespace kestrune::matching

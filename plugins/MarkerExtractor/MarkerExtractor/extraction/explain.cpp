// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/explain.h"

#include <limits>

#include "MarkerExtractor/extraction/complex.h"
#include "MarkerExtractor/extraction/fast.h"
#include "MarkerExtractor/extraction/hand.h"
#include "MarkerExtractor/extraction/judged_candidates.h"
#include "MarkerExtractor/extraction/simple.h"
#include "checks/settings_check.h"

namespace kestrune {

namespace {

using Candidates = std::vector<ExplainedCandidate>;

/// A candidate that passed its gates and whose place another one has.
void yield(ExplainedCandidate& candidate, const char* name, const std::string& wanted) {
    candidate.gate = name;
    candidate.wanted = wanted;
    candidate.measured = std::numeric_limits<double>::quiet_NaN();
}

/// @param repeats  which of two repetitions stays.
ExplainedCandidate told(JudgedCandidate&& judged, const char* repeats) {
    ExplainedCandidate candidate{std::move(judged.contour), judged.ellipse, "", 0, "", judged.marker};
    switch (judged.outcome) {
        case Outcome::kRefused:
            candidate.gate = judged.gate.name;
            candidate.wanted = judged.gate.text();
            candidate.measured = judged.measured;
            break;
        case Outcome::kRepetition:
            yield(candidate, "repetition", repeats);
            break;
        case Outcome::kMerged:
            yield(candidate, "merged",
                  "the best fit of ellipses alike to " + std::to_string(cvRound(100 * kRimMergeTolerance)) + " %");
            break;
        case Outcome::kNested:
            yield(candidate, "nested", "the inner rim of two of one polarity, or the better fit");
            break;
        case Outcome::kMarker:
            break;
    }
    return candidate;
}

/// @param run  takes the path and fills the findings.
template <typename Run>
Candidates explained(const Run& run, const char* repeats, Drops* drops) {
    Findings findings{{}, drops};
    run(findings);
    Candidates candidates;
    candidates.reserve(findings.candidates.size());
    for (JudgedCandidate& judged : findings.candidates) candidates.push_back(told(std::move(judged), repeats));
    return candidates;
}

}  // namespace

Candidates explainExtraction(const cv::Mat& image, CircleMarkerExtractor& extractor, int cameraIndex,
                             const CicrleConfigs& configs, Drops* drops) {
    if (image.empty()) return {};
    std::vector<Corner> corners;
    const auto run = [&](Findings& findings) {
        if (configs.useComplexExtract) {
            RimCall(image, extractor, cameraIndex, configs).run(extractor, &findings);
        } else {
            SimpleCall(image, extractor, cameraIndex, configs).run(extractor, corners, &findings);
        }
    };
    return explained(run, "the rounder and better fit of two that share a centre", drops);
}

Candidates explainHand(const cv::Mat& image, const CicrleConfigs& configs, Drops* drops) {
    if (image.empty()) return {};
    requireByteImage(image);
    std::vector<Corner> corners;
    return explained([&](Findings& findings) { findHandMarkers(image, configs, corners, &findings); },
                     "the smaller of two that share a centre", drops);
}

Candidates explainFast(const cv::Mat& image, const CicrleConfigs& configs, Drops* drops) {
    if (image.empty()) return {};
    requireGreyImage(image);
    std::vector<Corner> corners;
    return explained([&](Findings& findings) { findFastMarkers(image, configs, corners, &findings); }, "", drops);
}

}  // namespace kestrune

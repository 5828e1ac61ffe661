// SPDX-License-Identifier: Apache-2.0
//
// What the library tells of markers without a partner, of candidates that are no markers and of what was no candidate,
// and what must be true of it whatever it is told of.
#pragma once

#include <utility>
#include <vector>

#include "MarkerExtractor/extraction/explain.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "promises.h"

namespace kestrune::fuzz {

void addReasons(Record& record, const PairVerdicts& verdicts);
void addReasons(Record& record, const std::vector<ExplainedCandidate>& candidates);
void addReasons(Record& record, const Drops& drops);

/// Of a matcher that has looked at every marker: each has a verdict, and the pairs are those with a good one.
///
/// @param counts  markers of the left and of the right eye.
void checkVerdicts(const PairVerdicts& verdicts, const std::vector<std::pair<int, int>>& pairs,
                   std::pair<std::size_t, std::size_t> counts);

/// Of a path that found these markers: each is one candidate, and every other candidate has a gate that refused it.
void checkCandidates(const std::vector<ExplainedCandidate>& candidates, const std::vector<Corner>& markers);

/// Each is on the image, named, and out of the bounds that it is told to be out of.
void checkDrops(const Drops& drops, const CicrleConfigs& configs, const cv::Size& imageSize);

}  // namespace kestrune::fuzz

// SPDX-License-Identifier: Apache-2.0
//
// Why was this contour not a marker? What the paths tell of their candidates, in words. Not part of the library's
// interface: the program shows it.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "MarkerExtractor/extraction/explain_drops.h"
#include "checks/drops.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// A candidate that a front end delivered, and what became of it.
struct ExplainedCandidate {
    std::vector<cv::Point2f> contour;  ///< px, as the front end gave it
    cv::RotatedRect ellipse;           ///< last fit; all zero for one that was refused before
    std::string gate;                  ///< what refused it; empty for a marker
    double measured = 0;               ///< value of that gate; NaN where it has none
    std::string wanted;                ///< what the gate asks for, with the settings' names
    std::int32_t marker = -1;          ///< `Corner::id` of the marker that it is, or that stands for it; -1: none
};

/// Takes the path of `ExtractCircleMarker` and tells about every candidate, in the order of the front end. The markers
/// among them are those that the path finds.
///
/// @param extractor  for its calibration and scratch storage.
/// @param drops      appended to, if not null: what the front end met and did not deliver.
/// @throws cv::Exception as the path does.
std::vector<ExplainedCandidate> explainExtraction(const cv::Mat& image, CircleMarkerExtractor& extractor,
                                                  int cameraIndex, const CicrleConfigs& configs,
                                                  Drops* drops = nullptr);

/// The same of `CircleExtractSimpleForHand` and of `extractMarkPointsFast`, called with an empty list: ids are places
/// in it.
std::vector<ExplainedCandidate> explainHand(const cv::Mat& image, const CicrleConfigs& configs, Drops* drops = nullptr);
std::vector<ExplainedCandidate> explainFast(const cv::Mat& image, const CicrleConfigs& configs, Drops* drops = nullptr);

}  // namespace kestrune

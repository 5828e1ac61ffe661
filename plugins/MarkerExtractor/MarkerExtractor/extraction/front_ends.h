// SPDX-License-Identifier: Apache-2.0
//
// From an image to the candidates of a path, before any gate. Each checks the whole call first.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/rim_gates.h"
#include "canny/subpixel_contours.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// Both front ends' contours are judged as they stand: radial ones are in full-size pixels already, and sub-pixel ones
/// of a reduced image are reported in the pixels of that image.
constexpr bool kContoursAreFullSize = true;

/// Two ellipses of one edge: their centres nearer than this share of the axes, their axes alike to this share.
constexpr double kRimMergeTolerance = 0.3;

/// Everything that can be wrong with the image and the settings of a path, before the first byte of the extractor or of
/// the result changes.
void checkSimpleCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, const CicrleConfigs& configs);
void checkRimCall(const cv::Mat& image, const CicrleConfigs& configs);

/// The same for the path that `ExtractCircleMarker` takes, the lens of the eye included.
void checkExtraction(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                     const CicrleConfigs& configs);

/// Contours of the simple path, radial or sub-pixel by `configs.useRadialContours`.
///
/// @param corners  the path's result list, which must be empty.
/// @param drops    appended to, if not null: what the front end met and did not deliver.
std::vector<SubpixelContour> simpleContours(const cv::Mat& image, const std::vector<Corner>& corners,
                                            CircleMarkerExtractor& extractor, const CicrleConfigs& configs,
                                            Drops* drops);

/// Candidates of the edge-based path and the images that its gates read, which lie in the extractor's scratch storage.
RimImages rimCandidates(const cv::Mat& image, const std::vector<Corner>& corners, CircleMarkerExtractor& extractor,
                        const CicrleConfigs& configs, std::vector<std::vector<cv::Point>>& candidates, Drops* drops);

}  // namespace kestrune

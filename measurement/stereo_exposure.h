// SPDX-License-Identifier: Apache-2.0
//
// One exposure of the camera pair to markers in space.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "image_file.h"
#include "refined_pairs.h"
#include "stereo_result.h"
#include "trusted_match.h"

namespace kestrune::measure {

/// Whether a stereo measurement refines its markers if it is not told.
constexpr bool kRefineStereo = true;

/// Settings as a stereo measurement needs them: geometry is that of undistorted pixels, so that `skipUndistort`
/// does not decide here; only images that are rectified already are left as they are.
///
/// @throws InputError, SettingsError  as `readSettings`, and for a path or scale that gives no full-size pixels with
///                                    contours.
Settings readStereoSettings(const std::string& file, std::optional<Path> path);

/// The same of settings at hand.
///
/// @param origin  stands for the file in the texts of errors.
Settings asStereo(Settings settings, const std::string& origin);

/// Holds the images of an exposure to the calibration: they have its size and are not one and the same.
///
/// @param names  left and right, for the texts of errors.
/// @throws InputError
void requireExposure(const std::array<cv::Mat, 2>& images, const std::array<std::string, 2>& names, cv::Size size);

/// Reads both images of an exposure and checks that they have the size of the calibration and are not one and the same.
///
/// @param grey  if not null, the images with all their bits.
/// @throws InputError
std::array<cv::Mat, 2> readExposure(const std::string& left, const std::string& right, const ImageIntake& intake,
                                    cv::Size size, std::array<GreyImage, 2>* grey = nullptr);

/// True where the markers are matched by their conics, which tells normals and radii.
bool matchesConics(Path path);

/// @param extractor  calibrated; its scratch storage is used.
/// @param minShare   see `objectionTo`.
/// @param refinement  if not null, the markers are refined before they are matched, and the points are those of the
///                   discs that both eyes see.
/// @param records    if not null, the library's own records of the pairs, in the order of `markers`.
/// @param trusted    if not null, the markers are matched by probability in place of the path's matcher.
/// @throws cv::Exception, std::runtime_error  from the library.
StereoResult measureExposure(CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images,
                             const Settings& settings, double minShare, const RefinementInput* refinement = nullptr,
                             std::vector<std::pair<Corner, Corner>>* records = nullptr,
                             const TrustedInput* trusted = nullptr);

}  // namespace kestrune::measure

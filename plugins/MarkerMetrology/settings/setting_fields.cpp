// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerMetrology/setting_fields.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <vector>

namespace kestrune {
namespace {

constexpr std::array kPaths = {Path::simple, Path::radial, Path::fast, Path::complex, Path::hand};

constexpr Readers extractionBy(std::initializer_list<Path> paths) {
    Readers readers = 0;
    for (const Path path : paths) readers |= readerOf(path, Use::extraction);
    return readers;
}

constexpr Readers stereoBy(std::initializer_list<Path> paths) {
    Readers readers = 0;
    for (const Path path : paths) readers |= readerOf(path, Use::stereo);
    return readers;
}

/// By the search of these paths, whatever becomes of the markers.
constexpr Readers searchBy(std::initializer_list<Path> paths) {
    return extractionBy(paths) | stereoBy(paths);
}

constexpr Readers kSimple = searchBy({Path::simple}), kRadial = searchBy({Path::radial}),
                  kComplex = searchBy({Path::complex}), kFast = extractionBy({Path::fast}),
                  kHand = extractionBy({Path::hand});
constexpr Readers kContours = kSimple | kRadial;
constexpr Readers kAdaptive = kRadial | kComplex;  // those with an adaptive threshold
constexpr Readers kFrontDoor = kContours | kComplex;
constexpr Readers kByConics = stereoBy({Path::radial, Path::complex});
constexpr Readers kByConstellation = stereoBy({Path::simple});
constexpr Readers kStereo = kByConics | kByConstellation;

// No image has more pixels, and no scene is larger in any unit that a host would choose.
constexpr double kLargest = 1e12;
// Squared, a step of 363 grey levels leaves the 32 bits in which edges are compared: no edge passes from there on.
constexpr double kLargestStep = 362;
// Beyond these a kernel is wider than the markers that this program is for.
constexpr double kLargestKernel = 255;
constexpr double kLargestSigma = 40;
// A reduction beyond this leaves nothing of a marker.
constexpr double kLargestScale = 64;

using C = CicrleConfigs;
using F = SettingField;

const std::vector<SettingField> kFields = {
    F{"enableAreaFilter", &C::enableAreaFilter, kFast, 0, 0, "apply the area gate (the others always do)"},
    F{"minArea", &C::minArea, kContours | kFast | kHand, 0, kLargest, "least contour area, px^2"},
    F{"maxArea", &C::maxArea, kContours | kFast | kHand, 0, kLargest, "largest contour area, px^2"},
    F{"minContourSize", &C::minContourSize, kContours, 0, 1e9,
      "simple: least contour length, px; radial: least blob area in the reduced image, px^2"},
    F{"enableCircularityFilter", &C::enableCircularityFilter, kContours | kFast, 0, 0, "apply the circularity gate"},
    F{"minCircularity", &C::minCircularity, kContours | kFast, 0, 10, "least 4 pi area / perimeter^2"},
    F{"maxCircularity", &C::maxCircularity, kContours | kFast, 0, 10, "4 pi area / perimeter^2 stays below this"},
    F{"enableConvexityFilter", &C::enableConvexityFilter, kContours | kFast, 0, 0, "apply the hull gate"},
    F{"maxConvexRatio", &C::maxConvexRatio, kContours | kFast, 0, 10, "largest contour area / hull area"},
    F{"minConvexRatio", &C::minConvexRatio, kContours | kFast, 0, 10, "least contour area / hull area"},
    F{"enableEccentricityFilter", &C::enableEccentricityFilter, kFast, 0, 0,
      "apply the eccentricity gate (the others always do)"},
    F{"maxEccentricity", &C::maxEccentricity, kContours | kFast | kHand, 0, 1, "largest sqrt(a^2 - b^2) / a"},
    F{"maxFitError", &C::maxFitError, kSimple | kHand, 0, kLargest, "largest RMS distance from the ellipse, px"},
    F{"maxPointError", &C::maxPointError, kSimple | kHand, 0, kLargest,
      "simple: a larger RMS passes if no point is farther away than this, px"},
    F{"markerName", &C::markerName, kFrontDoor | kHand, 0, 0, "name of the kind of marker, free text"},
    F{"cannyLow", &C::cannyLow, kSimple, 0, kLargestStep, "lower threshold of an edge, grey levels"},
    F{"cannyHigh", &C::cannyHigh, kSimple, 0, kLargestStep, "upper threshold of an edge, grey levels"},
    F{"aperture", &C::aperture, kFrontDoor, 1, kLargestKernel,
      "side of the Gaussian kernel, px, odd; radial: also the block of the adaptive threshold, complex: only that"},
    F{"sigma", &C::sigma, kFrontDoor, 0, kLargestSigma, "sigma of the Gaussian, px"},
    F{"scale", &C::scale, kFrontDoor, 1, kLargestScale, "whole-number reduction of the image before the search"},
    F{"markerRadii", &C::markerRadii, kStereo, 0, kLargest, "nominal radii of the markers"},
    F{"skipUndistort", &C::skipUndistort, extractionBy({Path::simple, Path::radial, Path::complex}), 0, 0,
      "measure in the image as it is; false needs a calibration"},
    F{"cornersRectified", &C::cornersRectified, kFrontDoor | kFast | kHand, 0, 0, "the images are rectified already"},
    F{"outputRectified", &C::outputRectified, kStereo, 0, 0, "leave the points in the rectified frame"},
    F{"useThreads", &C::useThreads, kSimple, 0, 0, "one strip of columns for each hardware thread"},
    F{"radiusScoreGate", &C::radiusScoreGate, kByConstellation, 0, 0, "gate of the rectified matcher"},
    F{"looseSizeGate", &C::looseSizeGate, kByConstellation, 0, 0, "gate of the rectified matcher"},
    F{"plainRowGate", &C::plainRowGate, kByConstellation, 0, 0, "gate of the rectified matcher"},
    F{"useComplexExtract", &C::useComplexExtract, kFrontDoor, 0, 0,
      "without --path: true is path complex, whatever useRadialContours says"},
    F{"maxRowDifference", &C::maxRowDifference, kStereo, 0, kLargest, "row band, px"},
    F{"minDepth", &C::minDepth, kStereo, 0, kLargest, "nearest depth"},
    F{"maxDepth", &C::maxDepth, kStereo, 0, kLargest, "farthest depth"},
    F{"sizeTolerance", &C::sizeTolerance, kStereo, 0, kLargest, "relative tolerance of a marker's size"},
    F{"deviationFactor", &C::deviationFactor, kByConstellation, 0, 1e9, "allowed multiple of sizeTolerance"},
    F{"edgeLengthTolerance", &C::edgeLengthTolerance, kByConstellation, 0, kLargest, "relative tolerance of distances"},
    F{"edgeAngleTolerance", &C::edgeAngleTolerance, kByConstellation, 0, 6.3, "tolerance of directions, radians"},
    F{"minRadiusRatio", &C::minRadiusRatio, kByConics, 0, 1, "least ratio of the two radii of a pair"},
    F{"useRadialContours", &C::useRadialContours, kContours, 0, 0,
      "without --path: true is path radial, false path simple"},
    F{"thresholdC", &C::thresholdC, kAdaptive, -255, 255,
      "grey levels below the surroundings; -20 asks for pixels 20 brighter"},
    F{"refineAtFullSize", &C::refineAtFullSize, kRadial, 0, 0,
      "detect each blob again at full size; centres of faint markers in noise come out wrong by pixels"},
    F{"minRayRatio", &C::minRayRatio, kRadial, 0, 1, "least share of rays that bear an edge"},
    F{"contrast", &C::contrast, kRadial, 0, 255, "least contrast of a blob to the ring around it, grey levels"},
    F{"maxFitResidual", &C::maxFitResidual, kAdaptive, 0, kLargest, "largest RMS of the conic over the contour"},
    F{"minDiameter", &C::minDiameter, kComplex, 0, kLargest,
      "least axis, px, and half of the least root of their product; its whole part bounds blobs of the reduced image"},
    F{"maxDiameter", &C::maxDiameter, kComplex, 0, kLargest,
      "largest axis, px; rims may have 2.2 times as many pixels, blobs of the reduced image 4 times"},
    F{"minAxisRatio", &C::minAxisRatio, kComplex, 0, 1, "least shorter over longer axis"},
    F{"nmsFactor", &C::nmsFactor, kComplex, 0, 10,
      "above 1 only sharp ridges of the gradient are edges, below 1 broad ones too"},
    F{"edgePercentile", &C::edgePercentile, kComplex, 0, 1,
      "share of a window's pixels with less gradient than an edge"},
};

}  // namespace

const char* nameOf(Path path) {
    static constexpr std::array kNames = {"simple", "radial", "fast", "complex", "hand"};
    return kNames[static_cast<std::size_t>(path)];
}

std::optional<Path> pathNamed(const std::string& name) {
    const auto found = std::ranges::find_if(kPaths, [&](Path path) { return name == nameOf(path); });
    return found == kPaths.end() ? std::nullopt : std::optional(*found);
}

const std::vector<SettingField>& settingFields() {
    return kFields;
}

std::string rangeText(const SettingField& field) {
    return field.isRanged() ? fmt::format("{:g} to {:g}", field.low, field.high) : "";
}

std::string readersText(const SettingField& field) {
    std::vector<std::string> searches, matchers;
    for (const Path path : kPaths) {
        if (field.isReadBy(path, Use::extraction)) searches.emplace_back(nameOf(path));
        if (field.isReadBy(path, Use::stereo)) matchers.emplace_back(nameOf(path));
    }
    if (!searches.empty())
        return fmt::format("{}{}", fmt::join(searches, ", "),
                           matchers.empty() && (field.readers & ~(kFast | kHand)) != 0 ? "; not stereo" : "");
    return (field.readers & kStereo) == kStereo ? "stereo" : fmt::format("stereo with {}", fmt::join(matchers, ", "));
}

std::string describeSettings() {
    static constexpr std::array kTypes = {"bool", "int", "float", "double", "text", "list"};
    constexpr const char* kRow = "{:<26}{:<8}{:<14}{:<37}{}\n";
    std::string table = fmt::format(kRow, "field", "type", "range", "read by", "meaning");
    for (const SettingField& field : kFields) {
        table += fmt::format(kRow, field.name, kTypes[field.member.index()], rangeText(field), readersText(field),
                             field.meaning);
    }
    return table;
}

}  // namespace kestrune

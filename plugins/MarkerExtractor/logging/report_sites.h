// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kestrune {

/// One place from which a warning is written. File and line belong to the record that a log reader sees and are kept
/// stable across releases: they are names of the report, not positions in today's sources.
struct ReportSite {
    const char* file;
    int line;
    const char* text;
};

namespace report_sites {

extern const ReportSite kLeftEyeFailed;
extern const ReportSite kRightEyeFailed;
extern const ReportSite kNoStereoMatch;
extern const ReportSite kNoMarkersInOneFrame;
extern const ReportSite kTooFewMatrices;
extern const ReportSite kFirstMatrixSize;
extern const ReportSite kSecondMatrixSize;
extern const ReportSite kThirdMatrixSize;
extern const ReportSite kCornerListEmpty;
extern const ReportSite kRectifiedListEmpty;
extern const ReportSite kNoPositiveRadius;

}  // namespace report_sites

/// One check of what a routine is given, and the exception that it raises. Stable across releases like a report's site.
struct AssertionSite {
    const char* condition;
    const char* function;
    const char* file;
    int line;
};

namespace assertion_sites {

extern const AssertionSite kGaussianSource;
extern const AssertionSite kGradientSource;
extern const AssertionSite kThresholdSource;
extern const AssertionSite kMaskSources;

}  // namespace assertion_sites

/// Raises `cv::Exception` with code `cv::Error::StsAssert` and the site's texts.
[[noreturn]] void raiseAssertion(const AssertionSite& site);

/// Writes the site's text as a warning of the library.
void reportWarning(const ReportSite& site);

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
#include "logging/report_sites.h"

#include "logging/logging.h"

namespace kestrune {

namespace {

const char* const kExtractorSource = "plugins/MarkerExtractor/MarkerExtractor.cpp";

}  // namespace

namespace report_sites {

const ReportSite kLeftEyeFailed = {
    kExtractorSource, 2411,
    "CircleMarkerExtractor: Please check the left eye camera, failed to extract Marker Points."};
const ReportSite kRightEyeFailed = {
    kExtractorSource, 2418,
    "CircleMarkerExtractor: Please check the right eye camera, failed to extract Marker Points."};

}  // namespace report_sites

void reportWarning(const ReportSite& site) {
    Message message(site.file, site.line, "native", kLogWarn);
    message.text << site.text;
}

}  // namespace kestrune

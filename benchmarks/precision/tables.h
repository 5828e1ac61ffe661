// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "score.h"

namespace kestrune::bench {

/// Markdown: for each family a row for each group of kinds and each detector.
void printTables(const std::vector<Row>& rows, bool each);

/// Markdown: what all detectors and families come to, in two tables.
void printOverview(const std::vector<Row>& rows);

/// Not of nothing.
double median(std::vector<double> values);

/// SVG: by radius, on even light.
void plotRatios(const std::string& file, const std::vector<Row>& rows);

/// One line for each kind and detector.
void writeCsv(const std::string& file, const std::vector<Row>& rows);

}  // namespace kestrune::bench

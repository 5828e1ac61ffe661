// SPDX-License-Identifier: Apache-2.0
//
// The tables of a stereo run: CSV and JSON grow exposure by exposure, PLY is written at the end, since its header
// counts the points.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "files/output_file.h"
#include "grey_range.h"
#include "stereo_exposure.h"

namespace kestrune::measure {

struct StereoFiles {
    std::string csv, ply, json;  ///< empty: not asked for
    std::string ambiguous{};     ///< the table of pairs in doubt, beside `csv`
};

/// "points-ambiguous.csv" for "points.csv"; empty where that is, or is no regular file (a pipe, a device).
std::string ambiguousTableOf(const std::string& csv);

/// What all exposures of a run share, for the head of the JSON.
struct StereoRun {
    std::string calibration, settings, path, frame;
    std::optional<GreyRange> range;  ///< of the greys, none where all images have 8 bits
};

struct ExposureNames {
    std::string name, left, right;
};

/// What the tables tell of a marker beyond its point.
struct StereoDetail {
    bool normals;    ///< normals and radii
    bool estimates;  ///< uncertainties, and what became of the refinement
    bool trusted;    ///< probabilities and pairs in doubt
};

class StereoOutput {
  public:
    /// Opens the files and writes what stands before the first exposure. @throws InputError, OutputError
    StereoOutput(const StereoFiles& files, const StereoRun& run, const StereoDetail& detail);

    /// Appends an exposure. Of a failed one the tables tell the reason and the counts; its pairs, if there are any,
    /// stand in the JSON alone, under a name of their own. @throws OutputError
    void add(const ExposureNames& names, const StereoResult& result);

    /// Completes the files and puts them in their places.
    ///
    /// @param held  what incomplete ones hold; empty: they are complete.
    /// @return      why some could not be written.
    std::set<std::string> close(const std::string& held);

  private:
    void addRows(const std::string& exposure, const StereoResult& result);
    void addRecord(const ExposureNames& names, const StereoResult& result);
    void addVertices(const StereoResult& result);
    void writePly(const std::string& held);

    StereoDetail detail_;
    OutputFile csv_, ply_, json_, ambiguous_;
    std::string vertices_;
    std::size_t exposures_ = 0, vertexCount_ = 0;
};

}  // namespace kestrune::measure

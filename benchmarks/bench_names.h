// SPDX-License-Identifier: Apache-2.0
//
// Names under which the benchmark program files its results and the comparison finds them again. A result is called
// `what/WIDTHxHEIGHT/markers`.
#pragma once

#include <array>
#include <string_view>

namespace kestrune::bench {

/// A path of the library and the floor that it stands on, if it has one.
struct PathName {
    std::string_view name;
    std::string_view floor;
};

constexpr std::array<PathName, 10> kPathNames{{{"radial_s1", "floor_radial_s1"},
                                               {"radial_s2", "floor_radial_s2"},
                                               {"radial_s2_refine", "floor_radial_s2"},
                                               {"subpixel", "floor_subpixel"},
                                               {"subpixel_threads", "floor_subpixel"},
                                               {"fast", "floor_fast"},
                                               {"complex_s1", "floor_complex_s1"},
                                               {"complex_s2", "floor_complex_s2"},
                                               {"stereo_radial", ""},
                                               {"stereo_complex", ""}}};

/// Before the name of a path: the same in an earlier build.
constexpr std::string_view kOtherBuild = "other_";

constexpr std::array<std::string_view, 4> kRivalNames{"rival_blob", "rival_hough", "rival_edgedrawing", "rival_fit"};

/// What the names of the rivals are called in a table.
constexpr std::array<std::string_view, 4> kRivalTitles{"SimpleBlobDetector", "HoughCircles", "EdgeDrawing ellipses",
                                                       "threshold+fitEllipse"};

constexpr std::string_view kRecallCounter = "recall";
constexpr std::string_view kFalseCounter = "false";
constexpr std::string_view kCentreRmsCounter = "centreRmsPx";

}  // namespace kestrune::bench

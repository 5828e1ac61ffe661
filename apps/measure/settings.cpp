// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <opencv2/core/persistence.hpp>
#include <set>
#include <sstream>
#include <type_traits>
#include <variant>

#include "inputs.h"

namespace kestrune::host {
namespace {

using Member =
    std::variant<bool CicrleConfigs::*, std::int32_t CicrleConfigs::*, float CicrleConfigs::*, double CicrleConfigs::*,
                 std::string CicrleConfigs::*, std::vector<double> CicrleConfigs::*>;

struct Field {
    const char* name;
    Member member;
    double low = 0;  ///< of numbers, and of each entry of a list; both ends belong to the range
    double high = 0;
    const char* meaning;
};

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

// In the order of the record. Reading, checking and the documentation all go through this one table.
const std::array kFields = {
    Field{"enableAreaFilter", &C::enableAreaFilter, 0, 0,
          "fast: apply the area gate (simple, radial and hand always do)"},
    Field{"minArea", &C::minArea, 0, kLargest, "not edge-based: least contour area, px^2"},
    Field{"maxArea", &C::maxArea, 0, kLargest, "not edge-based: largest contour area, px^2"},
    Field{"minContourSize", &C::minContourSize, 0, 1e9,
          "simple: least contour length, px; radial: least blob area in the reduced image, px^2"},
    Field{"enableCircularityFilter", &C::enableCircularityFilter, 0, 0,
          "simple, radial, fast: apply the circularity gate"},
    Field{"minCircularity", &C::minCircularity, 0, 10, "simple, radial, fast: least 4 pi area / perimeter^2"},
    Field{"maxCircularity", &C::maxCircularity, 0, 10,
          "simple, radial, fast: 4 pi area / perimeter^2 stays below this"},
    Field{"enableConvexityFilter", &C::enableConvexityFilter, 0, 0, "simple, radial, fast: apply the hull gate"},
    Field{"maxConvexRatio", &C::maxConvexRatio, 0, 10, "simple, radial, fast: largest contour area / hull area"},
    Field{"minConvexRatio", &C::minConvexRatio, 0, 10, "simple, radial, fast: least contour area / hull area"},
    Field{"enableEccentricityFilter", &C::enableEccentricityFilter, 0, 0,
          "fast: apply the eccentricity gate (simple, radial and hand always do)"},
    Field{"maxEccentricity", &C::maxEccentricity, 0, 1, "not edge-based: largest sqrt(a^2 - b^2) / a"},
    Field{"maxFitError", &C::maxFitError, 0, kLargest, "simple, hand: largest RMS distance from the ellipse, px"},
    Field{"maxPointError", &C::maxPointError, 0, kLargest,
          "simple: a larger RMS passes if no point is farther away than this, px"},
    Field{"markerName", &C::markerName, 0, 0, "name of the kind of marker, free text"},
    Field{"cannyLow", &C::cannyLow, 0, kLargestStep, "simple: lower threshold of an edge, grey levels"},
    Field{"cannyHigh", &C::cannyHigh, 0, kLargestStep, "simple: upper threshold of an edge, grey levels"},
    Field{"aperture", &C::aperture, 1, kLargestKernel,
          "side of the Gaussian kernel, px, odd; radial: also the block of the adaptive threshold, edge-based: only "
          "that"},
    Field{"sigma", &C::sigma, 0, kLargestSigma, "sigma of the Gaussian, px"},
    Field{"scale", &C::scale, 1, kLargestScale, "whole-number reduction of the image before the search"},
    Field{"markerRadii", &C::markerRadii, 0, kLargest, "stereo: nominal radii of the markers"},
    Field{"skipUndistort", &C::skipUndistort, 0, 0, "measure in the image as it is; false needs a calibration"},
    Field{"cornersRectified", &C::cornersRectified, 0, 0, "stereo: the markers are in rectified pixels already"},
    Field{"outputRectified", &C::outputRectified, 0, 0, "stereo: leave the points in the rectified frame"},
    Field{"useThreads", &C::useThreads, 0, 0, "simple: one strip of columns for each hardware thread"},
    Field{"radiusScoreGate", &C::radiusScoreGate, 0, 0, "stereo: gate of the rectified matcher"},
    Field{"looseSizeGate", &C::looseSizeGate, 0, 0, "stereo: gate of the rectified matcher"},
    Field{"plainRowGate", &C::plainRowGate, 0, 0, "stereo: gate of the rectified matcher"},
    Field{"useComplexExtract", &C::useComplexExtract, 0, 0,
          "true: path complex (edge-based), whatever useRadialContours says"},
    Field{"maxRowDifference", &C::maxRowDifference, 0, kLargest, "stereo: row band, px"},
    Field{"minDepth", &C::minDepth, 0, kLargest, "stereo: nearest depth"},
    Field{"maxDepth", &C::maxDepth, 0, kLargest, "stereo: farthest depth"},
    Field{"sizeTolerance", &C::sizeTolerance, 0, kLargest, "stereo: relative tolerance of a marker's size"},
    Field{"deviationFactor", &C::deviationFactor, 0, 1e9, "stereo: allowed multiple of sizeTolerance"},
    Field{"edgeLengthTolerance", &C::edgeLengthTolerance, 0, kLargest, "stereo: relative tolerance of distances"},
    Field{"edgeAngleTolerance", &C::edgeAngleTolerance, 0, 6.3, "stereo: tolerance of directions, radians"},
    Field{"minRadiusRatio", &C::minRadiusRatio, 0, 1, "stereo: least ratio of the two radii of a pair"},
    Field{"useRadialContours", &C::useRadialContours, 0, 0,
          "true: path radial, false: path simple; not read where useComplexExtract is true"},
    Field{"thresholdC", &C::thresholdC, -255, 255,
          "radial, edge-based: grey levels below the surroundings; -20 asks for pixels 20 brighter"},
    Field{"refineAtFullSize", &C::refineAtFullSize, 0, 0,
          "radial: detect each blob again at full size; centres of faint markers in noise come out wrong by pixels"},
    Field{"minRayRatio", &C::minRayRatio, 0, 1, "radial: least share of rays that bear an edge"},
    Field{"contrast", &C::contrast, 0, 255, "radial: least contrast of a blob to the ring around it, grey levels"},
    Field{"maxFitResidual", &C::maxFitResidual, 0, kLargest,
          "radial, edge-based: largest RMS of the conic over the contour"},
    Field{"minDiameter", &C::minDiameter, 0, kLargest,
          "edge-based: least axis, px, and half of the least root of their product; its whole part bounds blobs of the "
          "reduced image"},
    Field{"maxDiameter", &C::maxDiameter, 0, kLargest,
          "edge-based: largest axis, px; rims may have 2.2 times as many pixels, blobs of the reduced image 4 times"},
    Field{"minAxisRatio", &C::minAxisRatio, 0, 1, "edge-based: least shorter over longer axis"},
    Field{"nmsFactor", &C::nmsFactor, 0, 10,
          "edge-based: above 1 only sharp ridges of the gradient are edges, below 1 broad ones too"},
    Field{"edgePercentile", &C::edgePercentile, 0, 1,
          "edge-based: share of a window's pixels with less gradient than an edge"},
};

/// What the range of one field cannot say.
struct Rule {
    std::array<const char*, 2> fields;  ///< the second may be null
    std::array<bool, 5> paths;          ///< where it counts, by `Path`
    bool (*holds)(const CicrleConfigs&);
    const char* wanted;
};

constexpr std::array<bool, 5> kEverywhere{true, true, true, true, true};
constexpr std::array<bool, 5> kOnlySimple{true, false, false, false, false};
constexpr std::array<bool, 5> kOnlyRadial{false, true, false, false, false};
constexpr std::array<bool, 5> kOnlyComplex{false, false, false, true, false};
constexpr std::array<bool, 5> kAdaptive{false, true, false, true, false};  ///< those with an adaptive threshold

constexpr std::array kRules = {
    Rule{{"minArea", "maxArea"}, kEverywhere, [](const C& c) { return c.minArea <= c.maxArea; }, "wanted: min <= max"},
    Rule{{"minCircularity", "maxCircularity"},
         kEverywhere,
         [](const C& c) { return c.minCircularity < c.maxCircularity; },
         "wanted: min < max"},
    Rule{{"minConvexRatio", "maxConvexRatio"},
         kEverywhere,
         [](const C& c) { return c.minConvexRatio <= c.maxConvexRatio; },
         "wanted: min <= max"},
    Rule{{"cannyLow", "cannyHigh"},
         kEverywhere,
         [](const C& c) { return c.cannyLow <= c.cannyHigh; },
         "wanted: low <= high"},
    Rule{{"minDepth", "maxDepth"},
         kEverywhere,
         [](const C& c) { return c.minDepth <= c.maxDepth; },
         "wanted: min <= max"},
    Rule{{"minDiameter", "maxDiameter"},
         kEverywhere,
         [](const C& c) { return c.minDiameter <= c.maxDiameter; },
         "wanted: min <= max"},
    Rule{{"aperture", nullptr}, kEverywhere, [](const C& c) { return c.aperture % 2 == 1; }, "must be odd"},
    Rule{{"aperture", nullptr},
         kAdaptive,
         [](const C& c) { return c.aperture >= 3; },
         "paths radial and complex need 3 or more"},
    // The derivative kernel reaches three sigma, rounded; below this it has no tap left.
    Rule{{"sigma", nullptr},
         kOnlySimple,
         [](const C& c) { return c.sigma > 1.0 / 6.0; },
         "path simple needs more than 1/6"},
    Rule{{"minRayRatio", nullptr},
         kOnlyRadial,
         [](const C& c) { return c.minRayRatio > 0; },
         "path radial needs more than 0"},
    Rule{{"sigma", nullptr}, kOnlyComplex, [](const C& c) { return c.sigma > 0; }, "path complex needs more than 0"},
    Rule{{"minDiameter", nullptr},
         kOnlyComplex,
         [](const C& c) { return c.minDiameter > 0; },
         "path complex needs more than 0"},
    // Nothing would pass at these ends of the ranges.
    Rule{{"minAxisRatio", nullptr},
         kOnlyComplex,
         [](const C& c) { return c.minAxisRatio < 1; },
         "path complex needs less than 1"},
    Rule{{"edgePercentile", nullptr},
         kOnlyComplex,
         [](const C& c) { return c.edgePercentile < 1; },
         "path complex needs less than 1"},
    // At 0 every pixel with a gradient is an edge.
    Rule{{"nmsFactor", nullptr},
         kOnlyComplex,
         [](const C& c) { return c.nmsFactor > 0; },
         "path complex needs more than 0"},
};

const char* typeName(const Member& member) {
    static constexpr std::array kNames = {"bool", "int", "float", "double", "text", "list"};
    return kNames[member.index()];
}

/// The text behind each key at the start of a line. The parser tells values, not how they were written, and wraps whole
/// numbers of more than 32 bits around without a word.
std::map<std::string, std::string, std::less<>> scalarsAsWritten(const std::string& text) {
    std::map<std::string, std::string, std::less<>> written;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto colon = line.find(':');
        if (colon == std::string::npos || line[0] == '#' || line[0] == '%') continue;
        const auto first = line.find_first_not_of(" \t", colon + 1);
        if (first == std::string::npos) continue;
        auto value = line.substr(first, line.find(" #", first) - first);
        value.erase(value.find_last_not_of(" \t\r") + 1);
        const auto key = std::min(line.find_first_not_of(" \t"), colon);
        written.emplace(line.substr(key, colon - key), std::move(value));
    }
    return written;
}

class Reader {
  public:
    Reader(std::string file, const std::string& text) : file_(std::move(file)), written_(scalarsAsWritten(text)) {}

    void readAll(const cv::FileNode& root) {
        std::map<std::string, int> seen;
        for (const std::string& key : root.keys()) ++seen[key];
        for (const Field& field : kFields) {
            const auto times = seen.extract(field.name);
            if (times.empty()) {
                problem(fmt::format("field '{}' is missing", field.name));
            } else if (times.mapped() > 1) {
                problem(fmt::format("field '{}' is there {} times", field.name, times.mapped()));
            } else {
                const cv::FileNode node = root[field.name];
                const bool good =
                    std::visit([&](auto member) { return readInto(configs_.*member, node, field); }, field.member);
                if (good) sound_.insert(field.name);
            }
        }
        for (const auto& [key, times] : seen) problem(fmt::format("unknown field '{}'", key));
    }

    Settings finish(std::optional<Path> wanted) {
        if (!wanted && sound_.contains("useRadialContours") && sound_.contains("useComplexExtract")) wanted = ownPath();
        if (wanted) {
            for (const Rule& rule : kRules) checkRule(rule, *wanted);
        }
        if (!problems_.empty()) throw SettingsError(problems_);
        configs_.useRadialContours = *wanted == Path::radial;
        configs_.useComplexExtract = *wanted == Path::complex;
        return {configs_, *wanted};
    }

    void problem(const std::string& text) { problems_.push_back(file_ + ": " + text); }

  private:
    /// The path that the file itself names.
    Path ownPath() const {
        if (configs_.useComplexExtract) return Path::complex;
        return configs_.useRadialContours ? Path::radial : Path::simple;
    }

    std::string valueOf(const char* name) const {
        const auto found = written_.find(name);
        return found == written_.end() ? "" : found->second;
    }

    bool wrongType(const Field& field, const char* expected) {
        problem(fmt::format("field '{}': '{}' is not {}", field.name, valueOf(field.name), expected));
        return false;
    }

    bool inRange(double value, const Field& field, const std::string& shown) {
        if (value >= field.low && value <= field.high) return true;
        problem(fmt::format("field '{}': {} is outside {:g} to {:g}", field.name, shown, field.low, field.high));
        return false;
    }

    bool readInto(bool& value, const cv::FileNode& node, const Field& field) {
        const std::string text = node.isString() || node.isInt() ? valueOf(field.name) : "";
        value = text == "true" || text == "1";
        return value || text == "false" || text == "0" || wrongType(field, "true or false");
    }

    bool readInto(std::int32_t& value, const cv::FileNode& node, const Field& field) {
        if (!node.isInt()) return wrongType(field, "a whole number");
        const std::string text = valueOf(field.name);
        char* end = nullptr;
        const long long asWritten = std::strtoll(text.c_str(), &end, 10);
        const bool plain = !text.empty() && *end == '\0';
        if (!inRange(plain ? static_cast<double>(asWritten) : static_cast<int>(node), field, text)) return false;
        value = static_cast<int>(node);
        return true;
    }

    template <typename Real>
    requires std::is_floating_point_v<Real>
    bool readInto(Real& value, const cv::FileNode& node, const Field& field) {
        if (!node.isReal() && !node.isInt()) return wrongType(field, "a number");
        if (!inRange(node.real(), field, valueOf(field.name))) return false;
        value = static_cast<Real>(node.real());
        return true;
    }

    bool readInto(std::string& value, const cv::FileNode& node, const Field& field) {
        if (!node.isString()) return wrongType(field, "a text in quotes");
        value = node.string();
        value.erase(value.find_last_not_of(" \t") + 1);  // the parser keeps the blanks before a comment
        return true;
    }

    bool readInto(std::vector<double>& value, const cv::FileNode& node, const Field& field) {
        if (!node.isSeq()) return wrongType(field, "a list in brackets");
        for (const cv::FileNode entry : node) {
            if (!entry.isReal() && !entry.isInt()) return wrongType(field, "a list of numbers");
            if (!inRange(entry.real(), field, fmt::format("{}", entry.real()))) return false;
            value.push_back(entry.real());
        }
        return true;
    }

    void checkRule(const Rule& rule, Path path) {
        if (!rule.paths[static_cast<std::size_t>(path)]) return;
        std::string shown;
        for (const char* name : rule.fields) {
            if (name == nullptr) continue;
            if (!sound_.contains(name)) return;
            shown += fmt::format("{}'{}' {}", shown.empty() ? "field " : " and ", name, valueOf(name));
        }
        if (!rule.holds(configs_)) problem(fmt::format("{}: {}", shown, rule.wanted));
    }

    std::string file_;
    std::map<std::string, std::string, std::less<>> written_;
    CicrleConfigs configs_{};
    std::set<std::string, std::less<>> sound_;
    std::vector<std::string> problems_;
};

std::string joinLines(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& line : lines) all += (all.empty() ? "" : "\n") + line;
    return all;
}

}  // namespace

const char* nameOf(Path path) {
    static constexpr std::array kNames = {"simple", "radial", "fast", "complex", "hand"};
    return kNames[static_cast<std::size_t>(path)];
}

SettingsError::SettingsError(const std::vector<std::string>& problems) : std::runtime_error(joinLines(problems)) {}

Settings loadSettings(const std::string& file, std::optional<Path> path) {
    const std::string text = readText(file);
    const cv::FileStorage storage = parseYaml(file, text);
    Reader reader(file, text);
    reader.readAll(storage.root());
    return reader.finish(path);
}

std::string describeSettings() {
    std::string table = fmt::format("{:<26}{:<8}{:<16}{}\n", "field", "type", "range", "meaning");
    for (const Field& field : kFields) {
        const bool ranged = field.low != field.high;
        const std::string range = ranged ? fmt::format("{:g} to {:g}", field.low, field.high) : "";
        table += fmt::format("{:<26}{:<8}{:<16}{}\n", field.name, typeName(field.member), range, field.meaning);
    }
    return table;
}

}  // namespace kestrune::host

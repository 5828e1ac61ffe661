// SPDX-License-Identifier: Apache-2.0
#include "trust_explanation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <vector>

#include "csv.h"
#include "explanation.h"
#include "stereo_pictures.h"
#include "trusted_match.h"

namespace kestrune::measure {
namespace {

// From here on the digits of a probability are those of what is missing to 1.
constexpr double kNearlyCertain = 0.99999;
constexpr const char* kPairRow = "{:>6} {:>6} {:>11} {:<9} {:>8} {:>8} {:>7} {:>8} {:>7} {:>7} {:>7} {:>7} {:>7}  {}";
constexpr const char* kEyeNames[] = {"left", "right"};

std::string probabilityText(double p) {
    if (p < 1 && p > kNearlyCertain) return fmt::format("1-{:.1e}", 1 - p);
    return fmt::format("{:.5f}", p);
}

std::string numberText(double value, const char* form) {
    return std::isnan(value) ? "-" : fmt::format(fmt::runtime(form), value);
}

std::string rowOf(const StereoMarker& m, const char* standing, const std::string& note) {
    const PairCues& c = m.trust->cues;
    return trimmed(fmt::format(
        kPairRow, m.number[0], m.number[1], probabilityText(m.trust->probability), standing,
        numberText(c.epipolar, "{:+.3f}"), numberText(c.epipolarSigma, "{:.3f}"), numberText(c.shape, "{:.1f}"),
        numberText(c.geometry, "{:+.1f}"), numberText(c.radius, "{:+.1f}"), numberText(c.depth, "{:+.1f}"),
        numberText(c.normal, "{:+.1f}"), numberText(c.grey, "{:+.1f}"), numberText(c.object, "{:+.1f}"), note));
}

std::string placeText(const StereoMarker& m) {
    return fmt::format("Z {:.5g}, radius {}", m.point[2], numberText(m.radius, "{:.4g}"));
}

std::string pairRows(const StereoResult& result) {
    std::string rows;
    if (result.markers.size() <= kMostListed)
        for (const StereoMarker& m : result.markers) rows += rowOf(m, "sure", placeText(m));
    if (result.trusted->ambiguous.size() > kMostListed) return rows;
    for (const AmbiguousPair& pair : result.trusted->ambiguous) {
        rows += rowOf(pair.marker, "ambiguous",
                      fmt::format("{}; would decide: {}", placeText(pair.marker), nameOf(pair.decider)));
        for (const StereoMarker& rival : pair.rivals) rows += rowOf(rival, "rival", placeText(rival));
    }
    return rows;
}

std::vector<UnmatchedMarker> standingAs(const StereoResult& result, std::size_t eye, const std::string& standing) {
    std::vector<UnmatchedMarker> markers;
    std::ranges::copy_if(result.unmatched[eye], std::back_inserter(markers),
                         [&](const UnmatchedMarker& m) { return testOf(m) == standing; });
    return markers;
}

std::string singleRows(const std::vector<UnmatchedMarker>& left, const std::vector<UnmatchedMarker>& right) {
    if (left.size() + right.size() > kMostListed || left.size() + right.size() == 0) return {};
    constexpr const char* kRow = "{:<6} {:>6} {:>8} {:>8}  {}";
    std::string rows = "\n";
    rows += trimmed(fmt::format(kRow, "single", "number", "x", "y", "probability"));
    for (const auto* markers : {&left, &right})
        for (const UnmatchedMarker& m : *markers)
            rows += trimmed(fmt::format(kRow, kEyeNames[markers == &right ? 1 : 0], m.number,
                                        fmt::format("{:.1f}", m.rim.center.x), fmt::format("{:.1f}", m.rim.center.y),
                                        numberText(m.verdict.measured, "{:.5f}")));
    return rows;
}

std::string countRow(std::size_t count, const std::string& what) {
    return fmt::format("{:>6}  {}{}\n", count, what, count > kMostListed ? " (not listed above)" : "");
}

std::string exposureRows(const StereoMatch& match) {
    std::string rows;
    if (match.objection != MatchObjection::none)
        rows += fmt::format("\n{}: {}\n", nameOf(match.objection), match.reason);
    if (match.moved.found)
        rows += fmt::format("{}rows would agree by {:.3f} px RMS better with the cameras turned by {:.4f} degrees\n",
                            rows.empty() ? "\n" : "", match.moved.size, match.moved.angle);
    return rows + fmt::format("{}sigmas of the markers: centres times {:.2f}, half axes times {:.2f}\n",
                              rows.empty() ? "\n" : "", match.centreScale, match.shapeScale);
}

}  // namespace

std::string trustTable(const StereoResult& result) {
    std::string table = trimmed(fmt::format(kPairRow, "left", "right", "probability", "", "epi px", "sigma", "shape",
                                            "geometry", "radius", "depth", "normal", "grey", "object", ""));
    table += pairRows(result);
    const auto left = standingAs(result, 0, "single"), right = standingAs(result, 1, "single");
    table += singleRows(left, right) + "\n";
    table += countRow(result.markers.size(),
                      fmt::format("sure pairs of {} left and {} right markers", result.found[0], result.found[1]));
    table += countRow(result.trusted->ambiguous.size(), "ambiguous pairs" + decidersOf(result));
    table += countRow(left.size() + right.size(), "markers that one eye alone sees, or that are none");
    return table + exposureRows(result.trusted->match);
}

std::string pairRowHeader() {
    std::string header =
        "standing,left,right,leftX,leftY,rightX,rightY,X,Y,Z,normalX,normalY,normalZ,radius,probability";
    for (const CueColumn& cue : cueColumns()) header += std::string(",") + cue.name;
    return header + ",decider";
}

void writePairRow(std::ostream& stream, const char* standing, const StereoMarker& m, const Decider* decider) {
    stream << standing << ',' << m.number[0] << ',' << m.number[1];
    for (const double value : {m.pixel[0].x, m.pixel[0].y, m.pixel[1].x, m.pixel[1].y, m.point[0], m.point[1],
                               m.point[2], m.normal[0], m.normal[1], m.normal[2], m.radius, m.trust->probability})
        stream << ',' << csvField(value);
    for (const CueColumn& cue : cueColumns()) stream << ',' << csvField(m.trust->cues.*cue.value);
    stream << ',' << (decider != nullptr ? nameOf(*decider) : "") << '\n';
}

void writeAmbiguousRows(std::ostream& stream, const std::string& head, const StereoResult& result) {
    if (!result.trusted) return;
    std::size_t number = 0;
    for (const AmbiguousPair& pair : result.trusted->ambiguous) {
        stream << head << number << ',';
        writePairRow(stream, "ambiguous", pair.marker, &pair.decider);
        for (const StereoMarker& rival : pair.rivals) {
            stream << head << number << ',';
            writePairRow(stream, "rival", rival, nullptr);
        }
        ++number;
    }
}

void writeTrustCsv(std::ostream& stream, const StereoResult& result) {
    stream << "pair," << pairRowHeader() << '\n';
    for (std::size_t k = 0; k < result.markers.size(); ++k) {
        stream << k << ',';
        writePairRow(stream, "sure", result.markers[k], nullptr);
    }
    writeAmbiguousRows(stream, "", result);
    const auto commas = static_cast<std::size_t>(std::ranges::count(pairRowHeader(), ','));
    for (std::size_t eye = 0; eye < 2; ++eye)
        for (const UnmatchedMarker& m : standingAs(result, eye, "single"))
            stream << ",single," << (eye == 0 ? fmt::format("{},", m.number) : fmt::format(",{}", m.number))
                   << (eye == 0 ? fmt::format(",{},{},,", csvField(m.rim.center.x), csvField(m.rim.center.y))
                                : fmt::format(",,,{},{}", csvField(m.rim.center.x), csvField(m.rim.center.y)))
                   << std::string(8, ',') << csvField(m.verdict.measured) << std::string(commas - 14, ',') << '\n';
}

cv::Mat drawTrust(const std::array<cv::Mat, 2>& images, const StereoResult& result, const std::string& title) {
    const SideBySide both(images);
    drawRivals(both, result);
    std::vector<Mark> marks;
    for (const StereoMarker& m : result.markers)
        for (std::size_t eye = 0; eye < 2; ++eye)
            marks.push_back(both.mark(eye, MarkKind::paired, fmt::format("{}", m.number[eye]), m.rim[eye]));
    std::size_t single = 0;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        for (const UnmatchedMarker& m : result.unmatched[eye]) {
            const bool ambiguous = testOf(m) == std::string("ambiguous");
            marks.push_back(both.mark(eye, ambiguous ? MarkKind::ambiguous : MarkKind::unmatched,
                                      fmt::format("#{}", m.number), m.rim));
            if (!ambiguous) ++single;
        }
    }
    return drawOverlay(both.image, marks, title,
                       {{MarkKind::paired, result.markers.size()},
                        {MarkKind::ambiguous, result.trusted->ambiguous.size()},
                        {MarkKind::unmatched, single}});
}

}  // namespace kestrune::measure

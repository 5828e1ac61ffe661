// SPDX-License-Identifier: Apache-2.0
#include "explanation.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <ostream>
#include <set>

#include "MarkerExtractor/extraction/explain.h"
#include "csv.h"
#include "files/inputs.h"
#include "overlay.h"

namespace kestrune::measure {
namespace {

constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();
constexpr const char* kColumns =
    "image,number,x,y,width,height,ellipseX,ellipseY,major,minor,angle,gate,measured,wanted,marker\n";

// A smaller box is a speck.
constexpr double kLeastBoxPx = 5;
const cv::Scalar kDroppedColour(205, 205, 205);
// Two contours whose boxes differ less than this are one to the eye.
constexpr double kTwinPx = 2;
// Outlines are many and lie close together.
constexpr MarkStyle kStyle{1, 0.5};

struct GateColour {
    const char* gate;
    cv::Scalar colour;  ///< BGR
};

/// Told apart from each other and from the green of markers; gates of one path have different ones.
cv::Scalar colourOf(const std::string& gate) {
    static const std::array kColours = {
        GateColour{"area", {0, 150, 255}},          GateColour{"length", {0, 150, 255}},
        GateColour{"size", {60, 235, 255}},         GateColour{"fit", {255, 255, 255}},
        GateColour{"place", {140, 190, 140}},       GateColour{"eccentricity", {60, 60, 255}},
        GateColour{"axis ratio", {60, 60, 255}},    GateColour{"circularity", {255, 90, 255}},
        GateColour{"gradient", {255, 90, 255}},     GateColour{"convexity", {60, 235, 255}},
        GateColour{"hull", {255, 255, 255}},        GateColour{"fit error", {255, 235, 70}},
        GateColour{"fit residual", {255, 235, 70}}, GateColour{"perimeter", {180, 140, 255}},
        GateColour{"contrast", {180, 140, 255}},    GateColour{"compactness", {255, 90, 255}},
        GateColour{"repetition", {255, 110, 110}},  GateColour{"merged", {255, 110, 110}},
        GateColour{"nested", {150, 200, 255}},
    };
    const auto* const found = std::ranges::find(kColours, gate, &GateColour::gate);
    return found == kColours.end() ? cv::Scalar(190, 190, 190) : found->colour;
}

std::optional<Rim> fittedRim(const cv::RotatedRect& ellipse, const Enlargement& enlarge) {
    const bool finite = std::isfinite(ellipse.center.x + ellipse.center.y + ellipse.size.width + ellipse.size.height);
    if (!finite || ellipse.size.area() == 0) return std::nullopt;
    return rimOf(ellipse, enlarge);
}

cv::Rect2d boxOf(const std::vector<cv::Point2f>& contour) {
    if (contour.empty()) return {};
    const auto [left, right] = std::ranges::minmax(contour, {}, &cv::Point2f::x);
    const auto [top, bottom] = std::ranges::minmax(contour, {}, &cv::Point2f::y);
    return {cv::Point2d(left.x, top.y), cv::Point2d(right.x, bottom.y)};
}

cv::Point2d middleOf(const cv::Rect2d& box) {
    return 0.5 * (box.tl() + box.br());
}

std::string outcomeOf(const Candidate& c) {
    if (c.gate.empty()) return fmt::format("marker {}", c.marker);
    return c.marker < 0 ? c.gate : fmt::format("{} of marker {}", c.gate, c.marker);
}

std::string numberText(double value) {
    return std::isnan(value) ? "" : fmt::format("{:.5g}", value);
}

/// Overlapping windows deliver one rim twice: the label of the twin would cover that of the marker.
bool liesOnMarker(const Candidate& candidate, const std::vector<Candidate>& candidates) {
    return std::ranges::any_of(candidates, [&](const Candidate& other) {
        const double apart =
            cv::norm(other.box.tl() - candidate.box.tl()) + cv::norm(other.box.br() - candidate.box.br());
        return other.gate.empty() && apart < kTwinPx;
    });
}

std::vector<ExplainedCandidate> explained(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                                          const Settings& settings, Drops* drops) {
    const cv::Mat taken = asTaken(image, settings.path);
    if (settings.path == Path::fast) return explainFast(taken, settings.configs, drops);
    if (settings.path == Path::hand) return explainHand(taken, settings.configs, drops);
    return explainExtraction(taken, extractor, eye, settings.configs, drops);
}

/// Gates that refused too many to list each.
std::set<std::string> crowdedGates(const std::vector<GateCount>& counts) {
    std::set<std::string> crowded;
    for (const GateCount& count : counts)
        if (!count.gate.empty() && count.count > kMostListed) crowded.insert(count.gate);
    return crowded;
}

/// Boxes of what was dropped, but for what is too small to be looked at and for causes that are met everywhere.
std::vector<Mark> marksOf(const std::vector<Dropped>& dropped) {
    std::map<std::string, std::size_t> counts;
    for (const Dropped& d : dropped) ++counts[d.gate];
    std::vector<Mark> marks;
    for (const Dropped& d : dropped) {
        const cv::Rect2d& b = d.box;
        if (counts[d.gate] > kMostListed || std::min(b.width, b.height) < kLeastBoxPx) continue;
        Mark mark{MarkKind::refused, "", middleOf(b), 0.5 * b.width, 0.5 * b.height, 0};
        for (const cv::Point2d& corner : {b.tl(), cv::Point2d(b.br().x, b.y), b.br(), cv::Point2d(b.x, b.br().y)})
            mark.outline.emplace_back(corner);
        mark.colour = kDroppedColour;
        marks.push_back(std::move(mark));
    }
    return marks;
}

}  // namespace

std::string trimmed(std::string line) {
    return line.erase(line.find_last_not_of(' ') + 1) + '\n';
}

std::vector<Candidate> explainMarkers(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                                      const Camera& camera, const Settings& settings, std::vector<Dropped>* dropped) {
    const Enlargement enlarge = enlargementOf(image, settings);
    setCamera(extractor, eye, camera, enlarge, settings);
    std::vector<Candidate> candidates;
    Drops drops;
    for (ExplainedCandidate& one : explained(extractor, image, eye, settings, dropped == nullptr ? nullptr : &drops)) {
        for (cv::Point2f& p : one.contour) p = enlarge.point(p);
        const cv::Rect2d box = boxOf(one.contour);
        candidates.push_back({static_cast<int>(candidates.size()), std::move(one.contour), box,
                              fittedRim(one.ellipse, enlarge), std::move(one.gate), one.measured, std::move(one.wanted),
                              one.marker});
        if (candidates.back().gate.empty()) candidates.back().measured = kNoNumber;
    }
    if (dropped == nullptr) return candidates;
    for (const Drop& drop : drops) {
        const DropText text = describe(drop, settings.configs);
        const cv::Rect2d& box = drop.box;  // of whole pixels, which begin half a pixel before their centres
        dropped->push_back(
            {text.name,
             drop.measured,
             text.wanted,
             {box.x * enlarge.x - 0.5, box.y * enlarge.y - 0.5, box.width * enlarge.x, box.height * enlarge.y}});
    }
    return candidates;
}

std::vector<GateCount> countGates(const std::vector<Candidate>& candidates) {
    std::vector<GateCount> counts = {{"", 0, kNoNumber, kNoNumber, ""}};
    for (const Candidate& c : candidates) {
        // Two gates may share a name: what is wanted tells them apart.
        auto entry =
            std::ranges::find_if(counts, [&](const GateCount& g) { return g.gate == c.gate && g.wanted == c.wanted; });
        if (entry == counts.end()) entry = counts.insert(entry, {c.gate, 0, kNoNumber, kNoNumber, c.wanted});
        ++entry->count;
        entry->least = std::fmin(entry->least, c.measured);
        entry->largest = std::fmax(entry->largest, c.measured);
    }
    std::stable_sort(counts.begin() + 1, counts.end(), [](const auto& a, const auto& b) { return a.count > b.count; });
    return counts;
}

std::string countTable(const std::vector<GateCount>& counts, const std::set<std::string>& unlisted) {
    std::string table = fmt::format("{:>6}  {:<24} {:>22}  {}\n", "count", "gate", "measured", "wanted");
    for (const GateCount& g : counts) {
        const std::string range =
            std::isnan(g.least) ? "" : fmt::format("{} to {}", numberText(g.least), numberText(g.largest));
        table += trimmed(fmt::format("{:>6}  {:<24} {:>22}  {}{}", g.count, g.gate.empty() ? "marker" : g.gate, range,
                                     g.wanted, unlisted.contains(g.gate) ? " (not listed above)" : ""));
    }
    return table;
}

std::string explanationTable(const std::vector<Candidate>& candidates) {
    const std::vector<GateCount> counts = countGates(candidates);
    const std::set<std::string> crowded = crowdedGates(counts);
    constexpr const char* kRow = "{:>6} {:>8} {:>8} {:>13}  {:<24} {:>10}  {}";
    std::string table = trimmed(fmt::format(kRow, "number", "x", "y", "size", "gate", "measured", "wanted"));
    for (const Candidate& c : candidates) {
        if (crowded.contains(c.gate)) continue;
        const cv::Point2d middle = middleOf(c.box);
        table += trimmed(fmt::format(kRow, c.number, fmt::format("{:.1f}", middle.x), fmt::format("{:.1f}", middle.y),
                                     fmt::format("{:.1f} x {:.1f}", c.box.width, c.box.height), outcomeOf(c),
                                     numberText(c.measured), c.wanted));
    }
    return table + '\n' + countTable(counts, crowded);
}

void writeExplanationCsv(std::ostream& stream, const std::string& image, const std::vector<Candidate>& candidates) {
    stream << kColumns;
    for (const Candidate& c : candidates) {
        stream << csvField(image) << ',' << c.number;
        const cv::Point2d middle = middleOf(c.box);
        const Rim rim = c.rim.value_or(Rim{{kNoNumber, kNoNumber}, kNoNumber, kNoNumber, kNoNumber});
        for (const double value : {middle.x, middle.y, c.box.width, c.box.height, rim.centre.x, rim.centre.y,
                                   rim.majorHalfAxis, rim.minorHalfAxis, rim.angle}) {
            stream << ',' << csvField(value);
        }
        stream << ',' << (c.gate.empty() ? "marker" : c.gate) << ',' << csvField(c.measured) << ','
               << csvField(c.wanted) << ',' << (c.marker < 0 ? "" : fmt::format("{}", c.marker)) << '\n';
    }
}

cv::Mat drawExplanation(const cv::Mat& image, const std::vector<Candidate>& candidates, const std::string& title,
                        const std::vector<Dropped>& dropped) {
    const std::vector<GateCount> counts = countGates(candidates);
    const std::set<std::string> crowded = crowdedGates(counts);
    std::map<std::string, std::size_t> byName;
    for (const GateCount& g : counts) byName[g.gate] += g.count;
    Legend legend = {{MarkKind::found, byName.at(""), "markers"}};
    for (const GateCount& g : counts) {
        const auto entry = byName.extract(g.gate);
        if (!entry.empty() && !g.gate.empty())
            legend.push_back({MarkKind::refused, entry.mapped(), g.gate, colourOf(g.gate)});
    }
    std::vector<Mark> marks = marksOf(dropped);
    if (!marks.empty()) legend.push_back({MarkKind::refused, marks.size(), "never candidates", kDroppedColour});
    for (const bool accepted : {true, false}) {  // labels of markers get the better places
        for (const Candidate& c : candidates) {
            if (c.gate.empty() != accepted || c.contour.empty()) continue;
            Mark mark{accepted ? MarkKind::found : MarkKind::refused,
                      "",
                      middleOf(c.box),
                      0.5 * c.box.width,
                      0.5 * c.box.height,
                      0};
            mark.outline = c.contour;
            if (accepted) mark.label = fmt::format("{}", c.marker);
            if (!accepted) mark.colour = colourOf(c.gate);
            if (!accepted && !crowded.contains(c.gate) && !liesOnMarker(c, candidates))
                mark.label = fmt::format("#{}", c.number);
            marks.push_back(std::move(mark));
        }
    }
    return drawOverlay(image, marks, title, legend, kStyle);
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
#include "pair_explanation.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <ostream>

#include "csv.h"
#include "explanation.h"
#include "overlay.h"
#include "stereo_exposure.h"
#include "stereo_pictures.h"
#include "trust_explanation.h"

namespace kestrune::measure {
namespace {

// The sentence names the tests that ended at least this share of the markers.
constexpr double kWorthTelling = 0.25;
constexpr const char* kEyes[] = {"left", "right"};

struct GateText {
    const char* name;
    cv::Scalar colour;  ///< BGR, unlike the green of pairs; gates of one branch have different ones
};

const GateText& textOf(PairGate gate) {
    static const std::array<GateText, 16> kTexts = {{{"outline", {255, 255, 255}},
                                                     {"rows", {60, 60, 255}},
                                                     {"area", {255, 90, 255}},
                                                     {"rim rows", {140, 140, 255}},
                                                     {"depth", {0, 150, 255}},
                                                     {"circle", {255, 255, 255}},
                                                     {"radius", {60, 235, 255}},
                                                     {"spread", {255, 110, 110}},
                                                     {"radius score", {150, 200, 255}},
                                                     {"radius ratio", {255, 90, 255}},
                                                     {"score", {255, 235, 70}},
                                                     {"edge length", {255, 160, 70}},
                                                     {"edge direction", {180, 140, 255}},
                                                     {"taken", {190, 190, 190}},
                                                     {"ambiguous", {255, 235, 70}},
                                                     {"pair", {120, 255, 60}}}};
    return kTexts[static_cast<std::size_t>(gate)];
}

/// The settings, or what else a gate asks for.
std::string settingsOf(PairGate gate, const CicrleConfigs& c) {
    switch (gate) {
        case PairGate::outline:
            return "a contour that the row of its centre crosses";
        case PairGate::rows:
        case PairGate::rimRows:
            return fmt::format("maxRowDifference {}", c.maxRowDifference);
        case PairGate::area:
            return fmt::format("sizeTolerance {}", c.sizeTolerance);
        case PairGate::depth:
            return fmt::format("minDepth {}, maxDepth {}", c.minDepth, c.maxDepth);
        case PairGate::circle:
            return "two ellipses that are images of one circle";
        case PairGate::radius:
            return fmt::format("markerRadii {}, sizeTolerance {}", fmt::join(c.markerRadii, ", "), c.sizeTolerance);
        case PairGate::spread:
            return fmt::format("deviationFactor {} times sizeTolerance {}", c.deviationFactor, c.sizeTolerance);
        case PairGate::radiusScore:
            return fmt::format("deviationFactor {}", c.deviationFactor);
        case PairGate::radiusRatio:
            return fmt::format("minRadiusRatio {}", c.minRadiusRatio);
        case PairGate::score:
            return "that of the best pair of these markers";
        case PairGate::edgeLength:
            return fmt::format("edgeLengthTolerance {}", c.edgeLengthTolerance);
        case PairGate::edgeDirection:
            return fmt::format("edgeAngleTolerance {}", c.edgeAngleTolerance);
        case PairGate::taken:
            return "a candidate that is in no other pair";
        case PairGate::ambiguous:
            return "candidates, where no constellation is found";
        case PairGate::none:
            break;
    }
    return {};
}

/// The bounds, where they are not those of one setting as it stands, and the settings.
std::string wantedOf(const PairVerdict& v, const CicrleConfigs& configs) {
    std::string settings = settingsOf(v.gate, configs);
    if (v.gate == PairGate::depth) return settings;
    if (std::isfinite(v.least) && std::isfinite(v.largest))
        return fmt::format("{:.4g} to {:.4g}: {}", v.least, v.largest, settings);
    if (std::isfinite(v.least)) return fmt::format("at least {:.4g}: {}", v.least, settings);
    if (std::isfinite(v.largest)) return fmt::format("at most {:.4g}: {}", v.largest, settings);
    return settings;
}

std::string shortText(double value) {
    return std::isnan(value) ? "" : fmt::format("{:.4g}", value);
}

/// Whether a verdict says more about a marker than another one.
bool isBetter(const PairVerdict& a, const PairVerdict& b) {
    return a.gate != b.gate ? a.gate > b.gate : a.excess() < b.excess();
}

struct PairGateCount {
    PairGate gate;
    std::size_t count = 0;
    std::vector<double> measured{};  ///< ascending

    /// Between the quartiles: what most of them measured, without those that met a chance candidate.
    std::string range() const {
        if (measured.empty()) return {};
        return fmt::format("{:.4g} to {:.4g}", measured[measured.size() / 4], measured[measured.size() * 3 / 4]);
    }
};

/// Those that ended most markers first.
std::vector<PairGateCount> countGates(const std::vector<UnmatchedMarker>& markers) {
    std::map<PairGate, PairGateCount> byGate;
    for (const UnmatchedMarker& m : markers) {
        PairGateCount& count = byGate.try_emplace(m.verdict.gate, PairGateCount{m.verdict.gate}).first->second;
        ++count.count;
        if (!std::isnan(m.verdict.measured)) count.measured.push_back(m.verdict.measured);
    }
    std::vector<PairGateCount> counts;
    for (auto& [gate, count] : byGate) {
        std::ranges::sort(count.measured);
        counts.push_back(std::move(count));
    }
    std::ranges::stable_sort(counts, std::greater(), &PairGateCount::count);
    return counts;
}

std::vector<UnmatchedMarker> ofBothEyes(const StereoResult& result) {
    std::vector<UnmatchedMarker> all = result.unmatched[0];
    all.insert(all.end(), result.unmatched[1].begin(), result.unmatched[1].end());
    return all;
}

const std::vector<UnmatchedMarker>& ofPoorerEye(const StereoResult& result) {
    return result.unmatched[result.found[1] < result.found[0] ? 1 : 0];
}

}  // namespace

const char* testOf(const UnmatchedMarker& marker) {
    return marker.standing != nullptr ? marker.standing : textOf(marker.verdict.gate).name;
}

std::vector<UnmatchedMarker> unmatchedOf(const ExplainedMatch& match, std::size_t eye,
                                         const std::vector<cv::RotatedRect>& rims) {
    std::vector<const PairVerdict*> best(rims.size());
    for (const PairVerdict& v : match.verdicts) {
        const int own = eye == 0 ? v.left : v.right;
        if (own < 0) continue;
        const PairVerdict*& mine = best[static_cast<std::size_t>(own)];
        if (mine == nullptr || isBetter(v, *mine)) mine = &v;
    }
    std::vector<bool> paired(rims.size());
    for (const auto& [left, right] : match.pairs) paired[static_cast<std::size_t>(eye == 0 ? left : right)] = true;
    std::vector<UnmatchedMarker> unmatched;
    for (std::size_t k = 0; k < rims.size(); ++k) {
        if (paired[k]) continue;
        const PairVerdict verdict = best[k] != nullptr ? *best[k] : PairVerdict{-1, -1, PairGate::rows};
        unmatched.push_back({static_cast<int>(k), rims[k], verdict, eye == 0 ? verdict.right : verdict.left});
    }
    return unmatched;
}

std::string chiefObstacle(const StereoResult& result, const CicrleConfigs& configs) {
    const std::vector<UnmatchedMarker>& markers = ofPoorerEye(result);
    std::string text;
    for (const PairGateCount& g : countGates(markers)) {
        if (static_cast<double>(g.count) < kWorthTelling * static_cast<double>(markers.size())) break;
        text += fmt::format("{} {} of {} without a partner ended at {}", text.empty() ? "" : ",", g.count,
                            markers.size(), textOf(g.gate).name);
        const std::string settings = settingsOf(g.gate, configs);
        text +=
            g.measured.empty() ? fmt::format(" ({})", settings) : fmt::format(" (mostly {}; {})", g.range(), settings);
    }
    return text.empty() ? text : text.substr(1);
}

bool blamesTheRig(const StereoResult& result) {
    const std::vector<PairGateCount> counts = countGates(ofPoorerEye(result));
    return !counts.empty() && (counts[0].gate == PairGate::rows || counts[0].gate == PairGate::depth ||
                               counts[0].gate == PairGate::radiusRatio || counts[0].gate == PairGate::score);
}

std::string pairExplanationTable(const StereoResult& result, const CicrleConfigs& configs) {
    if (result.trusted) return trustTable(result);
    const std::vector<PairGateCount> counts = countGates(ofBothEyes(result));
    const auto isCrowded = [&](PairGate gate) {
        return std::ranges::find(counts, gate, &PairGateCount::gate)->count > kMostListed;
    };
    constexpr const char* kRow = "{:<5} {:>6} {:>8} {:>8} {:>9}  {:<15} {:>10}  {}";
    std::string table =
        trimmed(fmt::format(kRow, "eye", "number", "x", "y", "candidate", "test", "measured", "wanted"));
    for (std::size_t eye = 0; eye < 2; ++eye) {
        for (const UnmatchedMarker& m : result.unmatched[eye]) {
            if (isCrowded(m.verdict.gate)) continue;
            table += trimmed(fmt::format(kRow, kEyes[eye], m.number, fmt::format("{:.1f}", m.rim.center.x),
                                         fmt::format("{:.1f}", m.rim.center.y),
                                         m.partner < 0 ? "" : fmt::format("{}", m.partner), textOf(m.verdict.gate).name,
                                         shortText(m.verdict.measured), wantedOf(m.verdict, configs)));
        }
    }
    table += fmt::format("\n{:>6}  {:<15} {:>22}  {}\n{:>6}  pairs of {} left and {} right markers\n", "count", "test",
                         "mostly", "wanted", result.markers.size(), result.found[0], result.found[1]);
    for (const PairGateCount& g : counts)
        table += trimmed(fmt::format("{:>6}  {:<15} {:>22}  {}{}", g.count, textOf(g.gate).name, g.range(),
                                     settingsOf(g.gate, configs), isCrowded(g.gate) ? " (not listed above)" : ""));
    return table;
}

void writePairExplanationCsv(std::ostream& stream, const StereoResult& result, const CicrleConfigs& configs) {
    if (result.trusted) return writeTrustCsv(stream, result);
    stream << "eye,number,x,y,test,measured,wanted,candidate\n";
    for (std::size_t eye = 0; eye < 2; ++eye) {
        std::map<int, std::string> rows;
        for (const StereoMarker& m : result.markers)
            rows[m.number[eye]] =
                fmt::format("{},{},pair,,,{}\n", csvField(m.pixel[eye].x), csvField(m.pixel[eye].y), m.number[1 - eye]);
        for (const UnmatchedMarker& m : result.unmatched[eye])
            rows[m.number] =
                fmt::format("{},{},{},{},{},{}\n", csvField(m.rim.center.x), csvField(m.rim.center.y),
                            textOf(m.verdict.gate).name, csvField(m.verdict.measured),
                            csvField(wantedOf(m.verdict, configs)), m.partner < 0 ? "" : fmt::format("{}", m.partner));
        for (const auto& [number, row] : rows) stream << kEyes[eye] << ',' << number << ',' << row;
    }
}

cv::Mat drawPairExplanation(const std::array<cv::Mat, 2>& images, const StereoResult& result,
                            const std::string& title) {
    if (result.trusted) return drawTrust(images, result, title);
    const SideBySide both(images);
    std::vector<Mark> marks;
    const auto add = [&](std::size_t eye, MarkKind kind, const std::string& label, const cv::RotatedRect& rim) {
        marks.push_back(both.mark(eye, kind, label, rim));
    };
    for (std::size_t k = 0; k < result.markers.size(); ++k)
        for (std::size_t eye = 0; eye < 2; ++eye)
            add(eye, MarkKind::paired, fmt::format("{}", result.markers[k].number[eye]), result.markers[k].rim[eye]);
    const std::vector<PairGateCount> counts = countGates(ofBothEyes(result));
    for (std::size_t eye = 0; eye < 2; ++eye) {
        for (const UnmatchedMarker& m : result.unmatched[eye]) {
            const bool crowded = std::ranges::find(counts, m.verdict.gate, &PairGateCount::gate)->count > kMostListed;
            add(eye, MarkKind::unmatched, crowded ? "" : fmt::format("#{}", m.number), m.rim);
            marks.back().colour = textOf(m.verdict.gate).colour;
        }
    }
    Legend legend = {{MarkKind::paired, result.markers.size()}};
    for (const PairGateCount& g : counts)
        legend.push_back({MarkKind::unmatched, g.count, textOf(g.gate).name, textOf(g.gate).colour});
    return drawOverlay(both.image, marks, title, legend);
}

}  // namespace kestrune::measure

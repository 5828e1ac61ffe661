// SPDX-License-Identifier: Apache-2.0
#include "dropped.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <ostream>
#include <type_traits>

#include "csv.h"
#include "explanation.h"
#include "settings/setting_rules.h"

namespace kestrune::measure {
namespace {

using C = CicrleConfigs;
using Values = std::vector<double>;

// Two markers are one where they lie nearer than this, or than half their mean half axis.
constexpr double kSamePx = 2;
// So many times more of the other polarity are no chance reflections, nor the holes of rings.
constexpr std::size_t kMuchMore = 4;

/// A setting and how to loosen it, from mild to bold.
struct Knob {
    const char* name;
    std::array<bool, 5> paths;  ///< that read it, by `Path`
    double (*get)(const C&);
    void (*set)(C&, double);
    Values (*values)(double now);
};

constexpr std::array<bool, 5> kSimple{true, false, false, false, false};
constexpr std::array<bool, 5> kRadial{false, true, false, false, false};
constexpr std::array<bool, 5> kComplex{false, false, false, true, false};
constexpr std::array<bool, 5> kContours{true, true, false, false, false};
constexpr std::array<bool, 5> kAdaptive{false, true, false, true, false};
constexpr std::array<bool, 5> kReduced{true, true, false, true, false};

template <auto Field>
double get(const C& configs) {
    return static_cast<double>(configs.*Field);
}

template <auto Field>
void set(C& configs, double value) {
    configs.*Field = static_cast<std::remove_reference_t<decltype(configs.*Field)>>(value);
}

Values lower(double now) {
    return {0.75 * now, 0.5 * now, 0.25 * now};
}

Values raised(double now) {
    return {1.5 * now, 2 * now, 3 * now};
}

Values around(double now) {
    return {0.8 * now, 1.25 * now, 0.6 * now, 1.6 * now};
}

/// Nearer to 0 lets fainter pixels in; where they flood all, farther from it.
Values thresholds(double now) {
    return now <= -2 ? Values{0.75 * now, 0.5 * now, 0.25 * now, 1.5 * now, 2 * now} : Values{-4, -8, -16};
}

Values oddSides(double now) {
    Values sides;
    for (const double factor : {0.7, 1.5, 2.0, 3.0}) sides.push_back(2 * std::floor(0.5 * factor * now) + 1);
    return sides;
}

Values scales(double now) {
    return {now - 1, now + 1, now - 2};
}

/// The sub-pixel path measures in the reduced image: no advice makes that coarser.
Values finerScales(double now) {
    return {now - 1, now - 2};
}

Values softer(double now) {
    return {now - 0.03, now - 0.07, now - 0.15};
}

constexpr std::array kKnobs = {
    Knob{"thresholdC", kAdaptive, get<&C::thresholdC>, set<&C::thresholdC>, thresholds},
    Knob{"contrast", kRadial, get<&C::contrast>, set<&C::contrast>, lower},
    Knob{"minRayRatio", kRadial, get<&C::minRayRatio>, set<&C::minRayRatio>, lower},
    Knob{"cannyLow", kSimple, get<&C::cannyLow>, set<&C::cannyLow>, lower},
    Knob{"cannyHigh", kSimple, get<&C::cannyHigh>, set<&C::cannyHigh>, lower},
    Knob{"minContourSize", kContours, get<&C::minContourSize>, set<&C::minContourSize>, lower},
    Knob{"minDiameter", kComplex, get<&C::minDiameter>, set<&C::minDiameter>, lower},
    Knob{"maxDiameter", kComplex, get<&C::maxDiameter>, set<&C::maxDiameter>, raised},
    Knob{"minAxisRatio", kComplex, get<&C::minAxisRatio>, set<&C::minAxisRatio>, lower},
    Knob{"nmsFactor", kComplex, get<&C::nmsFactor>, set<&C::nmsFactor>, softer},
    Knob{"edgePercentile", kComplex, get<&C::edgePercentile>, set<&C::edgePercentile>, around},
    Knob{"sigma", kReduced, get<&C::sigma>, set<&C::sigma>, around},
    Knob{"aperture", kAdaptive, get<&C::aperture>, set<&C::aperture>, oddSides},
    Knob{"scale", kAdaptive, get<&C::scale>, set<&C::scale>, scales},
    Knob{"scale", kSimple, get<&C::scale>, set<&C::scale>, finerScales},
};

/// Two thresholds that a faint marker must pass both: places above.
constexpr std::pair<std::size_t, std::size_t> kPairs[] = {{0, 1}, {3, 4}};

bool isAmong(const Marker& marker, const std::vector<Marker>& markers) {
    return std::ranges::any_of(markers, [&](const Marker& other) {
        return cv::norm(marker.centre - other.centre) < std::max(kSamePx, 0.25 * std::sqrt(other.area));
    });
}

std::size_t countMissing(const std::vector<Marker>& markers, const std::vector<Marker>& among) {
    return static_cast<std::size_t>(
        std::ranges::count_if(markers, [&](const Marker& marker) { return !isAmong(marker, among); }));
}

/// One or two settings changed.
struct Change {
    std::string text;
    C configs;
};

/// All changes of a setting that make sense.
std::vector<Change> changesOf(const Knob& knob, const C& configs) {
    std::vector<Change> changes;
    const double now = knob.get(configs);
    for (const double value : knob.values(now)) {
        C changed = configs;
        knob.set(changed, value);
        const double taken = knob.get(changed);  // whole numbers are cut off
        if (taken != now)
            changes.push_back({fmt::format("{} {:.4g} instead of {:.4g}", knob.name, taken, now), changed});
    }
    return changes;
}

/// Every change of one together with every change of the other.
std::vector<Change> changesOf(const Knob& first, const Knob& second, const C& configs) {
    std::vector<Change> both;
    for (const Change& one : changesOf(first, configs)) {
        for (const Change& two : changesOf(second, one.configs))
            both.push_back({one.text + " and " + two.text, two.configs});
    }
    return both;
}

/// Finds the markers of an image under changed settings.
class Trials {
  public:
    Trials(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
           const Settings& settings, const std::vector<Marker>& markers)
        : extractor_(extractor), image_(image), eye_(eye), camera_(camera), settings_(settings), markers_(markers) {}

    /// The first of the changes that add most.
    Trial bestOf(const std::vector<Change>& changes) {
        Trial best{};
        for (const Change& change : changes) {
            if (!areUsable(change.configs, settings_.path)) continue;
            settings_.configs = change.configs;
            try {
                const std::vector<Marker> found = findMarkers(extractor_, image_, eye_, camera_, settings_);
                const Trial trial{change.text, countMissing(found, markers_), countMissing(markers_, found)};
                if (trial.more > best.more) best = trial;
            } catch (const cv::Exception&) {  // NOLINT(bugprone-empty-catch): what the path refuses is no advice
            }
        }
        return best;
    }

  private:
    CircleMarkerExtractor& extractor_;
    const cv::Mat& image_;
    int eye_;
    const Camera& camera_;
    Settings settings_;
    const std::vector<Marker>& markers_;
};

}  // namespace

std::string droppedTable(const std::vector<Dropped>& dropped) {
    if (dropped.empty()) return {};
    std::vector<Candidate> alike;
    alike.reserve(dropped.size());
    for (const Dropped& d : dropped) alike.push_back({0, {}, {}, {}, d.gate, d.measured, d.wanted, -1});
    std::vector<GateCount> counts = countGates(alike);
    counts.erase(counts.begin());  // of markers
    return "\nNever candidates:\n" + countTable(counts);
}

void writeDroppedRows(std::ostream& stream, const std::string& image, const std::vector<Dropped>& dropped) {
    for (const Dropped& d : dropped) {
        const cv::Point2d middle = 0.5 * (d.box.tl() + d.box.br());
        stream << csvField(image) << ',';
        for (const double value : {middle.x, middle.y, d.box.width, d.box.height}) stream << ',' << csvField(value);
        stream << ",,,,,," << csvField(d.gate) << ',' << csvField(d.measured) << ',' << csvField(d.wanted) << ",\n";
    }
}

std::vector<Trial> tryOtherSettings(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                                    const Camera& camera, const Settings& settings,
                                    const std::vector<Marker>& markers) {
    Trials attempt(extractor, image, eye, camera, settings, markers);
    const C& configs = settings.configs;
    std::vector<Trial> trials;
    const auto take = [&trials](const Trial& trial, std::size_t least) {
        if (trial.more > least) trials.push_back(trial);
        return trial.more;
    };
    const auto counts = [&settings](const Knob& knob) { return knob.paths[static_cast<std::size_t>(settings.path)]; };
    std::map<std::string, std::size_t> alone;
    for (const Knob& knob : kKnobs)
        if (counts(knob)) alone[knob.name] = take(attempt.bestOf(changesOf(knob, configs)), 0);
    for (const auto& [first, second] : kPairs) {
        if (!counts(kKnobs[first]) || !counts(kKnobs[second])) continue;
        const std::size_t least = std::max(alone[kKnobs[first].name], alone[kKnobs[second].name]);
        take(attempt.bestOf(changesOf(kKnobs[first], kKnobs[second], configs)), least);
    }
    std::ranges::stable_sort(trials, std::greater{}, [](const Trial& t) {
        return static_cast<std::ptrdiff_t>(t.more) - static_cast<std::ptrdiff_t>(t.fewer);
    });
    return trials;
}

std::string trialTable(const std::vector<Trial>& trials) {
    if (trials.empty()) return {};
    std::string table = "\nOther settings, each line alone; what they add need not be markers:\n";
    table += fmt::format("{:>6} {:>6}  {}\n", "more", "fewer", "with");
    for (const Trial& t : trials) table += fmt::format("{:>6} {:>6}  {}\n", t.more, t.fewer, t.change);
    return table;
}

std::string polarityHint(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
                         const Settings& settings, const std::vector<Marker>& markers, bool inverted) {
    if (settings.path != Path::radial && settings.path != Path::fast) return {};
    cv::Mat opposite;
    cv::bitwise_not(image, opposite);
    const std::size_t others = findMarkers(extractor, opposite, eye, camera, settings).size();
    if (others == 0 || others < kMuchMore * markers.size()) return {};
    const char* const sought = inverted ? "dark" : "bright";
    const std::string few = markers.empty() ? fmt::format("nothing {} is round here", sought)
                                            : fmt::format("only {} {} shapes are round here", markers.size(), sought);
    return fmt::format("{}, but {} {} shapes are: {}, or path complex\n", few, others, inverted ? "bright" : "dark",
                       inverted ? "leave --invert out" : "--invert");
}

}  // namespace kestrune::measure

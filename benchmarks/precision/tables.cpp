// SPDX-License-Identifier: Apache-2.0
#include "tables.h"

#include <fmt/format.h>
#include <fmt/os.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>

namespace kestrune::bench {
namespace {

// Kinds of which less is found tell no ratio.
constexpr int kLeastJudged = 8;

double mean(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) sum += value;
    return sum / static_cast<double>(values.size());
}

double rootMeanSquare(std::vector<double> values) {
    for (double& value : values) value *= value;
    return std::sqrt(mean(values));
}

double largest(const std::vector<double>& values) {
    double most = 0;
    for (const double value : values) most = std::max(most, std::abs(value));
    return most;
}

/// One detector on all kinds of a group, with or without refinement.
struct Summary {
    int markers = 0, judged = 0, wrong = 0, beyond = 0;
    std::vector<double> ratios, biases, radii, centre, radius, ellipse;  ///< of each kind
    std::string worst;

    void add(const Row& row) {
        const Score& score = row.score;
        markers += score.markers, judged += score.judged, wrong += score.wrong, beyond += score.beyond;
        if (score.judged < kLeastJudged) return;
        if (ratios.empty() || row.ratio() > *std::max_element(ratios.begin(), ratios.end()))
            worst = fmt::format("r {:g}, blur {:g}, tilt {:g}, {}", row.kind.radius, row.kind.blur, row.kind.tilt,
                                row.kind.name);
        ratios.push_back(row.ratio());
        biases.push_back(score.along / score.judged);
        if (score.radii > 0) radii.push_back(row.radiusError());
        centre.push_back(row.normalisedCentre());
        radius.push_back(row.normalisedRadius());
        ellipse.push_back(row.normalisedEllipse());
    }
    /// Share, ratios, bias, radius.
    std::string errors() const {
        const std::string share = markers > 0 ? fmt::format("{:.1f}", 100.0 * judged / markers) : "";
        if (ratios.empty()) return share + " | | |";
        return fmt::format("{} | {:.2f}, {:.2f}, {:.2f} | {:.4f} | {}", share, median(ratios), rootMeanSquare(ratios),
                           largest(ratios), largest(biases),
                           radii.empty() ? "" : fmt::format("{:.4f}, {:.4f}", mean(radii), largest(radii)));
    }
    std::string sigmas() const {
        if (ratios.empty()) return " | ";
        return fmt::format("{:.2f}, {:.2f}, {:.2f} | {:.2f}", rootMeanSquare(centre), rootMeanSquare(radius),
                           rootMeanSquare(ellipse), 100.0 * beyond / judged);
    }
};

struct Line {
    std::string group, detector;
    Summary found, refined;
};

std::string groupOf(const Row& row, bool each) {
    const Kind& kind = row.kind;
    if (each) return fmt::format("{}, r {:g}, blur {:g}, tilt {:g}", kind.name, kind.radius, kind.blur, kind.tilt);
    if (!row.isBounded()) return "beyond small errors";
    return kind.family == "even" ? fmt::format("radius {:g}", kind.radius) : kind.name;
}

/// Of the overview: even kinds by radius, others by family.
std::string rangeOf(const Row& row) {
    return row.kind.family == "even" ? fmt::format("even light, radius {:g}", row.kind.radius) : row.kind.family;
}

std::vector<std::string> namesOf(const std::vector<Row>& rows, const std::function<std::string(const Row&)>& name) {
    std::vector<std::string> names;
    for (const Row& row : rows)
        if (std::find(names.begin(), names.end(), name(row)) == names.end()) names.push_back(name(row));
    return names;
}

/// Groups in their order, then what all of them come to.
std::vector<Line> linesOf(const std::vector<Row>& rows, const std::string& family, bool each) {
    std::vector<Line> lines, whole;
    const auto add = [](std::vector<Line>& to, const std::string& group, const Row& row) {
        auto line = std::find_if(to.begin(), to.end(),
                                 [&](const Line& one) { return one.group == group && one.detector == row.detector; });
        if (line == to.end()) line = to.insert(to.end(), {group, row.detector, {}, {}});
        (row.refined ? line->refined : line->found).add(row);
    };
    for (const Row& row : rows) {
        if (row.kind.family != family) continue;
        add(lines, groupOf(row, each), row);
        if (row.isBounded()) add(whole, "**all**", row);
    }
    std::stable_sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) {
        return (a.group == "beyond small errors") < (b.group == "beyond small errors");
    });
    lines.insert(lines.end(), whole.begin(), whole.end());
    return lines;
}

void printStatuses(const std::vector<Row>& rows) {
    std::array<int, kStatuses> sums{};
    for (const Row& row : rows)
        for (std::size_t k = 0; k < kStatuses; ++k) sums[k] += row.score.statuses[k];
    std::string text;
    for (std::size_t k = 0; k < kStatuses; ++k)
        if (sums[k] > 0)
            text += fmt::format("{} {} {}", text.empty() ? "" : ",", sums[k], nameOf(static_cast<RefinementStatus>(k)));
    fmt::print("Of the markers found:{}.\n\n", text);
}

/// Of one detector, or of all that are refined, before or after.
Summary summaryOf(const std::vector<Row>& rows, const std::string& group, const std::string& detector, bool refined) {
    Summary summary;
    for (const Row& row : rows)
        if (row.refined == refined && row.isBounded() && rangeOf(row) == group &&
            (detector.empty() || row.detector == detector))
            summary.add(row);
    return summary;
}

}  // namespace

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : 0.5 * (values[middle - 1] + values[middle]);
}

void printTables(const std::vector<Row>& rows, bool each) {
    fmt::print(
        "Ratios: median, root mean square and largest of the kinds. Bias: largest of a kind, px. Radius: mean "
        "half axis, mean error and largest of a kind, px.\nNormalised: RMS of error / sigma of centre and mean "
        "half axis, and of the ellipse. Beyond: centres more than 4.5 sigmas off, %.\n\n");
    for (const std::string& family : namesOf(rows, [](const Row& row) { return row.kind.family; })) {
        fmt::print(
            "### {}\n\n| kinds | detector | false | found % | RMS / bound | bias | radius | refined % | RMS / "
            "bound | bias | radius | normalised | beyond |\n|---|---|{}\n",
            family, "---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|");
        for (const Line& line : linesOf(rows, family, each)) {
            fmt::print("| {} | {} | {} | {} | {} | {} |\n", line.group, line.detector, line.found.wrong,
                       line.found.errors(), line.refined.errors(), line.refined.sigmas());
            if (line.group == "**all**" && !line.refined.worst.empty())
                fmt::print(stderr, "{}, {}, worst refined: {}\n", family, line.detector, line.refined.worst);
        }
        fmt::print("\n");
    }
    printStatuses(rows);
}

void printOverview(const std::vector<Row>& rows) {
    const std::vector<std::string> detectors = namesOf(rows, [](const Row& row) { return row.detector; });
    const std::vector<std::string> ranges = namesOf(rows, rangeOf);
    fmt::print(
        "Found %; RMS of the centre / bound, median of the kinds; after refinement, root mean square of the "
        "kinds:\n\n|");
    for (const std::string& detector : detectors) fmt::print(" | {}", detector);
    fmt::print(" |\n|---|");
    for (std::size_t k = 0; k < detectors.size(); ++k) fmt::print("---:|");
    for (const std::string& range : ranges) {
        fmt::print("\n| {} |", range);
        for (const std::string& detector : detectors) {
            const Summary before = summaryOf(rows, range, detector, false),
                          after = summaryOf(rows, range, detector, true);
            fmt::print(" {:.0f}%", 100.0 * before.judged / before.markers);
            if (!before.ratios.empty()) fmt::print("; {:.1f}", median(before.ratios));
            if (!after.ratios.empty()) fmt::print("; **{:.2f}**", rootMeanSquare(after.ratios));
            fmt::print(" |");
        }
    }
    fmt::print(
        "\n\nAfter refinement, all paths:\n\n"
        "| | refined, of those found | RMS / bound, largest | radius, mean error and largest, px | normalised: "
        "centre, radius, ellipse | centres beyond 4.5 sigma |\n|---|---:|---:|---:|---:|---:|\n");
    for (const std::string& range : ranges) {
        const Summary after = summaryOf(rows, range, "", true);
        int found = 0;
        for (const Row& row : rows)
            if (row.refined && row.isBounded() && rangeOf(row) == range) found += row.score.found;
        if (after.ratios.empty()) continue;
        fmt::print("| {} | {:.1f}% | {:.2f} | {:.4f}, {:.4f} | {:.2f}, {:.2f}, {:.2f} | {:.2f}% |\n", range,
                   100.0 * after.judged / found, largest(after.ratios), mean(after.radii), largest(after.radii),
                   rootMeanSquare(after.centre), rootMeanSquare(after.radius), rootMeanSquare(after.ellipse),
                   100.0 * after.beyond / after.judged);
    }
    fmt::print("\n");
}

void writeCsv(const std::string& file, const std::vector<Row>& rows) {
    auto out = fmt::output_file(file);
    out.print(
        "family,name,radius,contrast,noise,shot,blur,tilt,detector,refined,markers,found,judged,wrong,rms,bound,"
        "bound_unrounded,ratio,bias,mean_x,mean_y,radius_error,radius_rms,radius_bound,normalised_centre,"
        "normalised_radius,normalised_ellipse,beyond,bounded\n");
    for (const Row& row : rows) {
        const Kind& k = row.kind;
        const Score& s = row.score;
        const double n = s.judged;
        out.print("{},\"{}\",{},{},{},{},{},{},{},{:d},{},{},{},{},", k.family, k.name, k.radius, k.contrast, k.noise,
                  k.shot, k.blur, k.tilt, row.detector, row.refined, s.markers, s.found, s.judged, s.wrong);
        out.print(
            "{:.6g},{:.6g},{:.6g},{:.4f},{:.6g},{:.6g},{:.6g},{:.6g},{:.6g},{:.6g},{:.4f},{:.4f},{:.4f},{},{:d}\n",
            s.rms(), row.limits.centre, row.limits.centreExact, row.ratio(), s.along / n, s.sum.x / n, s.sum.y / n,
            row.radiusError(), std::sqrt(s.radiusSquares / s.radii), row.limits.radius, row.normalisedCentre(),
            row.normalisedRadius(), row.normalisedEllipse(), s.beyond, row.isBounded());
    }
}

}  // namespace kestrune::bench

// SPDX-License-Identifier: Apache-2.0
#include "tables.h"

#include <fmt/format.h>
#include <fmt/os.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

namespace kestrune::bench {
namespace {

// A bound is that of small errors. Where it leaves the half axes this uncertain, errors are not small.
constexpr double kLeastKnown = 0.1;

bool isBounded(const Row& row) {
    return row.limits.leastAxis < kLeastKnown;
}

/// All kinds of a group, of one detector.
struct Summary {
    int kinds = 0, markers = 0, judged = 0, wrong = 0, empty = 0;
    double ratios = 0, worst = 0, along = 0, mostAlong = 0, radius = 0, mostRadius = 0;
    double centre = 0, mean = 0, ellipse = 0;
    std::string worstName;

    void add(const Row& row) {
        markers += row.score.markers, judged += row.score.judged, wrong += row.score.wrong;
        if (row.score.judged == 0) {
            ++empty;
            return;
        }
        ++kinds;
        const double ratio = row.ratio(), bias = row.score.along / row.score.judged;
        ratios += ratio * ratio;
        if (ratio > worst) {
            worst = ratio;
            worstName = fmt::format("r {:g}, blur {:g}, tilt {:g}, {}", row.kind.radius, row.kind.blur, row.kind.tilt,
                                    row.kind.name);
        }
        mostAlong = std::max(mostAlong, std::abs(bias));
        along += bias;
        if (row.score.radii > 0) {
            radius += row.radiusError();
            mostRadius = std::max(mostRadius, std::abs(row.radiusError()));
        }
        centre += row.normalisedCentre() * row.normalisedCentre();
        mean += row.normalisedRadius() * row.normalisedRadius();
        ellipse += row.normalisedEllipse() * row.normalisedEllipse();
    }
    std::string text(bool refined) const {
        if (kinds == 0) return "0 | | | | | | | | |";
        const double n = kinds;
        std::string line =
            fmt::format("{:.1f} | {} | {:.4f} | {:.4f} | {:.4f} | {:.4f} | {:.2f} | {:.2f} |", 100.0 * judged / markers,
                        wrong, along / n, mostAlong, radius / n, mostRadius, std::sqrt(ratios / n), worst);
        if (!refined) return line + " |";
        return line + fmt::format(" {:.2f}, {:.2f}, {:.2f} |", std::sqrt(centre / n), std::sqrt(mean / n),
                                  std::sqrt(ellipse / n));
    }
};

std::string groupOf(const Row& row, bool each) {
    const Kind& kind = row.kind;
    if (each) return fmt::format("{}, r {:g}, blur {:g}, tilt {:g}", kind.name, kind.radius, kind.blur, kind.tilt);
    if (!isBounded(row)) return "beyond small errors";
    return kind.family == "even" ? fmt::format("radius {:g}", kind.radius) : kind.name;
}

std::string nameOf(const Row& row) {
    return row.detector + (row.refined ? ", refined" : "");
}

void printStatuses(const std::vector<Row>& rows) {
    std::array<int, kStatuses> sums{};
    for (const Row& row : rows)
        for (std::size_t k = 0; k < kStatuses; ++k) sums[k] += row.score.statuses[k];
    fmt::print("Refinement:");
    for (std::size_t k = 0; k < kStatuses; ++k)
        if (sums[k] > 0) fmt::print(" {} {},", sums[k], kestrune::nameOf(static_cast<RefinementStatus>(k)));
    fmt::print("\n\n");
}

}  // namespace

void printTables(const std::vector<Row>& rows, bool each) {
    std::vector<std::string> families;
    for (const Row& row : rows)
        if (std::find(families.begin(), families.end(), row.kind.family) == families.end())
            families.push_back(row.kind.family);
    for (const std::string& family : families) {
        fmt::print(
            "### {}\n\n| kinds | detector | recall % | wrong | bias px | most | radius px | most | RMS / bound | "
            "worst kind | normalised centre, radius, ellipse |\n|---|---|{}\n",
            family, "---:|---:|---:|---:|---:|---:|---:|---:|---:|");
        std::vector<std::pair<std::string, std::string>> order;
        std::map<std::pair<std::string, std::string>, std::pair<Summary, bool>> groups;
        std::map<std::string, Summary> whole;
        for (const Row& row : rows) {
            if (row.kind.family != family) continue;
            if (row.refined && row.score.found == 0 && row.score.judged == 0) continue;
            const std::pair key{groupOf(row, each), nameOf(row)};
            if (!groups.contains(key)) order.push_back(key);
            auto& [summary, refined] = groups[key];
            summary.add(row), refined = row.refined;
            if (isBounded(row)) whole[nameOf(row)].add(row);
        }
        for (const auto& key : order)
            fmt::print("| {} | {} | {}\n", key.first, key.second, groups[key].first.text(groups[key].second));
        for (const auto& [name, summary] : whole)
            fmt::print("| **all {}** | {} | {} worst: {}\n", summary.kinds, name,
                       summary.text(name.ends_with("refined")), summary.worstName);
        fmt::print("\n");
    }
    printStatuses(rows);
}

void writeCsv(const std::string& file, const std::vector<Row>& rows) {
    auto out = fmt::output_file(file);
    out.print(
        "family,name,radius,contrast,noise,shot,blur,tilt,detector,refined,markers,found,judged,wrong,rms,bound,"
        "bound_unrounded,ratio,bias,mean_x,mean_y,radius_error,radius_rms,radius_bound,normalised_centre,"
        "normalised_radius,normalised_ellipse,bounded\n");
    for (const Row& row : rows) {
        const Kind& k = row.kind;
        const Score& s = row.score;
        const double n = s.judged;
        out.print("{},\"{}\",{},{},{},{},{},{},{},{:d},{},{},{},{},", k.family, k.name, k.radius, k.contrast, k.noise,
                  k.shot, k.blur, k.tilt, row.detector, row.refined, s.markers, s.found, s.judged, s.wrong);
        out.print("{:.6g},{:.6g},{:.6g},{:.4f},{:.6g},{:.6g},{:.6g},{:.6g},{:.6g},{:.6g},{:.4f},{:.4f},{:.4f},{:d}\n",
                  s.rms(), row.limits.centre, row.limits.centreExact, row.ratio(), s.along / n, s.sum.x / n,
                  s.sum.y / n, row.radiusError(), std::sqrt(s.radiusSquares / s.radii), row.limits.radius,
                  row.normalisedCentre(), row.normalisedRadius(), row.normalisedEllipse(), isBounded(row));
    }
}

}  // namespace kestrune::bench

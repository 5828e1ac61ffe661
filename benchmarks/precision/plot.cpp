// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <fmt/os.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>

#include "tables.h"

namespace kestrune::bench {
namespace {

constexpr double kWidth = 380, kHeight = 320, kMargin = 60;  ///< px of a panel and about it
constexpr double kLineHeight = 16, kLegend = 200;
constexpr std::array<const char*, 7> kColours{"#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad",
                                              "#d68910", "#7f8c8d", "#16a085"};

// The kind whose errors are shown in px.
constexpr double kContrast = 100, kNoise = 2, kBlur = 1, kTilt = 0;

struct Axis {
    double low, high, length;
    double at(double value) const { return std::log(value / low) / std::log(high / low) * length; }
};

struct Panel {
    std::string title, unit;
    double left;
    Axis x, y;
    std::vector<double> ticks;

    std::string place(double valueX, double valueY) const {
        return fmt::format("{:.1f},{:.1f}", left + x.at(valueX), kMargin + kHeight - y.at(valueY));
    }
    std::string text(double valueX, double valueY, double dx, double dy, const char* anchor,
                     const std::string& words) const {
        return fmt::format("<text x='{:.1f}' y='{:.1f}' text-anchor='{}'>{}</text>\n", left + x.at(valueX) + dx,
                           kMargin + kHeight - y.at(valueY) + dy, anchor, words);
    }
    std::string line(const std::map<double, double>& values, const char* colour, const char* style) const {
        std::string places;
        for (const auto& [radius, value] : values) places += place(radius, value) + ' ';
        return fmt::format("<polyline points='{}' stroke='{}' stroke-width='2' {}/>\n", places, colour, style);
    }
    std::string frame() const {
        std::string svg = fmt::format("<text x='{:.1f}' y='{:.1f}' text-anchor='middle'>{}</text>\n", left + kWidth / 2,
                                      kMargin - 14, title) +
                          text(std::sqrt(x.low * x.high), y.low, 0, 40, "middle", "radius, px");
        for (const double radius : {4., 6., 10., 20., 40., 80.}) {
            svg +=
                fmt::format("<polyline points='{} {}' stroke='#ccc'/>\n", place(radius, y.low), place(radius, y.high));
            svg += text(radius, y.low, 0, 18, "middle", fmt::format("{:g}", radius));
        }
        for (const double tick : ticks) {
            svg += fmt::format("<polyline points='{} {}' stroke='#ccc'/>\n", place(x.low, tick), place(x.high, tick));
            svg += text(x.low, tick, -6, 4, "end", fmt::format("{:g}{}", tick, unit));
        }
        return svg;
    }
};

/// By radius: the median of the kinds.
class Curve {
  public:
    void add(double radius, double value) {
        if (std::isfinite(value)) values_[radius].push_back(value);
    }
    std::map<double, double> medians() const {
        std::map<double, double> all;
        for (const auto& [radius, values] : values_) all[radius] = median(values);
        return all;
    }

  private:
    std::map<double, std::vector<double>> values_;
};

bool isShownInPixels(const Kind& kind) {
    return kind.contrast == kContrast && kind.noise == kNoise && kind.blur == kBlur && kind.tilt == kTilt;
}

}  // namespace

void plotRatios(const std::string& file, const std::vector<Row>& rows) {
    const Axis radii{4, 80, kWidth};
    const Panel ratio{
        "RMS of the centre / bound, median of the kinds", "", kMargin, radii, {0.8, 40, kHeight}, {1, 2, 5, 10, 20}};
    const Panel pixels{fmt::format("RMS, px: contrast {:g}, noise {:g}, blur {:g} px", kContrast, kNoise, kBlur),
                       "",
                       2.5 * kMargin + kWidth,
                       radii,
                       {0.001, 0.2, kHeight},
                       {0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1}};
    std::vector<std::string> names;
    std::map<std::pair<std::string, bool>, std::array<Curve, 2>> curves;
    Curve bounds;
    for (const Row& row : rows) {
        if (row.kind.family != "even" || !row.isBounded()) continue;
        if (isShownInPixels(row.kind)) bounds.add(row.kind.radius, row.limits.centre);
        if (row.score.judged < row.score.markers / 4) continue;
        if (std::find(names.begin(), names.end(), row.detector) == names.end()) names.push_back(row.detector);
        auto& [ratios, errors] = curves[{row.detector, row.refined}];
        ratios.add(row.kind.radius, row.ratio());
        if (isShownInPixels(row.kind)) errors.add(row.kind.radius, row.score.rms());
    }
    std::string lines = pixels.line(bounds.medians(), "black", ""), legend;
    const double legendLeft = pixels.left + kWidth + 20;
    double legendTop = kMargin;
    const auto explain = [&](const char* colour, const std::string& words) {
        legend += fmt::format("<text x='{}' y='{}' fill='{}'>{}</text>\n", legendLeft, legendTop += kLineHeight, colour,
                              words);
    };
    for (std::size_t k = 0; k < names.size(); ++k)
        for (const bool refined : {false, true}) {
            const auto found = curves.find({names[k], refined});
            if (found == curves.end()) continue;
            const char* const colour = kColours[k % kColours.size()];
            const char* const style = refined ? "stroke-dasharray='5 4'" : "";
            lines += ratio.line(found->second[0].medians(), colour, style);
            lines += pixels.line(found->second[1].medians(), colour, style);
            explain(colour, names[k] + (refined ? ", refined (dashed)" : ""));
        }
    explain("black", "bound");
    fmt::output_file(file).print(
        "<svg xmlns='http://www.w3.org/2000/svg' width='{}' height='{}' font-family='sans-serif' font-size='12' "
        "fill='none'>\n<rect width='100%' height='100%' fill='white'/>\n<g fill='#333'>\n{}{}</g>\n{}{}</svg>\n",
        legendLeft + kLegend, kHeight + 2 * kMargin, ratio.frame(), pixels.frame(), legend, lines);
}

}  // namespace kestrune::bench

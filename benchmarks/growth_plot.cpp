// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <fmt/os.h>

#include <array>
#include <cmath>
#include <utility>

#include "bench_names.h"
#include "results.h"

namespace kestrune::bench {
namespace {

constexpr int kPanelWidth = 380, kPanelHeight = 300, kMargin = 60, kLineHeight = 16;  ///< px
// What the two panels hold fixed.
constexpr int kMarkers = 1, kWidth = 8192;
constexpr std::array<const char*, 5> kColours{"#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad", "#d68910"};

/// A logarithmic axis over whole decades.
struct Axis {
    int firstDecade, lastDecade;
    double length;
    double at(double value) const { return (std::log10(value) - firstDecade) / (lastDecade - firstDecade) * length; }
};

struct Panel {
    std::string title;
    Axis x, y;
    double left;

    std::string place(double valueX, double valueY) const {
        return fmt::format("{:.1f},{:.1f}", left + x.at(valueX), kMargin + kPanelHeight - y.at(valueY));
    }
    std::string label(double valueX, double valueY, const char* anchor, double dx, double dy,
                      const std::string& text) const {
        return fmt::format("<text x='{:.1f}' y='{:.1f}' text-anchor='{}'>{}</text>\n", left + x.at(valueX) + dx,
                           kMargin + kPanelHeight - y.at(valueY) + dy, anchor, text);
    }
    std::string frame() const {
        std::string svg = fmt::format("<text x='{:.1f}' y='{}' text-anchor='middle'>{}</text>\n", left + x.length / 2,
                                      kMargin + kPanelHeight + 40, title);
        const double lowX = std::pow(10, x.firstDecade), lowY = std::pow(10, y.firstDecade);
        for (int k = x.firstDecade; k <= x.lastDecade; ++k) {
            const double v = std::pow(10, k);
            svg += fmt::format("<polyline points='{} {}' stroke='#ccc'/>\n", place(v, lowY),
                               place(v, std::pow(10, y.lastDecade)));
            svg += label(v, lowY, "middle", 0, 18, fmt::format("{:g}", v));
        }
        for (int k = y.firstDecade; k <= y.lastDecade; ++k) {
            const double v = std::pow(10, k);
            svg += fmt::format("<polyline points='{} {}' stroke='#ccc'/>\n", place(lowX, v),
                               place(std::pow(10, x.lastDecade), v));
            svg += label(lowX, v, "end", -6, 4, fmt::format("{:g} ms", v));
        }
        return svg;
    }
};

using Points = std::vector<std::pair<double, double>>;

std::string line(const Panel& panel, const Points& points, const char* colour) {
    std::string places;
    for (const auto& [x, y] : points) places += panel.place(x, y) + ' ';
    return fmt::format("<polyline points='{}' stroke='{}' stroke-width='2'/>\n", places, colour);
}

}  // namespace

void plotGrowth(const Results& results, const std::string& file) {
    const Axis times{-1, 3, kPanelHeight};
    const std::array<Panel, 2> panels{
        Panel{"megapixels, one marker", {-1, 2, kPanelWidth}, times, kMargin},
        Panel{"markers, 50 megapixels", {0, 4, kPanelWidth}, times, 2.5 * kMargin + kPanelWidth}};
    std::string svg = fmt::format(
        "<svg xmlns='http://www.w3.org/2000/svg' width='{}' height='{}' font-family='sans-serif' font-size='12' "
        "fill='none'>\n<rect width='100%' height='100%' fill='white'/>\n<g fill='#333'>\n",
        2 * kPanelWidth + 4 * kMargin, kPanelHeight + 2 * kMargin);
    std::string lines;
    for (const Panel& panel : panels) svg += panel.frame();
    std::size_t colour = 0;
    for (const PathName& path : kPathNames) {
        std::array<Points, 2> points;
        for (const auto& [scene, byName] : results) {
            const auto found = byName.find(path.name);
            if (found == byName.end()) continue;
            const double time = median(found->second.milliseconds);
            if (scene.markers == kMarkers) points[0].emplace_back(scene.pixels() / 1e6, time);
            if (scene.width == kWidth) points[1].emplace_back(scene.markers, time);
        }
        if (points[0].empty() && points[1].empty()) continue;
        const char* const stroke = kColours[colour % kColours.size()];
        for (std::size_t k = 0; k < panels.size(); ++k) lines += line(panels[k], points[k], stroke);
        lines += fmt::format("<text x='{}' y='{}' fill='{}'>{}</text>\n", kMargin + 10,
                             kMargin + kLineHeight * static_cast<int>(++colour), stroke, path.name);
    }
    fmt::output_file(file).print("{}</g>\n{}</svg>\n", svg, lines);
}

}  // namespace kestrune::bench

// SPDX-License-Identifier: Apache-2.0
#include "plot.h"

#include <fmt/format.h>
#include <fmt/os.h>

#include <algorithm>
#include <cmath>

namespace kestrune::bench {
namespace {

constexpr double kLineHeight = 18;
constexpr double kSide = 360, kMargin = 60;  ///< px of a panel and about it
constexpr double kLeast = 1e-7, kMost = 1;   ///< of both axes
constexpr double kNoneUpTo = 3;              ///< of what did not happen in n cases: most by 95 %, times n
constexpr const char *kLikely = "#1b6ca8", *kUnlikely = "#c0392b";

struct Panel {
    double left;

    static double along(double value) {
        return std::log(std::clamp(value, kLeast, kMost) / kLeast) / std::log(kMost / kLeast) * kSide;
    }
    double x(double value) const { return left + along(value); }
    static double y(double value) { return kMargin + kSide - along(value); }

    std::string line(double x1, double y1, double x2, double y2, const char* style) const {
        return fmt::format("<line x1='{:.1f}' y1='{:.1f}' x2='{:.1f}' y2='{:.1f}' {}/>\n", x(x1), y(y1), x(x2), y(y2),
                           style);
    }

    std::string frame(const std::string& title) const {
        std::string svg = fmt::format(
            "<text x='{:.1f}' y='{:.1f}' text-anchor='middle'>{}</text>\n<text x='{:.1f}' y='{:.1f}' "
            "text-anchor='middle'>said</text>\n<text x='{:.1f}' y='{:.1f}' text-anchor='middle' "
            "transform='rotate(-90 {:.1f} {:.1f})'>happened</text>\n",
            left + kSide / 2, kMargin - 14, title, left + kSide / 2, kMargin + kSide + 38, left - 42,
            kMargin + kSide / 2, left - 42, kMargin + kSide / 2);
        for (int decade = -7; decade <= 0; ++decade) {
            const double value = std::pow(10, decade);
            svg +=
                line(value, kLeast, value, kMost, "stroke='#ddd'") + line(kLeast, value, kMost, value, "stroke='#ddd'");
            svg += fmt::format("<text x='{:.1f}' y='{:.1f}' text-anchor='middle'>1e{}</text>\n", x(value),
                               kMargin + kSide + 18, decade);
            svg += fmt::format("<text x='{:.1f}' y='{:.1f}' text-anchor='end'>1e{}</text>\n", left - 6, y(value) + 4,
                               decade);
        }
        // Between half and twice of what was said.
        svg += line(kLeast, kLeast, kMost, kMost, "stroke='#333'");
        const char* const dashed = "stroke='#999' stroke-dasharray='4 4'";
        svg += line(kLeast, 2 * kLeast, kMost / 2, kMost, dashed) + line(2 * kLeast, kLeast, kMost, kMost / 2, dashed);
        return svg;
    }

    /// A point with what it may be off by; an arrow from the most it can be where nothing happened.
    std::string mark(const Claims& claims, const char* colour) const {
        if (claims.count == 0) return {};
        const auto count = static_cast<double>(claims.count), happened = static_cast<double>(claims.happened);
        const double said = claims.told / count;
        const std::string style = fmt::format("stroke='{}' stroke-width='1.5'", colour);
        if (claims.happened == 0)
            return line(said, std::min(1., kNoneUpTo / count), said, kLeast,
                        (style + " stroke-dasharray='2 3'").c_str());
        const double spread = std::sqrt(happened);
        return line(said, std::max(0.3, happened - spread) / count, said, std::min(count, happened + spread) / count,
                    style.c_str()) +
               fmt::format("<circle cx='{:.1f}' cy='{:.1f}' r='4' fill='{}'/>\n", x(said), y(happened / count), colour);
    }
};

Reliability sumOf(const std::vector<SceneScore>& scores) {
    Reliability sum;
    for (const SceneScore& score : scores)
        if (score.tellsProbabilities && score.isAccepted()) sum.add(score.reliability);
    return sum;
}

}  // namespace

void plotReliability(const std::string& file,
                     const std::vector<std::pair<std::string, std::vector<SceneScore>>>& series) {
    std::string svg;
    double left = kMargin;
    for (const auto& [name, scores] : series) {
        const Panel panel{left};
        const Reliability sum = sumOf(scores);
        svg += panel.frame(name);
        for (const Claims& claims : sum.likely) svg += panel.mark(claims, kLikely);
        for (const Claims& claims : sum.unlikely) svg += panel.mark(claims, kUnlikely);
        left += kSide + 1.5 * kMargin;
    }
    const double top = kMargin + kSide + 60;
    fmt::output_file(file).print(
        "<svg xmlns='http://www.w3.org/2000/svg' width='{1}' height='{2}' font-family='sans-serif' font-size='12'>\n"
        "<rect width='100%' height='100%' fill='white'/>\n{0}<text x='{3}' y='{4}' fill='{5}'>said to be right: wrong"
        "</text>\n<text x='{3}' y='{6}' fill='{7}'>said to be wrong: right</text>\n<text x='{3}' y='{8}'>dashed: half "
        "and "
        "twice of what was said; dotted: did not happen</text>\n</svg>\n",
        svg, std::max(left, kSide), top + 3 * kLineHeight, kMargin, top, kLikely, top + kLineHeight, kUnlikely,
        top + 2 * kLineHeight);
}

}  // namespace kestrune::bench

// SPDX-License-Identifier: Apache-2.0
#include "overlay.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "codecs.h"
#include "error_marks.h"
#include "files/inputs.h"
#include "files/output_file.h"

namespace kestrune::measure {
namespace {

// From this half axis on, in pixels of the picture, the gap between an ellipse and the rim it lies on can be seen.
constexpr double kLegibleRadius = 16;
// Smaller ellipses get a thin line, which covers less of the rim.
constexpr double kThinRadius = 9;
// Below this width the banner's text has no room.
constexpr int kLeastWidth = 900;
// Beyond twice its size a picture shows no more of the image, and beyond this side viewers become slow.
constexpr int kLargestZoom = 2, kLargestSide = 5200;
// What a screen shows of a picture's width. In a wider one lines and letters grow, to be read where the whole is
// shrunk.
constexpr double kScreenWidth = 1500;
// Rims grow less than letters: they must show, and leave the image's own rim to be seen.
constexpr double kRimGrowth = 0.6;
// The image steps back a little behind what is drawn on it.
constexpr double kImageBrightness = 0.85;
// Fractional bits of the drawing coordinates: a 16th of a pixel is finer than the eye.
constexpr int kFractionBits = 4;

constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr int kBannerHeight = 56;
constexpr double kBannerTextScale = 0.8;
// A label grows with its marker, within what is legible and what leaves room for the neighbours.
constexpr double kRadiusPerTextScale = 40;
constexpr double kLargestTextScale = 0.9;
constexpr int kLabelGap = 3;
constexpr double kSmallestArm = 4, kLargestArm = 12;
// Degrees from one dash to the next, two thirds of them drawn.
constexpr int kDashStep = 30, kDash = 20;
// Points of an outline farther apart than this, in pixels of the image, are no neighbours on one contour.
constexpr double kLargestStep = 3;

const cv::Scalar kDark(16, 16, 16);
const cv::Scalar kBanner(48, 40, 36);
const cv::Scalar kBannerText(240, 240, 240);
const cv::Scalar kError(90, 230, 255);

struct Style {
    const char* name;
    cv::Scalar colour;  ///< BGR
    cv::Scalar cross;
};

const Style& styleOf(MarkKind kind) {
    static const std::array<Style, 10> kStyles = {
        Style{"found", {120, 255, 60}, {255, 80, 255}},
        Style{"missed", {0, 170, 255}, {0, 170, 255}},
        Style{"false", {60, 60, 255}, {60, 60, 255}},
        Style{"pairs", {120, 255, 60}, {255, 255, 255}},
        Style{"without a partner", {160, 160, 160}, {160, 160, 160}},
        Style{"bright", {120, 255, 60}, {255, 80, 255}},
        Style{"dark", {255, 220, 60}, {255, 80, 255}},
        Style{"refused", {160, 160, 160}, {160, 160, 160}},
        Style{"not refined", {255, 110, 190}, {255, 110, 190}},
        Style{"ambiguous", {0, 200, 255}, {0, 200, 255}},
    };
    return kStyles[static_cast<std::size_t>(kind)];
}

cv::Scalar colourOf(const Mark& mark) {
    return mark.colour.value_or(styleOf(mark.kind).colour);
}

cv::Point fixedPoint(cv::Point2d p) {
    constexpr double kOne = 1 << kFractionBits;
    return {cvRound(p.x * kOne), cvRound(p.y * kOne)};
}

/// The enlargement at which nine of ten marks are legible, as far as the picture's size allows. What was refused need
/// not be: much of it is specks.
int zoomFor(cv::Size size, const std::vector<Mark>& marks) {
    std::vector<double> radii;
    radii.reserve(marks.size());
    for (const Mark& mark : marks)
        if (mark.kind != MarkKind::refused) radii.push_back(std::max(mark.minorHalfAxis, 1.0));
    int zoom = (kLeastWidth + size.width - 1) / size.width;
    if (!radii.empty()) {
        const auto tenth = radii.begin() + static_cast<std::ptrdiff_t>(radii.size() / 10);
        std::nth_element(radii.begin(), tenth, radii.end());
        zoom = std::max(zoom, cvRound(kLegibleRadius / *tenth));
    }
    return std::clamp(zoom, 1, std::clamp(kLargestSide / std::max(size.width, size.height), 1, kLargestZoom));
}

/// How many times as large as on a screen lines and letters are drawn on a picture of this width.
double growthFor(int width) {
    return std::max(1.0, width / kScreenWidth);
}

int grown(double width, double growth) {
    return std::max(1, cvRound(width * growth));
}

cv::Point2d enlarged(cv::Point2d p, int zoom) {
    return {(p.x + 0.5) * zoom - 0.5, (p.y + 0.5) * zoom - 0.5};
}

Mark enlarged(Mark mark, int zoom) {
    mark.centre = enlarged(mark.centre, zoom);
    mark.majorHalfAxis *= zoom;
    mark.minorHalfAxis *= zoom;
    if (mark.error) {
        mark.error->majorHalfAxis *= zoom;
        mark.error->minorHalfAxis *= zoom;
    }
    return mark;
}

/// Every stroke is drawn twice, broad and dark below bright, so that it shows on any ground.
template <typename Draw>
void drawTwice(const cv::Scalar& colour, int thickness, const Draw& draw) {
    draw(kDark, thickness + 2 * std::max(1, thickness / 2));
    draw(colour, thickness);
}

/// Straight lines between neighbours, the last point and the first being such, and a dot for each point without one.
void drawOutline(cv::Mat& canvas, const Mark& mark, int zoom, int thickness) {
    drawTwice(colourOf(mark), thickness, [&](const cv::Scalar& colour, int width) {
        for (std::size_t i = 0; i < mark.outline.size(); ++i) {
            const cv::Point2d from = mark.outline[i], to = mark.outline[(i + 1) % mark.outline.size()];
            const cv::Point start = fixedPoint(enlarged(from, zoom));
            const bool near = cv::norm(to - from) <= kLargestStep;
            cv::line(canvas, start, near ? fixedPoint(enlarged(to, zoom)) : start, colour, width, cv::LINE_AA,
                     kFractionBits);
        }
    });
}

void drawMark(cv::Mat& canvas, const Mark& mark, int rim, double growth, int zoom = 1) {
    if (!mark.outline.empty()) {
        drawOutline(canvas, mark, zoom, std::max(1, rim - (mark.kind == MarkKind::refused ? 1 : 0)));
        return;
    }
    const Style& style = styleOf(mark.kind);
    const bool good = mark.kind != MarkKind::missed && mark.kind != MarkKind::wrong && mark.kind != MarkKind::unmatched;
    const int thickness = good && mark.minorHalfAxis < kThinRadius ? std::max(1, rim / 2) : rim;
    const cv::Point centre = fixedPoint(mark.centre);
    const cv::Point axes = fixedPoint({mark.majorHalfAxis, mark.minorHalfAxis});
    drawTwice(colourOf(mark), thickness, [&](const cv::Scalar& colour, int width) {
        const bool dashed = mark.dashed || mark.kind == MarkKind::dark || mark.kind == MarkKind::ambiguous;
        const int step = dashed ? kDashStep : 360;
        for (int from = 0; from < 360; from += step) {
            cv::ellipse(canvas, centre, cv::Size(axes), mark.angle, from, from + (step == 360 ? step : kDash), colour,
                        width, cv::LINE_AA, kFractionBits);
        }
    });
    const double arm = std::clamp(0.45 * mark.minorHalfAxis, kSmallestArm, kLargestArm * growth);
    drawTwice(style.cross, grown(0.7, growth), [&](const cv::Scalar& colour, int width) {
        for (const cv::Point2d d : {cv::Point2d(arm, 0), cv::Point2d(0, arm)}) {
            cv::line(canvas, fixedPoint(mark.centre - d), fixedPoint(mark.centre + d), colour, width, cv::LINE_AA,
                     kFractionBits);
        }
    });
}

void drawError(cv::Mat& canvas, const Mark& mark, double scale, int thickness) {
    if (!mark.error || scale <= 0) return;
    const ErrorEllipse& error = *mark.error;
    const cv::Point axes = fixedPoint(scale * cv::Point2d(error.majorHalfAxis, error.minorHalfAxis));
    drawTwice(kError, thickness, [&](const cv::Scalar& colour, int width) {
        cv::ellipse(canvas, fixedPoint(mark.centre), cv::Size(axes), error.angle, 0, 360, colour, width, cv::LINE_AA,
                    kFractionBits);
    });
}

cv::Rect boxOf(const Mark& mark) {
    const double t = mark.angle * CV_PI / 180;
    const double w = std::hypot(mark.majorHalfAxis * std::cos(t), mark.minorHalfAxis * std::sin(t));
    const double h = std::hypot(mark.majorHalfAxis * std::sin(t), mark.minorHalfAxis * std::cos(t));
    return {cvFloor(mark.centre.x - w), cvFloor(mark.centre.y - h), cvCeil(2 * w) + 1, cvCeil(2 * h) + 1};
}

/// The place beside a mark's box where a label of `size` covers least of what is taken already.
cv::Rect placeLabel(const cv::Rect& box, cv::Size size, const std::vector<cv::Rect>& taken, const cv::Rect& inside) {
    const int left = box.x - size.width - kLabelGap, right = box.br().x + kLabelGap;
    const int above = box.y - size.height - kLabelGap, below = box.br().y + kLabelGap;
    const int midX = box.x + (box.width - size.width) / 2, midY = box.y + (box.height - size.height) / 2;
    const int inset = std::min(box.width, box.height) / 6;  // the box's corners lie outside the ellipse
    const std::array<cv::Point, 8> places = {cv::Point(right - inset, above + inset),
                                             {right, midY},
                                             {midX, above},
                                             {left + inset, above + inset},
                                             {right - inset, below - inset},
                                             {midX, below},
                                             {left + inset, below - inset},
                                             {left, midY}};
    cv::Rect best;
    int leastCovered = std::numeric_limits<int>::max();
    for (const cv::Point& place : places) {
        const cv::Rect label(place, size);
        int covered = 4 * (label.area() - (label & inside).area());
        for (const cv::Rect& other : taken) covered += other == box ? 0 : (label & other).area();
        if (covered < leastCovered) {
            leastCovered = covered;
            best = label;
        }
    }
    return best;
}

void drawLabels(cv::Mat& canvas, const std::vector<Mark>& marks, double leastText, double growth) {
    const int stroke = grown(1, growth);
    std::vector<cv::Rect> taken;
    taken.reserve(2 * marks.size());
    for (const Mark& mark : marks) taken.push_back(boxOf(mark));
    for (std::size_t i = 0; i < marks.size(); ++i) {
        if (marks[i].label.empty()) continue;
        const double scale = std::clamp(marks[i].minorHalfAxis / kRadiusPerTextScale, leastText * growth,
                                        std::max(leastText, kLargestTextScale) * growth);
        int baseline = 0;
        const cv::Size size = cv::getTextSize(marks[i].label, kFont, scale, stroke, &baseline);
        const cv::Rect place = placeLabel(taken[i], size, taken, {{0, 0}, canvas.size()});
        taken.push_back(place);
        drawTwice(colourOf(marks[i]), stroke, [&](const cv::Scalar& colour, int width) {
            cv::putText(canvas, marks[i].label, {place.x, place.br().y}, kFont, scale, colour, width, cv::LINE_AA);
        });
    }
}

/// A text of the banner and where it stands.
struct BannerItem {
    std::string text;
    const LegendEntry* entry = nullptr;  ///< whose sign stands before the text; none before the title
    int x = 0, line = 0;
};

/// The title and the legend, from left to right in as many lines as they need.
struct Banner {
    double scale;
    std::vector<BannerItem> items;

    int lineHeight() const { return cvRound(kBannerHeight * scale); }
    int height() const { return lineHeight() * (items.back().line + 1); }
    int signWidth(const BannerItem& item) const {
        return item.entry != nullptr ? cvRound(3 * kLegibleRadius * scale) : 0;
    }

    cv::Size textSize(const BannerItem& item) const {
        int baseline = 0;
        return cv::getTextSize(item.text, kFont, kBannerTextScale * scale, grown(2, scale), &baseline);
    }
};

/// A long file name makes the letters smaller: nothing is cut off.
Banner layOutBanner(int width, const std::string& title, const Legend& legend) {
    Banner banner{growthFor(width), {{title}}};
    for (const LegendEntry& entry : legend) {
        const std::string name = entry.name.empty() ? styleOf(entry.kind).name : entry.name;
        banner.items.push_back({fmt::format("{} {}", entry.count, name), &entry});
    }
    int widest = 0;
    for (const BannerItem& item : banner.items)
        widest = std::max(widest, banner.signWidth(item) + banner.textSize(item).width + banner.lineHeight());
    banner.scale *= std::min(1.0, static_cast<double>(width) / widest);

    const int gap = banner.lineHeight() / 2;
    int x = gap, line = 0;
    for (BannerItem& item : banner.items) {
        const int needed = banner.signWidth(item) + banner.textSize(item).width;
        if (x > gap && x + needed + gap > width) {
            x = gap;
            ++line;
        }
        item.x = x;
        item.line = line;
        x += needed + gap;
    }
    return banner;
}

void drawBanner(cv::Mat canvas, const Banner& banner) {
    canvas.setTo(kBanner);
    const double swatch = kLegibleRadius * banner.scale;
    for (const BannerItem& item : banner.items) {
        const int middle = item.line * banner.lineHeight() + banner.lineHeight() / 2;
        if (item.entry != nullptr) {
            drawMark(
                canvas,
                {item.entry->kind, "", cv::Point2d(item.x + swatch, middle), swatch, swatch, 0, item.entry->colour},
                grown(2, banner.scale), banner.scale);
        }
        const cv::Point place(item.x + banner.signWidth(item), middle + banner.textSize(item).height / 2);
        cv::putText(canvas, item.text, place, kFont, kBannerTextScale * banner.scale, kBannerText,
                    grown(2, banner.scale), cv::LINE_AA);
    }
}

}  // namespace

Mark markOf(const Marker& marker, MarkKind kind) {
    const bool ellipse = !std::isnan(marker.majorHalfAxis);
    const double radius = std::sqrt(marker.area / CV_PI);
    return {kind,
            fmt::format("{}", marker.id),
            marker.centre,
            ellipse ? marker.majorHalfAxis : radius,
            ellipse ? marker.minorHalfAxis : radius,
            ellipse ? marker.angle : 0};
}

MarkKind foundKind(Polarity polarity) {
    switch (polarity) {
        case Polarity::bright:
            return MarkKind::bright;
        case Polarity::dark:
            return MarkKind::dark;
        case Polarity::unknown:
            break;
    }
    return MarkKind::found;
}

Legend foundLegend(const std::vector<Mark>& marks) {
    Legend legend;
    for (const MarkKind kind : {MarkKind::bright, MarkKind::dark, MarkKind::found, MarkKind::unrefined}) {
        const auto count = static_cast<std::size_t>(std::ranges::count(marks, kind, &Mark::kind));
        if (count > 0 || (kind == MarkKind::found && legend.empty())) legend.push_back({kind, count});
    }
    return legend;
}

cv::Mat drawMarks(const cv::Mat& image, const std::vector<Mark>& marks, int zoom, const MarkStyle& style) {
    cv::Mat colour = image, canvas;
    if (image.channels() == 1) cv::cvtColor(image, colour, cv::COLOR_GRAY2BGR);
    cv::resize(colour * kImageBrightness, canvas, image.size() * zoom, 0, 0, cv::INTER_CUBIC);
    const double growth = growthFor(canvas.cols);
    const int rim = std::max(style.rim, cvRound(style.rim * kRimGrowth * growth));
    std::vector<Mark> large;
    large.reserve(marks.size());
    for (const Mark& mark : marks) large.push_back(enlarged(mark, zoom));
    for (const bool above : {false, true}) {
        for (const Mark& mark : large)
            if (above == (mark.kind != MarkKind::refused)) drawMark(canvas, mark, rim, growth, zoom);
    }
    for (const Mark& mark : large) drawError(canvas, mark, style.errorScale, grown(1, growth));
    drawLabels(canvas, large, style.leastText, growth);
    return canvas;
}

cv::Mat drawOverlay(const cv::Mat& image, const std::vector<Mark>& marks, const std::string& title,
                    const Legend& legend, const MarkStyle& style) {
    const cv::Mat canvas = drawMarks(image, marks, zoomFor(image.size(), marks), style);
    const Banner banner = layOutBanner(canvas.cols, title, legend);
    cv::Mat picture;
    cv::copyMakeBorder(canvas, picture, banner.height(), 0, 0, 0, cv::BORDER_CONSTANT);
    drawBanner(picture.rowRange(0, banner.height()), banner);
    return picture;
}

cv::Mat drawFound(const cv::Mat& image, const std::vector<Marker>& markers, const std::string& title,
                  const std::vector<MarkerEstimate>* estimates) {
    std::vector<Mark> marks;
    marks.reserve(markers.size());
    for (std::size_t i = 0; i < markers.size(); ++i) {
        marks.push_back(markOf(markers[i], foundKind(markers[i].polarity)));
        if (estimates != nullptr) addError(marks.back(), (*estimates)[i]);
    }
    MarkStyle style;
    style.errorScale = errorScaleOf(marks);
    return drawOverlay(image, marks, title + errorCaption(style.errorScale), foundLegend(marks), style);
}

void writePicture(const std::string& file, const cv::Mat& picture) {
    std::vector<uchar> bytes;
    try {
        encodeByCodec(std::filesystem::path(file).extension().string(), picture, bytes);
    } catch (const cv::Exception& error) {
        throw InputError(file, plainText(error));
    }
    writeWhole(file, bytes.data(), bytes.size());
}

}  // namespace kestrune::measure

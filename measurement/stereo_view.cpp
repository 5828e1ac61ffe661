// SPDX-License-Identifier: Apache-2.0
//
// The markers in space as a picture: a parallel projection of a box that is drawn from the back to the front.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "error_ellipse.h"
#include "stereo_pictures.h"

namespace kestrune::measure {
namespace {

const cv::Size kPicture(1600, 1150);
const cv::Rect kStage(100, 130, 1260, 930);  // where the box goes
const cv::Rect kBar(1440, 240, 36, 640);     // the colour bar
// The viewer stands this far around the scene and above it: enough to tell depth, not so much that discs become slits.
constexpr double kYaw = 0.62, kPitch = 0.42;
constexpr int kRimPoints = 48, kRimDash = 3;  // points of a dash, and as many of the gap
constexpr int kTicks = 7;                     // about so many along the longest axis
constexpr double kEnlarged = 2;               // discs against the space between them, so that their colour shows
constexpr double kNeedle = 1.8;               // length of a normal, in radii
constexpr double kUnknownRadius = 0.008;      // of the box's longest side, for discs of unknown size
constexpr double kMargin = 0.06;              // of the box around the discs, in its longest side
// A rival that is farther from the middle of the others, in sides of their box, would make them small to show itself.
constexpr double kRivalReach = 1.5;
constexpr double kViewErrorShare = 0.06;  // of that side, what the median ellipsoid takes at most
constexpr int kViewFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr int kViewFractionBits = 4;

const cv::Scalar kPaper(255, 255, 255), kInk(50, 45, 40), kGrid(225, 222, 218), kFloor(246, 244, 242),
    kShadow(215, 212, 208), kViewError(40, 40, 220), kUnrefined(190, 60, 150), kDoubtful(0, 130, 235);

using Polygon = std::vector<cv::Vec3d>;

/// From the left camera's frame to the picture.
class Projection {
  public:
    Projection(const cv::Vec3d& low, const cv::Vec3d& high) {
        cv::Point2d least(1e30, 1e30), most(-1e30, -1e30);
        for (int corner = 0; corner < 8; ++corner) {
            const cv::Point2d p =
                flat({corner & 1 ? high[0] : low[0], corner & 2 ? high[1] : low[1], corner & 4 ? high[2] : low[2]});
            least = {std::min(least.x, p.x), std::min(least.y, p.y)};
            most = {std::max(most.x, p.x), std::max(most.y, p.y)};
        }
        scale_ = std::min(kStage.width / (most.x - least.x), kStage.height / (most.y - least.y));
        const cv::Point2d middle(kStage.x + kStage.width / 2.0, kStage.y + kStage.height / 2.0);
        offset_ = middle - (least + most) * 0.5 * scale_;
    }

    cv::Point2d operator()(const cv::Vec3d& p) const { return flat(p) * scale_ + offset_; }

    /// Of points that scatter so in space.
    cv::Matx22d operator()(const cv::Matx33d& covariance) const {
        cv::Matx23d axes;
        for (int k = 0; k < 3; ++k) {
            const cv::Point2d p = flat(cv::Vec3d(k == 0, k == 1, k == 2)) * scale_;
            axes(0, k) = p.x;
            axes(1, k) = p.y;
        }
        return axes * covariance * axes.t();
    }

    /// Larger is farther from the viewer.
    static double depth(const cv::Vec3d& p) { return p.dot(away()); }

    /// The way that the viewer looks: away from the cameras, to the left and down.
    static cv::Vec3d away() {
        return {-std::sin(kYaw) * std::cos(kPitch), std::sin(kPitch), std::cos(kYaw) * std::cos(kPitch)};
    }

  private:
    static cv::Point2d flat(const cv::Vec3d& p) {
        const cv::Vec3d right(std::cos(kYaw), 0, std::sin(kYaw));
        return {p.dot(right), p.dot(away().cross(right))};
    }

    double scale_ = 1;
    cv::Point2d offset_;
};

class Canvas {
  public:
    Canvas(cv::Mat picture, const Projection& projection) : picture_(std::move(picture)), project_(projection) {}

    void fill(const Polygon& polygon, const cv::Scalar& colour) {
        const std::vector<cv::Point> points = fixedPoints(polygon);
        cv::fillConvexPoly(picture_, points, colour, cv::LINE_AA, kViewFractionBits);
    }

    void outline(const Polygon& polygon, const cv::Scalar& colour, int thickness, bool closed) {
        cv::polylines(picture_, fixedPoints(polygon), closed, colour, thickness, cv::LINE_AA, kViewFractionBits);
    }

    /// @param anchor  which part of the text stands at the point: (0, 0) its top left, (1, 1) its bottom right corner.
    void text(const std::string& text, cv::Point2d at, cv::Point2d anchor, double scale, int thickness = 1) {
        int baseline = 0;
        const cv::Size size = cv::getTextSize(text, kViewFont, scale, thickness, &baseline);
        const cv::Point place(cvRound(at.x - anchor.x * size.width), cvRound(at.y + (1 - anchor.y) * size.height));
        cv::putText(picture_, text, place, kViewFont, scale, kPaper, thickness + 3, cv::LINE_AA);
        cv::putText(picture_, text, place, kViewFont, scale, kInk, thickness, cv::LINE_AA);
    }

    /// The outline of an ellipsoid.
    void ellipsoid(const cv::Vec3d& centre, const cv::Matx33d& covariance, const cv::Scalar& colour, int thickness) {
        const ErrorEllipse e = errorEllipseOf(project_(covariance));
        const double one = 1 << kViewFractionBits;
        cv::ellipse(picture_, cv::Point(project_(centre) * one),
                    cv::Size(cvRound(e.majorHalfAxis * one), cvRound(e.minorHalfAxis * one)), e.angle, 0, 360, colour,
                    thickness, cv::LINE_AA, kViewFractionBits);
    }

    cv::Point2d at(const cv::Vec3d& p) const { return project_(p); }
    cv::Mat& picture() { return picture_; }

  private:
    std::vector<cv::Point> fixedPoints(const Polygon& polygon) const {
        std::vector<cv::Point> points;
        for (const cv::Vec3d& p : polygon) points.emplace_back(cv::Point(project_(p) * double(1 << kViewFractionBits)));
        return points;
    }

    cv::Mat picture_;
    const Projection& project_;
};

/// 1, 2 or 5 times a power of ten.
double niceStep(double range, int parts) {
    const double rough = range / parts, power = std::pow(10, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (rough <= factor * power) return factor * power;
    return 10 * power;
}

std::vector<double> ticksOf(double low, double high, double step) {
    std::vector<double> ticks;
    for (double t = std::ceil(low / step); t * step <= high; ++t) ticks.push_back(t * step);
    return ticks;
}

Polygon rimOf(const cv::Vec3d& centre, const cv::Vec3d& normal, double radius) {
    const cv::Vec3d helper = std::abs(normal[0]) < 0.8 ? cv::Vec3d(1, 0, 0) : cv::Vec3d(0, 1, 0);
    const cv::Vec3d u = cv::normalize(helper.cross(normal)), v = normal.cross(u);
    Polygon rim;
    for (int k = 0; k < kRimPoints; ++k) {
        const double t = 2 * CV_PI * k / kRimPoints;
        rim.push_back(centre + (u * std::cos(t) + v * std::sin(t)) * radius);
    }
    return rim;
}

cv::Scalar colourOf(double value, double largest) {
    const double share = largest > 0 ? std::clamp(value / largest, 0.0, 1.0) : 0;
    cv::Mat pixel(1, 1, CV_8UC1, cv::Scalar(255 * share));
    cv::applyColorMap(pixel, pixel, cv::COLORMAP_VIRIDIS);
    return cv::Scalar(pixel.at<cv::Vec3b>(0));
}

struct Box {
    cv::Vec3d low, high;
    double side() const { return std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]}); }
};

void include(Box& box, const cv::Vec3d& point) {
    for (int k = 0; k < 3; ++k) {
        box.low[k] = std::min(box.low[k], point[k]);
        box.high[k] = std::max(box.high[k], point[k]);
    }
}

Box boxOf(const std::vector<ViewDisc>& discs) {
    Box box{cv::Vec3d::all(1e30), cv::Vec3d::all(-1e30)};
    for (const ViewDisc& disc : discs) include(box, disc.centre);
    const Box own = box;
    for (const ViewDisc& disc : discs)
        for (const cv::Vec3d& rival : disc.rivals)
            if (cv::norm(rival - 0.5 * (own.low + own.high), cv::NORM_INF) <= kRivalReach * own.side())
                include(box, rival);
    const double margin = std::max(kMargin * box.side(), 1e-6);
    return {box.low - cv::Vec3d::all(margin), box.high + cv::Vec3d::all(margin)};
}

/// Floor and back wall with a grid, and the three axes with their ticks.
void drawBox(Canvas& canvas, const Box& box, const std::string& unit) {
    const cv::Vec3d &a = box.low, &b = box.high;
    const double step = niceStep(box.side(), kTicks);
    canvas.fill({{a[0], b[1], a[2]}, {b[0], b[1], a[2]}, {b[0], b[1], b[2]}, {a[0], b[1], b[2]}}, kFloor);
    for (const double x : ticksOf(a[0], b[0], step)) {
        canvas.outline({{x, b[1], a[2]}, {x, b[1], b[2]}, {x, a[1], b[2]}}, kGrid, 1, false);
        canvas.text(fmt::format("{:g}", x), canvas.at({x, b[1], a[2]}) + cv::Point2d(-4, 10), {1, 0}, 0.65);
    }
    for (const double y : ticksOf(a[1], b[1], step)) {
        canvas.outline({{a[0], y, a[2]}, {a[0], y, b[2]}, {b[0], y, b[2]}}, kGrid, 1, false);
        canvas.text(fmt::format("{:g}", y), canvas.at({a[0], y, a[2]}) + cv::Point2d(-12, 0), {1, 0.5}, 0.65);
    }
    for (const double z : ticksOf(a[2], b[2], step)) {
        canvas.outline({{a[0], a[1], z}, {a[0], b[1], z}, {b[0], b[1], z}}, kGrid, 1, false);
        canvas.text(fmt::format("{:g}", z), canvas.at({b[0], b[1], z}) + cv::Point2d(10, 10), {0, 0}, 0.65);
    }
    canvas.outline({{a[0], a[1], a[2]}, {a[0], b[1], a[2]}, {b[0], b[1], a[2]}, {b[0], b[1], b[2]}}, kInk, 2, false);
    const cv::Vec3d middle = (a + b) * 0.5;
    canvas.text("x " + unit, canvas.at({middle[0], b[1], a[2]}) + cv::Point2d(-50, 44), {1, 0}, 0.75, 2);
    canvas.text("y " + unit, canvas.at({a[0], a[1], a[2]}) + cv::Point2d(0, -14), {0.5, 1}, 0.75, 2);
    canvas.text("z " + unit, canvas.at({b[0], b[1], middle[2]}) + cv::Point2d(48, 36), {0, 0}, 0.75, 2);
}

/// The number by which the discs' ellipsoids are enlarged; 0 where there are none.
double errorScaleOf(const std::vector<ViewDisc>& discs, const Box& box) {
    std::vector<double> longest;
    for (const ViewDisc& disc : discs) {
        cv::Vec3d variances;
        if (!disc.covariance) continue;
        cv::eigen(*disc.covariance, variances);
        longest.push_back(std::sqrt(std::max(0.0, variances[0])));
    }
    return errorScale(longest, kViewErrorShare * box.side());
}

/// A dashed rim, and where its markers may be instead.
void drawDoubtful(Canvas& canvas, const ViewDisc& disc, const Polygon& rim) {
    for (const cv::Vec3d& rival : disc.rivals) {
        if (!cv::Rect({}, kPicture).contains(canvas.at(rival))) continue;
        canvas.outline({disc.centre, rival}, kDoubtful, 1, false);
        cv::circle(canvas.picture(), canvas.at(rival), 3, kDoubtful, cv::FILLED, cv::LINE_AA);
    }
    for (std::size_t k = 0; k < rim.size(); k += 2 * kRimDash)
        canvas.outline(
            {rim.begin() + static_cast<std::ptrdiff_t>(k), rim.begin() + static_cast<std::ptrdiff_t>(k) + kRimDash + 1},
            kDoubtful, 2, false);
}

void drawDiscs(Canvas& canvas, std::vector<ViewDisc> discs, const Box& box, double largest, double errors) {
    for (ViewDisc& disc : discs)
        disc.radius = std::isnan(disc.radius) ? kUnknownRadius * box.side() : kEnlarged * disc.radius;
    for (const ViewDisc& disc : discs)
        if (!disc.doubtful)
            canvas.fill(rimOf({disc.centre[0], box.high[1], disc.centre[2]}, {0, -1, 0}, disc.radius), kShadow);
    std::ranges::sort(discs, std::greater(), [](const ViewDisc& d) { return Projection::depth(d.centre); });
    for (const ViewDisc& disc : discs) {
        const bool known = !std::isnan(disc.normal[0]);
        const Polygon rim = rimOf(disc.centre, known ? disc.normal : -Projection::away(), disc.radius);
        if (disc.doubtful) {
            drawDoubtful(canvas, disc, rim);
            continue;
        }
        canvas.fill(rim, colourOf(disc.value, largest));
        const bool plain = errors == 0 || disc.covariance;
        canvas.outline(rim, plain ? kInk : kUnrefined, plain ? 1 : 3, true);
        if (known) canvas.outline({disc.centre, disc.centre + disc.normal * (kNeedle * disc.radius)}, kInk, 2, false);
    }
    for (const ViewDisc& disc : discs)
        if (disc.covariance) canvas.ellipsoid(disc.centre, *disc.covariance * (errors * errors), kViewError, 2);
    for (const ViewDisc& disc : discs)
        canvas.text(disc.label, canvas.at(disc.centre) + cv::Point2d(0, 19), {0.5, 0}, 0.55);
}

void drawBar(Canvas& canvas, double largest, const std::string& name) {
    for (int y = 0; y < kBar.height; ++y) {
        const double value = largest * (kBar.height - 1 - y) / (kBar.height - 1);
        canvas.picture()(cv::Rect(kBar.x, kBar.y + y, kBar.width, 1)).setTo(colourOf(value, largest));
    }
    cv::rectangle(canvas.picture(), kBar, kInk, 1);
    canvas.text(name, {kBar.x + kBar.width / 2.0, kBar.y - 16.0}, {0.5, 1}, 0.7, 2);
    for (const double tick : ticksOf(0, largest * (1 + 1e-9), niceStep(largest, kTicks))) {
        const cv::Point2d at(kBar.x + kBar.width + 10, kBar.y + kBar.height * (1 - tick / largest));
        canvas.text(fmt::format("{:g}", tick), at, {0, 0.5}, 0.7);
    }
}

}  // namespace

cv::Mat drawView(const std::vector<ViewDisc>& discs, const ViewText& text) {
    cv::Mat picture(kPicture, CV_8UC3, kPaper);
    const Box box = discs.empty() ? Box{{-1, -1, -1}, {1, 1, 1}} : boxOf(discs);
    const Projection projection(box.low, box.high);
    Canvas canvas(picture, projection);
    double largest = 0;
    for (const ViewDisc& disc : discs) largest = std::max(largest, disc.value);
    drawBox(canvas, box, text.unit);
    const double errors = errorScaleOf(discs, box);
    drawDiscs(canvas, discs, box, largest, errors);
    if (largest > 0) drawBar(canvas, largest, text.valueName);
    canvas.text(text.title, {40, 34}, {0, 0}, 0.95, 2);
    const bool known = std::ranges::any_of(discs, [](const ViewDisc& d) { return !std::isnan(d.normal[0]); });
    canvas.text(known ? "discs at twice their size, needles along their normals, grey: shadows on the floor"
                      : "size and tilt are not measured, grey: shadows on the floor",
                {40, 76}, {0, 0}, 0.65);
    const bool all = std::ranges::all_of(discs, [](const ViewDisc& d) { return d.doubtful || d.covariance; });
    std::string note;
    if (errors > 0)
        note = fmt::format("red: uncertainty of the centres x {:g}{}   ", errors,
                           all ? "" : ", violet rims: not refined in both eyes");
    if (std::ranges::any_of(discs, &ViewDisc::doubtful)) note += "dashed: ambiguous, with lines to their rivals";
    canvas.text(note, {40, 106}, {0, 0}, 0.65);
    return picture;
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
#include "refinement/disc_projection.h"

#include <cmath>

namespace kestrune {
namespace {

using Row = Eigen::Matrix<double, 1, 7>;  ///< derivatives by X, Y, Z, nx, ny, nz, r

// Square of the ratio of half axes below which a disc is seen from its edge.
constexpr double kThinnest = 1e-12;

/// A number with its derivatives.
struct Term {
    double value;
    Row by;
};

/// s, e1 and e2 of second moments.
void setShape(const Term& p, const Term& q, const Term& t, ProjectedDisc& image) {
    const double area = std::sqrt(p.value * t.value - q.value * q.value);
    const double s = 0.5 * std::sqrt(p.value + t.value + 2 * area);
    const Row byArea = (0.5 / area) * (t.value * p.by + p.value * t.by - 2 * q.value * q.by);
    const Row byS = (0.125 / s) * (p.by + t.by + 2 * byArea);
    const double e1 = 0.25 * (p.value - t.value) / s, e2 = 0.5 * q.value / s;
    image.ellipse.tail<3>() << s, e1, e2;
    image.derivative.row(2) = byS;
    image.derivative.row(3) = (0.25 / s) * (p.by - t.by) - (e1 / s) * byS;
    image.derivative.row(4) = (0.5 / s) * q.by - (e2 / s) * byS;
}

}  // namespace

Moments momentsOf(const EllipseNumbers& v) {
    const double round = v[2] * v[2] + v[3] * v[3] + v[4] * v[4];
    return {round + 2 * v[2] * v[3], 2 * v[2] * v[4], round - 2 * v[2] * v[3]};
}

bool projectDisc(const SpaceDisc& disc, const geometry::Pinhole& camera, ProjectedDisc& image) {
    const double X = disc.centre.x(), Y = disc.centre.y(), Z = disc.centre.z(), r = disc.radius, r2 = r * r;
    const double nx = disc.normal.x(), ny = disc.normal.y(), nz = disc.normal.z(), flat = 1 - nz * nz;
    const double w = Z * Z - r2 * flat;  // of the nearest and the farthest rim point, the product of their depths
    if (!(Z > 0) || !(w > 0) || !(r > 0)) return false;

    const Row byW = (Row() << 0, 0, 2 * Z, 0, 0, 2 * r2 * nz, -2 * r * flat).finished();
    const double x = (X * Z + r2 * nx * nz) / w, y = (Y * Z + r2 * ny * nz) / w;
    const Row byX = (Row() << Z, 0, X, r2 * nz, 0, r2 * nx, 2 * r * nx * nz).finished();
    const Row byY = (Row() << 0, Z, Y, 0, r2 * nz, r2 * ny, 2 * r * ny * nz).finished();
    image.ellipse.head<2>() << camera.fx * x + camera.cx, camera.fy * y + camera.cy;
    image.derivative.row(0) = (camera.fx / w) * (byX - x * byW);
    image.derivative.row(1) = (camera.fy / w) * (byY - y * byW);

    const double mx = Y * nz - Z * ny, my = Z * nx - X * nz;
    const Row byMx = (Row() << 0, nz, -ny, 0, -Z, Y, 0).finished();
    const Row byMy = (Row() << -nz, 0, nx, Z, 0, -X, 0).finished();
    const Term xx{X * X + Z * Z - my * my - r2 * ny * ny,
                  (Row() << 2 * X, 0, 2 * Z, 0, -2 * r2 * ny, 0, -2 * r * ny * ny).finished() - 2 * my * byMy};
    const Term xy{X * Y + mx * my + r2 * nx * ny,
                  (Row() << Y, X, 0, r2 * ny, r2 * nx, 0, 2 * r * nx * ny).finished() + my * byMx + mx * byMy};
    const Term yy{Y * Y + Z * Z - mx * mx - r2 * nx * nx,
                  (Row() << 0, 2 * Y, 2 * Z, -2 * r2 * nx, 0, 0, -2 * r * nx * nx).finished() - 2 * mx * byMx};
    const double both = xx.value * yy.value;
    if (!(xx.value > 0) || !(both - xy.value * xy.value > kThinnest * both)) return false;
    const double scale = r2 / (w * w);
    Row byScale = (-2 * scale / w) * byW;
    byScale[6] += 2 * r / (w * w);
    const auto scaled = [&](const Term& term, double focals) {
        return Term{focals * scale * term.value, focals * (scale * term.by + term.value * byScale)};
    };
    setShape(scaled(xx, camera.fx * camera.fx), scaled(xy, camera.fx * camera.fy), scaled(yy, camera.fy * camera.fy),
             image);
    return true;
}

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
#include "native/estimates.h"

#include <fmt/format.h>
#include <pybind11/numpy.h>
#include <pybind11/operators.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <type_traits>

#include "native/module.h"

namespace kestrune::python {
namespace {

/// An array of its own: a matrix, or a vector where there is one column.
template <int Rows, int Columns>
py::array_t<double> arrayOf(const cv::Matx<double, Rows, Columns>& matrix) {
    std::vector<py::ssize_t> shape = {Rows};
    if (Columns > 1) shape.push_back(Columns);
    return py::array_t<double>(shape, matrix.val);
}

py::array_t<double> arrayOf(const cv::Point2d& point) {
    return arrayOf(cv::Vec2d(point.x, point.y));
}

cv::Matx23d tangentsOf(const DiscEstimate& d) {
    const auto& [a, b] = d.tangents;
    return {a[0], a[1], a[2], b[0], b[1], b[2]};
}

/// All numbers of an object, one behind the other: what is pickled, and what two that are equal agree in.
class Numbers {
  public:
    std::vector<double> all;

    void put(double value) { all.push_back(value); }
    template <int Rows, int Columns>
    void put(const cv::Matx<double, Rows, Columns>& matrix) {
        all.insert(all.end(), matrix.val, matrix.val + Rows * Columns);
    }
    void put(const cv::Point2d& point) { put(cv::Vec2d(point.x, point.y)); }
};

class Taken {
  public:
    explicit Taken(std::vector<double> all) : all_(std::move(all)) {}

    template <typename Number>
    requires std::is_arithmetic_v<Number>
    void put(Number& value) { value = static_cast<Number>(all_.at(next_++)); }
    template <int Rows, int Columns>
    void put(cv::Matx<double, Rows, Columns>& matrix) {
        for (double& value : matrix.val) put(value);
    }
    void put(cv::Point2d& point) {
        put(point.x);
        put(point.y);
    }

  private:
    std::vector<double> all_;
    std::size_t next_ = 0;
};

/// Hands the members over in their order.
template <typename Estimate, typename To>
void passMarker(Estimate& e, To& to) {
    to.put(e.centre), to.put(e.majorHalfAxis), to.put(e.minorHalfAxis), to.put(e.angle), to.put(e.inside);
    to.put(e.outside), to.put(e.blur), to.put(e.lightDegree), to.put(e.noise), to.put(e.residual);
    to.put(e.pixels), to.put(e.covariance);
}

template <typename Estimate, typename To>
void passDisc(Estimate& d, To& to) {
    to.put(d.found), to.put(d.centre), to.put(d.normal), to.put(d.radius), to.put(d.covariance);
    to.put(d.tangents[0]), to.put(d.tangents[1]), to.put(d.calibrationCovariance), to.put(d.chiSquare);
}

std::vector<double> numbersOf(const MarkerEstimate& e) {
    Numbers numbers;
    numbers.put(static_cast<double>(e.status));
    passMarker(e, numbers);
    return numbers.all;
}

std::vector<double> numbersOf(const DiscEstimate& d) {
    Numbers numbers;
    passDisc(d, numbers);
    return numbers.all;
}

MarkerEstimate markerOf(const std::vector<double>& numbers) {
    Taken taken(numbers);
    MarkerEstimate e;
    int status = 0;
    taken.put(status);
    e.status = static_cast<RefinementStatus>(status);
    passMarker(e, taken);
    return e;
}

DiscEstimate discOf(const std::vector<double>& numbers) {
    Taken taken(numbers);
    DiscEstimate d;
    passDisc(d, taken);
    return d;
}

/// Every bit, so that what is unknown in both is equal.
template <typename Estimate>
bool areSame(const Estimate& a, const Estimate& b) {
    return std::ranges::equal(numbersOf(a), numbersOf(b), {}, std::bit_cast<std::uint64_t, double>,
                              std::bit_cast<std::uint64_t, double>);
}

void defineMarkerEstimate(py::module_& module) {
    using E = MarkerEstimate;
    py::class_<E>(module, "MarkerEstimate",
                  "A marker with its uncertainty. One that was not refined has the ellipse of its record, NaN for what "
                  "only the fit tells, and a covariance that covers what the paths are known to be off by.")
        .def_property_readonly(
            "status", [](const E& e) { return nameOf(e.status); }, "'refined', or why it was not")
        .def_property_readonly("isRefined", &E::isRefined, "whether it was refined")
        .def_property_readonly(
            "centre", [](const E& e) { return arrayOf(e.centre); }, "(x, y) of the rim's ellipse, px")
        .def_readonly("majorHalfAxis", &E::majorHalfAxis, "px")
        .def_readonly("minorHalfAxis", &E::minorHalfAxis, "px")
        .def_readonly("angle", &E::angle, "of the major axis, from x towards y, radians in [0, pi)")
        .def_readonly("inside", &E::inside, "level of the marker at its centre, in levels of the image")
        .def_readonly("outside", &E::outside, "level of its ground, in the light of the marker's centre")
        .def_readonly("blur", &E::blur, "standard deviation of the Gaussian that blurs the rim, px")
        .def_readonly("lightDegree", &E::lightDegree, "of the polynomial by which the light varies: 0 to 2")
        .def_readonly("noise", &E::noise, "standard deviation of a pixel half way up the rim, levels")
        .def_readonly("residual", &E::residual, "RMS of what is left about the rim, in units of the noise")
        .def_readonly("pixels", &E::pixels, "that took part")
        .def_property_readonly(
            "covariance", [](const E& e) { return arrayOf(e.covariance); },
            "8 by 8, of (x, y, s, e1, e2, inside, outside, blur) with s = (a + b) / 2 and (e1, e2) = (a - b) / 2 "
            "(cos 2t, sin 2t) for half axes a, b and angle t; px and levels")
        .def_property_readonly(
            "centreCovariance", [](const E& e) { return arrayOf(e.centreCovariance()); }, "2 by 2, of x and y, px^2")
        .def_property_readonly(
            "ellipseCovariance", [](const E& e) { return arrayOf(e.ellipseCovariance()); },
            "5 by 5, of (x, y, s, e1, e2)")
        .def_property_readonly(
            "axisSigmas",
            [](const E& e) {
                const AxisSigmas s = axisSigmas(e);
                return py::make_tuple(s.major, s.minor, s.angle);
            },
            "standard deviations (major, minor, angle): half axes in px, the angle's in radians")
        .def("__repr__",
             [](const E& e) {
                 return fmt::format("<MarkerEstimate at {:.4f}, {:.4f}: {}>", e.centre.x, e.centre.y, nameOf(e.status));
             })
        .def("__eq__", &areSame<E>, py::is_operator())
        .def(py::pickle([](const E& e) { return numbersOf(e); }, &markerOf));
}

void defineDiscEstimate(py::module_& module) {
    using D = DiscEstimate;
    py::class_<D>(module, "DiscEstimate",
                  "A disc in space from the estimates of both eyes, with its uncertainty; in the unit of the rig.")
        .def_readonly("found", &D::found, "False: the ellipses are no image of one disc, and nothing else is set")
        .def_property_readonly(
            "centre", [](const D& d) { return arrayOf(d.centre); }, "(x, y, z) of the disc, not of its images")
        .def_property_readonly(
            "normal", [](const D& d) { return arrayOf(d.normal); }, "unit, towards the cameras")
        .def_readonly("radius", &D::radius, "of the disc")
        .def_property_readonly(
            "covariance", [](const D& d) { return arrayOf(d.covariance); },
            "6 by 6, of (x, y, z, turns of the normal about the two tangents in radians, radius)")
        .def_property_readonly(
            "tangents", [](const D& d) { return arrayOf(tangentsOf(d)); },
            "2 by 3: unit vectors that form a right-handed frame with the normal")
        .def_property_readonly(
            "calibrationCovariance", [](const D& d) { return arrayOf(d.calibrationCovariance); },
            "3 by 3, of the centre, by the uncertainty of the calibration; common to all points of a rig")
        .def_readonly("chiSquare", &D::chiSquare, "of 4 degrees of freedom: both ellipses against the disc")
        .def_property_readonly(
            "centreCovariance", [](const D& d) { return arrayOf(d.centreCovariance()); }, "3 by 3, of the centre")
        .def_property_readonly(
            "normalCovariance", [](const D& d) { return arrayOf(d.normalCovariance()); },
            "3 by 3, of the unit normal, of rank 2")
        .def_property_readonly("radiusSigma", &D::radiusSigma, "standard deviation of the radius")
        .def("__repr__",
             [](const D& d) {
                 return d.found ? fmt::format("<DiscEstimate at {:.4f}, {:.4f}, {:.4f}>", d.centre[0], d.centre[1],
                                              d.centre[2])
                                : "<DiscEstimate: not found>";
             })
        .def("__eq__", &areSame<D>, py::is_operator())
        .def(py::pickle([](const D& d) { return numbersOf(d); }, &discOf));
}

}  // namespace

py::list pythonEstimates(const std::vector<MarkerEstimate>& estimates) {
    py::list list;
    for (const MarkerEstimate& estimate : estimates) list.append(estimate);
    return list;
}

py::tuple pythonPairEstimates(const std::vector<measure::StereoMarker>& markers) {
    py::list left, right, discs;
    for (const measure::StereoMarker& marker : markers) {
        if (!marker.estimate) continue;
        left.append(marker.estimate->eyes[0]);
        right.append(marker.estimate->eyes[1]);
        discs.append(marker.estimate->disc);
    }
    return py::make_tuple(left, right, discs);
}

void defineEstimates(py::module_& module) {
    defineMarkerEstimate(module);
    defineDiscEstimate(module);
}

}  // namespace kestrune::python

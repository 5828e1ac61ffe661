// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <pybind11/eigen.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "native/held.h"
#include "native/module.h"

namespace kestrune::python {
namespace {

namespace py = pybind11;

using Contour = py::array_t<float, py::array::c_style | py::array::forcecast>;
using Ellipse = std::tuple<std::pair<float, float>, std::pair<float, float>, float>;

Contour contourOf(const Corner& corner) {
    Contour array(std::vector<py::ssize_t>{static_cast<py::ssize_t>(corner.contour.size()), 2});
    static_assert(sizeof(cv::Point2f) == 2 * sizeof(float));
    if (!corner.contour.empty())
        std::memcpy(array.mutable_data(), corner.contour.data(), corner.contour.size() * sizeof(cv::Point2f));
    return array;
}

void setContour(Corner& corner, const Contour& array) {
    if (array.ndim() != 2 || array.shape(1) != 2) throw InputError("contour", "is no array of points by 2");
    corner.contour.resize(static_cast<std::size_t>(array.shape(0)));
    if (!corner.contour.empty())
        std::memcpy(static_cast<void*>(corner.contour.data()), array.data(),
                    corner.contour.size() * sizeof(cv::Point2f));
}

/// What only markers with a conic have.
template <typename Value>
py::object ifConic(const Corner& corner, const Value& value) {
    return corner.conicValid ? py::cast(value) : py::none();
}

Ellipse ellipseOf(const Corner& corner) {
    const cv::RotatedRect& e = corner.ellipse;
    return {{e.center.x, e.center.y}, {e.size.width, e.size.height}, e.angle};
}

/// A record as this module makes it: what no operation has set is 0.
Corner emptyCorner() {
    Corner corner;
    corner.x = corner.y = corner.markerRadius = 0;
    corner.conic.fill(0);
    for (auto* text : {corner.areaText, corner.ratioText, corner.spareTextA, corner.fitText, corner.spareTextB,
                       corner.eccentricityText})
        text[0] = '\0';
    return corner;
}

py::tuple stateOfCorner(const Corner& c) {
    return py::make_tuple(c.id, c.x, c.y, ellipseOf(c), c.fitResidual, c.conicValid, c.conic, c.scatter, c.markerRadius,
                          Eigen::Vector3d(c.normal), Eigen::Vector3d(c.position), contourOf(c), c.matched, c.area,
                          c.compactness, c.fitError, c.eccentricity, c.convexRatio, c.circularity);
}

Corner cornerOfState(const py::tuple& state) {
    Corner c = emptyCorner();
    std::size_t next = 0;
    const auto take = [&](auto& value) { value = state[next++].cast<std::decay_t<decltype(value)>>(); };
    take(c.id), take(c.x), take(c.y);
    const auto [centre, size, angle] = state[next++].cast<Ellipse>();
    c.ellipse = cv::RotatedRect({centre.first, centre.second}, {size.first, size.second}, angle);
    take(c.fitResidual), take(c.conicValid), take(c.conic), take(c.scatter), take(c.markerRadius), take(c.normal),
        take(c.position);
    setContour(c, state[next++].cast<Contour>());
    take(c.matched), take(c.area), take(c.compactness), take(c.fitError), take(c.eccentricity), take(c.convexRatio),
        take(c.circularity);
    return c;
}

/// The records of one image; an element stays alive with its list.
struct CornerList {
    SharedCorners corners;

    Corner& at(py::ssize_t index) const {
        const auto size = static_cast<py::ssize_t>(corners->size());
        if (index < 0) index += size;
        if (index < 0 || index >= size) throw py::index_error(fmt::format("{} of {} corners", index, size));
        return (*corners)[static_cast<std::size_t>(index)];
    }
};

CornerList listOfState(const py::list& states) {
    CornerList list{std::make_shared<std::vector<Corner>>()};
    for (const py::handle state : states) list.corners->push_back(cornerOfState(state.cast<py::tuple>()));
    return list;
}

}  // namespace

py::object pythonCorners(std::vector<Corner> corners) {
    for (Corner& corner : corners) {
        if (!corner.conicValid) corner.conic.fill(0);
        if (!corner.matched) corner.markerRadius = 0;
    }
    return py::cast(CornerList{std::make_shared<std::vector<Corner>>(std::move(corners))});
}

SharedCorners cornersIn(const py::object& sequence) {
    if (!py::isinstance<CornerList>(sequence)) throw InputError("markers", "is neither Markers nor Corners");
    return sequence.cast<const CornerList&>().corners;
}

void defineCorners(py::module_& module) {
    py::class_<Corner>(module, "Corner", "One marker as the library records it, in the pixels of its path.")
        .def(py::init(&emptyCorner))
        .def_readonly("id", &Corner::id, "running number in its list")
        .def_readonly("x", &Corner::x, "centre, column, px of the path")
        .def_readonly("y", &Corner::y, "centre, row, px of the path")
        .def_property_readonly(
            "ellipse", [](const Corner& c) { return ifConic(c, ellipseOf(c)); },
            "((x, y), (width, height), angle in degrees) of the fitted ellipse, full axes in px; or None")
        .def_property_readonly(
            "fitResidual", [](const Corner& c) { return ifConic(c, c.fitResidual); },
            "RMS of the conic over the contour; or None")
        .def_readonly("conicValid", &Corner::conicValid,
                      "whether ellipse, fitResidual, conic and scatter are there: paths radial and complex")
        .def_property_readonly(
            "conic",
            [](const Corner& c) { return ifConic(c, Eigen::Map<const Eigen::Matrix<double, 6, 1>>(c.conic.data())); },
            "A, B, C, D, E, F of A x^2 + B x y + C y^2 + D x + E y + F = 0, -1 at the centre; or None")
        .def_property_readonly(
            "scatter", [](const Corner& c) { return ifConic(c, c.scatter); },
            "6 by 6: sum over the contour of the outer products of (x^2, x y, y^2, x, y, 1); or None")
        .def_readonly("markerRadius", &Corner::markerRadius,
                      "radius of the disc in space, unit of the calibration; 0 where no stereo measurement set it")
        .def_property_readonly(
            "normal", [](const Corner& c) { return Eigen::Vector3d(c.normal); },
            "unit normal of the disc; 0 where no stereo measurement set it")
        .def_property_readonly(
            "position", [](const Corner& c) { return Eigen::Vector3d(c.position); },
            "centre of the disc in space; 0 where no measurement set it")
        .def_property_readonly("contour", &contourOf, "points by 2, px, float32")
        .def_readonly("matched", &Corner::matched, "whether it stands in a stereo pair")
        .def_readonly("area", &Corner::area, "product of the full axes, px^2; path fast: area of the contour")
        .def_readonly("compactness", &Corner::compactness, "perimeter^2 / area; path hand")
        .def_readonly("fitError", &Corner::fitError, "RMS distance of the contour from the ellipse, px")
        .def_readonly("eccentricity", &Corner::eccentricity, "sqrt(a^2 - b^2) / a of the half axes")
        .def_readonly("convexRatio", &Corner::convexRatio, "area of the contour over that of its hull")
        .def_readonly("circularity", &Corner::circularity, "4 pi area / perimeter^2")
        .def("__repr__", [](const Corner& c) { return fmt::format("<Corner {} at {:.3f}, {:.3f}>", c.id, c.x, c.y); })
        .def(py::pickle(&stateOfCorner, &cornerOfState));
    py::class_<CornerList>(module, "Corners", "Records of one image, in the order of its markers.")
        .def(py::init([] { return CornerList{std::make_shared<std::vector<Corner>>()}; }))
        .def("__len__", [](const CornerList& list) { return list.corners->size(); })
        .def("__repr__", [](const CornerList& list) { return fmt::format("<Corners: {}>", list.corners->size()); })
        .def("__getitem__", &CornerList::at, py::return_value_policy::reference_internal)
        .def(py::pickle(
            [](const CornerList& list) {
                py::list states;
                for (const Corner& corner : *list.corners) states.append(stateOfCorner(corner));
                return states;
            },
            &listOfState));
}

}  // namespace kestrune::python

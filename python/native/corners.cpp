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

py::tuple stateOf(const Corner& c) {
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

void defineCorners(py::module_& module) {
    py::class_<Corner>(module, "Corner")
        .def(py::init(&emptyCorner))
        .def_readonly("id", &Corner::id)
        .def_readonly("x", &Corner::x)
        .def_readonly("y", &Corner::y)
        .def_property_readonly("ellipse", [](const Corner& c) { return ifConic(c, ellipseOf(c)); })
        .def_property_readonly("fitResidual", [](const Corner& c) { return ifConic(c, c.fitResidual); })
        .def_readonly("conicValid", &Corner::conicValid)
        .def_property_readonly(
            "conic",
            [](const Corner& c) { return ifConic(c, Eigen::Map<const Eigen::Matrix<double, 6, 1>>(c.conic.data())); })
        .def_property_readonly("scatter", [](const Corner& c) { return ifConic(c, c.scatter); })
        .def_readonly("markerRadius", &Corner::markerRadius)
        .def_property_readonly("normal", [](const Corner& c) { return Eigen::Vector3d(c.normal); })
        .def_property_readonly("position", [](const Corner& c) { return Eigen::Vector3d(c.position); })
        .def_property_readonly("contour", &contourOf)
        .def_readonly("matched", &Corner::matched)
        .def_readonly("area", &Corner::area)
        .def_readonly("compactness", &Corner::compactness)
        .def_readonly("fitError", &Corner::fitError)
        .def_readonly("eccentricity", &Corner::eccentricity)
        .def_readonly("convexRatio", &Corner::convexRatio)
        .def_readonly("circularity", &Corner::circularity)
        .def("__repr__", [](const Corner& c) { return fmt::format("<Corner {} at {:.3f}, {:.3f}>", c.id, c.x, c.y); })
        .def(py::pickle(&stateOf, &cornerOfState));
    py::class_<CornerList>(module, "Corners")
        .def(py::init([] { return CornerList{std::make_shared<std::vector<Corner>>()}; }))
        .def("__len__", [](const CornerList& list) { return list.corners->size(); })
        .def("__getitem__", &CornerList::at, py::return_value_policy::reference_internal)
        .def(py::pickle(
            [](const CornerList& list) {
                py::list states;
                for (const Corner& corner : *list.corners) states.append(stateOf(corner));
                return states;
            },
            &listOfState));
}

}  // namespace kestrune::python

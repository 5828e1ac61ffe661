// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <pybind11/numpy.h>
#include <pybind11/operators.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <opencv2/calib3d.hpp>

#include "native/held.h"
#include "native/images.h"
#include "native/module.h"

namespace kestrune::python {
namespace {

using Numbers = py::array_t<double, py::array::c_style | py::array::forcecast>;

/// A matrix of its own.
cv::Mat matrixOf(const Numbers& array, const char* name) {
    if (array.ndim() != 1 && array.ndim() != 2)
        throw InputError("rig", fmt::format("field '{}' has {} dimensions", name, array.ndim()));
    const int rows = static_cast<int>(array.shape(0)),
              columns = array.ndim() == 2 ? static_cast<int>(array.shape(1)) : 1;
    return cv::Mat(rows, columns, CV_64F, const_cast<double*>(array.data())).clone();
}

using Size = std::optional<std::pair<int, int>>;

// As for a calibration file.
constexpr int kLargestSide = 1'000'000;

void requireSize(int width, int height) {
    if (std::min(width, height) < 1 || std::max(width, height) > kLargestSide)
        throw InputError("rig", fmt::format("size {} x {} is none of an image", width, height));
}

HeldRig makeRig(const std::array<Numbers, 2>& matrices, const std::array<Numbers, 2>& lenses, const Numbers& rotation,
                const Numbers& translation, const Size& size, int rectifyFlags) {
    RigMatrices parts;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        parts.cameras[eye].matrix = matrixOf(matrices[eye], eye == 0 ? "left_matrix" : "right_matrix");
        parts.cameras[eye].distortion = matrixOf(lenses[eye], eye == 0 ? "left_distortion" : "right_distortion");
    }
    parts.rotation = matrixOf(rotation, "rotation");
    parts.translation = matrixOf(translation, "translation");
    if (size) {
        requireSize(size->first, size->second);
        parts.size = {size->first, size->second};
    }
    parts.rectifyFlags = rectifyFlags;
    return {rigOf(parts, "rig"), "rig"};
}

Size sizeOf(const HeldRig& held) {
    if (held.rig.size.empty()) return std::nullopt;
    return std::pair(held.rig.size.width, held.rig.size.height);
}

HeldRig withSize(const HeldRig& held, int width, int height) {
    requireSize(width, height);
    HeldRig changed = held;
    changed.rig.size = {width, height};
    return changed;
}

HeldRig withOrientation(const HeldRig& held, const Numbers& rotation, const Numbers& translation) {
    RigMatrices parts = matricesOf(held.rig);
    parts.rotation = matrixOf(rotation, "rotation");
    parts.translation = matrixOf(translation, "translation");
    return {rigOf(parts, "rig"), held.origin};
}

using Sigmas = std::tuple<std::array<std::array<double, 4>, 2>, std::array<std::array<double, 5>, 2>,
                          std::array<double, 3>, std::array<double, 3>>;
using State =
    std::tuple<std::array<std::array<double, 12>, 2>, std::array<std::array<double, 10>, 2>, int, int, int, Sigmas>;

State stateOf(const HeldRig& held) {
    const RigUncertainty& u = held.rig.uncertainty;
    const Sigmas sigmas{u.cameras, u.distortions, u.rotation, u.translation};
    State state{{}, {}, held.rig.size.width, held.rig.size.height, held.rig.rectifyFlags, sigmas};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        std::ranges::copy(held.rig.poses[eye].values, std::get<0>(state)[eye].begin());
        std::ranges::copy(held.rig.cameras[eye].values, std::get<1>(state)[eye].begin());
    }
    return state;
}

HeldRig rigOfState(const State& state, const std::string& origin) {
    HeldRig held{{}, origin};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        std::ranges::copy(std::get<0>(state)[eye], held.rig.poses[eye].values);
        std::ranges::copy(std::get<1>(state)[eye], held.rig.cameras[eye].values);
    }
    held.rig.size = {std::get<2>(state), std::get<3>(state)};
    held.rig.rectifyFlags = std::get<4>(state);
    RigUncertainty& u = held.rig.uncertainty;
    std::tie(u.cameras, u.distortions, u.rotation, u.translation) = std::get<5>(state);
    return held;
}

/// Where they come from does not count.
bool sameRigs(const HeldRig& a, const HeldRig& b) {
    return stateOf(a) == stateOf(b);
}

}  // namespace

void defineRig(py::module_& module) {
    const auto camera = [](std::size_t eye, bool lens) {
        return [eye, lens](const HeldRig& held) {
            const Camera c = asMatrices(held.rig.cameras[eye]);
            return arrayOf(lens ? c.distortion : c.matrix);
        };
    };
    py::class_<HeldRig>(module, "Rig")
        .def(py::init(&makeRig), py::arg("matrices"), py::arg("distortions"), py::arg("rotation"),
             py::arg("translation"), py::arg("size") = py::none(),
             py::arg("rectify_flags") = static_cast<int>(cv::CALIB_ZERO_DISPARITY))
        .def_static(
            "read",
            [](const std::string& file) {
                return HeldRig{readRig(file), file};
            },
            py::arg("file"), py::call_guard<py::gil_scoped_release>())
        .def(
            "write", [](const HeldRig& held, const std::string& file) { writeRig(file, held.rig); }, py::arg("file"),
            py::call_guard<py::gil_scoped_release>())
        .def("with_size", &withSize, py::arg("width"), py::arg("height"))
        .def("with_orientation", &withOrientation, py::arg("rotation"), py::arg("translation"))
        .def_property_readonly("left_matrix", camera(0, false))
        .def_property_readonly("left_distortion", camera(0, true))
        .def_property_readonly("right_matrix", camera(1, false))
        .def_property_readonly("right_distortion", camera(1, true))
        .def_property_readonly("rotation",
                               [](const HeldRig& held) { return arrayOf(cv::Mat(matricesOf(held.rig).rotation)); })
        .def_property_readonly("translation",
                               [](const HeldRig& held) { return arrayOf(cv::Mat(matricesOf(held.rig).translation)); })
        .def_property_readonly("size", &sizeOf)
        .def_property_readonly("rectify_flags", [](const HeldRig& held) { return held.rig.rectifyFlags; })
        .def("undistort", [](const HeldRig& held, const MarkerEstimate& estimate,
                             std::size_t eye) { return undistorted(estimate, asMatrices(held.rig.cameras.at(eye))); })
        .def("measure_disc",
             [](const HeldRig& held, const MarkerEstimate& left, const MarkerEstimate& right) {
                 return measureDisc({left, right}, matricesOf(held.rig));
             })
        .def("__eq__", &sameRigs, py::is_operator())
        .def(py::pickle(
            [](const HeldRig& held) { return py::make_tuple(stateOf(held), py::bytes(held.origin)); },
            [](const py::tuple& state) { return rigOfState(state[0].cast<State>(), state[1].cast<std::string>()); }));
}

}  // namespace kestrune::python

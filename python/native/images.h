// SPDX-License-Identifier: Apache-2.0
//
// NumPy arrays as images, without a copy where their strides allow it.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <string>

#include "grey_range.h"

namespace kestrune::python {

namespace py = pybind11;

/// An image whose pixels belong to an array, which lives as long.
struct ArrayImage {
    py::array array;
    cv::Mat image;
};

/// Takes rows by columns, or rows by columns by channels (1 grey, 3 BGR; a fourth, transparency, is dropped), of uint8,
/// uint16, float32 or float64. Shared are arrays with whole pixels side by side and rows in ascending order; any other
/// is copied.
///
/// @param name  of the argument, for the error's text.
/// @throws InputError  for any other shape or type.
ArrayImage imageOf(const py::object& object, const char* name);

/// An array of its own with the pixels.
py::array arrayOf(const cv::Mat& image);

/// (low, high) or None. @throws InputError
std::optional<measure::GreyRange> rangeOf(const py::object& range);

}  // namespace kestrune::python

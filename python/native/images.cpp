// SPDX-License-Identifier: Apache-2.0
#include "native/images.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

#include "kestrune/MarkerMetrology/errors.h"

namespace kestrune::python {
namespace {

constexpr int kMostChannels = 4;

/// OpenCV's depth of the elements, in whatever order of bytes; -1: none.
int depthOf(const py::dtype& type) {
    if (type.kind() == 'u' && type.itemsize() == 1) return CV_8U;
    if (type.kind() == 'u' && type.itemsize() == 2) return CV_16U;
    if (type.kind() == 'f' && type.itemsize() == 4) return CV_32F;
    if (type.kind() == 'f' && type.itemsize() == 8) return CV_64F;
    return -1;
}

bool isNative(const py::array& array) {
    return array.dtype().attr("isnative").cast<bool>();
}

/// Whether OpenCV can read the pixels where they are.
bool isShareable(const py::array& array, py::ssize_t channels) {
    const py::ssize_t item = array.itemsize();
    if (array.shape(0) == 0 || array.shape(1) == 0) return true;
    if (array.ndim() == 3 && channels > 1 && array.strides(2) != item) return false;
    return (array.shape(1) == 1 || array.strides(1) == item * channels) &&
           (array.shape(0) == 1 || array.strides(0) >= item * channels * array.shape(1)) &&
           array.strides(0) % item == 0;
}

}  // namespace

ArrayImage imageOf(const py::object& object, const char* name) {
    const auto refuse = [&](const std::string& what) {
        return InputError(name, what + "; an image is rows x columns (x 1, 3 or 4 channels) of uint8, uint16 or float");
    };
    if (!py::isinstance<py::array>(object)) throw refuse("is no NumPy array");
    ArrayImage result{py::reinterpret_borrow<py::array>(object), {}};
    py::array& array = result.array;
    const int depth = depthOf(array.dtype());
    if (depth < 0) throw refuse("is of " + std::string(py::str(array.dtype())));
    const py::ssize_t channels = array.ndim() == 3 ? array.shape(2) : 1;
    const bool rightShape =
        array.ndim() == 2 || (array.ndim() == 3 && (channels == 1 || channels == 3 || channels == 4));
    if (!rightShape)
        throw refuse(fmt::format("has {} dimensions{}", array.ndim(),
                                 array.ndim() == 3 ? fmt::format(" and {} channels", channels) : ""));
    for (const int axis : {0, 1})
        if (array.shape(axis) > std::numeric_limits<int>::max() / kMostChannels) throw refuse("is too large");
    if (!isNative(array)) array = array.attr("astype")(array.dtype().attr("newbyteorder")("="));
    if (!isShareable(array, channels)) array = array.attr("copy")("C");
    const int rows = static_cast<int>(array.shape(0)), columns = static_cast<int>(array.shape(1));
    if (rows == 0 || columns == 0) return result;
    // The library only reads.
    void* const pixels = const_cast<void*>(array.data());
    const std::size_t step = rows == 1 ? std::size_t{cv::Mat::AUTO_STEP} : static_cast<std::size_t>(array.strides(0));
    result.image = cv::Mat(rows, columns, CV_MAKETYPE(depth, static_cast<int>(channels)), pixels, step);
    if (channels == kMostChannels) {
        cv::Mat opaque(rows, columns, CV_MAKETYPE(depth, 3));
        cv::mixChannels({result.image}, {opaque}, {0, 0, 1, 1, 2, 2});
        result.image = opaque;
    }
    return result;
}

py::array arrayOf(const cv::Mat& image) {
    if (image.empty()) return py::array_t<std::uint8_t>(std::vector<py::ssize_t>{0, 0});
    std::vector<py::ssize_t> shape = {image.rows, image.cols};
    if (image.channels() > 1) shape.push_back(image.channels());
    // The array owns a header that keeps the pixels.
    auto* const kept = new cv::Mat(image.isContinuous() ? image : image.clone());
    const py::capsule owner(kept, [](void* mat) { delete static_cast<cv::Mat*>(mat); });
    const auto typed = [&](auto zero) -> py::array {
        return py::array_t<decltype(zero)>(shape, reinterpret_cast<decltype(zero)*>(kept->data), owner);
    };
    switch (image.depth()) {
        case CV_8U:
            return typed(std::uint8_t{});
        case CV_16U:
            return typed(std::uint16_t{});
        case CV_32S:
            return typed(std::int32_t{});
        case CV_32F:
            return typed(float{});
        case CV_64F:
            return typed(double{});
        default:
            throw InputError("image", "is of a type that arrays are not made of: " + cv::typeToString(image.type()));
    }
}

std::optional<measure::GreyRange> rangeOf(const py::object& range) {
    if (range.is_none()) return std::nullopt;
    try {
        const auto [low, high] = range.cast<std::pair<double, double>>();
        if (std::isfinite(low) && std::isfinite(high) && low < high) return measure::GreyRange{low, high};
    } catch (const py::cast_error&) {
    }
    throw InputError("range", "is not (low, high), two finite numbers of which the first is the smaller one");
}

}  // namespace kestrune::python

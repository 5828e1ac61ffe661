// SPDX-License-Identifier: Apache-2.0
#include "native/module.h"

#include <fmt/format.h>
#include <algorithm>

#include "files/inputs.h"
#include "image_file.h"
#include "kestrune/MarkerMetrology.h"
#include "native/images.h"
#include "native/matching.h"
#include "native/tables.h"
#include "native/threads.h"
#include "overlay.h"
#include "stereo_exposure.h"

namespace kestrune::python {
namespace {

/// What a path cannot work with is a bad value; all else that OpenCV raises, it calls an error of its own.
void raise(const py::handle& type, const std::string& text) {
    // Names of files may hold any bytes.
    PyObject* const decoded = PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace");
    if (decoded == nullptr) return;
    PyErr_SetObject(type.ptr(), decoded);
    Py_DECREF(decoded);
}

void defineErrors(py::module_& module) {
    static py::exception<InputError> inputError(module, "InputError", PyExc_ValueError);
    inputError.attr("__module__") = "kestrune";
    inputError.attr("__doc__") = "A file, image or setting that is not what it should be; the text names it.";
    static py::exception<cv::Exception> libraryError(module, "LibraryError", PyExc_RuntimeError);
    libraryError.attr("__module__") = "kestrune";
    libraryError.attr("__doc__") = "A call that OpenCV ended.";
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the form that pybind11 asks for
    py::register_exception_translator([](std::exception_ptr raised) {
        try {
            if (raised) std::rethrow_exception(raised);
        } catch (const InputError& error) {
            raise(inputError, error.what());
        } catch (const OutputError& error) {
            raise(PyExc_OSError, error.what());
        } catch (const cv::Exception& error) {
            if (error.code == cv::Error::StsBadArg)
                raise(inputError, error.err);
            else if (error.code == cv::Error::StsNoMem)
                raise(PyExc_MemoryError, error.err);
            else
                raise(libraryError, error.err);
        }
    });
}

void setThreads(int count) {
    if (count < 1) throw InputError("count", fmt::format("{} must be 1 or more", count));
    wantedThreads() = count;
    // With one thread OpenCV labels components by a method that takes a tenth of a whole exposure longer, even where
    // there is only one processor.
    cv::setNumThreads(std::max(count, 2));
}

py::array readImageArray(const std::string& file, const py::object& range) {
    const auto wanted = rangeOf(range);
    cv::Mat image;
    {
        const py::gil_scoped_release others;
        image = measure::decodeImage(file);
        if (wanted) image = measure::inEightBits(image, false, wanted);
    }
    return arrayOf(image);
}

py::array readDepthArray(const std::string& file) {
    cv::Mat depth;
    {
        const py::gil_scoped_release others;
        depth = measure::decodeImage(file);
    }
    const std::string type = cv::typeToString(depth.type());
    if (depth.type() != CV_16UC1 && depth.type() != CV_32FC1)
        throw InputError(file, "is of type " + type + "; a depth image is 32-bit float or 16-bit, of one channel");
    return arrayOf(depth);
}

/// Other formats would clip 16 bits to 8 and not tell.
bool holdsDepth(const std::string& file) {
    return file.ends_with(".png") || file.ends_with(".tif") || file.ends_with(".tiff");
}

void writeImageArray(const std::string& file, const py::object& object) {
    const ArrayImage source = imageOf(object, "image");
    const py::gil_scoped_release others;
    if (source.image.empty()) throw InputError("image", "is empty");
    if (source.image.depth() != CV_8U && source.image.depth() != CV_16U)
        throw InputError("image", "is of floating point; files are written of uint8 and uint16");
    if (source.image.depth() == CV_16U && !holdsDepth(file))
        throw InputError(file, "takes 8 bits; images of 16 bits go to .png, .tif or .tiff");
    measure::writePicture(file, source.image);
}

std::pair<int, int> imageSize(const std::string& file) {
    const py::gil_scoped_release others;
    const cv::Size size = measure::decodeImage(file).size();
    return {size.width, size.height};
}

int bitDepth(const std::string& file) {
    const py::gil_scoped_release others;
    if (measure::tellsEightBits(file)) return 8;
    return static_cast<int>(8 * measure::decodeImage(file).elemSize1());
}

}  // namespace
}  // namespace kestrune::python

PYBIND11_MODULE(_native, module) {
    using namespace kestrune::python;
    namespace py = pybind11;
    module.doc() = "The compiled part of kestrune.";
    module.attr("__version__") = KESTRUNE_VERSION;
    defineErrors(module);
    defineSettings(module);
    defineRig(module);
    defineCorners(module);
    defineEstimates(module);
    module.attr("REFINE_STEREO") = kestrune::measure::kRefineStereo;
    defineMatching(module);
    defineExtractor(module);
    module.def("set_threads", &setThreads, py::arg("count"));
    module.def("read_image", &readImageArray, py::arg("file"), py::arg("range") = py::none());
    module.def("read_depth", &readDepthArray, py::arg("file"));
    module.def("write_image", &writeImageArray, py::arg("file"), py::arg("image"));
    module.def("image_size", &imageSize, py::arg("file"));
    module.def("csv_lines", &csvLines, py::arg("head"), py::arg("table"));
    module.def("bit_depth", &bitDepth, py::arg("file"));
}

// SPDX-License-Identifier: Apache-2.0
//
// What a call from Python costs over the same work in C++: both in one process, turn by turn, on the same pixels.
#include <pybind11/embed.h>
#include <pybind11/numpy.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_scenes.h"
#include "markers.h"

namespace py = pybind11;
using namespace kestrune;

namespace {

double secondsOf(const auto& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double medianOf(std::vector<double> values) {
    std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 41;
    const py::scoped_interpreter interpreter;
    py::module_::import("sys").attr("path").attr("insert")(0, KESTRUNE_PYTHON_FOLDER);
    const py::module_ module = py::module_::import("kestrune");
    std::printf("%-12s %-12s %8s %12s %12s %12s %8s\n", "image", "path", "markers", "C++, ms", "Python, ms", "over, ms",
                "ratio");
    for (const cv::Size size : {cv::Size(640, 480), cv::Size(2592, 1944)}) {
        const cv::Mat image = bench::cachedScene(size, size.width < 1000 ? 3 : 120).image;
        // It has an owner, whoever that is, so that the pixels are not copied. Of None gcc 14 tells that it is no
        // array.
        const py::array_t<std::uint8_t> array({image.rows, image.cols}, {image.step[0], image.step[1]}, image.data,
                                              module);
        for (const char* name : {"bright-fast", "bright-radial", "bright-complex"}) {
            const std::string file = std::string(KESTRUNE_SETTINGS_DIR) + "/" + name + ".yaml";
            const Settings settings =
                readSettings(file, name == std::string("bright-fast") ? std::optional(Path::fast) : std::nullopt);
            const py::object theirs = module.attr("Settings").attr("read")(file, nameOf(settings.path), "extraction");
            const py::object extract = module.attr("Extractor")(theirs).attr("extract");
            CircleMarkerExtractor extractor;
            std::vector<double> plain, called;
            std::size_t found = 0;
            for (int k = 0; k < rounds; ++k) {
                plain.push_back(secondsOf([&] {
                    std::vector<Corner> corners;
                    found = measure::findMarkers(extractor, image, 0, {}, settings, &corners).size();
                }));
                called.push_back(secondsOf([&] { const py::object markers = extract(array); }));
            }
            const double a = medianOf(plain), b = medianOf(called);
            std::printf("%4d x %-5d %-12s %8zu %12.3f %12.3f %12.3f %8.3f\n", size.width, size.height,
                        nameOf(settings.path), found, 1e3 * a, 1e3 * b, 1e3 * (b - a), b / a);
        }
    }
}

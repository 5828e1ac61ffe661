// SPDX-License-Identifier: Apache-2.0
//
// PNGs, whole and spoiled behind right sums: what is decoded without libpng has libpng's pixels.
#include "png_grey.h"
#include "png_image.h"

#include <zlib.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace kestrune::fuzz {
namespace {

std::string number(std::size_t value) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(value >> shift);
    return text;
}

std::string chunk(const std::string& name, const std::string& data) {
    const std::string summed = name + data;
    const auto* const bytes = reinterpret_cast<const Bytef*>(summed.data());
    return number(data.size()) + summed + number(crc32(0, bytes, static_cast<uInt>(summed.size())));
}

std::string deflated(const std::string& rows, FuzzedDataProvider& input) {
    std::string stream(compressBound(rows.size()) + 64, '\0');
    z_stream state{};
    deflateInit2(&state, input.ConsumeIntegralInRange(0, 9), Z_DEFLATED, input.ConsumeIntegralInRange(9, 15),
                 input.ConsumeIntegralInRange(1, 9), input.ConsumeIntegralInRange(0, 4));
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(rows.data()));
    state.avail_in = static_cast<uInt>(rows.size());
    state.next_out = reinterpret_cast<Bytef*>(stream.data());
    state.avail_out = static_cast<uInt>(stream.size());
    deflate(&state, Z_FINISH);
    stream.resize(state.total_out);
    deflateEnd(&state);
    return stream;
}

/// One time in sixteen some other value.
char kindOf(char usual, FuzzedDataProvider& input) {
    return input.ConsumeIntegralInRange(0, 15) == 15 ? input.ConsumeIntegral<char>() : usual;
}

std::string fileFrom(FuzzedDataProvider& input) {
    const auto width = input.ConsumeIntegralInRange<std::size_t>(1, 70);
    const auto height = input.ConsumeIntegralInRange<std::size_t>(1, 70);
    std::string head = number(width) + number(height);
    for (const char usual : {8, 0, 0, 0, 0}) head += kindOf(usual, input);
    const auto piece = input.ConsumeIntegralInRange<std::size_t>(1, 300);
    const int flips = input.ConsumeBool() ? 0 : input.ConsumeIntegralInRange(0, 6);
    const bool cut = kindOf(0, input) != 0;
    std::string rows = input.ConsumeRandomLengthString(height * (width + 1));
    while (rows.size() < height * (width + 1))  // the last bytes again and again, which compresses
        rows += rows.size() % (width + 1) == 0 ? static_cast<char>(rows.size() % 5) : rows[rows.size() / 2];
    std::string stream = deflated(rows, input);
    for (int k = 0; k < flips; ++k) {
        const auto at = input.ConsumeIntegralInRange<std::size_t>(0, stream.size() - 1);
        stream[at] = static_cast<char>(stream[at] ^ input.ConsumeIntegralInRange(1, 255));
    }
    if (cut) stream.resize(input.ConsumeIntegralInRange<std::size_t>(0, stream.size()));
    std::string file = "\x89PNG\r\n\x1a\n" + chunk("IHDR", head);
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        if (kindOf(0, input) != 0) file += chunk(input.ConsumeBool() ? "tEXt" : "tRNS", input.ConsumeBytesAsString(4));
        file += chunk("IDAT", stream.substr(at, piece));
    }
    return file + input.ConsumeRandomLengthString(20) + chunk("IEND", "");
}

}  // namespace

void run(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string file = fileFrom(input);
    const std::span bytes(reinterpret_cast<const unsigned char*>(file.data()), file.size());
    const cv::Mat image = measure::decodeGreyPng(bytes);
    if (image.empty()) return;
    const cv::Mat expected = measure::decodePng(bytes);  // which may not throw
    if (expected.type() == CV_8UC1 && expected.size() == image.size() && cv::norm(expected, image, cv::NORM_INF) == 0) {
        return;
    }
    std::fprintf(stderr, "differs from libpng: %d x %d\n", image.cols, image.rows);
    std::abort();
}

}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::run(data, size);
    return 0;
}

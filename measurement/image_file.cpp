// SPDX-License-Identifier: Apache-2.0
#include "image_file.h"

#include <fcntl.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <opencv2/imgcodecs.hpp>
#include <span>
#include <string_view>

#include "codecs.h"
#include "files/inputs.h"
#include "jpeg_image.h"
#include "library_text.h"
#include "png_grey.h"
#include "png_image.h"

namespace kestrune::measure {
namespace {

using Bytes = std::span<const unsigned char>;
using namespace std::string_view_literals;

constexpr std::size_t kHeadSize = 132;
constexpr std::size_t kPngDepthAt = 24;  // the depth stands in the first chunk, whose place is fixed
constexpr std::size_t kDicomNameAt = 128;

constexpr std::array kJpeg = {"\xff\xd8\xff"sv};
constexpr std::array kPng = {"\x89PNG\r\n\x1a\n"sv};
constexpr std::array kTiff = {"II*\0"sv, "MM\0*"sv, "II+\0"sv, "MM\0+"sv};
constexpr std::array kExr = {"v/1\x01"sv};
/// Of these OpenCV itself notices when they end early.
constexpr std::array kOthers = {"BM"sv,
                                "P1"sv,
                                "P2"sv,
                                "P3"sv,
                                "P4"sv,
                                "P5"sv,
                                "P6"sv,
                                "P7"sv,
                                "PF"sv,
                                "Pf"sv,
                                "RIFF"sv,
                                "\0\0\0\x0cjP"sv,
                                "#?"sv,
                                "\xff\x4f\xff\x51"sv,
                                "\x59\xa6\x6a\x95"sv};

template <std::size_t N>
bool beginsWith(Bytes bytes, const std::array<std::string_view, N>& signatures) {
    return std::ranges::any_of(signatures, [&](std::string_view signature) {
        return bytes.size() >= signature.size() &&
               std::equal(signature.begin(), signature.end(), bytes.begin(),
                          [](char a, unsigned char b) { return static_cast<unsigned char>(a) == b; });
    });
}

bool isKnown(Bytes bytes) {
    return beginsWith(bytes, kTiff) || beginsWith(bytes, kExr) || beginsWith(bytes, kOthers) ||
           (bytes.size() > kHeadSize && beginsWith(bytes.subspan(kDicomNameAt), std::array{"DICM"sv}));
}

cv::Mat decodeByOpenCv(Bytes bytes) {
    // Off unless asked for, since the format's reader was unsafe with files of strangers. Who names one asks for it.
    if (beginsWith(bytes, kExr)) ::setenv("OPENCV_IO_ENABLE_OPENEXR", "1", 0);
    const LibraryText text;
    cv::Mat image = decodeByCodec(bytes, cv::IMREAD_ANYDEPTH | cv::IMREAD_ANYCOLOR | cv::IMREAD_IGNORE_ORIENTATION);
    if (image.empty() || text.tiffFailed()) throw std::runtime_error(text.reason());
    return image;
}

}  // namespace

cv::Mat decodeImage(const std::string& file) {
    const std::string text = readText(file);
    const Bytes bytes(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    try {
        if (beginsWith(bytes, kJpeg)) return decodeJpeg(bytes);
        if (beginsWith(bytes, kPng)) {
            const cv::Mat grey = decodeGreyPng(bytes);
            return grey.empty() ? decodePng(bytes) : grey;
        }
        if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
            throw InputError(file, "is too large for an image");
        if (isKnown(bytes)) return decodeByOpenCv(bytes);
    } catch (const InputError&) {
        throw;
    } catch (const std::exception& error) {
        const std::string reason = plainText(error);
        throw InputError(file, "is damaged or ends early" + (reason.empty() ? "" : " (" + reason + ")"));
    }
    throw InputError(file, "is in no image format that is known here");
}

void announceRead(const std::string& file) {
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(file, unknown)) return;  // a pipe's writer would take us for its reader
    const int opened = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // NOLINT(*-vararg)
    if (opened < 0) return;
    ::posix_fadvise(opened, 0, 0, POSIX_FADV_WILLNEED);
    ::close(opened);
}

cv::Mat readImage(const std::string& file, bool invert, const std::optional<GreyRange>& range) {
    return inEightBits(decodeImage(file), invert, range);
}

cv::Mat inEightBits(const cv::Mat& image, bool invert, const std::optional<GreyRange>& range) {
    cv::Mat result = image;
    if (image.depth() != CV_8U) {
        RangeOfData own;
        if (!range) own.add(image);
        result = toEightBits(image, range ? *range : own.range());
    }
    if (!invert) return result;
    cv::Mat inverted;
    cv::bitwise_not(result, inverted);
    return inverted;
}

bool tellsEightBits(const std::string& file) {
    std::array<unsigned char, kHeadSize + 1> head{};  // ends with 0
    std::ifstream stream(file, std::ios::binary);
    stream.read(reinterpret_cast<char*>(head.data()), kHeadSize);
    const Bytes bytes(head.data(), static_cast<std::size_t>(stream.gcount()));
    if (beginsWith(bytes, kPng)) return bytes.size() > kPngDepthAt && bytes[kPngDepthAt] <= 8;
    if (beginsWith(bytes, kJpeg) || beginsWith(bytes, std::array{"BM"sv, "RIFF"sv})) return true;
    int largest = 0;
    if (std::sscanf(reinterpret_cast<const char*>(head.data()), "P%*1[56] %*d %*d %d", &largest) == 1)
        return largest < 256;
    if (!beginsWith(bytes, kTiff)) return false;
    const LibraryText text;
    TIFF* tiff = TIFFOpen(file.c_str(), "r");
    if (tiff == nullptr) return false;
    std::uint16_t bits = 1;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFClose(tiff);
    return bits <= 8;
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
#include "jpeg_image.h"

#include <cstdio>

#include <jerror.h>
#include <jpeglib.h>

#include <csetjmp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

#include "codecs.h"
#include "picture_size.h"

namespace kestrune::measure {
namespace {

/// The library's way to report, with a place to leave to: it is written in C, through which nothing may be thrown.
struct Reports {
    jpeg_error_mgr manager;  ///< first, since the library knows only this
    std::jmp_buf leave;
    char text[JMSG_LENGTH_MAX];
};

[[noreturn]] void onError(j_common_ptr info) {
    auto* reports = reinterpret_cast<Reports*>(info->err);
    reports->manager.format_message(info, reports->text);
    std::longjmp(reports->leave, 1);
}

void onMessage(j_common_ptr info, int level) {
    if (level >= 0) return;  // a trace
    const int code = info->err->msg_code;
    // These speak of notes beside the picture; all other warnings of pixels that are not those that were taken.
    if (code != JWRN_ADOBE_XFORM && code != JWRN_JFIF_MAJOR) onError(info);
}

/// Reads the head. False for an error, whose text is then there.
bool begin(jpeg_decompress_struct& picture, Reports& reports, std::span<const unsigned char> bytes) {
    if (setjmp(reports.leave) != 0) return false;  // NOLINT(*-err52-cpp): see Reports
    jpeg_create_decompress(&picture);
    jpeg_mem_src(&picture, bytes.data(), bytes.size());
    jpeg_read_header(&picture, TRUE);
    return true;
}

/// Reads the pixels in the colours that are set, and to the end of the picture.
bool readRows(jpeg_decompress_struct& picture, Reports& reports, const cv::Mat& image) {
    if (setjmp(reports.leave) != 0) return false;  // NOLINT(*-err52-cpp)
    jpeg_start_decompress(&picture);
    while (picture.output_scanline < picture.output_height) {
        JSAMPROW row = const_cast<uchar*>(image.ptr(static_cast<int>(picture.output_scanline)));
        jpeg_read_scanlines(&picture, &row, 1);
    }
    jpeg_finish_decompress(&picture);
    return true;
}

/// Gives back what the library holds, whatever happened.
struct Picture {
    jpeg_decompress_struct info{};
    Reports reports{};
    Picture() {
        info.err = jpeg_std_error(&reports.manager);
        reports.manager.error_exit = onError;
        reports.manager.emit_message = onMessage;
    }
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;
    ~Picture() { jpeg_destroy_decompress(&info); }
};

}  // namespace

cv::Mat decodeJpeg(std::span<const unsigned char> bytes) {
    Picture picture;
    jpeg_decompress_struct& info = picture.info;
    if (!begin(info, picture.reports, bytes)) throw std::runtime_error(picture.reports.text);
    requireSize(info.image_width, info.image_height);
    const int channels = info.num_components == 1 || info.num_components == 4 ? info.num_components : 3;
    info.out_color_space = channels == 1 ? JCS_GRAYSCALE : channels == 4 ? JCS_CMYK : JCS_RGB;
    cv::Mat image(static_cast<int>(info.image_height), static_cast<int>(info.image_width), CV_8UC(channels));
    if (!readRows(info, picture.reports, image)) throw std::runtime_error(picture.reports.text);
    if (channels == 3) cv::cvtColor(image, image, cv::COLOR_RGB2BGR);
    // Printing colours are rare, and how OpenCV turns them into light is its own affair. That they are whole is known.
    if (channels == 4) return decodeByCodec(bytes, cv::IMREAD_COLOR | cv::IMREAD_IGNORE_ORIENTATION);
    return image;
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
#include "png_image.h"

#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "picture_size.h"

namespace kestrune::measure {
namespace {

struct Source {
    const unsigned char* next;
    std::size_t left;
    std::string error;
};

void onRead(png_structp png, png_bytep to, std::size_t size) {
    auto* source = static_cast<Source*>(png_get_io_ptr(png));
    if (size > source->left) png_error(png, "the file ends early");
    std::memcpy(to, source->next, size);
    source->next += size;
    source->left -= size;
}

[[noreturn]] void onError(png_structp png, png_const_charp text) {
    static_cast<Source*>(png_get_error_ptr(png))->error = text;
    png_longjmp(png, 1);
}

/// A profile of colours that is not quite right, and the like: nothing that changes a pixel.
void onWarning(png_structp /*png*/, png_const_charp /*text*/) {}

/// Gives back what the library holds, whatever happened.
struct PngPicture {
    Source source;
    png_structp png;
    png_infop info;
    explicit PngPicture(std::span<const unsigned char> bytes)
        : source{bytes.data(), bytes.size(), {}},
          png(png_create_read_struct(PNG_LIBPNG_VER_STRING, &source, onError, onWarning)),
          info(png == nullptr ? nullptr : png_create_info_struct(png)) {
        if (info == nullptr) throw std::bad_alloc();
        png_set_read_fn(png, &source, onRead);
    }
    PngPicture(const PngPicture&) = delete;
    PngPicture& operator=(const PngPicture&) = delete;
    ~PngPicture() { png_destroy_read_struct(&png, &info, nullptr); }
};

/// Reads the head and asks for the layout. False for an error, whose text is then there.
bool begin(PngPicture& picture) {
    png_structp png = picture.png;
    if (setjmp(png_jmpbuf(png)) != 0) return false;  // NOLINT(*-err52-cpp): C code, through which nothing may be thrown
    png_read_info(png, picture.info);
    const int colour = png_get_color_type(png, picture.info), depth = png_get_bit_depth(png, picture.info);
    if (colour == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (colour == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
    if (colour == PNG_COLOR_TYPE_GRAY_ALPHA) png_set_gray_to_rgb(png);
    png_set_strip_alpha(png);
    png_set_bgr(png);
    if (depth == 16) png_set_swap(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, picture.info);
    return true;
}

/// Reads the pixels, and to the end of the picture.
bool readRows(PngPicture& picture, std::vector<png_bytep>& rows) {
    if (setjmp(png_jmpbuf(picture.png)) != 0) return false;  // NOLINT(*-err52-cpp)
    png_read_image(picture.png, rows.data());
    png_read_end(picture.png, nullptr);
    return true;
}

}  // namespace

cv::Mat decodePng(std::span<const unsigned char> bytes) {
    PngPicture picture(bytes);
    if (!begin(picture)) throw std::runtime_error(picture.source.error);
    const auto width = png_get_image_width(picture.png, picture.info);
    const auto height = png_get_image_height(picture.png, picture.info);
    requireSize(width, height);
    cv::Mat image(static_cast<int>(height), static_cast<int>(width),
                  CV_MAKETYPE(png_get_bit_depth(picture.png, picture.info) == 16 ? CV_16U : CV_8U,
                              png_get_channels(picture.png, picture.info)));
    CV_Assert(png_get_rowbytes(picture.png, picture.info) == image.step[0]);
    std::vector<png_bytep> rows(height);
    for (std::size_t y = 0; y < rows.size(); ++y) rows[y] = image.ptr(static_cast<int>(y));
    if (!readRows(picture, rows)) throw std::runtime_error(picture.source.error);
    return image;
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
#include "library_text.h"

#include <tiffio.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <opencv2/imgcodecs.hpp>
#include <streambuf>
#include <vector>

#include "codecs.h"

namespace kestrune::measure {
namespace {

thread_local int listening = 0;
thread_local std::string heard;
thread_local bool tiffError = false;

/// In place of that of std::cerr, on which OpenCV tells its exceptions while it decodes. All others still print.
class Listener : public std::streambuf {
  public:
    explicit Listener(std::streambuf* printer) : printer_(printer) {}

  protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        if (listening == 0) return printer_->sputc(traits_type::to_char_type(c));
        heard += traits_type::to_char_type(c);
        return c;
    }

    int sync() override { return printer_->pubsync(); }

  private:
    std::streambuf* printer_;
};

void hearTiff(const char* module, const char* format, std::va_list arguments) {
    if (listening == 0) return;  // of others in this process
    std::array<char, 512> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    heard += std::string(module == nullptr ? "" : module) + ": " + text.data() + "\n";
    tiffError = true;
}

/// An unknown tag is no reason to refuse a picture, but the decoder of JPEG strips also only warns where they end
/// early.
void hearTiffWarning(const char* module, const char* format, std::va_list arguments) {
    if (module != nullptr && std::strstr(module, "JPEG") != nullptr) hearTiff(module, format, arguments);
}

void installListeners() {
    // OpenCV sets handlers of its own when it meets its first TIFF; this is one of no use but that.
    const cv::Mat pixel(1, 1, CV_8UC1, cv::Scalar(0));
    std::vector<uchar> bytes;
    if (encodeByCodec(".tiff", pixel, bytes)) decodeByCodec(bytes, cv::IMREAD_UNCHANGED);
    TIFFSetErrorHandler(hearTiff);
    TIFFSetWarningHandler(hearTiffWarning);
    static Listener* const listener = new Listener(std::cerr.rdbuf());  // std::cerr outlives what is static
    std::cerr.rdbuf(listener);
}

}  // namespace

LibraryText::LibraryText() {
    static std::once_flag once;
    std::call_once(once, installListeners);
    if (listening++ == 0) {
        heard.clear();
        tiffError = false;
    }
}

LibraryText::~LibraryText() {
    --listening;
}

std::string LibraryText::reason() const {
    std::string line = heard.substr(0, heard.find('\n'));
    // "imdecode_(''): can't read data: OpenCV(4.6.0) FILE:LINE: error: (-2:Unspecified error) REASON in function 'F'"
    if (const auto code = line.find("error: ("); code != std::string::npos) {
        line.erase(0, line.find(')', code) + 1);
        line.erase(0, line.find_first_not_of(' '));
        line.erase(std::min(line.find(" in function"), line.size()));
    }
    return line;
}

bool LibraryText::tiffFailed() const {
    return tiffError;
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
#include "corner_list.h"

#include <fmt/format.h>

#include <optional>

#include "csv_reader.h"

namespace kestrune::measure {
namespace {

class CornerReader {
  public:
    CornerReader(const std::string& file, std::optional<Pixels> pixels) : csv_(file), pixels_(pixels) {}

    CornerList read() {
        if (!csv_.hasProblems() && !csv_.has("pixels") && !pixels_)
            csv_.problem("the header names no column 'pixels': --pixels must say whether x and y are undistorted");
        csv_.require({"x", "y"});
        while (csv_.nextRow()) readRow();
        csv_.finish();
        return {std::move(corners_), pixels_.value_or(Pixels::undistorted)};
    }

  private:
    void readPixels(const std::string& name) {
        const std::optional<Pixels> pixels = pixelsNamed(name);
        if (!pixels)
            csv_.problem(fmt::format("field 'pixels': '{}' is none of {}", name, namesOfPixels()));
        else if (pixels_ && *pixels != *pixels_)
            csv_.problem(fmt::format("pixels '{}', where {} '{}'", name,
                                     corners_.empty() ? "--pixels says" : "earlier rows or --pixels say",
                                     nameOf(*pixels_)));
        else
            pixels_ = pixels;
    }

    void readRow() {
        Corner corner;
        corner.x = csv_.number<double>("x");
        corner.y = csv_.number<double>("y");
        corner.matchIndex = csv_.has("id") ? csv_.number<int>("id") : static_cast<int>(corners_.size());
        if (csv_.has("pixels")) readPixels(csv_.field("pixels"));
        if (csv_.has("image")) {
            const std::string& image = csv_.field("image");
            if (corners_.empty()) image_ = image;
            if (image != image_) csv_.problem(fmt::format("image '{}' after '{}': one image at a time", image, image_));
        }
        corners_.push_back(std::move(corner));
    }

    CsvReader csv_;
    std::string image_;
    std::optional<Pixels> pixels_;
    std::vector<Corner> corners_;
};

}  // namespace

CornerList readCorners(const std::string& file, std::optional<Pixels> pixels) {
    return CornerReader(file, pixels).read();
}

}  // namespace kestrune::measure

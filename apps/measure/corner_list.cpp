// SPDX-License-Identifier: Apache-2.0
#include "corner_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <sstream>

#include "files/inputs.h"

namespace kestrune::measure {
namespace {

// A file of another kind is wrong in every row; the first ones show how.
constexpr std::size_t kMostProblems = 20;

using Fields = std::vector<std::string>;

/// Splits a line at its commas, but for those in quotes; none for a line whose quotes do not close.
std::optional<Fields> splitLine(const std::string& line) {
    Fields fields(1);
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"' && quoted && i + 1 < line.size() && line[i + 1] == '"') {
            fields.back() += line[++i];  // two quotes stand for one
        } else if (line[i] == '"') {
            quoted = !quoted;
        } else if (line[i] == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += line[i];
        }
    }
    if (quoted) return std::nullopt;
    return fields;
}

/// The whole text as a finite number.
template <typename Number>
std::optional<Number> numberIn(const std::string& text) {
    const auto first = std::min(text.find_first_not_of(' '), text.size());
    const auto end = text.find_last_not_of(' ') + 1;
    Number value{};
    const auto [stop, error] = std::from_chars(text.data() + first, text.data() + end, value);
    if (error != std::errc() || stop != text.data() + end || !std::isfinite(static_cast<double>(value)))
        return std::nullopt;
    return value;
}

class CornerReader {
  public:
    CornerReader(const std::string& file, std::optional<Pixels> pixels) : file_(file), pixels_(pixels) {}

    CornerList read() {
        std::istringstream lines(readText(file_));
        for (std::string line; std::getline(lines, line);) {
            ++line_;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.find_first_not_of(' ') == std::string::npos) continue;
            const std::optional<Fields> fields = splitLine(line);
            if (!fields)
                problem("a quote is not closed");
            else if (header_.empty())
                readHeader(*fields);
            else
                readRow(*fields);
        }
        if (header_.empty() && problems_.empty()) problem("holds no header row");
        finish();
        return {std::move(corners_), pixels_.value_or(Pixels::undistorted)};
    }

  private:
    void problem(const std::string& text) {
        ++problemCount_;
        if (problemCount_ <= kMostProblems)
            problems_ += (problems_.empty() ? "" : "\n" + file_ + ": ") + fmt::format("line {}: {}", line_, text);
    }

    void finish() const {
        if (problemCount_ == 0) return;
        const std::size_t more = problemCount_ - std::min(problemCount_, kMostProblems);
        throw InputError(file_, problems_ + (more > 0 ? fmt::format("\n{}: and {} more", file_, more) : ""));
    }

    std::size_t column(const char* name) const {
        return static_cast<std::size_t>(std::ranges::find(header_, name) - header_.begin());
    }

    bool has(const char* name) const { return column(name) < header_.size(); }

    void readPixels(const std::string& name) {
        const std::optional<Pixels> pixels = pixelsNamed(name);
        if (!pixels)
            problem(fmt::format("field 'pixels': '{}' is none of {}", name, namesOfPixels()));
        else if (pixels_ && *pixels != *pixels_)
            problem(fmt::format("pixels '{}', where {} '{}'", name,
                                corners_.empty() ? "--pixels says" : "earlier rows or --pixels say", nameOf(*pixels_)));
        else
            pixels_ = pixels;
    }

    void readHeader(const Fields& fields) {
        header_ = fields;
        for (const char* name : {"x", "y"})
            if (!has(name)) problem(fmt::format("the header names no column '{}'", name));
        if (!has("pixels") && !pixels_)
            problem("the header names no column 'pixels': --pixels must say whether x and y are undistorted");
        // Without its columns no row can be read, and each would say so.
        if (problemCount_ > 0) finish();
    }

    template <typename Number>
    Number fieldOf(const Fields& fields, const char* name, const char* kind) {
        const std::string& text = fields[column(name)];
        const std::optional<Number> value = numberIn<Number>(text);
        if (!value) problem(fmt::format("field '{}': '{}' is no {} number", name, text, kind));
        return value.value_or(Number{});
    }

    void readRow(const Fields& fields) {
        if (fields.size() != header_.size()) {
            problem(fmt::format("{} fields, the header names {}", fields.size(), header_.size()));
            return;
        }
        Corner corner;
        corner.x = fieldOf<double>(fields, "x", "finite");
        corner.y = fieldOf<double>(fields, "y", "finite");
        corner.matchIndex = has("id") ? fieldOf<int>(fields, "id", "whole") : static_cast<int>(corners_.size());
        if (has("pixels")) readPixels(fields[column("pixels")]);
        if (has("image")) {
            const std::size_t at = column("image");
            if (corners_.empty()) image_ = fields[at];
            if (fields[at] != image_)
                problem(fmt::format("image '{}' after '{}': one image at a time", fields[at], image_));
        }
        corners_.push_back(std::move(corner));
    }

    std::string file_, problems_, image_;
    std::size_t line_ = 0, problemCount_ = 0;
    Fields header_;
    std::optional<Pixels> pixels_;
    std::vector<Corner> corners_;
};

}  // namespace

CornerList readCorners(const std::string& file, std::optional<Pixels> pixels) {
    return CornerReader(file, pixels).read();
}

}  // namespace kestrune::measure

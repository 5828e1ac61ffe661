// SPDX-License-Identifier: Apache-2.0
#include "csv_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <type_traits>

#include "files/inputs.h"

namespace kestrune::measure {
namespace {

// A file of another kind is wrong in every row; the first ones show how.
constexpr std::size_t kMostProblems = 20;

/// Splits a line at its commas, but for those in quotes; none for a line whose quotes do not close.
std::optional<std::vector<std::string>> splitLine(const std::string& line) {
    std::vector<std::string> fields(1);
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

}  // namespace

CsvReader::CsvReader(const std::string& file) : file_(file), lines_(readText(file)) {
    if (nextLine())
        header_ = fields_;
    else if (!hasProblems())
        problem("holds no header row");
}

bool CsvReader::nextLine() {
    for (std::string line; std::getline(lines_, line);) {
        ++line_;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(' ') == std::string::npos) continue;
        if (std::optional<Fields> fields = splitLine(line)) {
            fields_ = std::move(*fields);
            return true;
        }
        problem("a quote is not closed");
    }
    return false;
}

std::size_t CsvReader::placeOf(const char* column) const {
    return static_cast<std::size_t>(std::ranges::find(header_, column) - header_.begin());
}

void CsvReader::require(std::initializer_list<const char*> columns) {
    if (header_.empty()) finish();
    for (const char* column : columns)
        if (!has(column)) problem(fmt::format("the header names no column '{}'", column));
    // Without its columns no row can be read, and each would say so.
    finish();
}

bool CsvReader::nextRow() {
    while (nextLine()) {
        if (fields_.size() == header_.size()) return true;
        problem(fmt::format("{} fields, the header names {}", fields_.size(), header_.size()));
    }
    return false;
}

template <typename Number>
Number CsvReader::number(const char* column) {
    const std::string& text = field(column);
    const std::optional<Number> value = numberIn<Number>(text);
    if (!value)
        problem(fmt::format("field '{}': '{}' is no {} number", column, text,
                            std::is_integral_v<Number> ? "whole" : "finite"));
    return value.value_or(std::is_integral_v<Number> ? Number{} : std::numeric_limits<Number>::quiet_NaN());
}
template int CsvReader::number<int>(const char* column);
template double CsvReader::number<double>(const char* column);

void CsvReader::problem(const std::string& text) {
    ++problemCount_;
    if (problemCount_ <= kMostProblems)
        problems_ += (problems_.empty() ? "" : "\n" + file_ + ": ") + fmt::format("line {}: {}", line_, text);
}

void CsvReader::finish() const {
    if (problemCount_ == 0) return;
    const std::size_t more = problemCount_ - std::min(problemCount_, kMostProblems);
    throw InputError(file_, problems_ + (more > 0 ? fmt::format("\n{}: and {} more", file_, more) : ""));
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
//
// Results as structured arrays: one row a marker, columns with names and a word on each. A new table is a list of its
// columns and a call of `Table::of`.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kestrune::python {

namespace py = pybind11;

/// Yes or no, as NumPy keeps it.
enum class Flag : std::uint8_t { no, yes };

/// The values of a column: whole numbers of 32 bits, numbers of double precision, texts, or flags.
using Cells = std::variant<std::vector<std::int32_t>, std::vector<double>, std::vector<std::string>, std::vector<Flag>>;

struct Column {
    const char* name;
    Cells cells;
};

/// A structured array: whole numbers are `int32`, numbers `float64`, texts `U` as wide as the longest, flags `bool`.
py::array tableOf(const std::vector<Column>& columns, std::size_t rows);

/// Rows of a structured array of whole numbers, numbers and texts as lines of CSV, numbers as the program writes them.
///
/// @param head  what each line begins with.
/// @throws py::type_error  for another array.
std::string csvLines(const std::string& head, const py::array& table);

/// The values of one column: `of(row)` for each row.
template <typename Row, typename Of>
Cells cellsOf(const std::vector<Row>& rows, Of of) {
    std::vector<std::decay_t<decltype(of(rows.front()))>> cells;
    cells.reserve(rows.size());
    for (const Row& row : rows) cells.push_back(of(row));
    return cells;
}

}  // namespace kestrune::python

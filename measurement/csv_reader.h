// SPDX-License-Identifier: Apache-2.0
//
// A table that a user hands in: CSV with a header row. Empty lines are skipped, and what is wrong with the rows is told
// all at once, each with file and line. In a reader:
//
//     CsvReader csv(file);
//     csv.require({"x", "y"});
//     while (csv.nextRow()) points.emplace_back(csv.number<double>("x"), csv.number<double>("y"));
//     csv.finish();
#pragma once

#include <cstddef>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

namespace kestrune::measure {

class CsvReader {
  public:
    /// Reads the header row. @throws InputError  for a file that cannot be read.
    explicit CsvReader(const std::string& file);

    bool has(const char* column) const { return placeOf(column) < header_.size(); }

    /// @throws InputError  for a file without a header row, or whose header lacks one of these.
    void require(std::initializer_list<const char*> columns);

    /// Goes to the next row that has a field for each column; false behind the last.
    bool nextRow();

    const std::string& field(const char* column) const { return fields_[placeOf(column)]; }

    /// The field as a finite number, blanks before and behind it apart. One that is none is a problem, and counts
    /// as NaN, or 0 where it should be whole.
    template <typename Number>
    Number number(const char* column);

    /// Notes what is wrong with the row.
    void problem(const std::string& text);

    /// Of this row and those before.
    bool hasProblems() const { return problemCount_ > 0; }

    /// @throws InputError  with a line for each problem.
    void finish() const;

  private:
    using Fields = std::vector<std::string>;

    std::size_t placeOf(const char* column) const;
    bool nextLine();

    std::string file_, problems_;
    std::istringstream lines_;
    std::size_t line_ = 0, problemCount_ = 0;
    Fields header_, fields_;
};

}  // namespace kestrune::measure

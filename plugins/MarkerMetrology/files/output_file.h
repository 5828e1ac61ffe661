// SPDX-License-Identifier: Apache-2.0
//
// Every file that is written. It grows under a name of its own beside its place and takes that place when it
// is whole, so that what an earlier run left there survives all that can go wrong. In a command:
//
//     OutputFile csv;
//     csv.open(options.csv);                  // an empty name: none was asked for, and nothing below does anything
//     if (csv.isOpen()) writeCsvRows(csv.stream(), ...);
//     csv.flush();                            // after each image: a full disk is noticed there
//     csv.commitTable();                      // without it, the destructor takes the unfinished file away
//
// What is no regular file (a pipe, a device, the program's own output) is written to as it is.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

#include "kestrune/MarkerMetrology/errors.h"

namespace kestrune {

/// Stands beside a table that is not complete and tells what it holds; taken away when the table is made anew.
std::string incompleteMark(const std::string& file);

class OutputFile {
  public:
    OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    /// @throws InputError  where it cannot be written, with the reason.
    void open(const std::string& file);

    bool isOpen() const { return buffer_ != nullptr; }

    /// Any operation on it throws OutputError when a write fails.
    std::ostream& stream() { return stream_; }

    /// Hands all to the system. @throws OutputError
    void flush();

    /// Completes the file and puts it in its place. @throws OutputError
    void commit();

    /// The same of a table that cannot itself say whether it is complete: one that is not gets a mark beside it.
    ///
    /// @param held  what an incomplete table holds, for the mark's text; empty: it is complete, and an old mark goes.
    /// @throws OutputError
    void commitTable(const std::string& held = "");

  private:
    class Buffer;

    void openBeside(const std::string& place);
    void finish();
    void takePlace();

    std::string file_, place_, unfinished_;  ///< the last is empty for what is no regular file
    std::unique_ptr<Buffer> buffer_;
    std::ostream stream_;
};

/// Writes a whole file at once. @throws InputError, OutputError
void writeWhole(const std::string& file, const void* bytes, std::size_t size);

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
//
// What the libraries that decode images would print on standard error, without the name of the file. It is kept for
// whoever decodes, thread by thread, and goes into an error that has the name.
#pragma once

#include <string>

namespace kestrune::measure {

/// The complaints of libraries on this thread while it lives.
class LibraryText {
  public:
    LibraryText();
    LibraryText(const LibraryText&) = delete;
    LibraryText& operator=(const LibraryText&) = delete;
    ~LibraryText();

    /// The first complaint in one line, without the source lines around it; empty if there was none.
    std::string reason() const;

    /// Whether libtiff met something that it could not read. It goes on all the same, with what it has.
    bool tiffFailed() const;
};

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
//
// The texts that a run starts from; for images see image_file.h. Whatever is wrong is told with the file's name.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/core/persistence.hpp>
#include <stdexcept>
#include <string>

namespace kestrune::measure {

/// A file that is not what it should be; the text begins with the file's name.
class InputError : public std::runtime_error {
  public:
    InputError(const std::string& file, const std::string& problem) : std::runtime_error(file + ": " + problem) {}
    explicit InputError(const std::string& text) : std::runtime_error(text) {}
};

/// The bytes of a file, text or not.
///
/// @throws InputError  for one that cannot be read, with the system's reason, or that is empty.
std::string readText(const std::string& file);

/// Parses a YAML text whose top level is a list of named fields.
///
/// @param file  for the error's text only.
/// @throws InputError  with the line where the parser stopped.
cv::FileStorage parseYaml(const std::string& file, const std::string& text);

/// The text of an exception for a person: without the source lines that OpenCV puts around its own.
std::string plainText(const std::exception& error);

/// The same of an exception that came up over a file, with the file's name before it.
std::string plainText(const std::exception& error, const std::string& file);

}  // namespace kestrune::measure

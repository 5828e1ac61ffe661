// SPDX-License-Identifier: Apache-2.0
//
// The texts that a run starts from; Whatever is wrong is told with the file's name.
#pragma once

#include <exception>
#include <filesystem>
#include <opencv2/core.hpp>
#include <opencv2/core/persistence.hpp>
#include <string>

#include "kestrune/MarkerMetrology/errors.h"

namespace kestrune {

/// Where a file is, or would be created: absolute, without links, also those whose target is not there yet.
std::filesystem::path placeOf(const std::string& file);

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

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
//
// Values of fields as they stand in a settings file, and a file's text with other values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestrune/MarkerMetrology/settings.h"

namespace kestrune {

/// A value as YAML: numbers in the shortest decimals that give them again, texts in quotes, lists in brackets.
std::string textOf(bool value);
std::string textOf(std::int32_t value);
std::string textOf(std::int64_t value);
std::string textOf(float value);
std::string textOf(double value);
std::string textOf(const std::string& value);
std::string textOf(const std::vector<double>& value);

/// The value of a field.
std::string textOf(const CicrleConfigs& configs, const SettingField& field);

/// Whether a file of these settings holds the field: the path reads it for this use, or it holds something.
bool belongs(const SettingField& field, const Settings& settings, Use use);

/// A whole file: the fields that belong there, each with its meaning.
std::string newText(const Settings& settings, Use use);

/// The text with the values of these settings. Fields that the path does not read for this use stay as they are where
/// the settings hold nothing for them (0, false, no text, no list), since nothing is what an absent field becomes.
///
/// @param file  for the error's text only.
/// @throws InputError  for a text whose top level is no list of named fields, one on a line.
std::string changedText(const std::string& file, const std::string& text, const Settings& settings, Use use);

}  // namespace kestrune

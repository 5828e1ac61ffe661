// SPDX-License-Identifier: Apache-2.0
//
// Takes the fields of a parsed settings file one by one, checks each, then all together, and gathers what is wrong.
#pragma once

#include <yaml-cpp/yaml.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kestrune/MarkerMetrology/settings.h"
#include "settings/setting_rules.h"

namespace kestrune {

/// The fields of a text; of several documents those of the first.
///
/// @param file  for the error's text only.
/// @throws InputError  with the line where the parser stopped.
YAML::Node parseFields(const std::string& file, const std::string& text);

class SettingsReader {
  public:
    /// @param origin  the file, or what stands for it in the texts of problems.
    explicit SettingsReader(std::string origin) : origin_(std::move(origin)) {}

    void readAll(const YAML::Node& root);

    /// Whether a field was read and is sound; `configs` are those read so far.
    bool took(const std::string& name, CicrleConfigs& configs) const;

    /// @throws SettingsError  with all problems.
    Settings finish(std::optional<Path> wanted, Use use);

  private:
    void problem(const std::string& text) { problems_.push_back(origin_ + ": " + text); }
    void problem(int line, const std::string& text);

    /// The path that the file itself names.
    std::optional<Path> ownPath();
    bool decides(const char* name);

    void requireRead(const SettingField& field, Path path, Use use);
    bool refuse(const SettingField& field, const YAML::Node& node, const char* expected);
    bool inRange(double value, const SettingField& field, const YAML::Node& node);

    bool readInto(bool& value, const YAML::Node& node, const SettingField& field);
    bool readInto(std::int32_t& value, const YAML::Node& node, const SettingField& field);
    bool readInto(float& value, const YAML::Node& node, const SettingField& field);
    bool readInto(double& value, const YAML::Node& node, const SettingField& field);
    bool readInto(std::string& value, const YAML::Node& node, const SettingField& field);
    bool readInto(std::vector<double>& value, const YAML::Node& node, const SettingField& field);

    void checkRule(const SettingRule& rule, Path path);

    std::string origin_;
    CicrleConfigs configs_{};
    int line_ = 0;                                           ///< of the field that is being read; 0: none is known
    std::map<std::string, int, std::less<>> met_;            ///< the line of each field of the file
    std::map<std::string, std::string, std::less<>> sound_;  ///< the values that were taken, as they stand
    std::vector<std::string> problems_;
};

}  // namespace kestrune

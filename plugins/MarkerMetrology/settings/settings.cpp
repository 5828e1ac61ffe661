// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerMetrology/settings.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <type_traits>

#include "files/inputs.h"
#include "settings/setting_text.h"
#include "settings/settings_reader.h"

namespace kestrune {
namespace {

/// The value as it would stand in a file.
std::string written(const SettingValue& value) {
    return std::visit([](const auto& given) { return textOf(given); }, value);
}

}  // namespace

SettingsError::SettingsError(const std::vector<std::string>& problems)
    : InputError(fmt::format("{}", fmt::join(problems, "\n"))) {}

Settings readSettings(const std::string& file, std::optional<Path> path, Use use) {
    SettingsReader reader(file);
    reader.readAll(parseFields(file, readText(file)));
    return reader.finish(path, use);
}

Settings settingsOf(const std::vector<std::pair<std::string, SettingValue>>& values, std::optional<Path> path, Use use,
                    const std::string& origin) {
    YAML::Node root(YAML::NodeType::Map);
    for (const auto& [name, value] : values) root.force_insert(name, YAML::Load(written(value)));
    SettingsReader reader(origin);
    reader.readAll(root);
    return reader.finish(path, use);
}

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>
#include <system_error>

#include "files/inputs.h"
#include "files/output_file.h"
#include "kestrune/MarkerMetrology/settings.h"
#include "settings/setting_text.h"
#include "settings/settings_reader.h"

namespace kestrune {
namespace {

Settings parsed(const std::string& file, const std::string& text, Path path, Use use) {
    SettingsReader reader(file);
    reader.readAll(parseFields(file, text));
    return reader.finish(path, use);
}

/// What stands in the file must be what was asked for, whatever its form.
void compare(const std::string& file, const Settings& wanted, const Settings& written, Use use) {
    for (const SettingField& field : settingFields()) {
        if (belongs(field, wanted, use) && textOf(wanted.configs, field) != textOf(written.configs, field))
            throw InputError(file, fmt::format("field '{}' cannot be changed where it stands", field.name));
    }
}

}  // namespace

void writeSettings(const std::string& file, const Settings& settings, Use use) {
    // A new text has one field on each line, so that what is wrong with the values is told of the field.
    parsed(file, newText(settings, use), settings.path, use);
    std::error_code failed;
    const bool isThere = std::filesystem::is_regular_file(file, failed) && std::filesystem::file_size(file, failed) > 0;
    const std::string text = isThere ? changedText(file, readText(file), settings, use) : newText(settings, use);
    try {
        compare(file, settings, parsed(file, text, settings.path, use), use);
    } catch (const SettingsError&) {
        throw;
    } catch (const InputError& error) {
        if (!isThere || std::string(error.what()).find("is no readable YAML") == std::string::npos) throw;
        throw InputError(file, "has a form in which a value cannot be changed where it stands");
    }
    writeWhole(file, text.data(), text.size());
}

}  // namespace kestrune

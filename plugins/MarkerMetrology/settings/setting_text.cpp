// SPDX-License-Identifier: Apache-2.0
#include "settings/setting_text.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <map>

#include "files/inputs.h"
#include "files/output_file.h"
#include "settings/settings_reader.h"

namespace kestrune {
namespace {

/// A part of a text.
struct Span {
    std::size_t begin, end;
};

/// Where the parser's mark is, in bytes: it counts characters, and a comment may hold any.
std::size_t placeOf(const std::string& text, const YAML::Mark& mark) {
    std::size_t place = 0;
    for (int line = 0; line < mark.line; ++line) place = text.find('\n', place) + 1;
    for (int column = 0; column < mark.column; ++column) {
        ++place;
        while (place < text.size() && (static_cast<unsigned char>(text[place]) & 0xC0U) == 0x80U) ++place;
    }
    return place;
}

/// The end of a plain value that begins here: where its line or a comment does, without the blanks before.
std::size_t endOfPlain(const std::string& text, std::size_t begin) {
    const std::size_t line = std::min(text.find_first_of("\r\n", begin), text.size());
    const std::size_t comment = std::min({text.find(" #", begin), text.find("\t#", begin), line});
    const std::size_t last = text.find_last_not_of(" \t", comment - 1);
    return last == std::string::npos || last < begin ? begin : last + 1;
}

/// The end of a value that begins here, on the line of its field.
std::size_t endOfValue(const std::string& text, std::size_t begin) {
    const char first = text[begin];
    if (first == '[') return std::min(text.find(']', begin), text.size() - 1) + 1;
    if (first != '"' && first != '\'') return endOfPlain(text, begin);
    std::size_t end = begin + 1;
    // Within quotes of one stroke two of them stand for one.
    const auto escapes = [&] { return first == '"' ? text[end] == '\\' : text.compare(end, 2, "''") == 0; };
    while (end < text.size() && (escapes() || text[end] != first)) end += escapes() ? 2U : 1U;
    return std::min(end + 1, text.size());
}

/// From behind the colon of a field to the end of its value.
Span valueOf(const std::string& text, const YAML::Node& key, const YAML::Node& value) {
    const std::size_t colon = text.find(':', placeOf(text, key.Mark()) + key.Scalar().size());
    const std::size_t begin = std::min(text.find_first_not_of(" \t", colon + 1), text.size());
    if (begin < text.size() && std::string("#\r\n").find(text[begin]) == std::string::npos)
        return {colon + 1, endOfValue(text, begin)};
    if (!value.IsSequence() || value.size() == 0) return {colon + 1, colon + 1};
    return {colon + 1, endOfPlain(text, placeOf(text, value[value.size() - 1].Mark()))};  // a list, one line each
}

/// Of two texts of one value.
bool saySame(const YAML::Node& value, const std::string& wanted, const SettingField& field) {
    CicrleConfigs configs{};
    SettingsReader reader("");
    YAML::Node alone(YAML::NodeType::Map);
    alone.force_insert(field.name, value);
    reader.readAll(alone);
    return reader.took(field.name, configs) && textOf(configs, field) == wanted;
}

bool isNothing(const CicrleConfigs& configs, const SettingField& field) {
    return textOf(configs, field) == textOf(CicrleConfigs{}, field);
}

bool choosesPath(const SettingField& field) {
    return field.name == std::string("useComplexExtract") || field.name == std::string("useRadialContours");
}

std::string lineOf(const CicrleConfigs& configs, const SettingField& field) {
    return fmt::format("{}: {}  # {}\n", field.name, textOf(configs, field), field.meaning);
}

}  // namespace

std::string textOf(bool value) {
    return value ? "true" : "false";
}

std::string textOf(std::int32_t value) {
    return std::to_string(value);
}

std::string textOf(std::int64_t value) {
    return std::to_string(value);
}

std::string textOf(float value) {
    std::string text = fmt::format("{}", value);
    // A reader that rounds to double first may end beside the number that the shortest decimals stand for.
    if (static_cast<float>(std::stod(text)) != value) text = fmt::format("{}", static_cast<double>(value));
    return text;
}

std::string textOf(double value) {
    return fmt::format("{}", value);
}

std::string textOf(const std::string& value) {
    YAML::Emitter emitter;
    emitter << YAML::DoubleQuoted << value;
    return emitter.c_str();
}

std::string textOf(const std::vector<double>& value) {
    return value.empty() ? "[]" : fmt::format("[ {} ]", fmt::join(value, ", "));
}

std::string textOf(const CicrleConfigs& configs, const SettingField& field) {
    return std::visit([&](auto member) { return textOf(configs.*member); }, field.member);
}

bool belongs(const SettingField& field, const Settings& settings, Use use) {
    return field.isReadBy(settings.path, use) || (!choosesPath(field) && !isNothing(settings.configs, field));
}

std::string newText(const Settings& settings, Use use) {
    std::string text = fmt::format("# Settings of path {}{}.\n", nameOf(settings.path),
                                   use == Use::stereo ? ", for stereo measurements as well" : "");
    for (const SettingField& field : settingFields())
        if (belongs(field, settings, use)) text += lineOf(settings.configs, field);
    return text;
}

std::string changedText(const std::string& file, const std::string& text, const Settings& settings, Use use) {
    const YAML::Node root = parseFields(file, text);
    if (root.Style() == YAML::EmitterStyle::Flow)
        throw InputError(file, "stands in braces: comments are kept where each field has a line of its own");
    std::map<std::size_t, std::pair<std::size_t, std::string>> changes;  // begin: end and new text
    std::string added;
    for (const SettingField& field : settingFields()) {
        const bool isRead = belongs(field, settings, use);
        const std::string wanted = textOf(settings.configs, field);
        bool isThere = false;
        for (const auto& entry : root) {
            if (!entry.first.IsScalar() || entry.first.Scalar() != field.name) continue;
            isThere = true;
            if (saySame(entry.second, wanted, field)) continue;
            if (!isRead && !choosesPath(field)) continue;
            const Span span = valueOf(text, entry.first, entry.second);
            changes[span.begin] = {span.end, " " + wanted};
        }
        if (!isThere && isRead) added += lineOf(settings.configs, field);
    }
    std::string changed;
    std::size_t done = 0;
    for (const auto& [begin, change] : changes) {
        changed += text.substr(done, begin - done) + change.second;
        done = change.first;
    }
    changed += text.substr(done);
    if (!changed.empty() && changed.back() != '\n' && !added.empty()) changed += '\n';
    return changed + added;
}

}  // namespace kestrune

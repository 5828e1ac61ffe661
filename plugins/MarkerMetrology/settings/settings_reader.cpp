// SPDX-License-Identifier: Apache-2.0
#include "settings/settings_reader.h"

#include <fmt/format.h>

#include <algorithm>

namespace kestrune {
namespace {

// What yaml-cpp calls a value in quotes.
constexpr const char* kQuoted = "!";

/// A value as it stands in the file.
std::string shown(const YAML::Node& node) {
    if (node.IsScalar()) return node.Scalar();
    return node.IsSequence() ? "[...]" : node.IsMap() ? "{...}" : "";
}

template <typename Value>
bool decode(const YAML::Node& node, Value& value) {
    return node.IsScalar() && node.Tag() != kQuoted && YAML::convert<Value>::decode(node, value);
}

/// Whether each byte that begins a character is followed by as many as it says.
bool isUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i++]);
        const int more = first < 0x80U          ? 0
                         : first >> 5U == 0x6U  ? 1
                         : first >> 4U == 0xeU  ? 2
                         : first >> 3U == 0x1eU ? 3
                                                : -1;
        if (more < 0) return false;
        for (int k = 0; k < more; ++k)
            if (i == text.size() || (static_cast<unsigned char>(text[i++]) & 0xc0U) != 0x80U) return false;
    }
    return true;
}

}  // namespace

YAML::Node parseFields(const std::string& file, const std::string& text) {
    try {
        const YAML::Node root = YAML::Load(text);  // LoadAll never ends at a comma before a document
        if (root.IsMap()) return root;
    } catch (const YAML::Exception& error) {
        throw InputError(file, fmt::format("is no readable YAML: line {}: {}", error.mark.line + 1, error.msg));
    }
    throw InputError(file, "holds no list of named fields, as in sigma: 1.0");
}

void SettingsReader::problem(int line, const std::string& text) {
    problem(line > 0 ? fmt::format("line {}: {}", line, text) : text);
}

void SettingsReader::readAll(const YAML::Node& root) {
    for (const auto& entry : root) {
        const std::string name = shown(entry.first);
        line_ = entry.first.Mark().line + 1;
        const auto field = std::ranges::find(settingFields(), name, &SettingField::name);
        if (field == settingFields().end()) {
            problem(line_, fmt::format("unknown field '{}'", name));
        } else if (const auto [first, isNew] = met_.emplace(name, line_); !isNew) {
            problem(line_, fmt::format("field '{}' is there again, after line {}", name, first->second));
        } else if (std::visit([&](auto m) { return readInto(configs_.*m, entry.second, *field); }, field->member)) {
            sound_[name] = shown(entry.second);
        }
    }
}

Settings SettingsReader::finish(std::optional<Path> wanted, Use use) {
    if (!wanted) wanted = ownPath();
    if (wanted) {
        for (const SettingField& field : settingFields()) requireRead(field, *wanted, use);
        for (const SettingRule& rule : settingRules()) checkRule(rule, *wanted);
    }
    if (!problems_.empty()) throw SettingsError(problems_);
    configs_.useRadialContours = *wanted == Path::radial;
    configs_.useComplexExtract = *wanted == Path::complex;
    return {configs_, *wanted};
}

bool SettingsReader::took(const std::string& name, CicrleConfigs& configs) const {
    configs = configs_;
    return sound_.contains(name);
}

bool SettingsReader::decides(const char* name) {
    if (!met_.contains(name))
        problem(fmt::format("field '{}' is missing: it chooses the path, unless --path does", name));
    return sound_.contains(name);
}

std::optional<Path> SettingsReader::ownPath() {
    if (!decides("useComplexExtract")) return std::nullopt;
    if (configs_.useComplexExtract) return Path::complex;
    if (!decides("useRadialContours")) return std::nullopt;
    return configs_.useRadialContours ? Path::radial : Path::simple;
}

void SettingsReader::requireRead(const SettingField& field, Path path, Use use) {
    const std::string_view name = field.name;
    const bool choosesPath = name == "useComplexExtract" || name == "useRadialContours";
    if (choosesPath || met_.contains(name) || !field.isReadBy(path, use)) return;
    const bool bySearch = field.isReadBy(path, Use::extraction);
    problem(
        fmt::format("field '{}' is missing: {}path {} reads it", name, bySearch ? "" : "stereo with ", nameOf(path)));
}

bool SettingsReader::refuse(const SettingField& field, const YAML::Node& node, const char* expected) {
    problem(line_, fmt::format("field '{}': '{}' is not {}", field.name, shown(node), expected));
    return false;
}

bool SettingsReader::inRange(double value, const SettingField& field, const YAML::Node& node) {
    if (value >= field.low && value <= field.high) return true;
    problem(line_, fmt::format("field '{}': {} is outside {}", field.name, shown(node), rangeText(field)));
    return false;
}

bool SettingsReader::readInto(bool& value, const YAML::Node& node, const SettingField& field) {
    const std::string text = node.Tag() == kQuoted ? "" : shown(node);
    value = text == "true" || text == "1";
    return value || text == "false" || text == "0" || refuse(field, node, "true or false");
}

bool SettingsReader::readInto(std::int32_t& value, const YAML::Node& node, const SettingField& field) {
    long long given = 0;
    if (!decode(node, given)) return refuse(field, node, "a whole number");
    if (!inRange(static_cast<double>(given), field, node)) return false;
    value = static_cast<std::int32_t>(given);
    return true;
}

bool SettingsReader::readInto(float& value, const YAML::Node& node, const SettingField& field) {
    double given = 0;
    if (!readInto(given, node, field)) return false;
    value = static_cast<float>(given);  // after the range was checked
    return true;
}

bool SettingsReader::readInto(double& value, const YAML::Node& node, const SettingField& field) {
    if (!decode(node, value)) return refuse(field, node, "a number");
    return inRange(value, field, node);
}

bool SettingsReader::readInto(std::string& value, const YAML::Node& node, const SettingField& field) {
    double number = 0;
    if (!node.IsScalar() || decode(node, number)) return refuse(field, node, "a text in quotes");
    if (!isUtf8(node.Scalar())) return refuse(field, node, "a text of UTF-8");
    value = node.Scalar();
    return true;
}

bool SettingsReader::readInto(std::vector<double>& value, const YAML::Node& node, const SettingField& field) {
    if (!node.IsSequence()) return refuse(field, node, "a list in brackets");
    for (const YAML::Node& entry : node) {
        if (!decode(entry, value.emplace_back())) return refuse(field, entry, "a number of a list");
        if (!inRange(value.back(), field, entry)) return false;
    }
    return true;
}

void SettingsReader::checkRule(const SettingRule& rule, Path path) {
    if (!rule.countsFor(path)) return;
    std::string values;
    for (const char* name : rule.fields) {
        if (name == nullptr) continue;
        const auto given = sound_.find(name);
        if (given == sound_.end()) return;
        values += fmt::format("{}'{}' {}", values.empty() ? "field " : " and ", name, given->second);
    }
    if (!rule.holds(configs_)) problem(met_.at(rule.fields[0]), fmt::format("{}: {}", values, rule.wanted));
}

}  // namespace kestrune

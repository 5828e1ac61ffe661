// SPDX-License-Identifier: Apache-2.0
#include "settings/field_lines.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>

namespace kestrune {
namespace {

// Deeper fields than poses.left.rotation there are none.
constexpr int kDeepest = 3;

void gather(const YAML::Node& node, const std::string& prefix, int depth, std::map<std::string, int>& lines) {
    if (!node.IsMap() || depth == kDeepest) return;
    for (const auto& entry : node) {
        if (!entry.first.IsScalar()) continue;
        const std::string name = prefix + entry.first.Scalar();
        lines.emplace(name, entry.first.Mark().line + 1);
        gather(entry.second, name + ".", depth + 1, lines);
    }
}

}  // namespace

FieldLines::FieldLines(const std::string& text) {
    std::string plain = text;
    // OpenCV's own first line, %YAML:1.0, is no directive of YAML.
    if (plain.starts_with("%YAML:")) plain.replace(0, std::min(plain.find('\n'), plain.size()), "");
    try {
        gather(YAML::Load(plain), "", 0, lines_);
    } catch (const YAML::Exception&) {  // OpenCV's reader will tell, or takes it
    }
}

std::string FieldLines::before(const std::string& field) const {
    for (std::string name = field;; name.resize(name.rfind('.'))) {
        if (const auto found = lines_.find(name); found != lines_.end()) return fmt::format("line {}: ", found->second);
        if (name.find('.') == std::string::npos) return "";
    }
}

}  // namespace kestrune

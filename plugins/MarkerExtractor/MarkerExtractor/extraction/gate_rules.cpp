// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/gate_rules.h"

#include <locale>
#include <sstream>
#include <string_view>

namespace kestrune {

GateRule GateRule::telling(const std::array<double, 3>& numbers) const {
    GateRule rule = *this;
    rule.told = numbers;
    return rule;
}

GateRule GateRule::onlyIf(bool isSwitchedOn) const {
    GateRule rule = *this;
    rule.isOn = isSwitchedOn;
    return rule;
}

std::string GateRule::text() const {
    constexpr std::string_view kPlace = "{}";
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    std::string_view rest = wanted;
    for (const double number : told) {
        const std::size_t place = rest.find(kPlace);
        if (place == std::string_view::npos) break;
        stream << rest.substr(0, place) << number;
        rest.remove_prefix(place + kPlace.size());
    }
    stream << rest;
    return stream.str();
}

GateRule between(Gate gate, const char* name, const char* wanted, double least, double largest, Ends ends) {
    GateRule rule = inWords(gate, name, wanted).telling({least, largest});
    rule.least = least;
    rule.largest = largest;
    rule.ends = ends;
    return rule;
}

GateRule atLeast(Gate gate, const char* name, const char* wanted, double least) {
    return between(gate, name, wanted, least, kNoBound);
}

GateRule atMost(Gate gate, const char* name, const char* wanted, double largest) {
    return between(gate, name, wanted, -kNoBound, largest).telling({largest});
}

GateRule inWords(Gate gate, const char* name, const char* wanted) {
    GateRule rule;
    rule.gate = gate;
    rule.name = name;
    rule.wanted = wanted;
    return rule;
}

GateTable::GateTable(std::initializer_list<GateRule> rules) {
    for (const GateRule& rule : rules) rules_[static_cast<std::size_t>(rule.gate)] = rule;
}

}  // namespace kestrune

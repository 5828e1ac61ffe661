// SPDX-License-Identifier: Apache-2.0
//
// What the gates of the paths ask for. A gate is one rule with its name, its bounds and how these are told: the code
// that judges and whoever wants to know why a candidate was refused read the same one.
#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <string>

namespace kestrune {

/// What a candidate was refused for. Each path has some of them.
enum class Gate {
    kNone,
    // Of a contour: simple, by hand and fast.
    kArea,
    kCompactness,
    kFit,  ///< an ellipse that is not finite
    kEccentricity,
    kCircularity,
    kConvexity,
    kFitError,
    kFitResidual,
    kPerimeter,
    // Of a rim, in the order of the gates; the length is asked again of the distinct pixels.
    kLength,     ///< number of pixels
    kSize,       ///< axes of the ellipse
    kPlace,      ///< centre at the border of the image
    kAxisRatio,  ///< shorter over longer axis
    kResidual,   ///< RMS of the conic over the contour
    kGradient,   ///< the gradient crosses the rim both ways
    kContrast,   ///< the side that the gradient names as bright is not
    kHull,       ///< hull over ellipse area
    kPoints,     ///< too few refined points, or not finite
    kFinalSize,  ///< from here on of the refined ellipse
    kFinalPlace,
    kFinalAxisRatio,
    kFinalResidual,
    kCount,
};

/// Which ends of its range a gate lets pass.
enum class Ends { kClosed, kHalfOpen /* the least alone */, kOpen };

/// What a gate makes of a value or a bound that is NaN.
enum class NotANumber { kPasses, kIsRefused };

constexpr double kNoBound = std::numeric_limits<double>::infinity();

/// One gate of one call.
struct GateRule {
    Gate gate = Gate::kNone;
    const char* name = "";
    const char* wanted = "";       ///< in words; each "{}" stands for the next number of `told`
    std::array<double, 3> told{};  ///< as the settings have them, where the bounds are a multiple
    double least = -kNoBound;
    double largest = kNoBound;
    Ends ends = Ends::kClosed;
    NotANumber notANumber = NotANumber::kPasses;
    bool isOn = true;

    bool passes(double value) const {
        if (!isOn) return true;
        if (notANumber == NotANumber::kPasses) {
            const bool isBelow = ends == Ends::kOpen ? least >= value : least > value;
            const bool isAbove = ends == Ends::kClosed ? value > largest : value >= largest;
            return !isBelow && !isAbove;
        }
        return (ends == Ends::kOpen ? value > least : value >= least) &&
               (ends == Ends::kClosed ? value <= largest : value < largest);
    }

    /// The same rule, told by other numbers than its bounds.
    GateRule telling(const std::array<double, 3>& numbers) const;

    /// The same rule, applied only where a switch is on.
    GateRule onlyIf(bool isSwitchedOn) const;

    /// What the gate asks for, with the settings' names and values.
    std::string text() const;
};

GateRule between(Gate gate, const char* name, const char* wanted, double least, double largest,
                 Ends ends = Ends::kClosed);
GateRule atLeast(Gate gate, const char* name, const char* wanted, double least);
GateRule atMost(Gate gate, const char* name, const char* wanted, double largest);

/// A gate that asks for more than a number in a range.
GateRule inWords(Gate gate, const char* name, const char* wanted);

/// The gates of a path, made from the settings once a call.
class GateTable {
  public:
    GateTable(std::initializer_list<GateRule> rules);
    const GateRule& operator[](Gate gate) const { return rules_[static_cast<std::size_t>(gate)]; }

  private:
    std::array<GateRule, static_cast<std::size_t>(Gate::kCount)> rules_;
};

/// What the gates say of a candidate: the first that refused it, and what that measured.
struct Verdict {
    Gate refusedBy = Gate::kNone;
    double measured = 0;  ///< 0 if no gate refused

    bool accepted() const { return refusedBy == Gate::kNone; }
    void refuse(const GateRule& rule, double value) {
        refusedBy = rule.gate;
        measured = value;
    }
    /// Asks a gate, and keeps what it measured where it refuses.
    bool fails(const GateRule& rule, double value) {
        if (rule.passes(value)) return false;
        refuse(rule, value);
        return true;
    }
};

}  // namespace kestrune

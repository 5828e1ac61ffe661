// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerMetrology/matching.h"

namespace kestrune {

const char* nameOf(MatchObjection objection) {
    switch (objection) {
        case MatchObjection::none:
            return "none";
        case MatchObjection::tooFew:
            return "too few";
        case MatchObjection::nothingMatches:
            return "nothing matches";
        case MatchObjection::eyesExchanged:
            return "eyes exchanged";
        case MatchObjection::patternRepeats:
            return "pattern repeats";
        case MatchObjection::rigMoved:
            return "rig moved";
    }
    return "";
}

const char* nameOf(Decider decider) {
    switch (decider) {
        case Decider::nothing:
            return "nothing";
        case Decider::nominalRadius:
            return "nominal radius";
        case Decider::depthRange:
            return "depth range";
        case Decider::anotherView:
            return "another view";
    }
    return "";
}

}  // namespace kestrune

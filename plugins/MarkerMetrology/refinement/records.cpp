// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerMetrology/refinement.h"

namespace kestrune {

const char* nameOf(RefinementStatus status) {
    switch (status) {
        case RefinementStatus::refined:
            return "refined";
        case RefinementStatus::noOutline:
            return "no outline";
        case RefinementStatus::leavesImage:
            return "leaves the image";
        case RefinementStatus::touchesAnother:
            return "touches another";
        case RefinementStatus::tooFaint:
            return "too faint";
        case RefinementStatus::notConverged:
            return "not converged";
        case RefinementStatus::notADisc:
            return "not a disc";
    }
    return "";
}

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/thinning.h"

#include <bit>
#include <cstddef>
#include <cstdint>

#include "ellipsedetection/edge_mask.h"

namespace kestrune {

namespace {

constexpr int kNeighbours = 8;
constexpr int kCodes = 1 << kNeighbours;
constexpr uchar kGoing = 1;  ///< still counts as a neighbour until all pixels of its turn are judged

/// Whether a pixel goes, for each set of neighbours: bit k of the index for the k-th from the upper one on, clockwise;
/// bit t of the entry for turn t, which takes edges from the lower right or from the upper left.
constexpr std::array<std::uint8_t, kCodes> makeRules() {
    constexpr unsigned kUp = 1, kRight = 4, kDown = 16, kLeft = 64;
    std::array<std::uint8_t, kCodes> rules{};
    for (unsigned code = 0; code < kCodes; ++code) {
        const auto has = [code](unsigned all) { return (code & all) == all; };
        const unsigned next = (code >> 1 | code << (kNeighbours - 1)) % kCodes;
        const int beginnings = std::popcount(~code & next);  // a neighbour that is missing, then one that is there
        const int count = std::popcount(code);
        if (beginnings != 1 || count < 2 || count > 6) continue;
        if (!has(kUp | kRight | kDown) && !has(kRight | kDown | kLeft)) rules[code] |= 1;
        if (!has(kUp | kRight | kLeft) && !has(kUp | kDown | kLeft)) rules[code] |= 2;
    }
    return rules;
}
constexpr std::array<std::uint8_t, kCodes> kRules = makeRules();

/// Offsets to the neighbours in the order of the rules' bits.
std::array<std::ptrdiff_t, kNeighbours> ringOf(std::ptrdiff_t cols) {
    return {-cols, -cols + 1, 1, cols + 1, cols, cols - 1, -1, -cols - 1};
}

unsigned codeOf(const uchar* pixel, const std::array<std::ptrdiff_t, kNeighbours>& ring) {
    unsigned code = 0;
    for (unsigned k = 0; k < kNeighbours; ++k) code |= (pixel[ring[k]] != 0 ? 1U : 0U) << k;
    return code;
}

}  // namespace

void thinPixels(cv::Mat& mask, const std::vector<int>& edges, ThinningLists& lists) {
    const std::array<std::ptrdiff_t, kNeighbours> ring = ringOf(mask.cols);
    uchar* const pixels = mask.data;
    for (unsigned turn = 0;; ++turn) {
        // A pixel was last judged by this turn's rules two turns ago; since then those of that turn and of the one
        // between them have gone.
        const std::vector<int>* judged = &edges;
        if (turn >= 2) {
            lists.judged.clear();
            for (const std::vector<int>& gone : lists.gone) {
                for (const int index : gone) {
                    for (const std::ptrdiff_t step : ring) {
                        if (pixels[index + step] != 0) lists.judged.push_back(index + static_cast<int>(step));
                    }
                }
            }
            if (lists.judged.empty()) return;
            judged = &lists.judged;
        }
        const auto rule = static_cast<std::uint8_t>(1U << turn % 2);
        std::vector<int>& going = lists.gone[turn % 2];
        going.clear();
        for (const int index : *judged) {
            uchar* const pixel = pixels + index;
            if (*pixel != kStrongPixel || (kRules[codeOf(pixel, ring)] & rule) == 0) continue;
            *pixel = kGoing;
            going.push_back(index);
        }
        for (const int index : going) pixels[index] = 0;
    }
}

}  // namespace kestrune

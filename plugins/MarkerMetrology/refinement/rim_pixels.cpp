// SPDX-License-Identifier: Apache-2.0
#include "refinement/rim_pixels.h"

#include <algorithm>
#include <cmath>

#include "refinement/clipped_level.h"
#include "refinement/lanes.h"

namespace kestrune::refinement {
namespace {

/// What the loops over pixels read and write, for both of their versions.
struct Columns {
    const float *grey, *weight, *u, *v;
    std::array<const float*, 7> drawn;
    std::array<float*, kUnknowns> columns;
    float *residual, *level;
    float contrast, outside;
    std::array<float, kLightTerms> light;
    int count, unknowns;
};

KESTRUNE_BOTH void fillColumnsBoth(const Columns& c) {
    for (int i = 0; i < c.count; i += kLanes) {
        Lanes u, v, m, weight, grey;
        load(c.u + i, u);
        load(c.v + i, v);
        load(c.drawn[0] + i, m);
        load(c.weight + i, weight);
        load(c.grey + i, grey);
        const Lanes light = 1 + (c.light[0] * u + c.light[1] * v) +
                            (c.light[2] * (u * u) + c.light[3] * (u * v) + c.light[4] * (v * v));
        const Lanes even = c.outside + c.contrast * m, level = light * even, residual = grey - level;
        store(c.level + i, level);
        store(c.residual + i, weight * residual);
        const Lanes wl = weight * light, wlc = wl * c.contrast;
        for (int k = 0; k < 6; ++k) {
            Lanes d;
            load(c.drawn[static_cast<std::size_t>(k) + 1] + i, d);
            store(c.columns[static_cast<std::size_t>(k)] + i, wlc * d);
        }
        store(c.columns[kIn] + i, wl * m);
        store(c.columns[kOut] + i, wl - wl * m);
        if (c.unknowns <= kLight) continue;
        const Lanes we = weight * even;
        store(c.columns[kLight] + i, we * u);
        store(c.columns[kLight + 1] + i, we * v);
        store(c.columns[kLight + 2] + i, we * (u * u));
        store(c.columns[kLight + 3] + i, we * (u * v));
        store(c.columns[kLight + 4] + i, we * (v * v));
    }
}
void fillColumnsAny(const Columns& c) {
    fillColumnsBoth(c);
}
KESTRUNE_WIDE void fillColumnsWide(const Columns& c) {
    fillColumnsBoth(c);
}

KESTRUNE_BOTH double dotBoth(const float* a, const float* b, int count) {
    Lanes first{}, second{};
    for (int i = 0; i < count; i += 2 * kLanes) {
        Lanes p, q;
        load(a + i, p);
        load(b + i, q);
        first += p * q;
        load(a + i + kLanes, p);
        load(b + i + kLanes, q);
        second += p * q;
    }
    first += second;
    return static_cast<double>(sum(first));
}
double dotAny(const float* a, const float* b, int count) {
    return dotBoth(a, b, count);
}
KESTRUNE_WIDE double dotWide(const float* a, const float* b, int count) {
    return dotBoth(a, b, count);
}

/// Makes room for `padded` numbers, of which those from `count` on are 0.
void makeRoom(std::vector<float>& list, int count, int padded) {
    if (list.size() < static_cast<std::size_t>(padded)) list.resize(static_cast<std::size_t>(padded));
    std::fill(list.begin() + count, list.begin() + padded, 0.0F);
}

}  // namespace

void RimPixels::take(const MarkerWindow& window, const std::vector<float>& others, const cv::Vec2d& limits) {
    count_ = window.rimCount();
    padded_ = (count_ + MarkerWindow::kPadding - 1) / MarkerWindow::kPadding * MarkerWindow::kPadding;
    u_ = window.u(), v_ = window.v();
    limits_ = limits;
    isClipped_ = window.reaches(limits);
    for (std::vector<float>* list : {&grey_, &weight_, &residual_, &level_}) makeRoom(*list, count_, padded_);
    for (auto& list : drawn_) makeRoom(list, count_, padded_);
    for (auto& list : columns_) makeRoom(list, count_, padded_);
    std::copy_n(window.grey(), count_, grey_.begin());
    others_.clear();
    if (isClipped_) others_ = others;
    if (!others.empty())
        for (std::size_t i = 0; i < static_cast<std::size_t>(count_); ++i) grey_[i] -= others[i];
    std::fill_n(weight_.begin(), count_, 1.0F);
}

void RimPixels::draw(const MarkerWindow& window, const DiscImage& image) {
    float m = 0;
    int y = -1, x = 0;
    for (const MarkerWindow::Run& run : window.runs()) {
        const DiscPixel* row = image.row(run.y) - image.box().x;
        if (run.y != y) {
            m = 0, y = run.y;
            for (x = image.box().x; x < run.x; ++x) m += row[x].step;
        }
        // Between two runs of a row is the marker's middle, where nothing changes.
        auto at = static_cast<std::size_t>(std::max(0, run.first));
        for (x = run.x; x < run.x + run.count; ++x) {
            m += row[x].step;
            if (run.first < 0) continue;
            const float* from = &row[x].x;
            drawn_[0][at] = m;
            for (std::size_t k = 0; k < 6; ++k) drawn_[k + 1][at] = from[k];
            ++at;
        }
    }
}

void RimPixels::weigh(const DiscModel& model, const NoiseModel& noise) {
    const auto fixed = static_cast<float>(noise.fixed), perLevel = static_cast<float>(noise.perLevel);
    const auto least = static_cast<float>(noise.least);
    const auto contrast = static_cast<float>(model.contrast()), outside = static_cast<float>(model.outside);
    for (std::size_t i = 0; i < static_cast<std::size_t>(count_); ++i) {
        const float level = outside + contrast * drawn_[0][i];
        weight_[i] = 1 / std::sqrt(std::max(least, fixed + perLevel * level));
    }
}

void RimPixels::fillColumns(const DiscModel& model, int unknowns) {
    Columns c{};
    c.grey = grey_.data(), c.weight = weight_.data(), c.u = u_, c.v = v_;
    std::transform(drawn_.begin(), drawn_.end(), c.drawn.begin(), [](const auto& list) { return list.data(); });
    std::transform(columns_.begin(), columns_.end(), c.columns.begin(), [](auto& list) { return list.data(); });
    std::transform(model.light.begin(), model.light.end(), c.light.begin(),
                   [](double g) { return static_cast<float>(g); });
    c.residual = residual_.data(), c.level = level_.data();
    c.contrast = static_cast<float>(model.contrast()), c.outside = static_cast<float>(model.outside);
    c.count = padded_, c.unknowns = unknowns;
    (hasWideLanes() ? fillColumnsWide : fillColumnsAny)(c);
    // Beyond the last pixel the weight is 0, and so is everything.
    told_ = count_;
    if (isClipped_) clip(unknowns);
}

/// What the pixels read instead where the model, with its noise, goes beyond the limits.
void RimPixels::clip(int unknowns) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(count_); ++i) {
        const double weight = static_cast<double>(weight_[i]),
                     other = others_.empty() ? 0.0 : static_cast<double>(others_[i]);
        const double level = static_cast<double>(level_[i]) + other, sigma = sigmaBeforeRounding(1 / (weight * weight));
        if (std::min(limits_[1] - level, level - limits_[0]) > kClippedWithin * sigma) continue;
        const ClippedLevel clipped = clippedLevel(level, sigma, limits_);
        residual_[i] = static_cast<float>(weight * (static_cast<double>(grey_[i]) + other - clipped.mean));
        for (int k = 0; k < unknowns; ++k)
            columns_[static_cast<std::size_t>(k)][i] *= static_cast<float>(clipped.slope);
        told_ -= 1 - clipped.variance;
    }
}

double RimPixels::dot(const float* a, const float* b) const {
    return (hasWideLanes() ? dotWide : dotAny)(a, b, padded_);
}

}  // namespace kestrune::refinement

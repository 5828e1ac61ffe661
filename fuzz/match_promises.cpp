// SPDX-License-Identifier: Apache-2.0
#include "match_promises.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <map>
#include <numeric>
#include <random>

namespace kestrune::fuzz {
namespace {

/// Sums of probabilities are off 1 by rounding, and by messages that have not settled.
constexpr double kOffOne = 1e-5;
/// Pairs below this are not listed.
constexpr double kLeastListed = 1e-3;

/// The bits of all that a match tells of one thing, under the names of its markers.
struct Telling {
    const char* what;
    std::vector<std::uint64_t> bits;

    auto operator<=>(const Telling& other) const { return bits <=> other.bits; }
    bool operator==(const Telling& other) const { return bits == other.bits; }
};

class Tellings {
  public:
    /// @param names  of the markers of both eyes
    Tellings(const StereoMatch& match, const std::array<std::vector<int>, 2>& names) : names_(names) {
        for (const MatchedPair& pair : match.pairs) addPair(pair);
        for (const PairChance& rival : match.rivals) add("rival", rival.left, rival.right, rival.probability);
        for (std::size_t i = 0; i < match.single[0].size(); ++i)
            add("single left", static_cast<int>(i), -1, match.single[0][i]);
        for (std::size_t i = 0; i < match.single[1].size(); ++i)
            add("single right", -1, static_cast<int>(i), match.single[1][i]);
        add("exposure", -1, -1, static_cast<double>(match.objection), match.repeat, match.centreScale,
            match.shapeScale);
        add("motion", -1, -1, static_cast<double>(match.moved.found), match.moved.size, match.moved.angle,
            match.moved.rotation, match.moved.translation);
        list.push_back({"reason", {match.reason.begin(), match.reason.end()}});
    }

    void requireSame(const Tellings& other, const char* promise) const {
        const std::size_t count = std::min(list.size(), other.list.size());
        for (std::size_t k = 0; k < count; ++k)
            if (!(list[k] == other.list[k])) {
                std::fprintf(stderr, "differs: %s\n", list[k].what);
                require(false, promise);
            }
        require(list.size() == other.list.size(), promise);
    }

    std::vector<Telling> list;

  private:
    void addPair(const MatchedPair& p) {
        const PairCues& c = p.cues;
        add("pair", p.left, p.right, p.probability, static_cast<double>(p.sure), static_cast<double>(p.decider));
        add("cues", p.left, p.right, c.epipolar, c.epipolarSigma, c.shape, c.geometry, c.radius, c.depth, c.normal,
            c.grey, c.object);
        add("disc", p.left, p.right, static_cast<double>(p.disc.found), p.disc.centre, p.disc.normal, p.disc.radius,
            p.disc.covariance, p.disc.tangents[0], p.disc.tangents[1], p.disc.calibrationCovariance, p.disc.chiSquare);
        for (const PairChance& rival : p.rivals) {
            add("rival of a pair", p.left, p.right, rival.probability);
            add("rival of a pair", rival.left, rival.right, rival.probability);
        }
    }

    template <typename... Values>
    void add(const char* what, int left, int right, const Values&... values) {
        Telling telling{what, {static_cast<unsigned char>(what[0]), nameOf(0, left), nameOf(1, right)}};
        (append(telling.bits, values), ...);
        list.push_back(std::move(telling));
    }
    static void append(std::vector<std::uint64_t>& bits, double value) {
        bits.push_back(std::bit_cast<std::uint64_t>(value));
    }
    template <int rows, int columns>
    static void append(std::vector<std::uint64_t>& bits, const cv::Matx<double, rows, columns>& values) {
        for (const double value : values.val) append(bits, value);
    }
    std::uint64_t nameOf(std::size_t eye, int index) const {
        return index < 0 ? ~0ULL : static_cast<std::uint64_t>(names_[eye][static_cast<std::size_t>(index)]);
    }

    const std::array<std::vector<int>, 2>& names_;
};

/// Of all that decides about a marker.
std::vector<std::uint64_t> bitsOf(const MarkerEstimate& e) {
    std::vector<std::uint64_t> bits;
    for (const double value : {e.centre.x, e.centre.y, e.majorHalfAxis, e.minorHalfAxis, e.angle, e.inside - e.outside})
        bits.push_back(std::bit_cast<std::uint64_t>(value));
    for (const double value : e.ellipseCovariance().val) bits.push_back(std::bit_cast<std::uint64_t>(value));
    return bits;
}

/// Of each marker the place of the first that is the same.
std::array<std::vector<int>, 2> namesOf(const MatchCall& call) {
    std::array<std::vector<int>, 2> names;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        std::map<std::vector<std::uint64_t>, int> first;
        for (const MarkerEstimate& e : call.markers[eye])
            names[eye].push_back(first.try_emplace(bitsOf(e), static_cast<int>(names[eye].size())).first->second);
    }
    return names;
}

template <typename List>
List inOrder(const List& list, const std::vector<std::size_t>& order) {
    List result;
    for (const std::size_t k : order) result.push_back(list[k]);
    return result;
}

void checkOrder(const MatchCall& call, const StereoMatch& match, unsigned seed) {
    const std::array<std::vector<int>, 2> names = namesOf(call);
    MatchCall mixed = call;
    std::array<std::vector<int>, 2> mixedNames;
    std::mt19937 random(seed);
    for (std::size_t eye = 0; eye < 2; ++eye) {
        std::vector<std::size_t> order(call.markers[eye].size());
        std::iota(order.begin(), order.end(), 0U);
        std::shuffle(order.begin(), order.end(), random);
        mixed.markers[eye] = inOrder(call.markers[eye], order);
        mixedNames[eye] = inOrder(names[eye], order);
    }
    std::shuffle(mixed.options.object.begin(), mixed.options.object.end(), random);
    Tellings told(match, names), toldMixed(mixed.match(), mixedNames);
    std::sort(told.list.begin(), told.list.end());
    std::sort(toldMixed.list.begin(), toldMixed.list.end());
    told.requireSame(toldMixed, "the order of the lists changes nothing but order");
}

bool isUsable(const MarkerEstimate& e) {
    for (int row = 0; row < 5; ++row) {
        if (!(e.covariance(row, row) > 0)) return false;
        for (int column = 0; column < 5; ++column)
            if (!std::isfinite(e.covariance(row, column))) return false;
    }
    return std::isfinite(e.centre.x) && std::isfinite(e.centre.y) && std::isfinite(e.angle) && e.minorHalfAxis > 0 &&
           e.majorHalfAxis > 0 && std::isfinite(e.majorHalfAxis) && std::isfinite(e.minorHalfAxis);
}

bool isProbability(double p) {
    return p >= 0 && p <= 1;
}

bool isDoubted(const StereoMatch& match) {
    return match.objection != MatchObjection::none && match.objection != MatchObjection::rigMoved;
}

void checkCues(const PairCues& cues) {
    for (const double value : {cues.epipolar, cues.epipolarSigma, cues.shape, cues.geometry, cues.radius, cues.depth,
                               cues.normal, cues.grey, cues.object})
        require(!std::isinf(value), "a cue is a number, or none where it could not be judged");
    require(cues.epipolarSigma > 0 && cues.shape >= 0, "cues have sigmas and chi-squares");
}

void checkRivals(const MatchedPair& pair, const StereoMatch& match) {
    double last = 1;
    for (const PairChance& rival : pair.rivals) {
        require((rival.left == pair.left) != (rival.right == pair.right), "a rival has one marker of the pair's");
        require(rival.probability <= last, "rivals are told probable first");
        last = rival.probability;
        require(std::any_of(match.rivals.begin(), match.rivals.end(),
                            [&](const PairChance& r) {
                                return r.left == rival.left && r.right == rival.right &&
                                       r.probability == rival.probability;
                            }),
                "rivals of a pair are rivals of the exposure");
    }
}

void checkPair(const MatchedPair& pair, const StereoMatch& match, const MatchCall& call) {
    require(isProbability(pair.probability), "a pair has a probability");
    require(!pair.sure || (pair.probability >= call.options.sure && pair.disc.found && !isDoubted(match)),
            "a sure pair is probable, has a disc, and nothing stands against it");
    require(!pair.sure || pair.decider == Decider::nothing, "a sure pair needs no decider");
    require(isUsable(call.markers[0][static_cast<std::size_t>(pair.left)]) &&
                isUsable(call.markers[1][static_cast<std::size_t>(pair.right)]),
            "markers that are none are in no pair");
    require(!isDoubted(match) || pair.probability <= 0.5, "pairs of a doubted exposure are doubtful");
    checkCues(pair.cues);
    checkDisc(pair.disc);
    checkRivals(pair, match);
}

/// Every list in bounds and once, and probabilities that add up.
void checkChances(const StereoMatch& match, const MatchCall& call) {
    std::array<std::vector<double>, 2> sums;
    for (std::size_t eye = 0; eye < 2; ++eye) sums[eye].assign(call.markers[eye].size(), 0.0);
    std::vector<std::pair<int, int>> all;
    std::vector<int> lefts, rights;
    const auto add = [&](int left, int right, double probability) {
        require(left >= 0 && right >= 0 && left < static_cast<int>(sums[0].size()) &&
                    right < static_cast<int>(sums[1].size()),
                "pairs are places in the lists");
        require(isProbability(probability), "a chance is a probability");
        sums[0][static_cast<std::size_t>(left)] += probability;
        sums[1][static_cast<std::size_t>(right)] += probability;
        all.emplace_back(left, right);
    };
    for (const MatchedPair& pair : match.pairs) {
        add(pair.left, pair.right, pair.probability);
        lefts.push_back(pair.left), rights.push_back(pair.right);
    }
    require(std::is_sorted(lefts.begin(), lefts.end(), std::less_equal<>()), "left ascending, each once");
    std::sort(rights.begin(), rights.end());
    require(std::adjacent_find(rights.begin(), rights.end()) == rights.end(), "each right marker once");
    for (const PairChance& rival : match.rivals) add(rival.left, rival.right, rival.probability);
    std::sort(all.begin(), all.end());
    require(std::adjacent_find(all.begin(), all.end()) == all.end(), "no pair is told twice");
    for (std::size_t eye = 0; eye < 2; ++eye) {
        require(match.single[eye].size() == sums[eye].size(), "a chance of each marker to be single");
        const double left = kLeastListed * static_cast<double>(call.markers[1 - eye].size());
        for (std::size_t i = 0; i < sums[eye].size(); ++i) {
            const double sum = sums[eye][i] + match.single[eye][i];
            require(isProbability(match.single[eye][i]) && sum <= 1 + kOffOne, "chances of a marker are at most one");
            require(isDoubted(match) || sum >= 1 - left - kOffOne, "chances of a marker are one");
            require(isUsable(call.markers[eye][i]) || match.single[eye][i] == 1, "what is no marker is single");
        }
    }
}

void checkExposure(const StereoMatch& match, const MatchCall& call) {
    require(*nameOf(match.objection) != '\0', "an objection has a name");
    require(match.reason.empty() == (match.objection == MatchObjection::none), "an objection has a reason");
    for (const char* word : {"nan", "inf"})
        require((" " + match.reason).find(std::string(" ") + word) == std::string::npos, "a reason has numbers");
    require(match.repeat >= 0 && std::isfinite(match.repeat), "a pattern repeats at a distance");
    require(match.repeat == 0 || match.objection == MatchObjection::patternRepeats, "only patterns repeat");
    for (const double scale : {match.centreScale, match.shapeScale})
        require(scale > 0 && std::isfinite(scale) && (call.options.estimateSigmas || scale == 1), "scales of sigmas");
    const MovedRig& moved = match.moved;
    require(moved.found || match.objection != MatchObjection::rigMoved, "a rig that moved is told");
    if (!moved.found) return;
    require(moved.size >= 0 && std::isfinite(moved.size) && moved.angle >= 0 && moved.angle <= 180,
            "a moved rig has a pattern and an angle");
    require(cv::norm(moved.rotation * moved.rotation.t() - cv::Matx33d::eye()) < 1e-4, "a moved rig has a rotation");
    const double was = cv::norm(call.rig.translation), is = cv::norm(moved.translation);
    require(std::abs(is - was) <= 1e-6 * was, "the baseline is as long as before");
}

void checkRefusal(const MatchCall& call, const std::string& text) {
    constexpr const char* kNames[] = {"cameras[0]", "cameras[1]", "rotation",        "translation", "uncertainty.",
                                      "radii: ",    "depth: ",    "radiusTolerance", "sure: ",      "object: "};
    require(std::any_of(std::begin(kNames), std::end(kNames), [&](const char* n) { return text.starts_with(n); }),
            "a refusal names what is wrong");
    MatchCall empty = call;
    for (auto& list : empty.markers) list.clear();
    require(refusalOf([&] { empty.match(); }) == text, "it is refused before anything is done");
}

}  // namespace

void checkMatch(const MatchCall& call, unsigned seed) {
    setThreads({});
    StereoMatch match;
    if (const std::string text = refusalOf([&] { match = call.match(); }); !text.empty()) {
        checkRefusal(call, text);
        return;
    }
    checkChances(match, call);
    for (const MatchedPair& pair : match.pairs) checkPair(pair, match, call);
    checkExposure(match, call);
    std::array<std::vector<int>, 2> places;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        places[eye].resize(call.markers[eye].size());
        std::iota(places[eye].begin(), places[eye].end(), 0);
    }
    setThreads({.manyThreads = true});
    Tellings(match, places).requireSame(Tellings(call.match(), places), "one thread equals many");
    checkOrder(call, match, seed);
}

}  // namespace kestrune::fuzz

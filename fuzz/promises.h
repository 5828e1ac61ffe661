// SPDX-License-Identifier: Apache-2.0
//
// What a host is promised of every call, and how a fuzzer holds the library to it: everything that a call leaves behind
// is written down bit by bit, and two such records must be alike.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kestrune/MarkerExtractor.h"

namespace kestrune::fuzz {

/// Ends the run with a report where a promise of the library does not hold.
inline void require(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

/// How a call ended.
enum class End {
    kAnswered,
    kRefused,     ///< by the library, for an input that it names
    kOpenCv,      ///< with an exception of OpenCV's own
    kOutOfRange,  ///< calibration intake with too few entries
    kNoEigen,     ///< conic match: no eigenvalues
};

struct Outcome {
    End end = End::kAnswered;
    std::string text;  ///< of the exception

    bool answered() const { return end == End::kAnswered; }
    bool refused() const { return end == End::kRefused; }
};

/// Any other exception than those of `End` ends the run.
template <typename Call>
Outcome outcomeOf(const Call& call) {
    try {
        call();
    } catch (const cv::Exception& e) {
        return {e.func == "kestrune::refuseSetting" ? End::kRefused : End::kOpenCv, e.what()};
    } catch (const std::out_of_range& e) {
        return {End::kOutOfRange, e.what()};
    } catch (const std::runtime_error& e) {
        return {End::kNoEigen, e.what()};
    }
    return {};
}

/// The bits of everything that a call has left behind, in named parts of which a digest is kept.
class Record {
  public:
    template <typename... Numbers>
    void numbers(const char* part, const Numbers&... values) {
        std::uint64_t& digest = digestOf(part);
        (add(&values, sizeof values, digest), ...);
    }
    void text(const char* part, const std::string& value);
    void matrix(const char* part, const cv::Mat& value);
    void matrix(const char* part, const Eigen::MatrixXd& value);
    void rects(const char* part, const std::vector<cv::RotatedRect>& list);
    void points(const char* part, const std::vector<Point3_<double>>& list);
    void pairs(const char* part, const std::vector<std::pair<int, int>>& list);
    void corners(const char* part, const std::vector<Corner>& list);
    void outcome(const Outcome& outcome);
    /// What a call tells beyond its result, to who asks: records of calls that nobody asked are alike without it.
    template <typename... Numbers>
    void reasons(const Numbers&... values) {
        numbers(kReasons, values...);
    }
    void reasons(const std::string& value) { text(kReasons, value); }
    /// All members but the scratch storage, whose contents mean nothing between calls.
    void members(const CircleMarkerExtractor& extractor);

    /// All parts of both, which have no name in common.
    Record operator+(const Record& other) const;

    /// Name of the first part that differs; empty if none does.
    std::string differenceFrom(const Record& other) const;

  private:
    using Parts = std::vector<std::pair<const char*, std::uint64_t>>;
    static constexpr const char* kReasons = "reasons";

    Parts partsBut(const char* name) const;
    static void add(const void* data, std::size_t bytes, std::uint64_t& digest);
    std::uint64_t& digestOf(const char* part);

    Parts parts_;
};

void requireSame(const Record& a, const Record& b, const char* promise);

/// What must make no difference to a result.
struct Circumstances {
    bool manyThreads = false;  ///< OpenMP's and OpenCV's, from the first item of a loop on
    bool garbageInScratch = false;
    bool imagesAreWindows = false;  ///< of larger images
    bool teamsAreLate = false;      ///< threads join a loop in its midst, when it has taken long enough
    bool plainRoad = false;         ///< every step by OpenCV's calls
    bool isAsked = false;           ///< for the reasons of a result, where a call can tell them

    /// The same pixels, with others around them where images are windows.
    cv::Mat imageOf(const cv::Mat& image) const;
};

void setThreads(const Circumstances& circumstances);
/// The same, and what scratch storage holds.
void prepare(const Circumstances& circumstances, CircleMarkerExtractor& extractor);

/// Runs once on a fresh copy of `base`, a second time on the same object, with late teams and asked for reasons, once
/// under all other circumstances, and once on the plain road. Ends the run naming what made a difference.
///
/// @param run  makes everything but the extractor itself, calls, and gives the record of what the call left behind.
template <typename Run>
void requireSameUnderAll(const CircleMarkerExtractor& base, const Run& run) {
    const auto recordUnder = [&](const Circumstances& circumstances) {
        CircleMarkerExtractor extractor = base;
        prepare(circumstances, extractor);
        return run(circumstances, extractor);
    };
    constexpr Circumstances kAsked{.isAsked = true}, kAskedLate{.teamsAreLate = true, .isAsked = true};
    CircleMarkerExtractor extractor = base;
    prepare({}, extractor);
    const Record first = run(Circumstances{}, extractor);
    setThreads(kAskedLate);
    const Record second = run(kAskedLate, extractor);
    const Record changed =
        recordUnder({.manyThreads = true, .garbageInScratch = true, .imagesAreWindows = true, .isAsked = true});
    requireSame(first, recordUnder({.plainRoad = true}), "the fast road equals the plain one");
    if (first.differenceFrom(second).empty() && second.differenceFrom(changed).empty()) return;
    requireSame(first, recordUnder({}), "a call with the same input equals the first");
    const Record asked = recordUnder(kAsked);
    requireSame(first, asked, "a result equals the one with reasons");
    requireSame(asked, recordUnder(kAskedLate), "one thread equals a team that comes late");
    requireSame(asked, second, "the second call equals the first");
    requireSame(asked, recordUnder({.manyThreads = true, .isAsked = true}), "one thread equals many");
    requireSame(asked, recordUnder({.garbageInScratch = true, .isAsked = true}),
                "used scratch storage equals fresh one");
    requireSame(asked, recordUnder({.imagesAreWindows = true, .isAsked = true}),
                "a window of an image equals its copy");
    requireSame(second, changed, "the same under all circumstances");
}

}  // namespace kestrune::fuzz

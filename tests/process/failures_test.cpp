// SPDX-License-Identifier: Apache-2.0
//
// Memory and threads run out at every point of every operation: a host gets an exception that the header names, and the same object gives the
// right result at the next call. Whatever allocates in this process comes through here: the library, OpenCV, Eigen and OpenMP's runtime.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <set>
#include <thread>

#include "support/calls.h"
#include "support/configs.h"
#include "support/teams.h"

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace {

std::atomic<long> allocations{0}, firstFailure{0};  ///< 0: none fails
std::atomic<bool> failsOnce{false}, noThreads{false};

bool isThere() {
    const long first = firstFailure;
    if (first == 0) return true;
    const long number = ++allocations;
    return failsOnce ? number != first : number < first;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
    return isThere() ? __libc_malloc(size) : nullptr;
}
void* calloc(std::size_t count, std::size_t size) {
    return isThere() ? __libc_calloc(count, size) : nullptr;
}
void* realloc(void* memory, std::size_t size) {
    return isThere() ? __libc_realloc(memory, size) : nullptr;
}
void* memalign(std::size_t alignment, std::size_t size) {
    return isThere() ? __libc_memalign(alignment, size) : nullptr;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    *memory = memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
    static const auto next = reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return noThreads ? EAGAIN : next(thread, attributes, start, argument);
}
}

namespace kestrune::test::failures {

/// Four discs before a rectified pair, and what a host keeps from call to call.
struct Host {
    cv::Mat left = picture(0), right = picture(20), colour, depth{120, 160, CV_32FC1, cv::Scalar(1000)}, turn = cv::Mat::eye(3, 3, CV_64F);
    CircleMarkerExtractor e;
    std::vector<Corner> found[2];

    static cv::Mat picture(double shift) {
        cv::Mat image(120, 160, CV_8UC1, cv::Scalar(40));
        for (const cv::Point2d& place : {cv::Point2d(40, 30), {90, 41}, {130, 75}, {55, 90}})
            addDisc(image, {float(place.x - shift), float(place.y)}, 7);
        return image;
    }
    Host() {
        calibrate(e);
        cv::merge(std::vector<cv::Mat>(3, left > 120), colour);
        e.CircleExtractSimple(left, found[0], 0, settings(1));
        e.CircleExtractSimple(right, found[1], 1, settings(1));
    }
    static void calibrate(CircleMarkerExtractor& e) {
        const Camera_<double, 2, 2> camera{{200, 200, 80, 60}};
        const Pose_<double> poses[2] = {{{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}}, {{1, 0, 0, 0, 1, 0, 0, 0, 1, 100, 0, 0}}};
        e.transform_kestruneData2cvMat({poses[0], poses[1]}, {camera, camera}, 160, 120, 0);
    }
    static CicrleConfigs settings(int path) {
        CicrleConfigs c = configsOfPaths()[path];
        c.markerRadii = {35}, c.sizeTolerance = 0.3, c.maxRowDifference = 2, c.minDepth = 500, c.maxDepth = 2000, c.minRadiusRatio = 0.8f;
        c.plainRowGate = true, c.deviationFactor = 3, c.edgeLengthTolerance = c.edgeAngleTolerance = 0.2, c.skipUndistort = false;
        return c;
    }
};

/// What an operation gave, as numbers.
struct Result {
    std::vector<double> numbers;
    void add(const std::vector<Corner>& corners) {
        for (const Corner& c : corners) numbers.insert(numbers.end(), {c.x, c.y, c.area, c.fitResidual, c.position[2], double(c.contour.size())});
    }
    void add(const std::vector<Point3_<double>>& points) {
        for (const Point3_<double>& p : points) numbers.insert(numbers.end(), {p.x, p.y, p.z});
    }
    void add(const Pairs& pairs) {
        for (const auto& [i, j] : pairs) numbers.insert(numbers.end(), {double(i), double(j)});
    }
};

using Operation = std::function<void(Host&, Result&)>;

Operation extraction(int path, bool useThreads = false) {
    return [=](Host& h, Result& result) {
        CicrleConfigs configs = Host::settings(path);
        configs.useThreads = useThreads;
        std::vector<Corner> corners;
        ExtractCircleMarker(h.left, h.e, corners, 0, configs);
        result.add(corners);
    };
}

Operation stereo(int path) {
    return [=](Host& h, Result& result) {
        std::vector<Point3_<double>> points;
        std::vector<cv::RotatedRect> rects[2];
        for (const auto& [left, right] : getStereoMarker3dPoints(h.left, h.right, h.e, points, rects[0], rects[1], Host::settings(path))) {
            result.add({left, right});
        }
        result.add(points);
    };
}

const std::pair<const char*, Operation> kOperations[] = {
    {"sub-pixel contours", extraction(0)},
    {"radial contours", extraction(1)},
    {"edge-based", extraction(2)},
    {"hand and depth",
     [](Host& h, Result& result) {
         std::vector<Corner> corners;
         h.e.CircleExtractSimpleForHand(h.colour, corners, 0, Host::settings(0));
         h.e.DetectFeaturePointsAndInterpolate_binocular(corners, h.depth, h.e.leftIntrinsic);
         result.add(corners);
     }},
    {"fast, undistorted",
     [](Host& h, Result& result) {
         std::vector<Corner> corners;
         h.e.extractMarkPointsFast(h.left, corners, 0, Host::settings(0));
         h.e.UndistortCorners(corners, h.e.leftIntrinsic, h.e.leftDistortion);
         result.add(corners);
     }},
    {"nothing found",
     [](Host& h, Result& result) {
         std::vector<Corner> corners;
         result.numbers.push_back(ExtractCircleMarker(cv::Mat::zeros(20, 20, CV_8UC1), h.e, corners, 1, Host::settings(1)));
     }},
    {"calibration",
     [](Host& h, Result& result) {
         CircleMarkerExtractor fresh;
         Host::calibrate(fresh);
         fresh.SetStereorectifyParam({h.e.leftProjection, h.e.rightProjection, h.e.leftRectification, h.e.rightRectification});
         fresh.SetTriangulationIntrinsicMatrix(h.e.leftIntrinsic, h.e.rightIntrinsic);
         cv::Mat fundamental;
         fresh.CalcFoundationMat(h.e.rotation, h.e.translation, h.e.leftIntrinsic, h.e.rightIntrinsic, fundamental);
         CircleMarkerExtractor copy(fresh);
         copy = h.e;
         result.numbers.assign({fundamental.at<double>(1, 2), fresh.triangulationA(0, 0), copy.leftProjection.at<double>(0, 0)});
     }},
    {"rectified corners",
     [](Host& h, Result& result) {
         std::vector<Corner> target;
         h.e.StereoRectifyCorners(h.found[0], target, h.e.leftIntrinsic, {}, h.e.leftRectification, h.e.leftProjection, h.e.leftHomography);
         result.add(target);
     }},
    {"eccentricity",
     [](Host& h, Result& result) {
         cv::Mat position = (cv::Mat_<double>(3, 1) << 10, 20, -1000);
         cv::RotatedRect ellipse({100, 100}, {30, 20}, 10);
         result.numbers.assign(3, 0);
         h.e.correctedEccentricityAhn(h.colour, position, ellipse, result.numbers[0], result.numbers[1], result.numbers[2], 200, 35);
     }},
    {"stereo by constellation", stereo(0)},
    {"stereo by conics", stereo(1)},
    {"stereo, edge-based", stereo(2)},
    {"stereo from corners",
     [](Host& h, Result& result) {
         std::vector<Point3_<double>> points;
         std::vector<Corner> left = h.found[0], right = h.found[1];
         result.add(getStereoMarker3dPoints(left, right, h.e.rightTriangulation, h.e.leftIntrinsic, h.e.rightIntrinsic, h.e.fundamental, points));
         result.add(points);
     }},
    {"stereo from rectified corners",
     [](Host& h, Result& result) {
         std::vector<Point3_<double>> points;
         for (const double tolerance : {0.2, 0.0}) {  // by the constellation, and by the fallback
             result.add(getStereoRectifiedMarker3dPoints(h.found[0], h.found[1], {35}, points, h.turn, h.e.leftProjection, h.e.rightProjection, 2,
                                                         500, 2000, false, false, 0.3, 3, true, tolerance, tolerance));
         }
         result.add(points);
     }},
};

/// Runs the operation with this failure. @return what it raised, nothing if it came to its end.
std::string outcomeOf(const Operation& operation, Host& host, Result& result, long first, bool once) {
    result.numbers.clear();
    std::string raised;
    allocations = 0, failsOnce = once, firstFailure = first;
    try {
        operation(host, result);
        firstFailure = 0;
    } catch (const std::bad_alloc&) {
        firstFailure = 0, raised = "bad_alloc";
    } catch (const std::system_error&) {
        firstFailure = 0, raised = "system_error";
    } catch (const cv::Exception& e) {
        firstFailure = 0, raised = e.code == cv::Error::StsNoMem ? "bad_alloc" : e.what();
    } catch (const std::exception& e) {
        firstFailure = 0, raised = e.what();
    }
    return raised;
}

TEST(Failures, ReachTheHostWhereverMemoryRunsOut) {
    const SharedLoops shared;
    Host host;
    testing::internal::CaptureStdout();  // one operation warns
    for (const int threads : {1, 2}) {
        omp_set_num_threads(threads);
        for (const auto& [name, operation] : kOperations) {
            Result expected, result;
            operation(host, expected), operation(host, result);
            ASSERT_TRUE(expected.numbers == result.numbers && !expected.numbers.empty()) << name;
            for (const bool once : {true, false}) {
                long raised = 0, first = 1;
                for (;; first += 1 + first / (threads == 1 ? 32 : 4)) {
                    const std::string what = outcomeOf(operation, host, result, first, once);
                    const bool isOver = allocations < first;
                    ASSERT_TRUE(what.empty() || what == "bad_alloc") << name << ' ' << first << ": " << what;
                    ASSERT_TRUE(!what.empty() || result.numbers == expected.numbers) << name << ' ' << first;
                    raised += !what.empty();
                    ASSERT_EQ(outcomeOf(operation, host, result, 0, once), "") << name << ' ' << first;
                    ASSERT_EQ(result.numbers, expected.numbers) << name << ' ' << first;
                    if (isOver) break;
                }
                EXPECT_GT(raised, 3) << name << ' ' << first;
            }
        }
    }
    testing::internal::GetCapturedStdout();
}

TEST(Failures, LeaveALoopToItsCallerWithoutMemoryOrThreadsForATeam) {
    const SharedLoops shared;
    omp_set_num_threads(4);
    for (const auto& [isShort, lacksThreads] : {std::pair(false, false), {true, false}, {false, true}}) {
        std::vector<std::thread::id> ids(100);
        std::thread([&, isShort = isShort, lacksThreads = lacksThreads] {  // has no team yet
            omp_set_num_threads(4);
            allocations = 0, failsOnce = false, firstFailure = isShort, noThreads = lacksThreads;
            forEachInParallel(100, 1, [&](int item) {
                ids[item] = std::this_thread::get_id();
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            });
            firstFailure = 0, noThreads = false;
        })
            .join();
        EXPECT_EQ(std::set(ids.begin(), ids.end()).size() > 1, !isShort && !lacksThreads) << isShort << lacksThreads;
    }
}

TEST(Failures, AreNoneWithoutThreadsButThoseAskedFor) {
    const SharedLoops shared;
    omp_set_num_threads(4);
    Host host;
    noThreads = true;
    for (const auto& [name, operation] : kOperations) {
        Result first, second;
        EXPECT_EQ(outcomeOf(operation, host, first, 0, false), "") << name;
        noThreads = false;
        EXPECT_EQ(outcomeOf(operation, host, second, 0, false), "") << name;
        noThreads = true;
        EXPECT_EQ(first.numbers, second.numbers) << name;
        EXPECT_EQ(outcomeOf(extraction(0, true), host, second, 0, false), "system_error") << name;
    }
    noThreads = false;
}

}  // namespace kestrune::test::failures

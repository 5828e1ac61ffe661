// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <locale>
#include <set>
#include <thread>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "MarkerExtractor/extraction/plain_road.h"
#include "logging/logging.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/teams.h"

namespace kestrune::test::extractor {

static_assert(!std::is_polymorphic_v<CircleMarkerExtractor> && !std::is_polymorphic_v<Corner>);

TEST(Corner, MoveAssignmentTakesAllFieldsOver) {
    const auto numbersOf = [](Corner& c) {
        return std::tie(c.id, c.x, c.y, c.ellipse.angle, c.fitResidual, c.conicValid, c.conic[0], c.conic[5], c.markerRadius, c.matchIndex, c.flagA,
                        c.matched, c.flagB, c.flagC, c.auxMetricA, c.auxMetricB, c.area, c.compactness, c.fitError, c.eccentricity, c.convexRatio,
                        c.circularity);
    };
    Corner given, target;
    int last = 0;
    std::apply([&last](auto&... number) { ((number = static_cast<std::decay_t<decltype(number)>>(++last)), ...); }, numbersOf(given));
    for (char* text : {given.areaText, given.ratioText, given.spareTextA, given.fitText, given.spareTextB, given.eccentricityText}) {
        std::memset(text, 'a' + ++last, sizeof(given.areaText));
    }
    given.scatter = Eigen::MatrixXd::Identity(6, 6), given.normal = {0, 0, 1}, given.position = {1, 2, 3}, given.contour = {{1, 2}, {3, 4}};
    given.auxListA = {{{1, 2, 3}}}, given.auxListB = {{{4, 5, 6}}};
    target.scatter = Eigen::MatrixXd::Zero(2, 2), target.normal = {9, 9, 9}, target.position = {8, 8, 8};
    Corner copy(given);
    target = std::move(given);
    EXPECT_EQ(numbersOf(target), numbersOf(copy));
    EXPECT_EQ(std::tie(target.scatter, target.normal, target.position, target.contour),
              std::tie(copy.scatter, copy.normal, copy.position, copy.contour));
    EXPECT_EQ(std::pair(target.auxListA.at(0).values[2], target.auxListB.at(0).values[2]), std::pair(3, 6));
    EXPECT_EQ(std::memcmp(target.areaText, copy.areaText, 600), 0);
    // NOLINTBEGIN(bugprone-use-after-move): what the source is left with is part of the contract
    EXPECT_EQ(given.contour.size() + given.auxListA.size() + given.auxListB.size(), 0u);
    EXPECT_EQ(std::tuple(given.scatter.rows(), given.normal[0], given.position[0]), std::tuple(2, 9.0, 8.0)) << "swapped";
    // NOLINTEND(bugprone-use-after-move)
}

TEST(Extractor, OwnsScratchOfTheImagesSizeAndKeepsTheNameOnFailure) {
    CircleMarkerExtractor extractor;
    CicrleConfigs configs = discConfigs(true);
    std::vector<Corner> corners;
    takePlainRoad = true;
    for (const cv::Size size : {cv::Size(200, 150), cv::Size(100, 50), cv::Size(80, 60)}) {
        corners.clear(), configs.scale = size.width == 80 ? 1 : 3;
        extractor.CircleExtractSimple(discImage(size, {40, 25}, 8), corners, 0, configs);
        const auto full = static_cast<std::size_t>(size.area());
        const auto reduced = static_cast<std::size_t>((size.width / configs.scale) * (size.height / configs.scale));  // 33 by 16 for the second
        EXPECT_EQ(std::tuple(extractor.scratchBlurFull.size(), extractor.scratchBinary.size()), std::tuple(full, full)) << size;
        EXPECT_EQ(std::tuple(extractor.scratchEdgeMask.size(), extractor.scratchLabels.size()), std::tuple(reduced, reduced)) << size;
        EXPECT_EQ(std::tuple(extractor.rayDirections.size(), extractor.probeDirections.size()), std::tuple(72u, 24u));
    }
    takePlainRoad = false;
    EXPECT_EQ(std::tuple(extractor.markerName, extractor.markerRects.size()), std::tuple("dot", 1u));
    extractor.markerName = "other", corners.clear();
    EXPECT_FALSE(extractor.CircleExtractSimple(cv::Mat(50, 100, CV_8UC1, cv::Scalar(9)), corners, 0, configs));
    EXPECT_EQ(std::tuple(extractor.markerName, extractor.markerRects.size()), std::tuple("other", 0u));
}

TEST(Extractor, MeasuresAColourImageLikeItsGreyOne) {
    const auto disc = [](double inside) { return discImage({120, 90}, {60.4, 44.7}, 11, inside); };
    cv::Mat colour, grey;
    cv::merge(std::vector<cv::Mat>{disc(200), disc(150), disc(180)}, colour);
    cv::cvtColor(colour, grey, cv::COLOR_BGR2GRAY);
    for (const int run : {0, 1, 2}) {
        const bool radial = run == 2;
        CicrleConfigs configs = discConfigs(radial);
        configs.useThreads = run == 1;
        const Found fromColour(colour, configs), fromGrey(grey, configs);
        ASSERT_EQ(std::pair(fromColour.corners.size(), fromGrey.corners.size()), std::pair(1ul, 1ul)) << run;
        const Corner& c = fromGrey.corners[0];
        EXPECT_EQ(fromColour.corners[0].contour, c.contour) << run;
        EXPECT_LT(std::hypot(c.x - 60.4, c.y - 44.7), radial ? 0.02 : 0.08);
        EXPECT_EQ(std::pair(c.conicValid, fromGrey.extractor.markerRects[0].center.x), std::pair(radial, static_cast<float>(c.x)));
        configs.cannyLow = 400, configs.cannyHigh = 1 << 30;  // the squares leave 32 bits
        EXPECT_EQ(Found(grey, configs).corners.size(), radial);
    }
}

TEST(Extractor, TakesAWindowAloneAndReflectsItsBorder) {
    for (CicrleConfigs configs : configsOfPaths()) {
        const bool radial = configs.useRadialContours;
        const cv::Point2d centre(radial ? 24.4 : 14.4, 44.7);  // rays need room; a wide blur makes up for it
        if (radial) configs.sigma = 8, configs.aperture = 31;
        const cv::Mat alone = discImage({120, 90}, centre, 11);
        cv::Mat large(130, 160, CV_8UC1, cv::Scalar(255)), window = large(cv::Rect({20, 20}, alone.size())), reflected;
        alone.copyTo(window);
        cv::copyMakeBorder(alone, reflected, 9, 9, 9, 9, cv::BORDER_REFLECT_101);
        const Found expected(alone, configs), inside(window, configs), more(reflected, configs);
        ASSERT_EQ(std::tuple(expected.corners.size(), inside.corners.size(), more.corners.size()), std::tuple(1u, 1u, 1u));
        EXPECT_EQ(inside.corners[0].contour, expected.corners[0].contour);
        const bool reflects = !radial && !configs.useComplexExtract;  // the others' thresholds repeat it
        EXPECT_NEAR(more.corners[0].x, expected.corners[0].x + 9, reflects ? 1e-4 : 0.1);
    }
}

TEST(Extractor, DividesTheLeastLengthByTheScaleAndNotTheLeastArea) {
    for (const bool radial : {false, true}) {
        CicrleConfigs configs = discConfigs(radial);
        configs.scale = 2, configs.cannyLow = 5;
        const cv::Mat image = discImage({121, 91}, {60.4, 44.7}, 15);  // reduced, a blob of 177 px^2
        const Found whole(image, configs);
        ASSERT_EQ(whole.corners.size(), 1u);
        const int length = static_cast<int>(whole.corners[0].contour.size());
        for (const auto& [least, count] : {std::pair(radial ? 150 : 2 * length + 1, 1u), {radial ? 210 : 2 * length + 2, 0u}}) {
            configs.minContourSize = least;
            EXPECT_EQ(Found(image, configs).corners.size(), count) << least << radial;
        }
        // The reduced image shows the whole image: 120 by 90 px of it would be half a pixel off.
        const double factorX = radial ? 1 : 121.0 / 60, factorY = radial ? 1 : 91.0 / 45;
        EXPECT_NEAR((whole.corners[0].x + 0.5) * factorX - 0.5, 60.4, 0.15);
        EXPECT_NEAR((whole.corners[0].y + 0.5) * factorY - 0.5, 44.7, 0.15);
    }
}

TEST(Extractor, RepeatsItsBitsInLaterCallsAndInCopies) {
    const SharedLoops shared;
    const cv::Mat large = imageOf<uchar>({1600, 1200}, [](int x, int y) {  // 768 discs
        const double distance = std::hypot(x % 50 - 24.7, y % 50 - 25.2);
        return 40 + 160 * std::clamp(8.5 + (x / 50 + y / 50) % 7 - distance, 0.0, 1.0);
    });
    for (const CicrleConfigs& configs : configsOfPaths()) {
        const auto bitsOf = [&](CircleMarkerExtractor& extractor, int threads) {
            omp_set_num_threads(threads);
            std::vector<Corner> corners;
            EXPECT_TRUE(ExtractCircleMarker(large, extractor, corners, 0, configs));
            std::vector<double> bits = {static_cast<double>(corners.size())};
            for (const Corner& c : corners) {
                bits.insert(bits.end(), {c.x, c.y, c.area, c.fitResidual, c.fitError});
                if (c.conicValid) bits.insert(bits.end(), c.conic.begin(), c.conic.end());
                for (const cv::Point2f& p : c.contour) bits.insert(bits.end(), {p.x, p.y});
            }
            return bits;
        };
        CircleMarkerExtractor first, assigned;
        const std::vector<double> bits = bitsOf(first, 1);
        EXPECT_GT(bits[0], 650);
        CircleMarkerExtractor copy(first);
        assigned = first;
        EXPECT_TRUE(bitsOf(first, 3) == bits && bitsOf(copy, 2) == bits && bitsOf(assigned, 1) == bits);
    }
}

TEST(FastPath, AppliesItsSwitchesAndBounds) {
    cv::Mat image(60, 120, CV_8UC1, cv::Scalar(100));  // 100 is background, 101 is not
    image(cv::Rect(10, 10, 11, 11)).setTo(101);        // contour through pixel centres: 10 x 10
    image(cv::Rect(50, 10, 41, 11)).setTo(255);        // 40 x 10
    for (const cv::Point pixel : {cv::Point(2, 2), {3, 2}, {2, 3}, {3, 3}, {4, 3}}) image.at<uchar>(pixel) = 255;  // its ellipse is not finite
    const std::pair<void (*)(CicrleConfigs&), std::multiset<double>> cases[] = {
        {[](auto&) {}, {400, 100}},
        {[](auto& c) { c.enableAreaFilter = true, c.minArea = 100, c.maxArea = 1000; }, {400, 100}},
        {[](auto& c) { c.enableAreaFilter = true, c.minArea = 0, c.maxArea = 400; }, {100}},
        {[](auto& c) { c.enableCircularityFilter = true, c.minCircularity = 0.6, c.maxCircularity = 1; }, {100}},
        {[](auto& c) { c.enableConvexityFilter = true, c.minConvexRatio = 1.01, c.maxConvexRatio = 2; }, {}},
        {[](auto& c) { c.enableEccentricityFilter = true, c.maxEccentricity = 0.5; }, {100}}};
    for (const auto& [change, expected] : cases) {
        CicrleConfigs configs{};
        change(configs);
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
        EXPECT_EQ(extractor.extractMarkPointsFast(image, corners, 0, configs), !expected.empty());
        std::multiset<double> areas;
        for (const Corner& corner : corners) {
            areas.insert(corner.area);
            EXPECT_NEAR(corner.y, 15, 1e-3);
            EXPECT_EQ(corner.eccentricity > 0, configs.enableEccentricityFilter && corner.area > 100);
        }
        EXPECT_EQ(areas, expected);
        EXPECT_TRUE(extractor.markerRects.empty() && extractor.markerName.empty());
    }
}

/// Numbers with a comma and groups of three digits, in C, as far as such a locale can be made here, and in C++.
class CommaLocale {
  public:
    CommaLocale() {
        const std::string directory = testing::TempDir() + "kestrune-locale-" + std::to_string(getpid());
        std::filesystem::create_directories(directory);
        const std::string make = "localedef -i de_DE -f UTF-8 " + directory + "/de_DE.UTF-8 > /dev/null 2>&1";
        setenv("LOCPATH", directory.c_str(), 1);
        isMade = std::system(make.c_str()) == 0 && std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
        std::filesystem::remove_all(directory);
    }
    ~CommaLocale() {
        std::locale::global(before_);
        std::setlocale(LC_ALL, "C");
        unsetenv("LOCPATH");
    }
    bool isMade;

  private:
    struct Comma : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale before_ = std::locale::global(std::locale(std::locale::classic(), new Comma));
};

TEST(Locale, OfTheProcessHasNoSayInTexts) {
    const auto texts = [] {
        std::vector<std::string> result;
        CicrleConfigs narrow = discConfigs(false), reduced = narrow, large = narrow;
        narrow.sigma = 0.0625, reduced.scale = 12345, large.minArea = 1234567;
        for (const CicrleConfigs& c : {narrow, reduced}) {
            try {
                std::vector<Corner> corners;
                CircleMarkerExtractor().CircleExtractSimple(cv::Mat::zeros(9, 4321, CV_8U), corners, 0, c);
            } catch (const cv::Exception& e) {
                result.push_back(e.err);
            }
        }
        result.emplace_back(judgeContour({{0, 0}, {1300, 0}, {1300, 1.5}, {0, 1.5}}, SimpleGates(large), {}).candidate.areaText);
        cv::Mat image(60, 500, CV_8UC1, cv::Scalar(0)), position = (cv::Mat_<double>(3, 1) << 1, 2, -900);
        cv::RotatedRect ellipse({160, 20}, {20, 14}, 30);
        double x = 0;
        CircleMarkerExtractor().correctedEccentricityAhn(image, position, ellipse, x, x, x, 1000, 5);
        result.emplace_back(image.begin<char>(), image.end<char>());
        return result;
    };
    const std::vector<std::string> expected = texts();
    ASSERT_EQ(expected.size(), 4u);
    EXPECT_EQ(expected[1], "scale: 12345 leaves nothing of an image of 4321 x 9 pixels");
    EXPECT_EQ(expected[2], "area:1950.00");
    const CommaLocale comma;
    EXPECT_TRUE(texts() == expected);
    if (!comma.isMade) GTEST_SKIP() << "no locale of C with a comma: only that of C++ was looked at";
}

TEST(Logging, WritesWholeLinesOnStandardOutput) {
    const CommaLocale hosts;  // has no say
    const std::tuple<const char*, int, int, std::string> cases[] = {{"a/f.cpp", 7, 3, "WARN  f.cpp:   7"},
                                                                    {"a\\b/f.cpp", 12345, 0, "NONE  f.cpp:12345"},
                                                                    {"a/b\\f.cpp", 2411, 1, "FATAL f.cpp:2411"},
                                                                    {"f.cpp", 10, 2, "ERROR f.cpp:  10"},
                                                                    {"", 10, 4, "INFO  :  10"},
                                                                    {"dir/", 10, 99, "DEBUG :  10"}};
    for (const auto& [path, line, level, shown] : cases) {
        testing::internal::CaptureStdout();
        { Message(path, line, "native", level).text << "text"; }
        const std::string written = testing::internal::GetCapturedStdout();
        // The thread's id is right-aligned in six places.
        const std::regex form(R"((?=.{5}\d) *\d+ [A-Z]\w\w \d\d \d{4} \d\d:\d\d:\d\d )" + shown + "   text\n");
        EXPECT_TRUE(std::regex_match(written, form)) << written;
    }
    std::FILE* const file = std::tmpfile();
    const int descriptor = fileno(file);
    { const LogIOSink sink(3, file); }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "a sink closes its file";
    // Concurrent reports stay whole lines.
    const std::string text(200, 'x');
    std::string expected;
    for (int i = 0; i < 200; ++i) expected += "f.cpp:   1   " + text + "\n";
    const auto report = [&text] {
        for (int i = 0; i < 50; ++i) Message("f.cpp", 1, "native", 3).text << text;
    };
    EXPECT_EQ(warningsOf([&report] {
                  std::vector<std::jthread> threads;
                  for (int i = 0; i < 4; ++i) threads.emplace_back(report);
              }),
              expected);
}

TEST(FrontDoor, UndistortsWithTheMatricesOfTheEyeAndWarnsOfTheOneThatFailed) {
    CircleMarkerExtractor extractor;
    extractor.leftIntrinsic = (cv::Mat_<double>(3, 3) << 500, 0, 60, 0, 500, 44, 0, 0, 1);
    extractor.rightIntrinsic = (cv::Mat_<double>(3, 3) << 500, 0, 300, 0, 500, 44, 0, 0, 1);  // far off, so that its distortion shows
    extractor.leftDistortion = extractor.rightDistortion = (cv::Mat_<double>(1, 5) << -0.2, 0, 0, 0, 0);
    const cv::Mat empty(40, 40, CV_8UC1, cv::Scalar(10)), disc = discImage({120, 90}, {60, 44}, 11);
    for (const int run : {0, 1, 2, 3, 4, 5, 6, 7}) {
        const int camera = run / 2 - 1;
        CicrleConfigs configs = discConfigs(run % 2 == 1);
        configs.skipUndistort = false;
        std::vector<Corner> corners;
        const auto extract = [&](const cv::Mat& image) {
            return warningsOf([&] { EXPECT_EQ(ExtractCircleMarker(image, extractor, corners, camera, configs), image.cols == disc.cols); });
        };
        EXPECT_EQ(extract(empty), cv::format("MarkerExtractor.cpp:%s eye camera, failed to extract Marker Points.\n",
                                             camera == 0 ? "2411   CircleMarkerExtractor: Please check the left"
                                                         : "2418   CircleMarkerExtractor: Please check the right"));
        EXPECT_EQ(extract(disc), "");
        ASSERT_EQ(corners.size(), 1u);
        const double u = 240.0 / 500;  // distance to the right eye's axis: x moves out by about 0.2 u^3 f and more
        EXPECT_NEAR(corners[0].x, camera == 0 ? 60 : 60 - 500 * 0.2 * u * u * u, camera == 0 ? 0.01 : 4) << camera;
    }
}

/// What a host may have: an object that takes its time to go, after all that was made later.
struct LastToGo {
    ~LastToGo() {
        if (isEnding) std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    bool isEnding = false;
} lastToGo;

TEST(Logger, ServesWorkersWhileTheProcessEnds) {
    testing::FLAGS_gtest_death_test_style = "fast";
    const auto end = [] {
        if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
        lastToGo.isEnding = true;
        for (int worker = 0; worker < 2; ++worker) {
            std::thread([worker] {
                const CicrleConfigs configs = discConfigs(false);
                CircleMarkerExtractor extractor;
                for (std::vector<Corner> corners;;) ExtractCircleMarker({}, extractor, corners, worker, configs);
            }).detach();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::exit(0);
    };
    for (int run = 0; run < 20; ++run) EXPECT_EXIT(end(), testing::ExitedWithCode(0), "") << run;
}

}  // namespace kestrune::test::extractor

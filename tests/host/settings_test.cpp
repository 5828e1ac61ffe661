// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include "support/program.h"

namespace kestrune::host::settings_test {

TEST(HostSettings, ReadyFilesLoadForThePathOfTheirName) {
    enterOwnDirectory();
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator("ready")) {
        const std::string name = entry.path().stem();
        const Path expected = name.ends_with("complex") ? Path::complex : name.ends_with("radial") ? Path::radial : Path::simple;
        EXPECT_EQ(loadSettings(entry.path(), {}).path, expected) << name;
        ++files;
    }
    EXPECT_GE(files, 12);
    EXPECT_FALSE(loadSettings("ready/bright-radial.yaml", Path::simple).configs.useRadialContours);
    const CicrleConfigs told = loadSettings("ready/bright-complex.yaml", Path::radial).configs;
    EXPECT_TRUE(told.useRadialContours && !told.useComplexExtract);
}

TEST(HostSettings, RangesHoldBothTheirEnds) {
    const struct {
        const char* fields;
        double least, largest, step;
    } ranges[] = {{"minArea maxArea maxFitError maxPointError maxRowDifference minDepth maxDepth sizeTolerance", 0, 1e12, 1e9},
                  {"edgeLengthTolerance maxFitResidual minDiameter maxDiameter", 0, 1e12, 1e9},
                  {"minContourSize deviationFactor", 0, 1e9, 1},
                  {"minCircularity maxCircularity minConvexRatio maxConvexRatio nmsFactor", 0, 10, 0.01},
                  {"maxEccentricity minRadiusRatio minRayRatio minAxisRatio edgePercentile", 0, 1, 0.01},
                  {"cannyLow cannyHigh", 0, 362, 1},
                  {"aperture", 1, 255, 1},
                  {"sigma", 0, 40, 0.1},
                  {"scale", 1, 64, 1},
                  {"edgeAngleTolerance", 0, 6.3, 0.1},
                  {"thresholdC", -255, 255, 1},
                  {"contrast", 0, 255, 1}};
    enterOwnDirectory();
    const std::string good = readText("ready/bright-radial.yaml");
    for (const auto& [fields, least, largest, step] : ranges) {
        std::istringstream names(fields);
        for (std::string name; names >> name;) {
            for (const double value : {least - step, least, largest, largest + step}) {
                std::ofstream("given.yaml") << withLine(good, name + ":", cv::format("%s: %.10g", name.c_str(), value));
                const std::string told = test::refused([] { loadSettings("given.yaml", {}); });  // a pair may be out of order
                EXPECT_EQ(told.find(" is outside ") != std::string::npos, value < least || value > largest) << name << ' ' << value << told;
            }
        }
    }
}

TEST(HostSettings, BrokenFilesNameFieldAndValue) {
    const struct {
        const char *field, *line, *expected;  ///< expected empty: nothing is wrong
        std::optional<Path> path = {};
    } cases[] = {
        {"sigma", "", "field 'sigma' is missing"},
        {"sigma", "sgima: 1.0", "unknown field 'sgima'"},
        {"sigma", "sigma: 1.0\nsigma: 2.0", "field 'sigma' is there 2 times"},
        {"sigma", "sigma: wide", "field 'sigma': 'wide' is not a number"},
        {"sigma", "sigma: .Nan", "field 'sigma': .Nan is outside"},
        {"sigma", "sigma: .Inf", "field 'sigma': .Inf is outside"},
        {"sigma", "sigma: 0.16", "field 'sigma' 0.16: path simple", Path::simple},
        {"sigma", "sigma: 0.16", "", Path::radial},
        {"scale", "scale: 0", "field 'scale': 0 is outside 1 to 64"},
        {"scale", "scale: 2.0  # twice", "field 'scale': '2.0' is not a whole number"},
        {"scale", "scale: 4294967297", "field 'scale': 4294967297 is outside"},
        {"aperture", "aperture: 4", "field 'aperture' 4: must be odd"},
        {"aperture", "aperture: 1", "field 'aperture' 1: paths radial and complex need 3"},
        {"aperture", "aperture: 1", "", Path::simple},
        {"minRayRatio", "minRayRatio: 0", "field 'minRayRatio' 0: path radial"},
        {"minRayRatio", "minRayRatio: 0", "", Path::fast},
        {"minArea", "minArea: 1e9", "field 'minArea' 1e9 and 'maxArea' 7000.: wanted: min <= max"},
        {"useThreads", "useThreads: yes", "field 'useThreads': 'yes' is not true or false"},
        {"useThreads", "useThreads: 1", ""},
        {"useComplexExtract", "useComplexExtract: true", ""},
        {"aperture", "aperture: 1", "field 'aperture' 1: paths", Path::complex},
        {"sigma", "sigma: 0", "field 'sigma' 0: path complex", Path::complex},
        {"minDiameter", "minDiameter: 0", "field 'minDiameter' 0: path complex", Path::complex},
        {"minDiameter", "minDiameter: 0", "", Path::radial},
        {"maxDiameter", "maxDiameter: 9.5", "field 'minDiameter' 10. and 'maxDiameter' 9.5: wanted: min <= max"},
        {"minAxisRatio", "minAxisRatio: 1", "field 'minAxisRatio' 1: path complex", Path::complex},
        {"nmsFactor", "nmsFactor: 0", "field 'nmsFactor' 0: path complex", Path::complex},
        {"edgePercentile", "edgePercentile: 1", "field 'edgePercentile' 1: path complex", Path::complex},
        {"markerName", "markerName: 7", "field 'markerName': '7' is not a text"},
        {"markerRadii", "markerRadii: [1.5, -2]", "field 'markerRadii': -2 is outside"},
        {"markerRadii", "markerRadii: 2", "field 'markerRadii': '2' is not a list"},
        {"sigma", "sigma: [1", "is no readable YAML: line "},
        {"%YAML", "", "the first line must be %YAML:1.0"},
    };
    enterOwnDirectory();
    const std::string good = readText("ready/bright-radial.yaml");
    for (const auto& c : cases) {
        expectComplaint(
            withLine(good, c.field, c.line), [&c](const auto& file) { loadSettings(file, c.path); }, c.expected);
    }
    // All at once, so that a file is mended in one go.
    const auto load = [](const std::string& file) { loadSettings(file, {}); };
    const std::string many = expectComplaint(withLine(withLine(good, "scale", "scale: 0"), "sigma", ""), load, "field 'sigma' is missing");
    EXPECT_EQ(std::ranges::count(many, '\n'), 1) << many;
    for (const char* file : {"no-such-file.yaml", "ready"}) EXPECT_THROW(load(file), InputError);
}

}  // namespace kestrune::host::settings_test

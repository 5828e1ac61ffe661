// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerMetrology.h>

#include "dropped.h"
#include "explanation.h"
#include "settings/setting_rules.h"
#include "stereo_exposure.h"
#include "support/configs.h"
#include "support/program.h"

namespace kestrune::measure::settings_test {

/// Every ready file holds what its path reads and nothing else, in stereo too where it has stereo fields; each of them is
/// asked for by name.
TEST(HostSettings, ReadyFilesHoldWhatTheirPathReads) {
    enterOwnDirectory();
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator("ready")) {
        const std::string name = entry.path().stem(), text = readText(entry.path());
        const bool stereo = text.find("\n# Stereo") != std::string::npos, fast = name.ends_with("fast");
        const auto load = [&](const std::string& file) {
            return stereo ? readStereoSettings(file, {}) : readSettings(file, fast ? std::optional(Path::fast) : std::nullopt);
        };
        const Path path = load(entry.path()).path;
        EXPECT_TRUE(name.ends_with(path == Path::simple ? "subpixel" : nameOf(path))) << name;
        for (const SettingField& field : settingFields()) {
            const bool read = field.isReadBy(path, Use::extraction) || (stereo && field.isReadBy(path, Use::stereo));
            const std::string start = std::string(field.name) + ":";
            EXPECT_EQ(text.find("\n" + start) != std::string::npos, read) << name << ' ' << start;
            if (read && (!stereo || start != "skipUndistort:"))
                expectComplaint(withLine(text, start, ""), load, cv::format("field '%s' is missing: ", field.name));
        }
        ++files;
    }
    EXPECT_GE(files, 12);
    const auto fast = [](const auto& file) { readSettings(file, Path::fast); };
    expectComplaint(readText("ready/bright-radial.yaml"), fast, "field 'enableAreaFilter' is missing: path fast reads it\n");
    const auto stereo = [](const auto& file) { readStereoSettings(file, {}); };
    const std::string clutter = readText("ready/bright-clutter-subpixel.yaml"), good = readText("ready/bright-subpixel.yaml");
    expectComplaint(clutter, stereo, "field 'markerRadii' is missing: stereo with path simple reads it\n");
    expectComplaint(withLine(good, "scale", "scale: 2"), stereo, "field 'scale' 2: path simple measures in the reduced image");
    expectComplaint(withLine(good, "markerRadii", "markerRadii: [ 0 ]"), stereo, "names no radius");
}

/// What a command tells of an image.
std::string told(const Settings& settings, Use use, const std::array<cv::Mat, 2>& eyes, CircleMarkerExtractor extractor) {
    std::ostringstream text;
    try {
        if (use == Use::stereo) {
            const StereoResult result = measureExposure(extractor, eyes, settings, 0);
            for (const StereoMarker& m : result.markers) text << m.pixel[0] << m.point << m.normal << m.radius;
            text << pairExplanationTable(result, settings.configs);
            return text.str();
        }
        const std::vector<Marker> markers = findMarkers(extractor, eyes[0], 0, {}, settings);
        std::vector<Dropped> dropped;
        writeCsvRows(text, "", markers, pixelsOf(settings, {}));
        text << explanationTable(explainMarkers(extractor, eyes[0], 0, {}, settings, &dropped)) << droppedTable(dropped);
        text << extractor.markerName;
    } catch (const std::exception& e) {
        text << e.what();
    }
    return text.str();
}

struct SetTo {
    CicrleConfigs& configs;
    double value;

    template <typename T>
    void operator()(T CicrleConfigs::*member) const {
        if constexpr (std::is_same_v<T, std::string>)
            configs.*member = std::to_string(value);
        else if constexpr (std::is_same_v<T, std::vector<double>>)
            configs.*member = {value};
        else
            configs.*member = static_cast<T>(value);
    }
};

const SettingField& fieldNamed(const std::string& name) {
    return *std::ranges::find(settingFields(), name, &SettingField::name);
}

/// What a path does not read changes nothing that a command tells; what it reads does, at one end of its range at least.
TEST(HostSettings, PathsReadWhatTheTableSays) {
    // Fields that count only where another has this value.
    const std::map<std::string, std::pair<const char*, double>> companions = {{"enableCircularityFilter", {"minCircularity", 5}},
                                                                              {"enableConvexityFilter", {"minConvexRatio", 5}},
                                                                              {"maxFitError", {"maxPointError", 0}},
                                                                              {"maxPointError", {"maxFitError", 0}},
                                                                              {"radiusScoreGate", {"deviationFactor", 0}},
                                                                              {"looseSizeGate", {"markerRadii", 6}},
                                                                              {"plainRowGate", {"markerRadii", 6}},
                                                                              {"edgeLengthTolerance", {"maxRowDifference", 99}},
                                                                              {"edgeAngleTolerance", {"maxRowDifference", 99}}};
    enterOwnDirectory();
    const scene::Rig rig = scene::makeVergedRig({480, 384});
    const auto discs = scene::makeCurvedObject(rig, 8, 8, 12, 220, 3);
    const scene::Exposure exposure = scene::render(rig, discs, scene::makeClutter(rig, discs, 9, 3), {.background = 20});
    const auto& eyes = exposure.image;
    const cv::Point hidden(exposure.markers[0].eye[0].distortedCentre);
    cv::line(eyes[0], hidden, hidden + cv::Point(25, 0), 220, 4);  // lies on a part of the rim
    for (const auto& [ofReady, file] : {std::pair(Path::simple, "subpixel"),
                                        {Path::radial, "radial"},
                                        {Path::fast, "fast"},
                                        {Path::complex, "complex"},
                                        {Path::hand, "subpixel"}}) {
        const Path path = ofReady;
        for (const Use use : {Use::extraction, Use::stereo}) {
            if (use == Use::stereo && !canUndistort(path)) continue;
            const std::string ready = std::string("ready/bright-") + file + ".yaml";
            Settings settings = use == Use::stereo ? readStereoSettings(ready, path) : readSettings(ready, path);
            settings.configs.markerRadii = {8, 12}, settings.configs.plainRowGate = false;
            const auto tell = [&](const CicrleConfigs& c) { return told({c, path}, use, eyes, test::calibrated(rig)); };
            for (const double poison : {-7.0, 1e9}) {
                CicrleConfigs poisoned = settings.configs;
                for (const SettingField& field : settingFields())
                    if (!field.isReadBy(path, use)) std::visit(SetTo{poisoned, poison}, field.member);
                poisoned.useComplexExtract = path == Path::complex, poisoned.useRadialContours = path == Path::radial;
                if (use == Use::stereo) poisoned.skipUndistort = settings.configs.skipUndistort;  // the program's own
                EXPECT_EQ(tell(poisoned), tell(settings.configs)) << nameOf(path) << ' ' << poison;
            }
            std::string silent;
            for (const SettingField& field : settingFields()) {
                if (!field.isReadBy(path, use) || (use == Use::stereo && field.isReadBy(path, Use::extraction))) continue;
                CicrleConfigs changed = settings.configs;
                if (const auto companion = companions.find(field.name); companion != companions.end())
                    std::visit(SetTo{changed, companion->second.second}, fieldNamed(companion->second.first).member);
                std::visit(SetTo{changed, field.low}, field.member);
                const std::string low = tell(changed);
                std::visit(SetTo{changed, field.isRanged() ? field.high : 1}, field.member);
                if (tell(changed) == low) silent += std::string(" ") + field.name;
            }
            EXPECT_EQ(silent, path == Path::hand ? " maxPointError" : "") << nameOf(path) << static_cast<int>(use);
        }
    }
}

/// The guide has the row of every field, and a value of either side of each end is told from those within.
TEST(HostSettings, RangesAreThoseOfTheGuide) {
    enterOwnDirectory();
    const std::string guide = readText(KESTRUNE_SETTINGS_DIR "/../../docs/settings.md"), good = readText("ready/bright-radial.yaml");
    for (const SettingField& field : settingFields()) {
        const std::string range = field.isRanged() ? rangeText(field) : field.name == std::string("markerName") ? "text" : "switch";
        const std::string row = cv::format("\n| `%s` | %s | %s |\n", field.name, range.c_str(), readersText(field).c_str());
        EXPECT_NE(guide.find(row), std::string::npos) << row;
        if (!field.isRanged() || field.name == std::string("markerRadii")) continue;
        const double step = std::max(1.0, 1e-3 * field.high);
        const std::string start = std::string(field.name) + ":";
        for (const double value : {field.low - step, field.low, field.high, field.high + step}) {
            const std::string line = cv::format("%s: %.10g\n", field.name, value);
            std::ofstream("given.yaml") << (good.find(start) == std::string::npos ? good : withLine(good, start, "")) << line;
            const std::string complaint = test::refused([] { readSettings("given.yaml", {}); });  // a pair may be out of order
            EXPECT_EQ(complaint.find(" is outside ") != std::string::npos, value < field.low || value > field.high) << line << complaint;
        }
    }
}

TEST(HostSettings, BrokenFilesNameLineFieldAndValue) {
    const struct {
        const char *field, *line, *expected;  ///< expected empty: nothing is wrong
        std::optional<Path> path = {};
    } cases[] =
        {
            {"sigma", "sgima: 1.0", "line 20: unknown field 'sgima'"},
            {"sigma", "sigma: 1.0\nsigma: 2.0", "line 21: field 'sigma' is there again, after line 20"},
            {"sigma", "sigma: wide", "field 'sigma': 'wide' is not a number"},
            {"sigma", "sigma: \"1\"", "field 'sigma': '1' is not a number"},
            {"sigma", "sigma: [ 1 ]", "field 'sigma': '[...]' is not a number"},
            {"sigma", "sigma:", "field 'sigma': '' is not a number"},
            {"sigma", "sigma: .nan", "field 'sigma': .nan is outside"},
            {"sigma", "sigma: .inf", "field 'sigma': .inf is outside"},
            {"sigma", "sigma: 0.16", "line 20: field 'sigma' 0.16: path simple", Path::simple},
            {"sigma", "sigma: 0.16", ""},
            {"scale", "scale: 0", "field 'scale': 0 is outside 1 to 64"},
            {"scale", "scale: 2.0  # twice", "field 'scale': '2.0' is not a whole number"},
            {"scale", "scale: 4294967297", "field 'scale': 4294967297 is outside"},
            {"aperture", "aperture: 4", "field 'aperture' 4: must be odd"},
            {"aperture", "aperture: 1", "field 'aperture' 1: paths radial and complex need 3"},
            {"minRayRatio", "minRayRatio: 0", "field 'minRayRatio' 0: path radial"},
            {"minArea", "minArea: 1e9", "field 'minArea' 1e9 and 'maxArea' 7000.: wanted: min <= max"},
            {"refineAtFullSize", "refineAtFullSize: yes", "field 'refineAtFullSize': 'yes' is not true or false"},
            {"refineAtFullSize", "refineAtFullSize: 1", ""},
            {"useComplexExtract", "", "field 'useComplexExtract' is missing: it chooses the path"},
            {"useRadialContours", "", "field 'useRadialContours' is missing: it chooses the path"},
            {"useRadialContours", "", "", Path::radial},
            {"markerName", "markerName: 7", "field 'markerName': '7' is not a text"},
            {"markerRadii", "markerRadii: [1.5, -2]", "field 'markerRadii': -2 is outside"},
            {"markerRadii", "markerRadii: 2", "field 'markerRadii': '2' is not a list"},
            {"sigma", "sigma: [1", "is no readable YAML: line "},
            {"---", ",---", "holds no list of named fields"},
            {"%YAML", "", ""},
        },
      complexCases[] = {
          {"aperture", "aperture: 1", "field 'aperture' 1: paths"},
          {"sigma", "sigma: 0", "field 'sigma' 0: path complex"},
          {"minDiameter", "minDiameter: 0", "field 'minDiameter' 0: path complex"},
          {"maxDiameter", "maxDiameter: 3.5", "field 'minDiameter' 3.8 and 'maxDiameter' 3.5: wanted: min <= max"},
          {"minAxisRatio", "minAxisRatio: 1", "field 'minAxisRatio' 1: path complex"},
          {"nmsFactor", "nmsFactor: 0", "field 'nmsFactor' 0: path complex"},
          {"edgePercentile", "edgePercentile: 1", "field 'edgePercentile' 1: path complex"},
          {"sigma", "sigma: 1\ncannyLow: 400", "field 'cannyLow': 400 is outside"},  // whoever reads it
          {"sigma", "sigma: 1\ncannyLow: 40\ncannyHigh: 30", "field 'cannyLow' 40 and 'cannyHigh' 30: wanted: low <= high"},
          {"sigma", "sigma: 1\nuseRadialContours: true\nminRayRatio: 0", ""},
      };
    enterOwnDirectory();
    const std::string radial = readText("ready/bright-radial.yaml"), complex = readText("ready/bright-complex.yaml");
    const auto check = [](const std::string& text, const auto& c) {
        expectComplaint(
            withLine(text, c.field, c.line), [&c](const auto& file) { readSettings(file, c.path); }, c.expected);
    };
    for (const auto& c : cases) check(c.path == Path::simple ? readText("ready/bright-subpixel.yaml") : radial, c);
    for (const auto& c : complexCases) check(complex, c);
    // All at once, so that a file is mended in one go.
    const auto load = [](const std::string& file) { readSettings(file, {}); };
    const std::string many = expectComplaint(withLine(withLine(radial, "scale", "scale: 0"), "sigma", ""), load, "field 'sigma' is missing");
    EXPECT_EQ(std::ranges::count(many, '\n'), 1) << many;
    for (const char* file : {"no-such-file.yaml", "ready"}) EXPECT_THROW(load(file), InputError);
}

}  // namespace kestrune::measure::settings_test

// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerMetrology.h>

#include <limits>

#include "support/program.h"

namespace kestrune::measure::settings_writing_test {

/// What the settings say, read back from a file that they are written to.
std::string rewritten(const std::string& before, const Settings& settings, Use use = Use::extraction) {
    std::ofstream("given.yaml", std::ios::binary) << before;
    kestrune::writeSettings("given.yaml", settings, use);
    return readText("given.yaml");
}

/// A new file gives the same settings again, and writing what is there already changes no byte.
TEST(WriteSettings, GivesTheSameAgain) {
    enterOwnDirectory();
    for (const auto& entry : std::filesystem::directory_iterator("ready")) {
        const std::string text = readText(entry.path());
        const bool fast = entry.path().stem().string().ends_with("fast"), stereo = text.find("\n# Stereo") != std::string::npos;
        const Use use = stereo ? Use::stereo : Use::extraction;
        const Settings settings = readSettings(entry.path(), fast ? std::optional(Path::fast) : std::nullopt, use);
        EXPECT_EQ(rewritten(text, settings, use), text) << entry.path();
        const std::string fresh = rewritten("", settings, use);
        EXPECT_EQ(rewritten(fresh, readSettings("given.yaml", settings.path, use), use), fresh) << entry.path();
    }
}

TEST(WriteSettings, ChangesValuesWhereTheyStand) {
    struct Case {
        const char *before, *after;
    } cases[] = {
        {"sigma: 1.0   # px\n", "sigma: 1.25   # px\n"},
        {"# µm é\nsigma: 1.0 # µ\n# end", "# µm é\nsigma: 1.25 # µ\n# end"},
        {"sigma: 1.0\r\n# end\r\n", "sigma: 1.25\r\n# end\r\n"},
        {"sigma : !!float 1.0\n", "sigma : 1.25\n"},
        {"sigma: 1.250\n", "sigma: 1.250\n"},  // the same number
        {"markerRadii: [ 1, 2 ]  # mm\n", "markerRadii: [ 1.5, 2.5 ]  # mm\n"},
        {"markerRadii:  # mm\n  - 1\n  - 2\n# end\n", "markerRadii: [ 1.5, 2.5 ]\n# end\n"},
        {"markerName: \"a # b\"  # name\n", "markerName: \"plate \\\"7\\\"\"  # name\n"},
        {"markerName: 'it''s'\n", "markerName: \"plate \\\"7\\\"\"\n"},
        {"markerName:\n# end\n", "markerName: \"plate \\\"7\\\"\"\n# end\n"},
        {"cannyLow: 30\n", "cannyLow: 30\n"},  // not read, and nothing is said about it
        {"nmsFactor: 1\n", "nmsFactor: 0.96\n"},
        {"useComplexExtract: 0\n", "useComplexExtract: true\n"},
        {"sigma: ~  # px\n", "sigma: 1.25  # px\n"},
        {"minAxisRatio: &a 0.4\nsigma: *a\n", "minAxisRatio: &a 0.4\nsigma: 1.25\n"},
    };
    enterOwnDirectory();
    Settings settings = readSettings("ready/bright-complex.yaml", Path::complex, Use::stereo);
    settings.configs.sigma = 1.25, settings.configs.markerName = "plate \"7\"";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.before);
        const std::string after = rewritten(c.before, settings, Use::stereo);
        EXPECT_EQ(after.substr(0, std::string(c.after).size()), c.after);
        const Settings again = readSettings("given.yaml", Path::complex, Use::stereo);
        EXPECT_EQ(again.configs.markerName, settings.configs.markerName) << after;
        EXPECT_EQ(again.configs.nmsFactor, settings.configs.nmsFactor) << after;
    }
    EXPECT_NE(rewritten("sigma: 1", settings).find("sigma: 1.25\nmarkerName: "), std::string::npos);  // added on lines of their own
}

TEST(WriteSettings, RefusesWhatCouldNotBeReadAndLeavesTheFile) {
    enterOwnDirectory();
    const Settings good = readSettings("ready/bright-complex.yaml", Path::complex);
    const auto with = [&](const auto& change) {
        Settings settings = good;
        change(settings.configs);
        return settings;
    };
    struct Case {
        std::string before;
        Settings settings;
        const char* expected;
    } cases[] = {
        {"sigma: 1\n", with([](auto& c) { c.sigma = -1; }), "field 'sigma': -1 is outside 0 to 40"},
        {"sigma: 1\n", with([](auto& c) { c.sigma = std::numeric_limits<double>::quiet_NaN(); }), "field 'sigma'"},
        {"sigma: 1\n", with([](auto& c) { c.maxDiameter = 1; }), "'maxDiameter' 1: wanted: min <= max"},
        {"sigma: 1\nsigma: 2\n", good, "field 'sigma' is there again, after line 1"},
        {"sigmo: 1\n", good, "line 1: unknown field 'sigmo'"},
        {"{ sigma: 1 }\n", good, "stands in braces"},
        {"sigma: 1\n...\n", good, "is missing"},  // what is added behind the end of the document is not of it
        {"- 1\n", good, "holds no list of named fields"},
        {"  sigma: 1\n", good, "is missing"},
        {"markerName: |\n  two\n  lines\n", good, "has a form in which a value cannot be changed"},
    };
    for (const Case& c : cases) {
        const std::string what = test::refused([&] { rewritten(c.before, c.settings); });
        EXPECT_TRUE(what.starts_with("given.yaml: ")) << what;
        EXPECT_NE(what.find(c.expected), std::string::npos) << what;
        EXPECT_EQ(readText("given.yaml"), c.before);
    }
}

TEST(SettingsOf, TakesValuesOfAProgramAsAFileWould) {
    enterOwnDirectory();
    const Settings read = readSettings("ready/bright-fast.yaml", Path::fast);
    std::vector<std::pair<std::string, SettingValue>> values = {
        {"enableAreaFilter", read.configs.enableAreaFilter}, {"minArea", read.configs.minArea}, {"maxArea", std::int64_t{900}}};
    const std::string what = test::refused([&] { settingsOf(values, Path::fast); });
    EXPECT_TRUE(what.starts_with("settings: field 'enableCircularityFilter' is missing: path fast reads it\n")) << what;
    values.insert(values.end(), {{"markerRadii", std::vector<double>{1.5}}, {"sigma", std::string("1")}});
    EXPECT_NE(test::refused([&] { settingsOf(values, Path::fast); }).find("settings: field 'sigma': '1' is not a number\n"), std::string::npos);
}

/// Every number of a rig goes through its file; lines of what is wrong are those of the text.
TEST(RigFile, KeepsEveryNumberAndTellsLines) {
    enterOwnDirectory();
    const scene::Rig made = scene::makeVergedRig({640, 480});
    writeRig("rig.yaml", made);
    const Rig rig = readRig("rig.yaml"), again = rigOf(matricesOf(rig));
    EXPECT_LT(cv::norm(cv::Vec3d(again.poses[1].values + 9) - cv::Vec3d(rig.poses[1].values + 9)), 1e-12);
    EXPECT_EQ(again.rectifyFlags, 0);
    for (std::size_t eye = 0; eye < 2; ++eye)
        EXPECT_TRUE(std::equal(rig.cameras[eye].values, rig.cameras[eye].values + 10, again.cameras[eye].values));
    EXPECT_EQ(readText("rig.yaml").find("sigma"), std::string::npos);
    std::string text = readText("rig.yaml");
    const auto at = text.find("\nD2:");
    const long line = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n') + 2;
    text.replace(at, 4, "\nD2: 5\nD3:");
    expectComplaint(
        text, [](const std::string& file) { readRig(file); }, cv::format("line %ld: field 'D2' is missing or is no matrix", line));
    for (const char* level : {"[", "{\"a\":", "- "})
        expectComplaint(
            "%YAML:1.0\n---\nM1: " +
                [&] {
                    std::string deep;
                    for (int k = 0; k < 100'000; ++k) deep += level;
                    return deep;
                }(),
            [](const std::string& file) { readRig(file); }, "is nested too deeply");
    const std::string what = test::refused([&] {
        RigMatrices broken = matricesOf(rig);
        broken.rotation.at<double>(0, 0) += 1;
        rigOf(broken);
    });
    EXPECT_TRUE(what.starts_with("rig: field 'R' is no rotation")) << what;
}

/// Standard deviations are optional in both forms, as lists or matrices, and go through files.
TEST(RigFile, HoldsItsUncertainty) {
    enterOwnDirectory();
    const auto numbersOf = [](const RigUncertainty& u) { return std::tie(u.cameras, u.distortions, u.rotation, u.translation); };
    writeRig("rig.yaml", scene::makeVergedRig({640, 480}));
    const std::string matrices = readText("rig.yaml"),
                      records =
                          "%YAML:1.0\n---\n"
                          "cameras:\n   left: { fx: 700., fy: 700., cx: 320., cy: 240., distortion: [ 0, 0, 0, 0 ] }\n"
                          "   right: { fx: 700., fy: 700., cx: 320., cy: 240., distortion: [ 0, 0, 0, 0 ] }\n"
                          "poses:\n   left: { rotation: [ 1, 0, 0, 0, 1, 0, 0, 0, 1 ], position: [ 0, 0, 0 ] }\n"
                          "   right: { rotation: [ 1, 0, 0, 0, 1, 0, 0, 0, 1 ], position: [ 100, 0, 0 ] }\n";
    const std::string sigmas =
        "M1_sigma: [ 0.5, 0.6, 0.7, 0.8 ]\nD2_sigma: [ 1e-3, 2e-3, 3e-3, 4e-3, 5e-3, 0, 0, 0 ]\nR_sigma: [ 1e-4, 2e-4, 3e-4 ]\n"
        "T_sigma: !!opencv-matrix\n   rows: 3\n   cols: 1\n   dt: d\n   data: [ 0.1, 0.2, 0.3 ]\n";
    const RigUncertainty expected{{{{0.5, 0.6, 0.7, 0.8}, {}}}, {{{}, {1e-3, 2e-3, 3e-3, 4e-3, 5e-3}}}, {1e-4, 2e-4, 3e-4}, {0.1, 0.2, 0.3}};
    for (const std::string& form : {matrices, records}) {
        std::ofstream("given.yaml") << form << sigmas;
        const Rig rig = readRig("given.yaml");
        EXPECT_EQ(numbersOf(rig.uncertainty), numbersOf(expected));
        kestrune::writeRig("again.yaml", rig);
        EXPECT_EQ(numbersOf(readRig("again.yaml").uncertainty), numbersOf(expected));
        const long line = std::count(form.begin(), form.end(), '\n') + 1;
        const std::pair<std::string, std::string> cases[] = {
            {"M1_sigma: [ 1, 2, 3 ]", "'M1_sigma' is no list of numbers of 4"},
            {"M2_sigma: [ 1, 2, 3, x ]", "'M2_sigma' holds a value that is no finite number"},
            {"D1_sigma: [ 1, 2, 3, 4, -5 ]", "'D1_sigma' holds a negative number"},
            {"D1_sigma: [ 1, 2, 3, 4, 5, 6, 0, 0 ]", "'D1_sigma': only the first 5 can be other than 0"},
            {"R_sigma: 1e-4", "'R_sigma' is no list of numbers of 3"},
            {"T_sigma: !!opencv-matrix\n   rows: 2\n   cols: 1\n   dt: d\n   data: [ 1, 2 ]", "'T_sigma' holds 2 numbers, not 3"},
            {"T_sigma: { x: 1 }", "'T_sigma': "}};
        for (const auto& [text, what] : cases)
            expectComplaint(
                form + text + "\n", [](const std::string& file) { readRig(file); }, cv::format("line %ld: field ", line) + what);
    }
}

}  // namespace kestrune::measure::settings_writing_test

// SPDX-License-Identifier: Apache-2.0
//
// What becomes of the user's files: none is replaced by a result that is another's, a broken or an unfinished one.
#include <map>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "support/program.h"

namespace kestrune::measure::files_test {

const std::string kRadial = " --settings s.yaml ";

/// Names of all files here and what stands for their contents.
std::map<std::string, std::size_t> snapshot() {
    std::map<std::string, std::size_t> all;
    for (const auto& entry : std::filesystem::recursive_directory_iterator("."))
        if (entry.is_regular_file()) all[entry.path()] = entry.file_size() == 0 ? 0 : std::hash<std::string>()(readText(entry.path()));
    return all;
}

/// An exposure, its rig, settings and lists, each in a folder or under a link as users have them.
class HostFiles : public testing::Test {
  protected:
    void SetUp() override {
        enterOwnDirectory();
        const scene::Rig rig = scene::makeVergedRig({400, 320});
        const scene::Exposure exposure = scene::render(rig, scene::makeCurvedObject(rig, 6, 8, 12, 200, 1), {}, {});
        std::filesystem::create_directories("d");
        cv::imwrite("d/L.png", exposure.image[0]);
        cv::imwrite("d/R.png", exposure.image[1]);
        cv::imwrite("z.png", cv::Mat(320, 400, CV_16UC1, cv::Scalar(900)));
        writeRig("rig.yaml", rig);
        writeSettings("s.yaml", "ready/bright-radial.yaml", {{"markerRadii", "[ 8, 12 ]"}});
        writeSettings("u.yaml", "s.yaml", {{"skipUndistort", "false"}});
        std::ofstream("l.csv") << "x,y\n10,10\n", std::ofstream("r.csv") << "x,y\n10,10\n";
        std::ofstream("old.csv") << "earlier\n";
        std::filesystem::create_hard_link("d/L.png", "hard.csv");
        std::filesystem::create_symlink("d/L.png", "soft.csv");
        std::filesystem::create_symlink("unborn.csv", "dangling.csv");
        std::filesystem::create_directory_symlink("d", "e");
    }
};

TEST_F(HostFiles, NoOutputIsAnInputOrAnotherOutput) {
    const std::string extract = "extract d/L.png" + kRadial, explain = "explain d/L.png" + kRadial;
    const std::string stereo = "stereo --left d/L.png --right d/R.png --calibration rig.yaml" + kRadial;
    const std::string depth = "depth d/L.png z.png --calibration rig.yaml" + kRadial, match = "match l.csv r.csv --calibration rig.yaml ";
    const std::tuple<std::string, const char*, const char*> cases[] = {
        {extract + "--overlay d/L.png", "--overlay d/L.png", "IMAGE d/L.png"},
        {extract + "--csv e/../d/./L.png", "--csv e/../d/./L.png", "IMAGE d/L.png"},
        {extract + "--csv hard.csv", "--csv hard.csv", "IMAGE d/L.png"},
        {extract + "--csv soft.csv", "--csv soft.csv", "IMAGE d/L.png"},
        {extract + "--csv s.yaml", "--csv s.yaml", "--settings s.yaml"},
        {extract + "--calibration rig.yaml --csv $PWD/rig.yaml", "/rig.yaml", "--calibration rig.yaml"},
        {explain + "--csv e/new.png --out d/new.png", "--out d/new.png", "--csv e/new.png"},
        {explain + "--out d/L.png", "--out d/L.png", "IMAGE d/L.png"},
        {stereo + "--csv dangling.csv --json unborn.csv", "--json unborn.csv", "--csv dangling.csv"},
        {stereo + "--ply rig.yaml", "--ply rig.yaml", "--calibration rig.yaml"},
        {stereo + "--csv s.yaml --json d/R.png", "--csv s.yaml", "--json d/R.png: is the same file as --right d/R.png"},
        {depth + "--csv z.png", "--csv z.png", "DEPTH z.png"},
        {match + "--csv l.csv", "--csv l.csv", "LEFT l.csv"},
        {match + "--fundamental r.csv --csv ./r.csv", "--csv ./r.csv", "RIGHT r.csv"},
        {extract + "--csv d", "--csv d: is a folder", ""},
    };
    const auto before = snapshot();
    for (const auto& [arguments, output, other] : cases) {
        const auto [code, told] = shell(KESTRUNE_MEASURE " " + arguments);
        EXPECT_EQ(code, 2) << told;
        EXPECT_TRUE(told.find(output) != std::string::npos && told.find(other) != std::string::npos) << arguments << "\n" << told;
        EXPECT_EQ(snapshot(), before) << arguments;
    }
    // Where the program chooses the names, it finds free ones, also in the folder of the photographs.
    std::filesystem::copy("d/L.png", "d/o-L.png");
    for (const std::string& run : {stereo + "--overlay e", "extract d/L.png d/L.png d/o-L.png" + kRadial + "--overlay d/o.png"})
        expectOutcome(run, 0, "");
    auto after = snapshot();
    for (const char* made : {"./d/L-overlay.png", "./d/L-overlay-3d.png", "./d/o-L-overlay.png", "./d/o-L-overlay-2.png", "./d/o-o-L.png"})
        EXPECT_EQ(after.erase(made), 1u) << made;
    EXPECT_EQ(after.erase("./d/o-L.png"), 1u);
    EXPECT_EQ(after, before);
    // Results in one's own output are no clash.
    expectOutcome(stereo + "--csv /dev/null --json /dev/null --ply /dev/stdout", 0, "\nend_header\n");
    EXPECT_EQ(shell(KESTRUNE_MEASURE " " + extract + "--csv /dev/stdout > all.txt").first, 0);
    EXPECT_TRUE(readText("all.txt").find("image,id,") == 0 && readText("all.txt").find("6 markers\n") != std::string::npos) << readText("all.txt");
}

/// A disk without room, in each way that a test can have one, and inputs of which none can be read.
TEST_F(HostFiles, EarlierResultsSurviveWhateverFails) {
    std::string many;
    for (int i = 0; i < 200; ++i) many += " d/L.png";
    std::filesystem::copy("old.csv", "old.json");
    const std::string stereo = "stereo --calibration rig.yaml" + kRadial + "--left" + many + " --right" + many;
    const std::tuple<const char*, std::string, int, const char*> cases[] = {
        {"", "extract none.png" + kRadial + "--csv old.csv", 1, "old.csv: not written"},
        {"", "stereo --left none.png --right none.png --calibration rig.yaml --csv old.csv" + kRadial, 1, "no table is written"},
        {"", "explain none.png --csv old.csv" + kRadial, 1, "none.png"},
        {"", "depth none.png none.png --calibration rig.yaml --csv old.csv --settings u.yaml", 1, "none.png"},
        {"ulimit -f 8;", "extract" + many + kRadial + "--csv old.csv", 1, "old.csv: cannot be written: File too large"},
        {"ulimit -f 8;", stereo + " --csv old.csv --json /dev/null", 1, "old.csv: cannot be written: File too large"},
        {"ulimit -f 8;", stereo + " --json old.json", 1, "old.json: cannot be written: File too large"},
        {"ulimit -f 8;", "extract d/L.png --overlay o.png" + kRadial, 1, "o.png: cannot be written: File too large"},
        {"", "extract d/L.png --csv /dev/full" + kRadial, 1, "/dev/full: cannot be written: No space left on device"},
        {"", stereo + " --json /dev/full", 1, "/dev/full: cannot be written: No space left on device"},
        {"", "extract d/L.png --csv no/where.csv" + kRadial, 2, "where.csv: cannot be written: No such file or directory"},
    };
    const auto before = snapshot();
    for (const auto& [limit, arguments, code, expected] : cases) {
        if (kThreadSanitizer && *limit) continue;  // its own memory is in files
        const auto [got, told] = shell(limit + std::string(KESTRUNE_MEASURE " ") + arguments);
        EXPECT_EQ(got, code) << arguments.substr(0, 200) << "\n" << told;
        EXPECT_NE(told.find(expected), std::string::npos) << told;
        EXPECT_LT(std::ranges::count(told, '\n'), 100) << "the run went on";
        EXPECT_EQ(snapshot(), before) << arguments.substr(0, 200);
    }
    EXPECT_EQ(shell(KESTRUNE_MEASURE " settings > /dev/full").first, 1);
    EXPECT_EQ(shell(KESTRUNE_MEASURE " extract d/L.png --csv closed.csv >&- 2>&-" + kRadial).first, 0);
    EXPECT_EQ(readText("closed.csv").find("6 markers"), std::string::npos);
}

/// The first signal of either kind: whole tables that say what they lack. Later a complete run, which takes the mark away.
TEST_F(HostFiles, FirstSignalWritesWhatIsDone) {
    const std::string images = " $(yes d/L.png | head -3000)", right = " --right $(yes d/R.png | head -3000)";
    const std::tuple<const char*, int, std::string, const char*> cases[] = {
        {"INT", 130, "extract" + images + kRadial + "--csv t.csv", " of 3000 images are done"},
        {"TERM", 143, "extract" + images + kRadial + "--csv t.csv", " of 3000 images are done"},
        {"TERM", 143, "stereo --left" + images + right + kRadial + "--calibration rig.yaml --csv t.csv --json t.json --ply t.ply",
         " exposures are done"},
        {"KILL", 137, "extract" + images + kRadial + "--csv t.csv", ""},
        {"TERM", 143, "demo --size 240x240 --markers 2 --out demo", "the demonstration is not complete"},
    };
    for (const auto& [signal, expected, arguments, told] : cases) {
        std::ofstream("t.csv") << "earlier\n";
        std::filesystem::remove("t.csv.incomplete"), std::filesystem::remove("told");
        const auto [code, all] = shell(std::string(KESTRUNE_MEASURE " ") + arguments + " > told & for i in $(seq 1000); do [ -s told ] && break; " +
                                       "sleep 0.01; done; kill -" + signal + " $!; wait $!");
        EXPECT_EQ(code, expected) << all;
        EXPECT_NE(all.find(told), std::string::npos) << all;
        if (expected == 137) {  // as a second signal, or a lack of power
            EXPECT_EQ(readText("t.csv"), "earlier\n");
            shell("rm t.csv.*.part");
        }
        for (const auto& [name, content] : snapshot()) EXPECT_EQ(name.find(".part"), std::string::npos) << name;
        if (expected == 137 || arguments.starts_with("demo")) continue;
        const std::string table = readText("t.csv"), mark = readText("t.csv.incomplete");
        EXPECT_TRUE(table.ends_with('\n') && table.find("earlier") == std::string::npos && mark.find(" of 3000 ") != std::string::npos) << mark;
    }
    EXPECT_EQ(nlohmann::json::parse(readText("t.json"))["complete"], false);
    EXPECT_NE(readText("t.ply").find("\ncomment not complete: "), std::string::npos);
    expectOutcome("extract d/L.png --csv t.csv" + kRadial, 0, "");
    EXPECT_FALSE(std::filesystem::exists("t.csv.incomplete"));
}

}  // namespace kestrune::measure::files_test

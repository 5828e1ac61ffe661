// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include <kestrune/MarkerMetrology.h>
#include "files/inputs.h"
#include "image_file.h"
#include "support/calls.h"
#include "support/rigs.h"

namespace kestrune::measure {

#if defined(__has_feature)
constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
constexpr bool kThreadSanitizer = false;
#endif

/// Gives the running test an empty directory of its own to work in, with the ready settings under "ready". It goes with the
/// next one or with the process.
inline void enterOwnDirectory() {
    namespace fs = std::filesystem;
    struct Directory {
        std::string path = testing::TempDir() + "kestrune-XXXXXX";
        Directory() { fs::current_path(::mkdtemp(path.data()) == nullptr ? "" : path); }
        ~Directory() { fs::current_path(testing::TempDir()), fs::remove_all(path); }
    };
    static std::optional<Directory> directory;
    directory.emplace();
    fs::create_directory_symlink(KESTRUNE_SETTINGS_DIR, "ready");
}

inline void writeRig(const std::string& file, const scene::Rig& rig) {
    using namespace test;
    kestrune::writeRig(file, {{poseOf(rig.left), poseOf(rig.right)}, {cameraOf(rig.left), cameraOf(rig.right)}, rig.left.size, 0});
}

/// Exit code of a shell command and what came out of both streams.
inline std::pair<int, std::string> shell(const std::string& command) {
    FILE* pipe = ::popen(("{ " + command + "; } 2>&1").c_str(), "r");
    std::string output;
    std::array<char, 4096> part{};
    while (const std::size_t n = std::fread(part.data(), 1, part.size(), pipe)) output.append(part.data(), n);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

/// Runs the program, which must end with this code and say this.
inline void expectOutcome(const std::string& arguments, int expectedCode, const std::string& expected) {
    const auto [code, output] = shell(KESTRUNE_MEASURE " " + arguments);
    EXPECT_EQ(code, expectedCode) << arguments << "\n" << output;
    EXPECT_NE(output.find(expected), std::string::npos) << arguments << "\n" << output;
    EXPECT_EQ(output.find('\r'), std::string::npos) << "a progress bar where no terminal is";
}

/// `line` in place of the one that begins with `start`, or nothing.
inline std::string withLine(std::string text, const std::string& start, const std::string& line) {
    const auto at = ("\n" + text).find("\n" + start);
    return text.replace(at, text.find('\n', at) - at, line);
}

/// The settings of this file with other values of some fields.
inline void writeSettings(const std::string& file, const std::string& from, const std::vector<std::array<std::string, 2>>& fields) {
    std::string text = readText(from);
    for (const auto& [name, value] : fields) text = withLine(text, name + ":", name + ": " + value);
    std::ofstream(file) << text;
}

/// A loader must complain of this in a file of this text, or take it where nothing is expected. Gives all that it says.
template <typename Load>
std::string expectComplaint(const std::string& text, const Load& load, const std::string& expected) {
    std::ofstream("given.yaml") << text;
    const std::string what = test::refused([&] { load("given.yaml"); });
    EXPECT_EQ(what.empty(), expected.empty()) << expected << "\n" << what;
    EXPECT_TRUE(what.empty() || what.starts_with("given.yaml: ")) << what;
    EXPECT_NE(what.find(expected), std::string::npos) << expected << "\n" << what;
    return what;
}

struct Row {
    std::string first;
    std::vector<double> values;
};

/// The rows of a CSV file with this header, which holds numbers but for the first field of a row. Whatever else is no number
/// is NaN; only the last field may stand in quotes.
inline std::vector<Row> rowsOf(const std::string& file, const std::string& header) {
    std::vector<Row> rows;
    std::istringstream text(readText(file));
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line, header);
    while (std::getline(text, line)) {
        line.resize(std::min(line.size(), line.find('"')));
        std::istringstream fields(line);
        auto& [first, values] = rows.emplace_back();
        std::getline(fields, first, ',');
        for (std::string field; std::getline(fields, field, ',');) {
            char* end = nullptr;
            const double value = std::strtod(field.c_str(), &end);
            values.push_back(end == field.c_str() || *end != 0 ? NAN : value);
        }
        if (line.ends_with(',')) values.push_back(NAN);
        EXPECT_EQ(std::ranges::count(header, ','), std::ssize(values)) << line;
        values.resize(static_cast<std::size_t>(std::ranges::count(header, ',')));
    }
    return rows;
}

}  // namespace kestrune::measure

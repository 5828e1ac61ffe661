// SPDX-License-Identifier: Apache-2.0
#include "files/inputs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>
#include <vector>

namespace kestrune {
namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // as the system follows; more are a circle

fs::path withoutLinks(const fs::path& path) {
    std::error_code failed;
    const fs::path result = fs::weakly_canonical(path, failed);
    return failed ? path.lexically_normal() : result;
}

// OpenCV's parser calls itself for each level, and has no limit of its own; the deepest file of ours has five.
constexpr int kDeepestNesting = 200;

/// At most so many lists, maps and elements lie in each other, of brackets, tags and dashes.
int nestingOf(const std::string& text) {
    int open = 0, dashes = 0, deepest = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i], next = i + 1 < text.size() ? text[i + 1] : '\0';
        if (c == '\n') dashes = 0;
        if (c == '-' && (next == ' ' || next == '\t')) ++dashes;
        if (c == '[' || c == '{' || (c == '<' && next != '/')) ++open;
        if ((c == ']' || c == '}' || (c == '<' && next == '/')) && open > 0) --open;
        deepest = std::max(deepest, open + dashes);
    }
    return deepest;
}

}  // namespace

InputError::InputError(const std::string& file, const std::string& problem)
    : std::runtime_error(file + ": " + problem) {}

InputError::InputError(const std::string& text) : std::runtime_error(text) {}

fs::path placeOf(const std::string& file) {
    std::error_code failed;
    fs::path path = fs::absolute(file, failed);
    for (int links = 0; links < kMostLinks; ++links) {
        const fs::path name = path.filename();
        if (name.empty() || name == "." || name == "..") return withoutLinks(path);
        const fs::path folder = withoutLinks(path.parent_path());
        path = folder / name;
        const fs::path target = fs::read_symlink(path, failed);
        if (failed) return path;
        path = folder / target;  // the target alone where it is absolute
    }
    return path;
}

std::string readText(const std::string& file) {
    const auto failed = [&] { return InputError(file, "cannot be read: " + std::generic_category().message(errno)); };
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.c_str(), "rbe"), &std::fclose);
    if (!stream) throw failed();
    std::string text;
    struct stat about {};
    if (::fstat(::fileno(stream.get()), &about) == 0 && S_ISREG(about.st_mode))
        text.reserve(static_cast<std::size_t>(about.st_size));
    std::vector<char> part(1 << 16);
    while (const std::size_t n = std::fread(part.data(), 1, part.size(), stream.get())) text.append(part.data(), n);
    if (std::ferror(stream.get()) != 0) throw failed();  // a folder, for one
    if (text.empty()) throw InputError(file, "is empty");
    return text;
}

cv::FileStorage parseYaml(const std::string& file, const std::string& text) {
    if (nestingOf(text) > kDeepestNesting) throw InputError(file, "is nested too deeply for a file of this kind");
    try {
        cv::FileStorage storage(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
        if (storage.root().isMap()) return storage;
    } catch (const cv::Exception& error) {
        // The parser puts the line and what it stumbled over into the name of the function that failed.
        const auto place = error.func.find('(');
        if (error.code == cv::Error::StsParseError && place != std::string::npos) {
            throw InputError(file, "is no readable YAML: line " + error.func.substr(place));
        }
    }
    throw InputError(file, "holds no named fields (the first line must be %YAML:1.0, the second ---)");
}

std::string plainText(const std::exception& error) {
    const auto* fromOpenCv = dynamic_cast<const cv::Exception*>(&error);
    return fromOpenCv != nullptr ? fromOpenCv->err : error.what();
}

std::string plainText(const std::exception& error, const std::string& file) {
    if (dynamic_cast<const InputError*>(&error) != nullptr) return error.what();  // which may name another file
    return file + ": " + plainText(error);
}

}  // namespace kestrune

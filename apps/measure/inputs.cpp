// SPDX-License-Identifier: Apache-2.0
#include "inputs.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>
#include <vector>

namespace kestrune::measure {

std::string readText(const std::string& file) {
    const auto failed = [&] { return InputError(file, "cannot be read: " + std::generic_category().message(errno)); };
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.c_str(), "rbe"), &std::fclose);
    if (!stream) throw failed();
    std::string text;
    std::vector<char> part(1 << 16);
    while (const std::size_t n = std::fread(part.data(), 1, part.size(), stream.get())) text.append(part.data(), n);
    if (std::ferror(stream.get()) != 0) throw failed();  // a folder, for one
    if (text.empty()) throw InputError(file, "is empty");
    return text;
}

cv::FileStorage parseYaml(const std::string& file, const std::string& text) {
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

}  // namespace kestrune::measure

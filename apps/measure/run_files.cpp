// SPDX-License-Identifier: Apache-2.0
#include "run_files.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>

#include "files/inputs.h"
#include "files/output_file.h"

namespace kestrune::measure {

RunFiles::Identity RunFiles::identify(const std::string& file) {
    Identity identity{placeOf(file).string(), {}};
    struct stat found {};
    if (::stat(file.c_str(), &found) != 0) return identity;
    identity.id = FileId(found.st_dev, found.st_ino);
    identity.folder = S_ISDIR(found.st_mode);
    identity.nothing = S_ISCHR(found.st_mode) && found.st_rdev == makedev(1, 3);
    return identity;
}

const RunFiles::Entry* RunFiles::find(const Identity& identity, bool alsoInputs) const {
    const auto search = [&](const auto& index, const auto& key) -> const Entry* {
        const auto found = index.find(key);
        if (found == index.end()) return nullptr;
        for (const std::size_t i : found->second)
            if (alsoInputs || entries_[i].output) return &entries_[i];
        return nullptr;
    };
    if (identity.nothing) return nullptr;
    const Entry* entry = search(byPlace_, identity.place);
    return entry == nullptr && identity.id ? search(byId_, *identity.id) : entry;
}

void RunFiles::add(const Entry& entry) {
    if (entry.file.empty()) return;
    const Identity identity = identify(entry.file);
    if (const Entry* other = find(identity, entry.output)) {
        const Entry& output = entry.output ? entry : *other;
        const Entry& kept = entry.output ? *other : entry;
        problems_.push_back(fmt::format("{} {}: is the same file as {} {}, which it would replace", output.role,
                                        output.file, kept.role, kept.file));
    } else if (entry.output && identity.folder) {
        problems_.push_back(fmt::format("{} {}: is a folder", entry.role, entry.file));
    }
    byPlace_[identity.place].push_back(entries_.size());
    if (identity.id) byId_[*identity.id].push_back(entries_.size());
    entries_.push_back(entry);
}

void RunFiles::reads(const std::string& role, const std::string& file) {
    add({role, file, false});
}

void RunFiles::reads(const std::string& role, const std::vector<std::string>& files) {
    for (const std::string& file : files) add({role, file, false});
}

void RunFiles::writes(const std::string& role, const std::string& file) {
    add({role, file, true});
}

void RunFiles::writesTable(const std::string& role, const std::string& file) {
    add({role, file, true});
    if (!file.empty()) add({role, incompleteMark(file), true});
}

std::string RunFiles::claim(const std::string& role, const std::filesystem::path& folder, const std::string& stem,
                            std::initializer_list<const char*> endings) {
    const auto holder = [&](const std::string& name) -> const Entry* {
        for (const char* ending : endings)
            if (const Entry* entry = find(identify((folder / (name + ending)).string()), true)) return entry;
        return nullptr;
    };
    std::string base = stem, name = stem;
    for (const Entry* entry = holder(name); entry != nullptr; entry = holder(name)) {
        if (!entry->output && base == stem) {
            name = base = stem + "-overlay";
        } else {
            int& last = lastNumber_[(folder / base).string()];
            last = std::max(last, 1) + 1;
            name = fmt::format("{}-{}", base, last);
        }
    }
    for (const char* ending : endings) writes(role, (folder / (name + ending)).string());
    return name;
}

void RunFiles::check() const {
    if (problems_.empty()) return;
    std::string all = problems_.front();
    for (std::size_t i = 1; i < problems_.size(); ++i) all += "\n" + problems_[i];
    throw InputError(all);
}

}  // namespace kestrune::measure

// SPDX-License-Identifier: Apache-2.0
//
// The files of one run. A command names all that it will read and write, and the check refuses the run before anything
// is opened where an output is an input or another output. In a command:
//
//     RunFiles files;
//     files.reads("IMAGE", options.image);
//     files.reads("--settings", options.settings);
//     files.writesTable("--csv", options.csv);   // a name that is empty is no file
//     files.check();
//
// Pictures that the program names itself get their names from `claim`, which finds one that is free.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrune::measure {

class RunFiles {
  public:
    /// @param role  the option as the user knows it.
    void reads(const std::string& role, const std::string& file);
    void reads(const std::string& role, const std::vector<std::string>& files);

    void writes(const std::string& role, const std::string& file);

    /// The same of a table, which has a mark beside it when it is not complete (see output_file.h).
    void writesTable(const std::string& role, const std::string& file);

    /// A name for the pictures `folder/NAME` + ending of one image, free of those of the run and made after `stem`:
    /// `stem` itself, `stem-overlay` where an input has that name, and with a number where another picture has it.
    /// Inputs are named before. The pictures count as written.
    std::string claim(const std::string& role, const std::filesystem::path& folder, const std::string& stem,
                      std::initializer_list<const char*> endings);

    /// @throws InputError  with a line for each output that is another file of the run, or a folder. Both names and
    ///                     roles are told.
    void check() const;

  private:
    using FileId = std::pair<dev_t, ino_t>;

    struct Entry {
        std::string role, file;
        bool output;
    };

    /// What tells a file from others: its place, and where it is there already its number, since hard links share it.
    struct Identity {
        std::string place;
        std::optional<FileId> id;
        bool folder = false, nothing = false;  ///< nothing: the null device
    };

    static Identity identify(const std::string& file);
    const Entry* find(const Identity& identity, bool alsoInputs) const;
    void add(const Entry& entry);

    std::vector<Entry> entries_;
    std::map<std::string, std::vector<std::size_t>> byPlace_;
    std::map<FileId, std::vector<std::size_t>> byId_;
    std::map<std::string, int> lastNumber_;  ///< of the names claimed after one stem
    std::vector<std::string> problems_;
};

}  // namespace kestrune::measure

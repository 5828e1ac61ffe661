// SPDX-License-Identifier: Apache-2.0
#include "files/output_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <random>
#include <streambuf>
#include <system_error>

#include "files/inputs.h"

namespace kestrune {
namespace {

// Of the place's own name so much goes into the unfinished one, which file systems limit to 255 bytes.
constexpr std::size_t kNamePart = 200;
constexpr int kNameAttempts = 100;

std::string reasonText(int reason) {
    return "cannot be written: " + std::generic_category().message(reason);
}

/// The program's own output under another name, such as /dev/stdout: its descriptor, else -1. A file that the shell
/// opened for it must not be replaced while lines go there as well.
int ownStream(const struct stat& found) {
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat own {};
        if (::fstat(descriptor, &own) == 0 && own.st_dev == found.st_dev && own.st_ino == found.st_ino)
            return descriptor;
    }
    return -1;
}

}  // namespace

OutputError::OutputError(const std::string& file, int reason) : std::runtime_error(file + ": " + reasonText(reason)) {}

std::string incompleteMark(const std::string& file) {
    return file + ".incomplete";
}

/// Bytes on their way to a descriptor.
class OutputFile::Buffer : public std::streambuf {
  public:
    Buffer(std::string file, int descriptor) : file_(std::move(file)), descriptor_(descriptor) {
        setp(bytes_.data(), bytes_.data() + bytes_.size());
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() override {
        if (descriptor_ >= 0) ::close(descriptor_);
    }

    /// Some file systems tell only here that there was no room. Pipes and devices have nothing to synchronize.
    void finish(bool regular) {
        sync();
        const bool synced = !regular || ::fsync(descriptor_) == 0;
        const int reason = errno;
        const bool closed = ::close(std::exchange(descriptor_, -1)) == 0;
        if (!synced || !closed) throw OutputError(file_, synced ? errno : reason);
    }

  protected:
    int sync() override {
        const char* next = pbase();
        while (next < pptr() && reason_ == 0) {
            const ssize_t written = ::write(descriptor_, next, static_cast<std::size_t>(pptr() - next));
            if (written >= 0)
                next += written;
            else if (errno != EINTR)
                reason_ = errno;
        }
        // What a failed write left of the bytes is unknown: such a file is never completed.
        if (reason_ != 0) throw OutputError(file_, reason_);
        setp(bytes_.data(), bytes_.data() + bytes_.size());
        return 0;
    }

    int_type overflow(int_type c) override {
        sync();
        return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                               : sputc(traits_type::to_char_type(c));
    }

  private:
    std::string file_;
    int descriptor_, reason_ = 0;
    std::array<char, 1 << 16> bytes_{};
};

OutputFile::OutputFile() : stream_(nullptr) {}

OutputFile::~OutputFile() {
    if (!unfinished_.empty()) ::unlink(unfinished_.c_str());
}

void OutputFile::open(const std::string& file) {
    if (file.empty()) return;
    file_ = file;
    struct stat found {};
    const bool exists = ::stat(file.c_str(), &found) == 0;
    if (exists && S_ISDIR(found.st_mode)) throw InputError(file, reasonText(EISDIR));
    const int own = exists ? ownStream(found) : -1;
    if (own >= 0 || (exists && !S_ISREG(found.st_mode))) {
        const int descriptor =
            own >= 0 ? ::dup(own) : ::open(file.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);  // NOLINT(*-vararg)
        if (descriptor < 0) throw InputError(file, reasonText(errno));
        buffer_ = std::make_unique<Buffer>(file, descriptor);
    } else {
        place_ = placeOf(file).string();
        // To rename over a file needs leave to change its folder only; one that is read-only shall stay.
        if (exists && ::faccessat(AT_FDCWD, place_.c_str(), W_OK, AT_EACCESS) != 0)
            throw InputError(file, reasonText(errno));
        openBeside(place_);
    }
    stream_.rdbuf(buffer_.get());
    stream_.exceptions(std::ios::badbit);  // lets the buffer's own exception through
}

void OutputFile::openBeside(const std::string& place) {
    const std::filesystem::path path = place;
    std::random_device random;
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        const std::string name = fmt::format("{}.{:08x}.part", path.filename().string().substr(0, kNamePart), random());
        const std::string beside = (path.parent_path() / name).string();
        const int descriptor =
            ::open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);  // NOLINT(*-vararg)
        if (descriptor < 0 && errno == EEXIST) continue;
        if (descriptor < 0) throw InputError(file_, reasonText(errno));
        unfinished_ = beside;
        buffer_ = std::make_unique<Buffer>(file_, descriptor);
        struct stat earlier {};
        if (::stat(place.c_str(), &earlier) == 0) {
            // Whoever runs it, the result belongs to whom the earlier one did, as far as the system lets it.
            [[maybe_unused]] const int given = ::fchown(descriptor, earlier.st_uid, earlier.st_gid);
            ::fchmod(descriptor, earlier.st_mode & 07777);
        }
        return;
    }
    throw InputError(file_, reasonText(EEXIST));
}

void OutputFile::flush() {
    if (isOpen()) stream_.flush();
}

void OutputFile::finish() {
    buffer_->finish(!unfinished_.empty());
    stream_.exceptions(std::ios::goodbit);
    stream_.rdbuf(nullptr);
    buffer_.reset();
}

void OutputFile::takePlace() {
    if (unfinished_.empty()) return;
    if (::rename(unfinished_.c_str(), place_.c_str()) != 0) throw OutputError(file_, errno);
    unfinished_.clear();
}

void OutputFile::commit() {
    if (!isOpen()) return;
    finish();
    takePlace();
}

void OutputFile::commitTable(const std::string& held) {
    if (!isOpen()) return;
    finish();
    // The mark comes before the table and goes after it: at no time does one look complete that is not.
    const std::string mark = place_.empty() ? "" : incompleteMark(place_), text = held + "\n";
    if (!mark.empty() && !held.empty()) writeWhole(mark, text.data(), text.size());
    takePlace();
    if (!mark.empty() && held.empty()) ::unlink(mark.c_str());
}

void writeWhole(const std::string& file, const void* bytes, std::size_t size) {
    OutputFile output;
    output.open(file);
    output.stream().write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    output.commit();
}

}  // namespace kestrune

// SPDX-License-Identifier: Apache-2.0
#include "png_grey.h"

#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <opencv2/core/hal/intrin.hpp>
#include <optional>
#include <string_view>
#include <vector>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kestrune::measure {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t kSignatureSize = 8;
constexpr std::size_t kGreyHeadSize = 13;
constexpr std::size_t kChunkFrame = 12;  // length, name and sum
/// Chunks that change no grey pixel and that writers like to add.
constexpr std::array<std::string_view, 7> kNotes = {"bKGD", "cHRM", "gAMA", "pHYs", "sRGB", "tEXt", "tIME"};
constexpr std::size_t kLargestNote = 1 << 16;
constexpr std::uint32_t kLongestOfLibpng = 1'000'000;  // libpng refuses more
constexpr std::size_t kMostBytes = std::size_t{1} << 30;
/// Deflate makes at most so many bytes of one: a head that tells of more is not worth the memory.
constexpr std::size_t kLargestGain = 1032;
/// Of rows that are unfiltered while they are in the cache.
constexpr std::size_t kPartSize = 1 << 16;

std::uint32_t numberAt(const unsigned char* at) {
    return std::uint32_t{at[0]} << 24 | std::uint32_t{at[1]} << 16 | std::uint32_t{at[2]} << 8 | at[3];
}

struct Chunk {
    std::string_view name;
    Bytes data;
};

/// Takes the next chunk off the bytes. Nothing for one that is cut off or whose sum is wrong.
std::optional<Chunk> nextChunk(Bytes& bytes) {
    if (bytes.size() < kChunkFrame) return std::nullopt;
    const std::size_t length = numberAt(bytes.data());
    if (length > bytes.size() - kChunkFrame) return std::nullopt;
    const Bytes summed = bytes.subspan(4, length + 4);
    if (crc32_gzip_refl(0, summed.data(), summed.size()) != numberAt(bytes.data() + 8 + length)) return std::nullopt;
    bytes = bytes.subspan(length + kChunkFrame);
    return Chunk{{reinterpret_cast<const char*>(summed.data()), 4}, summed.subspan(4)};
}

/// What the chunks of a file hold. The compressed pixels are one piece.
struct Contents {
    std::uint32_t width = 0, height = 0;
    std::vector<unsigned char> pixels;

    std::size_t stride() const { return std::size_t{width} + 1; }  // each row begins with its filter
    std::size_t size() const { return stride() * height; }
};

/// Depth, colour, compression, filtering and interlacing of the files that are decoded here.
bool isPlainGrey(const Chunk& chunk) {
    constexpr std::array<unsigned char, 5> kPlainGrey = {8, 0, 0, 0, 0};
    return chunk.name == "IHDR" && chunk.data.size() == kGreyHeadSize &&
           std::equal(kPlainGrey.begin(), kPlainGrey.end(), chunk.data.begin() + 8);
}

/// Reads to the last chunk: pixels in one run of chunks, notes around them, nothing else.
bool readChunks(Bytes bytes, Contents& contents) {
    bool ended = false;
    while (const std::optional<Chunk> chunk = nextChunk(bytes)) {
        if (chunk->name == "IEND") return chunk->data.empty() && !contents.pixels.empty();
        if (chunk->name == "IDAT") {
            if (ended) return false;
            contents.pixels.insert(contents.pixels.end(), chunk->data.begin(), chunk->data.end());
        } else {
            if (std::ranges::find(kNotes, chunk->name) == kNotes.end() || chunk->data.size() > kLargestNote)
                return false;
            ended = !contents.pixels.empty();
        }
    }
    return false;
}

bool readContents(Bytes bytes, Contents& contents) {
    if (bytes.size() <= kSignatureSize) return false;
    bytes = bytes.subspan(kSignatureSize);
    const std::optional<Chunk> head = nextChunk(bytes);
    if (!head || !isPlainGrey(*head)) return false;
    contents.width = numberAt(head->data.data());
    contents.height = numberAt(head->data.data() + 4);
    if (contents.width - 1 >= kLongestOfLibpng || contents.height - 1 >= kLongestOfLibpng) return false;  // or 0
    if (contents.size() > kMostBytes || bytes.size() > kMostBytes) return false;
    if (contents.size() / kLargestGain > bytes.size()) return false;
    contents.pixels.reserve(bytes.size());
    return readChunks(bytes, contents);
}

/// ISA-L leaves the upper halves of the vector registers in use, and code that is compiled without AVX, ours and
/// OpenCV's, then runs at a sixth of its speed.
#if defined(__x86_64__)
[[gnu::target("avx")]] void clearUpperHalves() {
    _mm256_zeroupper();
}

void leaveVectors() {
    if (__builtin_cpu_supports("avx") != 0) clearUpperHalves();
}
#else
void leaveVectors() {}
#endif

/// Inflates the pixels part by part.
class Inflater {
  public:
    explicit Inflater(const Contents& contents) : state_(std::make_unique_for_overwrite<inflate_state>()) {
        isal_inflate_init(state_.get());
        state_->crc_flag = ISAL_ZLIB;
        state_->next_in = const_cast<unsigned char*>(contents.pixels.data());
        state_->avail_in = static_cast<std::uint32_t>(contents.pixels.size());
    }

    bool fill(std::span<unsigned char> part) { return take(part) == part.size(); }

    /// Whether nothing is left over, and the sum of all is right.
    bool isDone() {
        std::array<unsigned char, 1> more{};
        return take(more) == 0 && state_->block_state == ISAL_BLOCK_FINISH && state_->avail_in == 0 &&
               state_->read_in_length == 0;
    }

  private:
    std::size_t take(std::span<unsigned char> part) {
        state_->next_out = part.data();
        state_->avail_out = static_cast<std::uint32_t>(part.size());
        const int outcome = isal_inflate(state_.get());
        leaveVectors();
        if (outcome != ISAL_DECOMP_OK) return part.size() + 1;
        return part.size() - state_->avail_out;
    }

    std::unique_ptr<inflate_state> state_;
};

/// Whether the stream's head is right and no reference can reach back farther than it tells.
bool isUsualStream(const Contents& contents) {
    if (contents.pixels.size() < 2) return false;
    const unsigned method = contents.pixels[0], flags = contents.pixels[1];
    const bool whole = (method & 15) == 8 && (256 * method + flags) % 31 == 0 && (flags & 32) == 0;
    const unsigned window = method >> 4;
    return whole && (window == 7 || (window < 7 && contents.size() <= std::size_t{256} << window));
}

using Row = unsigned char*;
using ConstRow = const unsigned char*;

/// Each pixel was stored as its difference to the one before it: sums of 16 at a time, by doubling.
void undoSub(ConstRow from, Row to, std::size_t width) {
    std::size_t x = 0;
    unsigned char last = 0;
#if CV_SIMD128
    cv::v_uint8x16 carry = cv::v_setzero_u8();
    for (; x + 16 <= width; x += 16) {
        cv::v_uint8x16 sum = cv::v_load(from + x);
        sum = cv::v_add_wrap(sum, cv::v_rotate_left<1>(sum));
        sum = cv::v_add_wrap(sum, cv::v_rotate_left<2>(sum));
        sum = cv::v_add_wrap(sum, cv::v_rotate_left<4>(sum));
        sum = cv::v_add_wrap(sum, cv::v_rotate_left<8>(sum));
        cv::v_store(to + x, cv::v_add_wrap(sum, carry));
        carry = cv::v_add_wrap(carry, cv::v_setall_u8(cv::v_extract_n<15>(sum)));
    }
    if (x > 0) last = to[x - 1];
#endif
    for (; x < width; ++x) to[x] = last = static_cast<unsigned char>(last + from[x]);
}

void undoUp(ConstRow from, ConstRow above, Row to, std::size_t width) {
    for (std::size_t x = 0; x < width; ++x) to[x] = static_cast<unsigned char>(from[x] + above[x]);
}

void undoAverage(ConstRow from, ConstRow above, Row to, std::size_t width) {
    unsigned left = 0;
    for (std::size_t x = 0; x < width; ++x)
        to[x] = static_cast<unsigned char>(left = (from[x] + (left + above[x]) / 2) & 255);
}

/// The one of the three neighbours that is nearest to left + above - corner; of equal ones the first in that order.
void undoPaeth(ConstRow from, ConstRow above, Row to, std::size_t width) {
    int left = 0, corner = 0;
    for (std::size_t x = 0; x < width; ++x) {
        const int up = above[x];
        const int toLeft = std::abs(up - corner), toUp = std::abs(left - corner);
        const int toCorner = std::abs(left + up - 2 * corner);
        const int other = toUp <= toCorner ? up : corner;
        const int nearest = toLeft <= toUp && toLeft <= toCorner ? left : other;
        corner = up;
        left = (from[x] + nearest) & 255;
        to[x] = static_cast<unsigned char>(left);
    }
}

/// @param from  the filter, and the row as it was stored.
/// @return  false for a filter that there is not.
bool undoFilter(ConstRow from, ConstRow above, Row to, std::size_t width) {
    const unsigned char* stored = from + 1;
    switch (*from) {
        case 0:
            std::memcpy(to, stored, width);
            return true;
        case 1:
            undoSub(stored, to, width);
            return true;
        case 2:
            undoUp(stored, above, to, width);
            return true;
        case 3:
            undoAverage(stored, above, to, width);
            return true;
        case 4:
            undoPaeth(stored, above, to, width);
            return true;
        default:
            return false;
    }
}

}  // namespace

cv::Mat decodeGreyPng(std::span<const unsigned char> bytes) {
    Contents contents;
    if (!readContents(bytes, contents) || !isUsualStream(contents)) return {};
    Inflater inflater(contents);
    const std::size_t width = contents.width, height = contents.height, stride = contents.stride();
    const std::size_t rowsOfPart = std::min(std::max<std::size_t>(1, kPartSize / stride), height);
    std::vector<unsigned char> part(rowsOfPart * stride);
    const std::vector<unsigned char> nothing(width);  // above the first row
    const unsigned char* above = nothing.data();
    cv::Mat image(static_cast<int>(height), static_cast<int>(width), CV_8UC1);
    for (std::size_t y = 0; y < height; ++y) {
        const std::size_t inPart = y % rowsOfPart;
        if (inPart == 0 && !inflater.fill(std::span(part).first(std::min(rowsOfPart, height - y) * stride))) return {};
        unsigned char* row = image.ptr(static_cast<int>(y));
        if (!undoFilter(part.data() + inPart * stride, above, row, width)) return {};
        above = row;
    }
    return inflater.isDone() ? image : cv::Mat();
}

}  // namespace kestrune::measure

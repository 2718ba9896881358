#include "common/rpm/Decompressor.h"

#include <algorithm>
#include <array>
#include <bzlib.h>
#include <future>
#include <list>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

// A stream is four bytes, then blocks, then its end. Blocks and the end begin, at any bit, with a mark of 48
// bits and a checksum of 32, and no block needs another. So the stream is cut at its marks, and each block is
// given to libbz2 as a stream of its own. Data may look like a mark by chance: what does not decompress is
// tried again together with what follows it.

namespace Common::Rpm {

namespace {

constexpr std::uint64_t blockMark = 0x314159265359;
constexpr std::uint64_t endMark = 0x177245385090;
constexpr std::size_t markBits = 48;
constexpr std::size_t checksumBits = 32;
constexpr std::size_t readSize = std::size_t{64} * 1024;
constexpr std::size_t largestBlock = std::size_t{4} * 1024 * 1024; // 900,000 symbols of 20 bits, and tables
constexpr int mostJoins = 8;

using Bytes = std::vector<std::uint8_t>;

/// The bits from one mark to the next.
struct Section {
    Bytes bytes;
    std::size_t firstBit; ///< below 8
    std::size_t endBit;

    [[nodiscard]] bool isWhole() const { return endBit - firstBit >= markBits + checksumBits; }

    [[nodiscard]] std::uint64_t bits(std::size_t from, std::size_t count) const {
        std::uint64_t value = 0;
        for (auto bit = firstBit + from; bit < firstBit + from + count; ++bit) {
            value = value << 1U | (bytes[bit / 8] >> (7 - bit % 8) & 1U);
        }
        return value;
    }
    [[nodiscard]] std::uint64_t mark() const { return bits(0, markBits); }
    [[nodiscard]] std::uint32_t checksum() const {
        return static_cast<std::uint32_t>(bits(markBits, checksumBits));
    }

    void join(const Section& next) {
        bytes.resize(endBit / 8); // the byte that both have is whole in the next one
        endBit = bytes.size() * 8 + next.endBit;
        bytes.insert(bytes.end(), next.bytes.begin(), next.bytes.end());
    }
};

class SectionReader {
public:
    explicit SectionReader(UniqueFd file)
        : file_(std::move(file)) {}

    /// @return the first character of the stream that tells the size of its blocks
    char blockSize() {
        std::array<std::uint8_t, 4> header{};
        const bool known = readCompressed(file_, header) == header.size() && header[0] == 'B' &&
                           header[1] == 'Z' && header[2] == 'h' && header[3] >= '1' && header[3] <= '9';
        if (!known) {
            throwDamagedPayload();
        }
        return static_cast<char>(header[3]);
    }

    /// @return nothing at the end of the file
    std::optional<Section> next() {
        while (place_ < buffer_.size() || refill()) {
            window_ = window_ << 8U | buffer_[place_];
            ++place_;
            if (const auto mark = markInWindow()) {
                return cut(*mark);
            }
        }
        return buffer_.empty() ? std::nullopt : std::optional(cut(buffer_.size() * 8));
    }

private:
    /// @return first bit of a mark that ends in the window's last byte
    [[nodiscard]] std::optional<std::size_t> markInWindow() const {
        constexpr std::uint64_t mask = (std::uint64_t{1} << markBits) - 1;
        for (std::size_t shift = 0; shift < 8; ++shift) {
            const auto bits = window_ >> shift & mask;
            const auto end = place_ * 8 - shift;
            if ((bits == blockMark || bits == endMark) && end > firstBit_ + markBits) {
                return end - markBits;
            }
        }
        return std::nullopt;
    }

    Section cut(std::size_t endBit) {
        const auto begin = buffer_.begin();
        Section section{{begin, begin + static_cast<std::ptrdiff_t>((endBit + 7) / 8)}, firstBit_, endBit};
        buffer_.erase(begin, begin + static_cast<std::ptrdiff_t>(endBit / 8));
        place_ -= endBit / 8;
        firstBit_ = endBit % 8;
        return section;
    }

    bool refill() {
        const auto held = buffer_.size();
        if (held > largestBlock) {
            return false;
        }
        buffer_.resize(held + readSize);
        buffer_.resize(held + readCompressed(file_, std::span(buffer_).subspan(held)));
        return buffer_.size() > held;
    }

    UniqueFd file_;
    Bytes buffer_; ///< from the byte on in which the present section begins
    std::size_t firstBit_ = 0;
    std::size_t place_ = 0; ///< of the next byte to look at
    std::uint64_t window_ = 0;
};

class BitWriter {
public:
    void put(std::uint64_t bits, std::size_t count) {
        pending_ = pending_ << count | bits;
        held_ += count;
        while (held_ >= 8) {
            held_ -= 8;
            bytes_.push_back(static_cast<std::uint8_t>(pending_ >> held_));
        }
    }

    Bytes finish() {
        put(0, (8 - held_) % 8);
        return std::move(bytes_);
    }

private:
    Bytes bytes_;
    std::uint64_t pending_ = 0;
    std::size_t held_ = 0;
};

Bytes streamOf(const Section& block, char blockSize) {
    BitWriter stream;
    for (const char letter : {'B', 'Z', 'h', blockSize}) {
        stream.put(static_cast<std::uint8_t>(letter), 8);
    }
    const auto lead = 8 - block.firstBit;
    stream.put(block.bytes[0] & ((1U << lead) - 1), lead);
    const auto wholeBytes = block.endBit / 8;
    for (std::size_t place = 1; place < wholeBytes; ++place) {
        stream.put(block.bytes[place], 8);
    }
    const auto rest = block.endBit % 8;
    stream.put(block.bits(block.endBit - block.firstBit - rest, rest), rest);
    stream.put(endMark, markBits);
    stream.put(block.checksum(), checksumBits); // of one block it is that of the whole stream
    return stream.finish();
}

/// @return nothing if the section is not one block, whole and undamaged
std::optional<Bytes> contentOf(const Section& section, char blockSize) {
    if (!section.isWhole() || section.mark() != blockMark) {
        return std::nullopt;
    }
    auto stream = streamOf(section, blockSize);
    bz_stream state{};
    if (BZ2_bzDecompressInit(&state, 0, 0) != BZ_OK) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<bz_stream, int (*)(bz_stream*)> owner(&state, BZ2_bzDecompressEnd);
    state.next_in = reinterpret_cast<char*>(stream.data());
    state.avail_in = static_cast<unsigned>(stream.size());
    Bytes content;
    int result = BZ_OK;
    while (result == BZ_OK && state.avail_out == 0) {
        const auto used = content.size();
        content.resize(std::max(used * 2, std::size_t{1024} * 1024));
        state.next_out = reinterpret_cast<char*>(content.data() + used);
        state.avail_out = static_cast<unsigned>(content.size() - used);
        result = BZ2_bzDecompress(&state);
    }
    if (result == BZ_MEM_ERROR) {
        throw std::bad_alloc();
    }
    content.resize(content.size() - state.avail_out);
    return result == BZ_STREAM_END && state.avail_in == 0 ? std::optional(std::move(content)) : std::nullopt;
}

class Bzip2Decompressor : public Decompressor {
public:
    explicit Bzip2Decompressor(UniqueFd file)
        : sections_(std::move(file)) {}

    std::span<const std::uint8_t> next() override {
        if (blockSize_ == 0) {
            blockSize_ = sections_.blockSize();
            lookForEnd();
        }
        if (ended_) {
            return {};
        }
        content_ = block();
        lookForEnd(); // before the last content is given away: the end's checksum is about all of it
        return content_;
    }

private:
    /// A list's element stays in its place while a thread reads it.
    struct Job {
        Section section;
        std::future<std::optional<Bytes>> content;
    };

    void lookAhead() {
        while (jobs_.size() < most_) {
            auto section = sections_.next();
            if (!section) {
                return;
            }
            auto& job = jobs_.emplace_back(Job{std::move(*section), {}});
            // A thread, or, where none is to be had, this one when it asks for the content.
            job.content =
                std::async([&section = job.section, size = blockSize_] { return contentOf(section, size); });
        }
    }

    Bytes block() {
        auto content = jobs_.front().content.get();
        for (int join = 0; !content && join < mostJoins; ++join) {
            content = contentWithNext();
        }
        if (!content) {
            throwDamagedPayload();
        }
        checksum_ = (checksum_ << 1U | checksum_ >> 31U) ^ jobs_.front().section.checksum();
        jobs_.pop_front();
        return std::move(*content);
    }

    std::optional<Bytes> contentWithNext() {
        lookAhead();
        const auto next = std::next(jobs_.begin());
        if (next == jobs_.end()) {
            return std::nullopt;
        }
        next->content.wait();
        jobs_.front().section.join(next->section);
        jobs_.erase(next);
        return contentOf(jobs_.front().section, blockSize_);
    }

    void lookForEnd() {
        lookAhead();
        if (jobs_.empty() || !jobs_.front().section.isWhole()) {
            throwDamagedPayload();
        }
        const auto& section = jobs_.front().section;
        ended_ = section.mark() == endMark;
        if (ended_ && section.checksum() != checksum_) {
            throwDamagedPayload();
        }
    }

    const std::size_t most_ = std::clamp(std::thread::hardware_concurrency(), 2U, 4U) + 1;
    SectionReader sections_;
    char blockSize_ = 0;
    std::list<Job> jobs_;
    Bytes content_;
    std::uint32_t checksum_ = 0;
    bool ended_ = false;
};

} // namespace

std::unique_ptr<Decompressor> bzip2Decompressor(UniqueFd file) {
    return std::make_unique<Bzip2Decompressor>(std::move(file));
}

} // namespace Common::Rpm

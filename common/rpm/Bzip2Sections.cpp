#include "common/rpm/Bzip2Sections.h"

#include "common/rpm/Decompressor.h"

#include <array>

namespace Common::Rpm::Bzip2 {

namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;
constexpr std::size_t largestBlock = std::size_t{4} * 1024 * 1024; // 900,000 symbols of 20 bits, and tables

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

} // namespace

std::uint64_t Section::bits(std::size_t from, std::size_t count) const {
    std::uint64_t value = 0;
    for (auto bit = firstBit + from; bit < firstBit + from + count; ++bit) {
        value = value << 1U | (bytes[bit / 8] >> (7 - bit % 8) & 1U);
    }
    return value;
}

void Section::join(const Section& next) {
    bytes.resize(endBit / 8); // the byte that both have is whole in the next one
    endBit = bytes.size() * 8 + next.endBit;
    bytes.insert(bytes.end(), next.bytes.begin(), next.bytes.end());
}

Bytes Section::asStream(char blockSize) const {
    BitWriter stream;
    for (const char letter : {'B', 'Z', 'h', blockSize}) {
        stream.put(static_cast<std::uint8_t>(letter), 8);
    }
    stream.put(bits(0, 8 - firstBit), 8 - firstBit);
    for (std::size_t place = 1; place < endBit / 8; ++place) {
        stream.put(bytes[place], 8);
    }
    const auto rest = endBit % 8;
    stream.put(bits(endBit - firstBit - rest, rest), rest);
    stream.put(endMark, markBits);
    stream.put(checksum(), checksumBits); // of one block it is that of the whole stream
    return stream.finish();
}

char SectionReader::blockSize() {
    std::array<std::uint8_t, 4> header{};
    const bool known = readCompressed(file_, header) == header.size() && header[0] == 'B' &&
                       header[1] == 'Z' && header[2] == 'h' && header[3] >= '1' && header[3] <= '9';
    if (!known) {
        throwDamagedPayload();
    }
    return static_cast<char>(header[3]);
}

std::optional<Section> SectionReader::next() {
    while (place_ < buffer_.size() || refill()) {
        window_ = window_ << 8U | buffer_[place_];
        ++place_;
        if (const auto mark = markInWindow()) {
            return cut(*mark);
        }
    }
    return buffer_.empty() ? std::nullopt : std::optional(cut(buffer_.size() * 8));
}

// The first bit of a mark that ends in the window's last byte.
std::optional<std::size_t> SectionReader::markInWindow() const {
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

Section SectionReader::cut(std::size_t endBit) {
    const auto begin = buffer_.begin();
    Section section{{begin, begin + static_cast<std::ptrdiff_t>((endBit + 7) / 8)}, firstBit_, endBit};
    buffer_.erase(begin, begin + static_cast<std::ptrdiff_t>(endBit / 8));
    place_ -= endBit / 8;
    firstBit_ = endBit % 8;
    return section;
}

bool SectionReader::refill() {
    const auto held = buffer_.size();
    if (held > largestBlock) {
        return false;
    }
    buffer_.resize(held + readSize);
    buffer_.resize(held + readCompressed(file_, std::span(buffer_).subspan(held)));
    return buffer_.size() > held;
}

} // namespace Common::Rpm::Bzip2

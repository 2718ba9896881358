#include "common/rpm/Decompressor.h"

#include <algorithm>
#include <array>
#include <isa-l/igzip_lib.h>
#include <utility>

namespace Common::Rpm {

namespace {

constexpr std::size_t compressedSize = std::size_t{64} * 1024;
constexpr std::size_t plainSize = std::size_t{128} * 1024;
constexpr std::array<std::uint8_t, 2> magic{0x1f, 0x8b};

class GzipDecompressor : public Decompressor {
public:
    explicit GzipDecompressor(UniqueFd file)
        : file_(std::move(file)) {
        isal_inflate_init(&state_);
        state_.crc_flag = ISAL_GZIP;
    }

    std::span<const std::uint8_t> next() override {
        state_.next_out = plain_.data();
        state_.avail_out = plain_.size();
        while (state_.avail_out > 0 && !ended_) {
            step();
        }
        return std::span(plain_).first(plain_.size() - state_.avail_out);
    }

private:
    void step() {
        const auto in = state_.avail_in;
        const auto out = state_.avail_out;
        if (isal_inflate(&state_) < 0) {
            throwDamagedPayload();
        }
        const bool idle = state_.avail_in == in && state_.avail_out == out;
        if (state_.block_state == ISAL_BLOCK_FINISH) {
            endMember();
        } else if (idle && (in > 0 || !refill())) {
            throwDamagedPayload();
        }
    }

    bool refill() {
        std::copy_n(state_.next_in, state_.avail_in, compressed_.begin());
        const auto count = readCompressed(file_, std::span(compressed_).subspan(state_.avail_in));
        state_.next_in = compressed_.data();
        state_.avail_in += static_cast<std::uint32_t>(count);
        return count > 0;
    }

    void endMember() {
        if (state_.avail_in < magic.size()) {
            refill();
        }
        ended_ = state_.avail_in < magic.size() || !std::equal(magic.begin(), magic.end(), state_.next_in);
        if (!ended_) {
            isal_inflate_reset(&state_);
        }
    }

    UniqueFd file_;
    inflate_state state_;
    std::array<std::uint8_t, compressedSize> compressed_;
    std::array<std::uint8_t, plainSize> plain_;
    bool ended_ = false;
};

} // namespace

std::unique_ptr<Decompressor> gzipDecompressor(UniqueFd file) {
    return std::make_unique<GzipDecompressor>(std::move(file));
}

} // namespace Common::Rpm

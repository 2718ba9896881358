#include "common/rpm/Bzip2Sections.h"
#include "common/rpm/Decompressor.h"

#include <algorithm>
#include <bzlib.h>
#include <future>
#include <iterator>
#include <list>
#include <memory>
#include <new>
#include <thread>
#include <utility>

namespace Common::Rpm {

namespace {

using Bzip2::Section;

// Data may look like a mark: a section that is no block is tried again together with those that follow it.
constexpr int mostJoins = 8;
constexpr std::size_t worthAThread = std::size_t{16} * 1024;

/// One block's content, piece by piece: all of it at once unless it is one of those that a few bytes in the
/// file blow up to fifty million.
class Block {
public:
    /// Decompresses the first piece.
    Block(const Section& section, char blockSize) {
        if (!section.isWhole() || section.mark() != Bzip2::blockMark) {
            return;
        }
        stream_ = section.asStream(blockSize);
        if (BZ2_bzDecompressInit(&decoder_, 0, 0) != BZ_OK) {
            throw std::bad_alloc();
        }
        decoder_.next_in = reinterpret_cast<char*>(stream_.data());
        decoder_.avail_in = static_cast<unsigned>(stream_.size());
        piece_ = std::make_unique_for_overwrite<std::uint8_t[]>(pieceSize);
        decompress();
    }

    void decompress() {
        decoder_.next_out = reinterpret_cast<char*>(piece_.get());
        decoder_.avail_out = pieceSize;
        result_ = BZ2_bzDecompress(&decoder_);
        if (result_ == BZ_MEM_ERROR) {
            throw std::bad_alloc();
        }
    }

    /// Whether there is no more after this piece.
    [[nodiscard]] bool isEnded() const { return result_ == BZ_STREAM_END && decoder_.avail_in == 0; }
    /// False for what is no block, a part of one and a damaged one. A part of one does not get as far as a
    /// piece, unless it was made to.
    [[nodiscard]] bool isSound() const { return isEnded() || (result_ == BZ_OK && decoder_.avail_out == 0); }
    [[nodiscard]] std::span<const std::uint8_t> piece() const {
        return {piece_.get(), pieceSize - decoder_.avail_out};
    }

private:
    static constexpr unsigned pieceSize = 4U * 1024 * 1024;

    struct Decoder : bz_stream {
        Decoder()
            : bz_stream{} {}
        ~Decoder() { BZ2_bzDecompressEnd(this); }
        Decoder(const Decoder&) = delete;
        Decoder& operator=(const Decoder&) = delete;
    };

    Bzip2::Bytes stream_;
    Decoder decoder_;
    std::unique_ptr<std::uint8_t[]> piece_;
    int result_ = BZ_DATA_ERROR;
};

class Bzip2Decompressor : public Decompressor {
public:
    explicit Bzip2Decompressor(UniqueFd file)
        : sections_(std::move(file)) {}

    std::span<const std::uint8_t> next() override {
        if (blockSize_ == 0) {
            blockSize_ = sections_.blockSize();
            lookForEnd();
        }
        while (!ended_) {
            advance();
            if (!block_->piece().empty()) {
                return block_->piece();
            }
        }
        return {};
    }

private:
    /// A list's element stays in its place while a thread reads it.
    struct Job {
        Section section;
        std::future<std::unique_ptr<Block>> block;
    };

    void advance() {
        if (!block_ || block_->isEnded()) {
            takeBlock();
        } else {
            block_->decompress();
            requireSound();
        }
        if (block_->isEnded()) {
            lookForEnd(); // before this piece is given away: the end's checksum is about it as well
        }
    }

    void requireSound() const {
        if (!block_->isSound()) {
            throwDamagedPayload();
        }
    }

    void takeBlock() {
        block_ = jobs_.front().block.get();
        for (int join = 0; !block_->isSound() && join < mostJoins; ++join) {
            joinWithNext();
        }
        requireSound();
        checksum_ = (checksum_ << 1U | checksum_ >> 31U) ^ jobs_.front().section.checksum();
        jobs_.pop_front();
    }

    void joinWithNext() {
        lookAhead();
        const auto next = std::next(jobs_.begin());
        if (next == jobs_.end()) {
            throwDamagedPayload();
        }
        next->block.wait();
        auto& section = jobs_.front().section;
        section.join(next->section);
        jobs_.erase(next);
        block_ = std::make_unique<Block>(section, blockSize_);
    }

    void lookForEnd() {
        lookAhead();
        if (jobs_.empty() || !jobs_.front().section.isWhole()) {
            throwDamagedPayload();
        }
        const auto& section = jobs_.front().section;
        ended_ = section.mark() == Bzip2::endMark;
        if (ended_ && section.checksum() != checksum_) {
            throwDamagedPayload();
        }
    }

    void lookAhead() {
        while (jobs_.size() < most_) {
            auto section = sections_.next();
            if (!section) {
                return;
            }
            auto& job = jobs_.emplace_back(Job{std::move(*section), {}});
            // A thread, or, where none is to be had or worth it, this one when it asks for the block.
            const auto policy = job.section.bytes.size() < worthAThread
                                    ? std::launch::deferred
                                    : std::launch::async | std::launch::deferred;
            job.block = std::async(policy, [&section = job.section, size = blockSize_] {
                return std::make_unique<Block>(section, size);
            });
        }
    }

    const std::size_t most_ = std::clamp(std::thread::hardware_concurrency(), 2U, 4U) + 1;
    Bzip2::SectionReader sections_;
    char blockSize_ = 0;
    std::list<Job> jobs_;
    std::unique_ptr<Block> block_; ///< whose piece was given last
    std::uint32_t checksum_ = 0;
    bool ended_ = false;
};

} // namespace

std::unique_ptr<Decompressor> bzip2Decompressor(UniqueFd file) {
    return std::make_unique<Bzip2Decompressor>(std::move(file));
}

} // namespace Common::Rpm

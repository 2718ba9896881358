#include "common/rpm/ExtractFileIterator.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/rpm/Configuration.h"
#include "common/rpm/FileIterator.h"
#include "common/rpm/ReadAhead.h"

#include <rpm/rpmmacro.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Common::Rpm {

namespace {

constexpr std::size_t bytesPerBatch = std::size_t{256} * 1024;
constexpr std::size_t piecesPerBatch = 256;

/// The beginning of an entry, some of its content, or both.
struct Piece {
    std::optional<PayloadEntry> entry;
    std::span<const char> bytes; ///< in the batch
};

/// A stretch of the payload.
struct Batch {
    std::unique_ptr<char[]> bytes;
    std::size_t used = 0;
    std::vector<Piece> pieces;
};

/// Turns the payload into batches of pieces. Lives on the thread that reads ahead.
class Producer {
public:
    Producer(const Reader& reader, bool signConfigFiles)
        : files_(reader)
        , signConfigFiles_(signConfigFiles) {}

    bool fill(Batch& batch) {
        if (!batch.bytes) {
            batch.bytes = std::make_unique_for_overwrite<char[]>(bytesPerBatch);
        }
        batch.used = 0;
        batch.pieces.clear();
        while (batch.used < bytesPerBatch && batch.pieces.size() < piecesPerBatch) {
            Piece piece;
            if (remaining_ == 0 && !begin(piece)) {
                return false;
            }
            readContent(piece, batch);
            if (piece.entry || !piece.bytes.empty()) {
                batch.pieces.push_back(std::move(piece));
            }
        }
        return true;
    }

private:
    bool begin(Piece& piece) {
        if (!files_.next()) {
            return false;
        }
        piece.entry = describe();
        if (!piece.entry) {
            logWarning() << "unexpected entry type in rpm package";
        } else if (piece.entry->kind == EntryKind::RegularFile) {
            remaining_ = piece.entry->size;
        }
        return true;
    }

    void readContent(Piece& piece, Batch& batch) {
        if (remaining_ == 0) {
            return;
        }
        const auto size =
            static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, bytesPerBatch - batch.used));
        const std::span<char> bytes(batch.bytes.get() + batch.used, size);
        if (files_.read(bytes) != size) {
            throw Error(ErrorCode::BadPackage, "couldn't read content from rpm package");
        }
        piece.bytes = bytes;
        batch.used += size;
        remaining_ -= size;
    }

    std::optional<PayloadEntry> describe() {
        PayloadEntry entry;
        entry.path = files_.path();
        entry.permissions = files_.mode() & 0777U;
        entry.isSigned = isSigned();
        entry.fileIndex = static_cast<std::uint32_t>(files_.index());
        switch (files_.mode() & S_IFMT) {
        case S_IFDIR:
            entry.kind = EntryKind::Directory;
            return entry;
        case S_IFLNK:
            entry.kind = EntryKind::SymbolicLink;
            entry.linkTarget = files_.linkTarget();
            return entry;
        case S_IFREG:
            describeRegular(entry);
            return entry;
        default:
            return std::nullopt;
        }
    }

    void describeRegular(PayloadEntry& entry) {
        const auto links = files_.hardLinks();
        if (files_.hasContent()) {
            entry.kind = EntryKind::RegularFile;
            entry.size = files_.size();
            entry.digest = files_.digest();
            if (!links.empty()) {
                contentOfSet_[links.front()] = entry.path;
            }
            return;
        }
        const auto content = links.empty() ? contentOfSet_.end() : contentOfSet_.find(links.front());
        if (content == contentOfSet_.end()) {
            throw Error(ErrorCode::BadPackage, "the rpm package has a hard link to what is not in its set: " +
                                                   Common::quoted(entry.path));
        }
        entry.kind = EntryKind::HardLink;
        entry.linkTarget = content->second;
    }

    [[nodiscard]] bool isSigned() const {
        return (files_.flags() & RPMFILE_CONFIG) == 0 || (files_.mode() & 0111U) != 0 || signConfigFiles_;
    }

    FileIterator files_;
    bool signConfigFiles_;
    std::uint64_t remaining_ = 0;
    std::map<int, std::string> contentOfSet_; ///< by the first index of the set
};

/// The consumer's end: takes the batches apart again.
class Consumer : public EntryContent {
public:
    explicit Consumer(ReadAhead<Batch>& source)
        : source_(source) {}

    /// The next entry, past what is left of the present one; null at the end.
    const PayloadEntry* nextEntry() {
        do {
            if (!advance()) {
                return nullptr;
            }
        } while (!piece().entry);
        remaining_ = piece().entry->size;
        digest_.reset();
        entry_ = std::move(*piece().entry);
        unread_ = !piece().bytes.empty();
        checked_ = false;
        return &entry_;
    }

    std::span<const char> next() override {
        if (!digest_) {
            digest_.emplace(entry_.digest);
        }
        if (remaining_ == 0) {
            if (!std::exchange(checked_, true)) {
                checkDigest();
            }
            return {};
        }
        if (!std::exchange(unread_, false) && !advance()) {
            throw Error(ErrorCode::BadPackage, "couldn't read content from rpm package");
        }
        const auto bytes = piece().bytes;
        remaining_ -= bytes.size();
        digest_->update(bytes);
        return bytes;
    }

private:
    [[nodiscard]] Piece& piece() { return batch_.pieces[place_]; }

    bool advance() {
        if (++place_ < batch_.pieces.size()) {
            return true;
        }
        do {
            if (!source_.next(batch_)) {
                return false;
            }
        } while (batch_.pieces.empty());
        place_ = 0;
        return true;
    }

    void checkDigest() {
        if (!digest_->matches()) {
            throw Error(ErrorCode::BadPackage,
                        "the content of a file is not what the rpm package's header says: " +
                            Common::quoted(entry_.path));
        }
    }

    ReadAhead<Batch>& source_;
    Batch batch_;
    std::size_t place_ = 0;
    PayloadEntry entry_;
    std::optional<ContentDigest> digest_;
    std::uint64_t remaining_ = 0;
    bool unread_ =
        false; ///< whether the present piece, which began the entry, has content not yet handed out
    bool checked_ = false;
};

} // namespace

ExtractFileIterator::ExtractFileIterator(const Reader& reader)
    : reader_(reader) {
    readRpmConfiguration();
    signConfigFiles_ = rpmExpandNumeric("%{?_ima_sign_config_files}") != 0;
}

void ExtractFileIterator::forEach(const Visitor& visitor) const {
    ReadAhead<Batch> source([this]() -> ReadAhead<Batch>::Producer {
        const auto producer = std::make_shared<Producer>(reader_, signConfigFiles_);
        return [producer](Batch& batch) { return producer->fill(batch); };
    });
    Consumer content(source);
    while (const auto* entry = content.nextEntry()) {
        visitor(*entry, content);
    }
}

} // namespace Common::Rpm

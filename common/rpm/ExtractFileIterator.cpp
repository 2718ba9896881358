#include "common/rpm/ExtractFileIterator.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/rpm/Configuration.h"
#include "common/rpm/FileIterator.h"

#include <rpm/rpmmacro.h>

#include <map>
#include <optional>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Common::Rpm {

namespace {

/// Steps through the payload; gives the content of the entry that it is at.
class Payload : public EntryContent {
public:
    Payload(const Reader& reader, bool signConfigFiles)
        : files_(reader)
        , signConfigFiles_(signConfigFiles) {}

    /// The next entry, past what is left of the present one; null at the end.
    const PayloadEntry* nextEntry() {
        while (files_.next()) {
            if (auto entry = describe()) {
                entry_ = std::move(*entry);
                digest_.reset();
                isChecked_ = false;
                return &entry_;
            }
            logWarning() << "unexpected entry type in rpm package";
        }
        return nullptr;
    }

    std::span<const char> next() override {
        if (!digest_) {
            digest_.emplace(entry_.digest);
        }
        const auto bytes = std::span(buffer_).first(files_.read(buffer_));
        if (!bytes.empty()) {
            digest_->update(bytes);
        } else if (!std::exchange(isChecked_, true)) {
            checkDigest();
        }
        return bytes;
    }

private:
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
        if (files_.hasContent()) {
            entry.kind = EntryKind::RegularFile;
            entry.size = files_.size();
            entry.digest = files_.digest();
            if (files_.hasHardLinks()) {
                contentOfSet_[files_.file()] = entry.path;
            }
            return;
        }
        const auto content = contentOfSet_.find(files_.file());
        if (content == contentOfSet_.end()) {
            throw Error(ErrorCode::BadPackage, "the rpm package has a hard link to what is not in its set: " +
                                                   Common::quoted(entry.path));
        }
        entry.kind = EntryKind::HardLink;
        entry.linkTarget = content->second;
    }

    void checkDigest() {
        if (!digest_->matches()) {
            throw Error(ErrorCode::BadPackage,
                        "the content of a file does not match the rpm package's header: " +
                            Common::quoted(entry_.path));
        }
    }

    [[nodiscard]] bool isSigned() const {
        return (files_.flags() & RPMFILE_CONFIG) == 0 || (files_.mode() & 0111U) != 0 || signConfigFiles_;
    }

    FileIterator files_;
    bool signConfigFiles_;
    std::map<int, std::string> contentOfSet_; ///< by FileIterator::file()
    PayloadEntry entry_;
    std::optional<ContentDigest> digest_;
    bool isChecked_ = false;
    std::vector<char> buffer_ = std::vector<char>(std::size_t{64} * 1024);
};

} // namespace

ExtractFileIterator::ExtractFileIterator(const Reader& reader)
    : reader_(reader) {
    readRpmConfiguration();
    signConfigFiles_ = rpmExpandNumeric("%{?_ima_sign_config_files}") != 0;
}

void ExtractFileIterator::forEach(const Visitor& visitor) const {
    Payload payload(reader_, signConfigFiles_);
    while (const auto* entry = payload.nextEntry()) {
        visitor(*entry, payload);
    }
}

} // namespace Common::Rpm

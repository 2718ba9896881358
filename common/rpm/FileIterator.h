#pragma once

#include "common/rpm/ContentDigest.h"
#include "common/rpm/FileList.h"
#include "common/rpm/GzipStream.h"
#include "common/rpm/Reader.h"

#include <rpm/rpmfi.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>
#include <type_traits>
#include <vector>

namespace Common::Rpm {

/// Iterates over the payload of a package file in archive order. In each set of hard links the member with
/// the content comes first. Opens its own descriptor, so iterators over one reader are independent. Made,
/// used and destroyed on one thread.
class FileIterator {
public:
    /// Opens the payload. Throws Error, code BadPackage, "couldn't open rpm package for extraction", for a
    /// file list that librpm refuses and for an unknown payload format or compressor; BadPackage as well for
    /// a symbolic link of PATH_MAX bytes or more; Filesystem or Internal when no descriptor or thread is
    /// available.
    explicit FileIterator(const Reader& reader);

    /// Moves to the next entry, skipping the rest of the current one.
    /// @return false at the end of the archive
    /// Throws Error, code BadPackage, when the archive is damaged or truncated, has a duplicate entry or, at
    /// its end, lacks an entry of the header; code Filesystem when the file cannot be read.
    bool next();

    // The current entry, valid after next() returned true. Texts are as the header stores them.

    /// The index in the header's file list.
    [[nodiscard]] int index() const { return files_.headerIndex(rpmfiFX(iterator_.get())); }
    [[nodiscard]] std::string path() const;
    [[nodiscard]] mode_t mode() const { return rpmfiFMode(iterator_.get()); }
    [[nodiscard]] rpmfileAttrs flags() const { return rpmfiFFlags(iterator_.get()); }
    /// Size in bytes from the header, which librpm uses instead of the archive's.
    [[nodiscard]] std::uint64_t size() const { return rpmfiFSize(iterator_.get()); }
    [[nodiscard]] std::string linkTarget() const;
    /// Whether the archive has content for this entry; in a hard-link set only one member has.
    [[nodiscard]] bool hasContent() const { return rpmfiArchiveHasContent(iterator_.get()) != 0; }
    /// A number that identifies the entry's file: the same for all entries of a hard-link set.
    [[nodiscard]] int file() const { return files_.firstLink(rpmfiFX(iterator_.get())); }
    /// Whether the header lists further names of the entry's file.
    [[nodiscard]] bool hasHardLinks() const { return rpmfiFNlink(iterator_.get()) > 1; }
    [[nodiscard]] FileDigest digest() const;

    /// Reads content of the current entry until the buffer is full or the content ends.
    /// @return number of bytes read; fewer than the buffer's size: the content has ended
    /// Throws Error, code BadPackage, when the archive ends early; otherwise as next() does.
    std::size_t read(std::span<char> buffer);

    /// The number file() of the entry with this path, or -1 if the header does not list it.
    [[nodiscard]] int fileOf(const std::string& path) const {
        const int place = files_.find(path);
        return place < 0 ? place : files_.firstLink(place);
    }

private:
    void openPayload(const Reader& reader);
    void requireShortLinks() const;
    [[noreturn]] void fail(const std::string& message);
    void markSeen(int index);
    void checkComplete() const;

    UniqueFd file_;                      ///< the package, at the payload
    std::unique_ptr<GzipStream> stream_; ///< what payload_ reads from, if not the file itself
    FileList files_;
    std::unique_ptr<std::remove_pointer_t<FD_t>, int (*)(FD_t)> payload_;
    std::unique_ptr<std::remove_pointer_t<rpmfi>, rpmfi (*)(rpmfi)> iterator_;
    std::vector<bool> seen_;
    std::uint64_t taken_ = 0; ///< bytes read of the current entry's content
};

} // namespace Common::Rpm

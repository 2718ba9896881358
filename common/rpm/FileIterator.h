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

/// Steps through the payload of a package file in archive order; of each set of hard links the member that
/// carries the content comes first. Reads through a descriptor of its own, so iterators over one reader do
/// not disturb each other. Made, used and destroyed on one thread.
class FileIterator {
public:
    /// Opens the payload. Throws Error, code BadPackage, "couldn't open rpm package for extraction", for a
    /// file list that librpm does not take and for an unknown payload format or compressor; BadPackage as
    /// well for a symbolic link of PATH_MAX bytes or more. Code Filesystem or Internal, without descriptors
    /// or threads.
    explicit FileIterator(const Reader& reader);

    /// Moves to the next entry, skipping what is left of the present one.
    /// @return false at the end of the archive
    /// Throws Error, code BadPackage, when the archive is damaged or cut off, when it has an entry twice, and
    /// at its end when it lacks one that the header lists; code Filesystem, when the file cannot be read.
    bool next();

    // The present entry, valid after next() returned true. Texts are as the header stores them.

    /// The place in the header's file list.
    [[nodiscard]] int index() const { return files_.headerIndex(rpmfiFX(iterator_.get())); }
    [[nodiscard]] std::string path() const;
    [[nodiscard]] mode_t mode() const { return rpmfiFMode(iterator_.get()); }
    [[nodiscard]] rpmfileAttrs flags() const { return rpmfiFFlags(iterator_.get()); }
    /// Size in bytes as the header has it; librpm uses this one and not the archive's.
    [[nodiscard]] std::uint64_t size() const { return rpmfiFSize(iterator_.get()); }
    [[nodiscard]] std::string linkTarget() const;
    /// Whether the archive carries content for this entry: not so for the further members of a hard-link set.
    [[nodiscard]] bool hasContent() const { return rpmfiArchiveHasContent(iterator_.get()) != 0; }
    /// A number that all entries of a hard-link set have in common, and no others.
    [[nodiscard]] int file() const { return files_.firstLink(rpmfiFX(iterator_.get())); }
    /// Whether the header lists further names of the entry's file.
    [[nodiscard]] bool hasHardLinks() const { return rpmfiFNlink(iterator_.get()) > 1; }
    [[nodiscard]] FileDigest digest() const;

    /// Reads content of the present entry until the buffer is full or the content ends.
    /// @return number of bytes read; less than asked for means the end
    /// Throws Error, code BadPackage, when the archive ends before, and else as next() does.
    std::size_t read(std::span<char> buffer);

    /// What file() gives for an entry of this path, or -1 for a path that the header does not list.
    [[nodiscard]] int fileOf(const std::string& path) const {
        const int place = files_.find(path);
        return place < 0 ? place : files_.firstLink(place);
    }

private:
    void openPayload(const Reader& reader);
    void requireShortLinks() const;
    [[noreturn]] void fail(const std::string& words);
    void markSeen(int index);
    void checkComplete() const;

    UniqueFd file_;                      ///< the package, at the payload
    std::unique_ptr<GzipStream> stream_; ///< what payload_ reads from, if not the file itself
    FileList files_;
    std::unique_ptr<std::remove_pointer_t<FD_t>, int (*)(FD_t)> payload_;
    std::unique_ptr<std::remove_pointer_t<rpmfi>, rpmfi (*)(rpmfi)> iterator_;
    std::vector<bool> seen_;
    std::uint64_t taken_ = 0; ///< bytes of the present entry's content that were read
};

} // namespace Common::Rpm

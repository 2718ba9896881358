#pragma once

#include "common/UniqueFd.h"

#include <rpm/rpmio.h>
#include <rpm/rpmlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

namespace Common::Rpm {

/// Opens a package file for reading. Any thread.
/// Throws Error, code FileNotFound, for what cannot be opened or is not a regular file; code Filesystem for
/// an input or output error, and when there are no descriptors or no memory.
[[nodiscard]] UniqueFd openPackageFile(const std::string& path);

/// An open package file and its checked header. Copies share both; the file stays open as long as a copy
/// lives.
///
/// librpm's configuration is process-wide and may be loaded anew for each read. So every thread of a process
/// may construct, use and destroy readers, and one thread may go on with the reader of another, but no two
/// threads at the same time, not even with readers of different files.
class Reader {
public:
    /// The bytes that both headers of a package, the signature header and the main one, may have together.
    /// librpm takes 256 MiB, keeps all of it in memory and ends the process when there is not enough. A
    /// header has some 150 bytes for each file, so this is room for 200,000 files; applications have
    /// hundreds.
    static constexpr std::uint64_t maximumHeaderSize = 32UL * 1024 * 1024;

    /// Opens a package file and reads its header, checked by librpm's configured policy. Never blocks on
    /// something that is not a regular file. Starts no process and touches no file but the package and
    /// librpm's configuration, unless the package has an rpm signature: librpm's key database is opened for
    /// that.
    /// Throws Error: FileNotFound for what cannot be opened or is not a regular file, BadPackage for a file
    /// whose headers are larger than maximumHeaderSize or that librpm does not accept as a package,
    /// Filesystem when the file cannot be read or opened this time.
    explicit Reader(const std::string& path);

    /// Reads the header of a file from openPackageFile(). The reader's descriptor is a duplicate: locks,
    /// leases and the position belong to both. The path is for librpm's messages. Throws Error, code
    /// BadPackage or Filesystem.
    Reader(const UniqueFd& file, const std::string& path);

    /// Wraps a header that was read elsewhere, taking over the caller's reference. There is no file then.
    explicit Reader(Header header);

    /// The first string of a tag, byte for byte as the header stores it.
    /// Throws Error, code BadPackage, when the header has no such tag or its value is no string.
    [[nodiscard]] std::string getStringTag(rpmTag tag) const;

    /// The header; valid as long as a copy of this reader lives.
    [[nodiscard]] Header header() const { return header_.get(); }
    /// The file, positioned behind the header as reading left it; null for a reader made from a header.
    [[nodiscard]] FD_t file() const { return file_.get(); }

private:
    std::shared_ptr<std::remove_pointer_t<FD_t>> file_;
    std::shared_ptr<std::remove_pointer_t<Header>> header_;
};

} // namespace Common::Rpm

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
/// Throws Error, code FileNotFound, for a file that cannot be opened or is not regular; code Filesystem for
/// an input or output error, and when no descriptors or no memory are available.
[[nodiscard]] UniqueFd openPackageFile(const std::string& path);

/// An open package file and its checked header. Copies share both; the file stays open as long as a copy
/// lives.
///
/// librpm's configuration is process-wide and may be reloaded for each read. So any thread may construct, use
/// and destroy readers, also those of another thread, but never two threads at the same time, not even with
/// readers of different files.
class Reader {
public:
    /// Maximum size in bytes of the signature header and the main header together. librpm accepts 256 MiB,
    /// keeps all of it in memory and aborts when memory is short. A header has about 150 bytes for each file,
    /// so this suffices for 200,000 files; applications have hundreds.
    static constexpr std::uint64_t maximumHeaderSize = 32UL * 1024 * 1024;

    /// Opens a package file and reads its header, checked by librpm's configured policy. Never blocks on a
    /// file that is not regular. Starts no process and opens only the package and librpm's configuration; for
    /// a package with an rpm signature also librpm's key database.
    /// Throws Error: FileNotFound for a file that cannot be opened or is not regular; BadPackage for headers
    /// larger than maximumHeaderSize and for a file that librpm does not accept as a package; Filesystem for
    /// an input or output error or a lack of resources.
    explicit Reader(const std::string& path);

    /// Reads the header of a file from openPackageFile(). The reader's descriptor is a duplicate, which
    /// shares locks, leases and the position. The path is used in librpm's messages. Throws Error, code
    /// BadPackage or Filesystem.
    Reader(const UniqueFd& file, const std::string& path);

    /// Wraps a header that was read elsewhere and takes over the caller's reference. file() is then null.
    explicit Reader(Header header);

    /// The first string of a tag, byte for byte as the header stores it.
    /// Throws Error, code BadPackage, when the header has no such tag or its value is not a string.
    [[nodiscard]] std::string getStringTag(rpmTag tag) const;

    /// The header; valid as long as a copy of this reader lives.
    [[nodiscard]] Header header() const { return header_.get(); }
    /// The file, positioned after the header; null for a reader made from a header.
    [[nodiscard]] FD_t file() const { return file_.get(); }

private:
    std::shared_ptr<std::remove_pointer_t<FD_t>> file_;
    std::shared_ptr<std::remove_pointer_t<Header>> header_;
};

} // namespace Common::Rpm

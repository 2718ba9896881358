#pragma once

#include "common/rpm/Reader.h"

#include <filesystem>
#include <sys/stat.h>

namespace Core::ZUL {

class Package;

/// A package file that is held open and knows whether it is still the file that was opened: the same inode
/// with the same size and times, and never opened for writing meanwhile. Used by one thread at a time.
///
/// Times are not enough: a process that has the file mapped can write to pages that are dirty already without
/// changing them. So the file is held with a read lease (fcntl(2), F_SETLEASE), which is refused while the
/// file is open for writing and is lost when a process opens it for writing; such an open waits up to
/// /proc/sys/fs/lease-break-time seconds for this object to end. A process that neither owns the file nor has
/// CAP_LEASE gets no lease, nor does one on a file system without leases. Then only inode, size and times are
/// checked, and the caller has to pass a file that untrusted users cannot write to.
///
/// The kernel reports a lost lease by SIGURG, which does nothing by default; this class queries the lease
/// instead.
class PackageFile {
public:
    /// Opens the file and reads its header. Throws Common::Error as Common::Rpm::Reader does, and BadPackage
    /// when the file is open for writing or changes meanwhile.
    explicit PackageFile(const std::filesystem::path& path);

    [[nodiscard]] const Common::Rpm::Reader& reader() const { return reader_; }

    /// A path of the open file itself, also when its own path leads elsewhere now; valid in this process.
    [[nodiscard]] std::filesystem::path openFile() const;

    /// Throws Common::Error, code BadPackage, when the file was written to, or opened for it, since it was
    /// opened here; Filesystem when that cannot be found out.
    void requireUnchanged() const;

    /// Throws Common::Error, code BadPackage, when the path leads to anything but this file, unchanged;
    /// FileNotFound when it leads nowhere; Filesystem when that cannot be found out.
    void requireSame(const std::filesystem::path& path) const;

private:
    PackageFile(const Common::UniqueFd& file, const std::filesystem::path& path);

    bool isLeased_;
    struct stat opened_;
    Common::Rpm::Reader reader_;
};

/// The file that a validated package holds open.
[[nodiscard]] const PackageFile& fileOf(const Package& package);

} // namespace Core::ZUL

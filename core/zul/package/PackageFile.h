#pragma once

#include "common/rpm/Reader.h"

#include <filesystem>
#include <sys/stat.h>

namespace Core::ZUL {

class Package;

/// A package file that is held open. Detects changes: another inode, size or times, and an open for writing.
/// Used by one thread at a time.
///
/// Times are not sufficient: a process that has mapped the file can write to dirty pages without changing the
/// times. So a read lease (fcntl(2), F_SETLEASE) is taken. The kernel refuses the lease while the file is
/// open for writing, and breaks it when a process opens the file for writing; that open blocks up to
/// /proc/sys/fs/lease-break-time seconds until this object is destroyed. No lease is granted to a process
/// that neither owns the file nor has CAP_LEASE, or on a file system without leases. Then only inode, size
/// and times are checked, and untrusted users must not be able to write to the file.
///
/// The kernel reports a lost lease by SIGURG, which does nothing by default; this class queries the lease
/// instead.
class PackageFile {
public:
    /// Opens the file and reads its header. Throws Common::Error as Common::Rpm::Reader does, and BadPackage
    /// when the file is open for writing or changes during the call.
    explicit PackageFile(const std::filesystem::path& path);

    [[nodiscard]] const Common::Rpm::Reader& reader() const { return reader_; }

    /// A path of the open file itself, independent of the path it was opened by; valid in this process.
    [[nodiscard]] std::filesystem::path openFile() const;

    /// Throws Common::Error, code BadPackage, when the file was changed or opened for writing since it was
    /// opened here; Filesystem when that cannot be determined.
    void requireUnchanged() const;

    /// Requires that the path leads to this file, unchanged. Throws Common::Error: BadPackage; FileNotFound
    /// when the path does not exist; Filesystem when that cannot be determined.
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

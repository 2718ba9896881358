#pragma once

#include "common/rpm/Reader.h"

#include <filesystem>
#include <sys/stat.h>

namespace Core::ZUL {

/// A package file that is held open and knows whether it is still the file that was opened: the same inode
/// with the same size and times, and never opened for writing meanwhile. Used by one thread at a time.
///
/// The times alone would not tell: who has the file mapped can write to pages that are dirty already without
/// changing them. So the file is held with a read lease (fcntl(2), F_SETLEASE), which is not given while
/// somebody can write and is lost when somebody opens the file for writing; such an open waits up to
/// /proc/sys/fs/lease-break-time seconds for this object to end. A process that neither owns the file nor has
/// CAP_LEASE gets no lease, nor does one on a file system without leases. Inode, size and times are all that
/// is checked then, and the caller has to hand over a file that nobody hostile can write to.
///
/// The kernel tells of a lost lease by SIGURG, which does nothing by default; the loss is asked for instead.
class PackageFile {
public:
    /// Opens the file and reads its header. Throws Common::Error as Common::Rpm::Reader does, and BadPackage
    /// when somebody has the file open for writing or it changes meanwhile.
    explicit PackageFile(const std::filesystem::path& path);

    [[nodiscard]] const Common::Rpm::Reader& reader() const { return reader_; }

    /// A path that leads to the open file itself, whatever its own path now leads to; good for this process.
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

} // namespace Core::ZUL

#pragma once

#include "common/rpm/Reader.h"

#include <filesystem>
#include <sys/stat.h>

namespace Core::ZUL {

/// A package file that is held open and knows whether it is still the file that was opened: the same inode
/// with the same size and times. Used by one thread at a time.
class PackageFile {
public:
    /// Opens the file and reads its header. Throws Common::Error as Common::Rpm::Reader does, and BadPackage
    /// when the file changes meanwhile.
    explicit PackageFile(const std::filesystem::path& path);

    [[nodiscard]] const Common::Rpm::Reader& reader() const { return reader_; }

    /// A path that leads to the open file itself, whatever its own path now leads to; good for this process.
    [[nodiscard]] std::filesystem::path openFile() const;

    /// Throws Common::Error, code BadPackage, when the file was written to since it was opened.
    void requireUnchanged() const;

    /// Throws Common::Error, code BadPackage, when the path leads to anything but this file, unchanged;
    /// FileNotFound when it leads nowhere.
    void requireSame(const std::filesystem::path& path) const;

private:
    struct stat opened_;
    Common::Rpm::Reader reader_;
};

} // namespace Core::ZUL

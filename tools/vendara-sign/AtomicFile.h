#pragma once

#include "common/UniqueFd.h"

#include <filesystem>
#include <string_view>
#include <sys/types.h>

namespace Signing {

/// A file that appears under its name whole or not at all: written beside it under a temporary name, which
/// commit() makes the real one. Removed when the object ends before that. Used by one thread.
class AtomicFile {
public:
    /// @param path  the file to make or replace; where it is a symbolic link, the file that the link leads to
    /// @param mode  its permission bits
    /// Throws std::system_error whose text begins with a path, as commit() does.
    AtomicFile(const std::filesystem::path& path, mode_t mode);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_.get(); }
    [[nodiscard]] const std::filesystem::path& temporaryPath() const { return temporary_; }

    /// Appends. Throws std::system_error whose text begins with the path.
    void write(std::string_view bytes);

    /// Puts the file on the disk and under its name.
    void commit();

private:
    std::filesystem::path path_;
    std::filesystem::path temporary_;
    Common::UniqueFd descriptor_;
};

/// Writes all bytes. Throws std::system_error whose text begins with the path.
void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path);

} // namespace Signing

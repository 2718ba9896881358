#pragma once

#include "platform/signcms/PackageSignatures.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {

class OpenPackage;

/// A package file and the CMS signatures that it carries; libpkgverify.so.1. The file stays open as long as a
/// copy lives, so what is verified is the file that was read, also when its path changes. Copies share the
/// file; any thread may use them.
class [[gnu::visibility("default")]] FileWithCmses {
public:
    /// Opens a package file and reads its signatures, without verifying them.
    /// @param path  the file; "/proc/self/fd/N" opens what the caller already holds open, with a position
    ///              of its own. Never blocks, also not on a FIFO.
    /// @return nothing when the file cannot be opened, is not a regular file, does not begin as an rpm
    ///         package does, or carries signatures that are not in the one form that the format allows or do
    ///         not begin where the package's own headers say that it ends; the reason and the file's path are
    ///         then written to standard error, a line that begins with "WARN: ". A value with an empty list
    ///         for a package that ends without signatures
    [[nodiscard]] static std::optional<FileWithCmses> fromPath(const std::filesystem::path& path);

    /// Whether all signatures hold, now: each is made with its certificate's key over this file's very bytes,
    /// and its certificate chains to the authority, is valid at this moment and is meant for signing packages
    /// in a role that no other signature of the file has. Reads the whole file, in pieces.
    /// An empty list has nothing that does not hold and gives true: who wants a signature asks for one.
    /// @param caPath  PEM file of the authority's certificate, and of intermediate ones if there are any
    /// @return false also when the authority or the file cannot be read; the reason and the file's path are
    ///         then written to standard error, a line that begins with "WARN: "
    [[nodiscard]] bool verifyCmses(const std::filesystem::path& caPath) const;

    /// The signatures in the file's order, the developer's before the client's.
    [[nodiscard]] const std::vector<Cms>& cmses() const;

private:
    friend std::optional<std::string> verificationProblem(const FileWithCmses& file,
                                                          const std::filesystem::path& caPath);

    explicit FileWithCmses(std::shared_ptr<const OpenPackage> file);

    std::shared_ptr<const OpenPackage> file_;
};

/// Why verifyCmses() gives false, without writing it to standard error; nothing where it gives true. Any
/// thread. Weak: a device's library may lack it. Its address is null there.
[[nodiscard, gnu::visibility("default"), gnu::weak]] std::optional<std::string>
verificationProblem(const FileWithCmses& file, const std::filesystem::path& caPath);

} // namespace PackageSignatures

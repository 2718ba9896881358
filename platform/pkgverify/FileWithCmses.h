#pragma once

#include "platform/signcms/PackageSignatures.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {

class OpenPackage;

/// A package file and its CMS signatures; libpkgverify.so.1. Copies share the file, which stays open until
/// the last copy is destroyed, so the file that was read is verified even if its path changes. Any thread.
class [[gnu::visibility("default")]] FileWithCmses {
public:
    /// Opens a package file and reads its signatures, without verifying them.
    /// @param path  the file; "/proc/self/fd/N" opens a file that the caller has open, with its own position.
    ///              Never blocks, not even on a FIFO.
    /// @return an empty list of signatures for an unsigned package. Nothing when the file cannot be opened,
    ///         is not a regular file or an rpm package, or has signatures that are not encoded as the format
    ///         requires or do not begin at the end of the package according to its headers. The reason and
    ///         the path are then written to standard error, in a line that begins with "WARN: "
    [[nodiscard]] static std::optional<FileWithCmses> fromPath(const std::filesystem::path& path);

    /// Whether all signatures are valid now: each is made with its certificate's key over this file, and its
    /// certificate chains to the authority, is valid now and may sign packages in a role that no other
    /// signature of the file has. Reads the whole file, in pieces. True for an unsigned package: the caller
    /// checks that the signatures it requires are present.
    /// @param caPath  PEM file of the authority's certificate and any intermediate certificates
    /// @return false also when the authority or the file cannot be read; the reason and the path are then
    ///         written to standard error, in a line that begins with "WARN: "
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

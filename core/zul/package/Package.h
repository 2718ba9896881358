#pragma once

#include "core/zul/PackageIdentity.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace PackageSignatures {
class Cms;
} // namespace PackageSignatures

namespace Core::ZUL {

class PackageFile;

/// When a certificate expires (UTC); nothing if the platform's library does not provide it.
using Expiry = std::optional<std::chrono::sys_seconds>;

/// When the certificate of a signature's signer expires.
[[nodiscard]] Expiry expiryOf(const PackageSignatures::Cms& cms);

/// Sets an extended attribute of a file that is open for writing.
/// @return 0, or the errno value of the failure
using AttributeWriter = std::function<int(int file, const std::string& name, const std::string& value)>;

/// The default writer of extraction: fsetxattr(2). Any thread.
[[nodiscard]] int attachAttribute(int file, const std::string& name, const std::string& value);

/// Progress reports and cancellation of an extraction or a validation.
struct ExtractionWatch {
    /// Called on the calling thread. May throw, which ends the work.
    /// Extraction: called after each piece of content with the bytes written and the total from the package's
    /// header, which may be wrong; a total of 0 is unknown. Validation: called between files while the
    /// manifest is searched and after each piece that is read for the payload's digest, with the bytes
    /// unpacked and read. Not called while the signatures are verified.
    std::function<void(std::uint64_t done, std::uint64_t total)> progress = {};
    /// Ends the work with code Internal, "the extraction was stopped" or "the validation was stopped". An
    /// extraction checks it before each entry and after each piece of content, a validation when it reports
    /// progress.
    std::stop_token stop = {};
};

/// The source key identifier of a package that no client signed.
inline const std::string noSource = ".no.source.apps";

/// Files with the trusted certificates and the system developer's key.
struct Authorities {
    std::filesystem::path certificates = "/etc/keys/packages/ca.pem";                         ///< PEM
    std::filesystem::path systemDeveloperKeyId = "/etc/keys/packages/system-developer-keyid"; ///< one line
};

/// A validated package file that is held open. Copies share the file. It stays open, and processes that open
/// it for writing wait (see PackageFile), until the last copy is destroyed. A PackageIdentity copied from it
/// has no file. Used by one thread at a time.
class Package : public PackageIdentity {
public:
    /// Reads and validates a package file: header, manifest, signatures, payload digest. Writes nothing to
    /// disk, and decompresses the payload only up to the manifest. If the signatures are not valid, at most
    /// 8 MiB are decompressed in search of the manifest, and damage after that is not found.
    ///
    /// A payload without "/usr/share/applications/ID.desktop", and an unreadable file of the system
    /// developer's key, cause a warning in the log. Refused are, in the order of the checks:
    /// - what Common::Rpm::Reader refuses, and missing tags: FileNotFound, BadPackage;
    ///   BadPackage as well for a file that is open for writing
    /// - names that PackageIdentity refuses: BadPackageID, BadPackage
    /// - a source package and a truncated package (Common::Rpm::packageLength()): BadPackage
    /// - a manifest that is damaged, too large or not a regular file, or whose names PackageIdentity refuses:
    ///   BadPackage
    /// - signatures that cannot be read: BadPackage; signatures that are not valid, and a package without a
    ///   developer's signature: BadPackageSignature
    /// - a payload that does not match the header's digest: BadPackage
    /// - a file that another process writes to or opens for writing during the validation: BadPackage
    /// Other failures to read or to allocate resources are Filesystem or Internal.
    [[nodiscard]] static Package fromFile(const std::filesystem::path& file,
                                          const Authorities& authorities = {},
                                          const ExtractionWatch& watch = {});

    /// Unpacks the payload of the package file into a directory. System paths are translated to paths in the
    /// package by the mapping rules (see PackagePath). Files get their permissions; files to be signed get
    /// the attributes "security.ima", "user.TA.shdr" and "security.appid". Nothing outside the directory is
    /// changed. After a failure the files written so far stay; the caller removes them.
    ///
    /// Throws Common::Error: FileNotFound for a path that does not exist; BadPackage for a path that does not
    /// lead to the validated file, and for a file that was changed or opened for writing; BadPackage for a
    /// payload that is damaged, contradicts its header or has paths outside the directory; Filesystem;
    /// Internal for any other exception of the attribute writer or a library.
    /// @param file         the path given to fromFile(), or another path of the same file
    /// @param destination  created with missing parents if it does not exist
    /// @param attributes   sets attributes; replaced in tests and on systems without such attributes
    void extract(const std::filesystem::path& file, const std::filesystem::path& destination,
                 const AttributeWriter& attributes = attachAttribute,
                 const ExtractionWatch& watch = {}) const;

    [[nodiscard]] const std::string& architecture() const { return architecture_; }
    /// Throws Common::Error, code BadPackageArchitecture, unless the package is for this architecture or
    /// "noarch". The caller has to check this: neither fromFile() nor Database::installFile() does.
    /// @param platform  Common::getPlatformArchitecture() ("common/PlatformFacts.h"), or that of an image
    void requireArchitecture(const std::string& platform) const;
    /// The developer's signature. To use it include "platform/signcms/PackageSignatures.h".
    [[nodiscard]] const PackageSignatures::Cms& developerCms() const { return *developerCms_; }
    /// Key identifier of the developer's certificate.
    [[nodiscard]] const std::string& developerKeyId() const;
    /// Key identifier and subject of the client's certificate; noSource and an empty text if no client
    /// signed.
    [[nodiscard]] const std::string& sourceKeyId() const { return sourceKeyId_; }
    [[nodiscard]] const std::string& sourceSubject() const { return sourceSubject_; }
    /// Expiry of the developer's and of the client's certificate; nothing if no client signed.
    [[nodiscard]] const Expiry& developerExpiry() const { return developerExpiry_; }
    [[nodiscard]] const Expiry& sourceExpiry() const { return sourceExpiry_; }
    /// Whether the developer's key is the system developer's.
    [[nodiscard]] bool isSystemDeveloper() const { return isSystemDeveloper_; }

private:
    friend const PackageFile& fileOf(const Package& package);

    Package(PackageIdentity identity, const PackageSignatures::Cms& developerCms,
            std::shared_ptr<const PackageFile> file);

    std::string architecture_;
    std::shared_ptr<const PackageSignatures::Cms> developerCms_;
    std::string sourceKeyId_ = noSource;
    std::string sourceSubject_;
    Expiry developerExpiry_;
    Expiry sourceExpiry_;
    bool isSystemDeveloper_ = false;
    std::shared_ptr<const PackageFile> file_;
};

} // namespace Core::ZUL

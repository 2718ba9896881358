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

/// When a certificate expires (UTC); nothing where the platform's library does not say.
using Expiry = std::optional<std::chrono::sys_seconds>;

/// When the certificate of a signature's signer expires.
[[nodiscard]] Expiry expiryOf(const PackageSignatures::Cms& cms);

/// Attaches an extended attribute to a file that is open for writing.
/// @return 0, or the errno value that says why not
using AttributeWriter = std::function<int(int file, const std::string& name, const std::string& value)>;

/// The writer that extraction uses unless it is given another: fsetxattr(2). Any thread.
[[nodiscard]] int attachAttribute(int file, const std::string& name, const std::string& value);

/// How a person, or a program that has to end, follows an extraction or a validation.
struct ExtractionWatch {
    /// Called on the working thread. May throw, which ends the work. During an extraction, after each piece
    /// of content: how many bytes are written, and how many there are by the package's header, which may be
    /// wrong, or 0 where it has no number. During a validation, between files of the payload in search of the
    /// manifest and after each piece that is read for the payload's digest: how many bytes are unpacked and
    /// read. Not called while the signatures are verified.
    std::function<void(std::uint64_t done, std::uint64_t total)> progress = {};
    /// Ends the work with code Internal, "the extraction was stopped" or "the validation was stopped". An
    /// extraction looks at it before each entry and after each piece of content, a validation where it
    /// reports progress: not while the signatures are verified.
    std::stop_token stop = {};
};

/// The source key identifier of a package that no client signed.
inline const std::string noSource = ".no.source.apps";

/// Files that say whom to trust.
struct Authorities {
    std::filesystem::path certificates = "/etc/keys/packages/ca.pem";                         ///< PEM
    std::filesystem::path systemDeveloperKeyId = "/etc/keys/packages/system-developer-keyid"; ///< one line
};

/// A validated package file that is held open. Copies share the file, which stays open, and keeps writers
/// waiting (see PackageFile), as long as one of them lives; the identity alone is a value without a file.
/// Used by one thread at a time.
class Package : public PackageIdentity {
public:
    /// Reads and validates a package file: header, manifest, signatures. Unpacks nothing to disk, and nothing
    /// at all beyond the manifest; reads the whole file where the signatures hold. When the signatures do not
    /// hold no more than 8 MiB are unpacked in search of the manifest; what is wrong behind that is not
    /// found.
    ///
    /// A payload without "/usr/share/applications/ID.desktop", or an unreadable file of the system
    /// developer's key, is a warning in the log. Everything else is refused, checked in this order:
    /// - what Common::Rpm::Reader refuses, and missing tags: FileNotFound, BadPackage;
    ///   BadPackage as well for a file that is open for writing
    /// - names that PackageIdentity refuses: BadPackageID, BadPackage
    /// - a source package, and a file that has not all of its package (Common::Rpm::packageLength()):
    ///   BadPackage
    /// - a manifest that is damaged, too large or not a regular file, or whose names PackageIdentity refuses:
    ///   BadPackage
    /// - signatures that cannot be read: BadPackage; that do not hold, are absent or are not a developer's:
    ///   BadPackageSignature
    /// - a payload that does not have the header's digest: BadPackage
    /// - a file that is written to, or opened for it, meanwhile: BadPackage
    /// What cannot be read or done this time is Filesystem or Internal.
    [[nodiscard]] static Package fromFile(const std::filesystem::path& file,
                                          const Authorities& authorities = {},
                                          const ExtractionWatch& watch = {});

    /// Unpacks the payload of the package file below a directory, system paths translated back by the mapping
    /// rules (see PackagePath), with permissions and, on files that are to be signed, the attributes
    /// "security.ima", "user.TA.shdr" and "security.appid". Nothing outside the directory is touched. After a
    /// failure what was written so far stays; the caller removes it.
    ///
    /// Throws Common::Error: FileNotFound for a path that leads nowhere, and BadPackage for one that leads to
    /// anything but the validated file, unchanged and not opened for writing to the end; BadPackage for a
    /// payload that is damaged, not what its header says or that names places outside; Filesystem; Internal
    /// for anything else that the attribute writer or a library throws.
    /// @param file         the path that fromFile() was given, or another of the same file
    /// @param destination  made with missing parents if it does not exist
    /// @param attributes   how attributes are attached; for tests and for systems that cannot hold them
    void extract(const std::filesystem::path& file, const std::filesystem::path& destination,
                 const AttributeWriter& attributes = attachAttribute,
                 const ExtractionWatch& watch = {}) const;

    [[nodiscard]] const std::string& architecture() const { return architecture_; }
    /// Throws Common::Error, code BadPackageArchitecture, unless the package is for this one or "noarch". The
    /// check is the caller's: neither fromFile() nor Database::installFile() makes it.
    /// @param platform  Common::getPlatformArchitecture() ("common/PlatformFacts.h"), or that of an image
    void requireArchitecture(const std::string& platform) const;
    /// The developer's signature. To use it include "platform/signcms/PackageSignatures.h".
    [[nodiscard]] const PackageSignatures::Cms& developerCms() const { return *developerCms_; }
    /// Key identifier of the developer's certificate.
    [[nodiscard]] const std::string& developerKeyId() const;
    /// Key identifier and subject of the client's certificate; without one noSource and nothing.
    [[nodiscard]] const std::string& sourceKeyId() const { return sourceKeyId_; }
    [[nodiscard]] const std::string& sourceSubject() const { return sourceSubject_; }
    /// Of the developer's certificate, and of the client's; nothing as well when no client signed.
    [[nodiscard]] const Expiry& developerExpiry() const { return developerExpiry_; }
    [[nodiscard]] const Expiry& sourceExpiry() const { return sourceExpiry_; }
    /// Whether the developer is the platform's own.
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

#pragma once

#include "common/Names.h"
#include "core/zul/AttributeWriter.h"
#include "platform/signcms/PackageSignatures.h"

#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace Core::ZUL {

class PackageFile;

/// The source key identifier of a package that no client signed.
inline const std::string noSource = ".no.source.apps";

/// Files that say whom to trust.
struct Authorities {
    std::filesystem::path certificates = Common::Names::Files::packageAuthority;             ///< PEM
    std::filesystem::path systemDeveloperKeyId = Common::Names::Files::systemDeveloperKeyId; ///< one line
};

/// One version of a package: a value, with or without a package file behind it. Copies share the file, which
/// stays open, and keeps writers waiting (see PackageFile), as long as one of them lives. Used by one thread
/// at a time.
class Package {
public:
    Package(std::string id, std::string version, std::optional<std::string> orgName = {},
            std::optional<std::string> appName = {})
        : id_(std::move(id))
        , version_(std::move(version))
        , orgName_(std::move(orgName))
        , appName_(std::move(appName)) {}

    /// Reads and validates a package file: header, manifest, signatures. Unpacks nothing to disk, and nothing
    /// at all beyond the manifest; reads the whole file where the signatures hold. When the signatures do not
    /// hold no more than 8 MiB are unpacked in search of the manifest; what lies further is not found at
    /// fault.
    ///
    /// A payload without "/usr/share/applications/ID.desktop", or an unreadable file of the system
    /// developer's key, is a warning in the log. Everything else is refused, checked in this order:
    /// - what Common::Rpm::Reader refuses, and missing tags: FileNotFound, BadPackage;
    ///   BadPackage as well for a file that somebody has open for writing
    /// - an identifier (BadPackageID) or a version (BadPackage) that is not one ordinary path component or
    ///   that no bus takes
    /// - a source package, and a file that has not all of its package (Common::Rpm::packageLength()):
    ///   BadPackage
    /// - a manifest that is damaged, too large or no regular file, or whose names are not such components:
    ///   BadPackage
    /// - signatures that cannot be read: BadPackage; that do not hold, are absent or are none of a developer:
    ///   BadPackageSignature
    /// - a payload that does not have the header's digest: BadPackage
    /// - a file that is written to, or opened for it, meanwhile: BadPackage
    /// What cannot be read or done this time is Filesystem or Internal.
    [[nodiscard]] static Package fromFile(const std::filesystem::path& file,
                                          const Authorities& authorities = {});

    /// Unpacks the package's whole payload below a directory, system paths translated back by the mapping
    /// rules (see PackagePath), with permissions and, on files that are to be signed, the attributes
    /// "security.ima", "user.TA.shdr" and "security.appid". Nothing outside the directory is touched. On
    /// failure it keeps what was written so far; removing it is the caller's business.
    ///
    /// Throws Common::Error: FileNotFound and BadPackage for a file that cannot be read, and BadPackage for
    /// one that is not, unchanged and unopened for writing to the end, the file that fromFile() validated;
    /// BadPackage for a payload that is damaged, not what its header says or that reaches for places outside;
    /// BadPackageSignature for a file to be signed in a package that has no developer's signature;
    /// Filesystem; Internal for whatever else the attribute writer or a library throws.
    /// @param destination  made with missing parents if it does not exist
    /// @param attributes   how attributes are attached; for tests and for systems that cannot hold them
    void extract(const std::filesystem::path& file, const std::filesystem::path& destination,
                 const AttributeWriter& attributes = attachAttribute) const;

    /// The rpm name; also the name of the package's directory in the database.
    [[nodiscard]] const std::string& id() const { return id_; }
    /// version "-" release, as the package carries them.
    [[nodiscard]] const std::string& version() const { return version_; }
    [[nodiscard]] const std::optional<std::string>& orgName() const { return orgName_; }
    [[nodiscard]] const std::optional<std::string>& appName() const { return appName_; }

    // What only a package read from a file has.

    [[nodiscard]] const std::string& architecture() const { return architecture_; }
    [[nodiscard]] const std::optional<PackageSignatures::Cms>& developerCms() const { return developerCms_; }
    /// Key identifier and subject of the client's certificate; without one noSource and nothing.
    [[nodiscard]] const std::string& sourceKeyId() const { return sourceKeyId_; }
    [[nodiscard]] const std::string& sourceSubject() const { return sourceSubject_; }
    /// Whether the developer is the platform's own.
    [[nodiscard]] bool isSystemDeveloper() const { return isSystemDeveloper_; }

private:
    void readManifest(const std::exception_ptr& refusal);
    void readSignatures(const Authorities& authorities);

    std::string id_;
    std::string version_;
    std::optional<std::string> orgName_;
    std::optional<std::string> appName_;
    std::string architecture_;
    std::optional<PackageSignatures::Cms> developerCms_;
    std::string sourceKeyId_ = noSource;
    std::string sourceSubject_;
    bool isSystemDeveloper_ = false;
    std::shared_ptr<const PackageFile> file_;
};

} // namespace Core::ZUL

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The platform's library of package signatures, libsigncms.so.3: the content of a package's CMS signatures.
/// libpkgverify.so.1 (platform/pkgverify/FileWithCmses.h) finds them in package files and verifies them.
/// The formats are described in docs/package-signatures.md.
namespace PackageSignatures {

/// The role in which a certificate signs packages.
enum class Role {
    Developer, ///< made the package; its signatures of single files are installed on the device
    Client,    ///< the store or company that distributes the package: the package's source
};

/// The properties of a signer's certificate. An immutable value; any thread.
class [[gnu::visibility("default")]] Certificate {
public:
    Certificate(std::string keyId, std::string subject, std::optional<Role> role);

    /// The key identifier: SHA-256 of the DER SubjectPublicKeyInfo (RFC 5280, 4.1.2.7) in 64 lower case
    /// hexadecimal digits. Computed from the key, so no certificate can claim the identifier of another key.
    [[nodiscard]] const std::string& keyId() const { return keyId_; }

    /// The subject's distinguished name in the format of RFC 2253, in UTF-8.
    [[nodiscard]] const std::string& subject() const { return subject_; }

    /// The role in the certificate's extended key usage; nothing when that has neither role or both.
    [[nodiscard]] std::optional<Role> role() const { return role_; }

private:
    std::string keyId_;
    std::string subject_;
    std::optional<Role> role_;
};

struct CmsData;

/// One CMS signature (RFC 5652) of a package, not verified: FileWithCmses::verifyCmses() does that. An
/// immutable value whose copies share their data; any thread.
class [[gnu::visibility("default")]] Cms {
public:
    explicit Cms(std::shared_ptr<const CmsData> data);

    /// The signer's certificate.
    [[nodiscard]] const Certificate& certificate() const;

    /// The integrity signature of a file, the value of its attribute "security.ima".
    /// @param index  the file's index in the package's file list
    /// @return empty if the signer did not sign this file
    [[nodiscard]] std::string fileSignature(std::uint32_t index) const;

    /// The trustlet signature of a file, the value of its attribute "user.TA.shdr"; otherwise like
    /// fileSignature().
    [[nodiscard]] std::string trustletSignature(std::uint32_t index) const;

    /// All data that was read; for libpkgverify.so.1.
    [[nodiscard]] const CmsData& data() const { return *data_; }

private:
    std::shared_ptr<const CmsData> data_;
};

/// The developer's CMS of the list; nothing when the list has none, or more than one. Any thread.
[[nodiscard, gnu::visibility("default")]] std::optional<Cms>
developerCmsFromVector(const std::vector<Cms>& cmses);

/// The client's CMS of the list; otherwise like developerCmsFromVector().
[[nodiscard, gnu::visibility("default")]] std::optional<Cms>
clientCmsFromVector(const std::vector<Cms>& cmses);

/// When the certificate of a CMS's signer expires. Any thread. Throws std::runtime_error.
/// A weak symbol, because a device's library may lack it: its address is then null.
[[nodiscard, gnu::visibility("default"), gnu::weak]] std::chrono::sys_seconds validUntil(const Cms& cms);

} // namespace PackageSignatures

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The platform's library of package signatures, libsigncms.so.3: what a CMS signature of a package says.
/// libpkgverify.so.1 (platform/pkgverify/FileWithCmses.h) finds them in package files and verifies them.
/// The formats are described in docs/package-signatures.md.
namespace PackageSignatures {

/// On whose behalf a certificate signs packages.
enum class Role {
    Developer, ///< who made the package; its signatures of the single files go onto the device
    Client,    ///< the store or company that hands the package out: the package's source
};

/// What is asked of a signer's certificate. An immutable value; any thread.
class [[gnu::visibility("default")]] Certificate {
public:
    Certificate(std::string keyId, std::string subject, std::optional<Role> role);

    /// The key identifier: SHA-256 of the DER SubjectPublicKeyInfo (RFC 5280, 4.1.2.7) in 64 lower case
    /// hexadecimal digits. Made from the key itself, so no certificate can claim the identifier of another's
    /// key.
    [[nodiscard]] const std::string& keyId() const { return keyId_; }

    /// The subject's distinguished name as RFC 2253 writes it, in UTF-8.
    [[nodiscard]] const std::string& subject() const { return subject_; }

    /// What the certificate's extended key usage allows; nothing when it names neither role or both.
    [[nodiscard]] std::optional<Role> role() const { return role_; }

private:
    std::string keyId_;
    std::string subject_;
    std::optional<Role> role_;
};

struct CmsData;

/// One CMS signature (RFC 5652) of a package, read but not by itself verified: FileWithCmses::verifyCmses()
/// does that. An immutable value whose copies share their data; any thread.
class [[gnu::visibility("default")]] Cms {
public:
    explicit Cms(std::shared_ptr<const CmsData> data);

    /// The signer's certificate.
    [[nodiscard]] const Certificate& certificate() const;

    /// The integrity signature of a file, the value of its attribute "security.ima".
    /// @param index  the file's index in the package's file list
    /// @return empty when the signer gave none for this file
    [[nodiscard]] std::string fileSignature(std::uint32_t index) const;

    /// The trustlet signature of a file, the value of its attribute "user.TA.shdr"; otherwise like
    /// fileSignature().
    [[nodiscard]] std::string trustletSignature(std::uint32_t index) const;

    /// Everything that was read; for the verifying library.
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
/// Weak: a device's library may lack it. Its address is null there.
[[nodiscard, gnu::visibility("default"), gnu::weak]] std::chrono::sys_seconds validUntil(const Cms& cms);

} // namespace PackageSignatures

#pragma once

#include "platform/pkgverify/FileWithCmses.h"
#include "platform/reference/pkgverify/Container.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "tools/vendara-sign/PackageSigner.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <string>
#include <vector>

namespace Testbed {

using namespace PackageSignatures;

/// A package, an authority, and signatures of any kind, also of those that the signing tool would not make.
class SignedPackages : public testing::Test {
protected:
    SignedPackages() { writeFile(authorityFile, Signing::certificatePem(authority.identity())); }

    [[nodiscard]] Signing::Identity issue(const std::string& usage) const {
        return authority.issue({.commonName = "Somebody, Ltd. \xC3\xA9", .extendedKeyUsage = usage});
    }

    /// A CMS over any content, made by OpenSSL's own rules.
    static std::string cmsOver(const std::string& content, const Signing::Identity& signer,
                               unsigned int flags = CMS_NOATTR) {
        const auto cms = OpenSsl::Cms(CMS_sign(signer.certificate.get(), signer.key.get(), nullptr,
                                               OpenSsl::reading(content).get(), CMS_BINARY | flags));
        return OpenSsl::derOf<const CMS_ContentInfo>(cms.get(), i2d_CMS_ContentInfo);
    }

    [[nodiscard]] static std::string content(const std::string& packageBytes) {
        return SignedContent{{packageBytes.size(), OpenSsl::sha256(packageBytes)}, {}}.encoded();
    }

    [[nodiscard]] std::optional<FileWithCmses> opened(const std::string& bytes) const {
        writeFile(file, bytes);
        return FileWithCmses::fromPath(file);
    }

    [[nodiscard]] std::optional<FileWithCmses> openedWith(const std::vector<std::string>& cmses) const {
        return opened(package + Container::encodedTail(package.size(), cmses));
    }

    /// As package reading judges: it holds, and a developer vouches for it.
    [[nodiscard]] bool accepts(const std::string& bytes) const {
        const auto signedFile = opened(bytes);
        return signedFile && signedFile->verifyCmses(authorityFile) &&
               developerCmsFromVector(signedFile->cmses());
    }

    const ScratchDirectory scratch;
    const std::filesystem::path file = scratch.path() / "package.rpm";
    const std::filesystem::path authorityFile = scratch.path() / "ca.pem";
    const Signing::TestAuthority authority;
    const Signing::Identity developer = issue(developerUsage);
    const Signing::Identity client = issue(clientUsage);
    const std::filesystem::path packageFile =
        buildPackage(scratch.path() / "build", {.files = {{"/usr/bin/tool", "tool"},
                                                          {"/usr/lib/ta/key.ta", "trusted"},
                                                          {"/usr/share/x/data", "data"}}});
    const std::string package = readFile(packageFile);
};

} // namespace Testbed

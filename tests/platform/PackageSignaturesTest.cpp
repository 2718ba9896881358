#include "common/UniqueFd.h"
#include "platform/pkgverify/FileWithCmses.h"
#include "platform/reference/pkgverify/Container.h"
#include "platform/reference/signcms/Bytes.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "testbed/LogCapture.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "tools/vendara-sign/PackageSigner.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace Testbed;
using namespace PackageSignatures;

/// A package, an authority, and signatures, including some that the signing tool would not create.
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

    /// The criteria of Package::fromFile(): valid, and signed by a developer.
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
    const std::string byDeveloper = cmsOver(content(package), developer);
    const std::string byClient = cmsOver(content(package), client);
};

TEST_F(SignedPackages, ReturnTheirSignersAndTheirFilesSignatures) {
    const Signing::SignRequest request{.package = packageFile,
                                       .output = file,
                                       .developer = issue(developerUsage),
                                       .trustlets = {"/usr/lib/ta"}};
    Signing::signPackage(request);
    const auto key = OpenSsl::Key(X509_get_pubkey(request.developer->certificate.get()));
    const Signing::SignRequest second{.package = file, .output = file, .client = issue(clientUsage)};
    Signing::signPackage(second);

    const Common::UniqueFd held(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const auto signedFile = FileWithCmses::fromPath("/proc/self/fd/" + std::to_string(held.get()));
    ASSERT_TRUE(signedFile && signedFile->verifyCmses(authorityFile));
    const auto developerCms = developerCmsFromVector(signedFile->cmses());
    const auto clientCms = clientCmsFromVector(signedFile->cmses());
    ASSERT_TRUE(developerCms && clientCms);
    EXPECT_EQ(developerCms->certificate().subject(), "CN=Somebody\\, Ltd. \xC3\xA9");
    EXPECT_EQ(developerCms->certificate().keyId(), certificateOf(*request.developer->certificate).keyId());
    EXPECT_NE(developerCms->certificate().keyId(), certificateOf(*developer.certificate).keyId());
    EXPECT_EQ(clientCms->certificate().keyId(), certificateOf(*second.client->certificate).keyId());

    // Files by their index: tool, key.ta and data, in the order of their paths.
    const auto signature = developerCms->fileSignature(0);
    ASSERT_EQ(signature.size(), 9U + 256);
    EXPECT_EQ(signature.substr(0, 3), std::string("\x03\x02\x04"));
    const auto digest = OpenSsl::sha256("tool");
    const OpenSsl::KeyContext verification(EVP_PKEY_CTX_new(key.get(), nullptr));
    EVP_PKEY_verify_init(verification.get());
    EVP_PKEY_CTX_set_signature_md(verification.get(), EVP_sha256());
    EXPECT_EQ(EVP_PKEY_verify(verification.get(), OpenSsl::octets(signature) + 9, 256, digest.data(),
                              digest.size()),
              1);
    EXPECT_EQ(developerCms->trustletSignature(0), "");
    EXPECT_TRUE(developerCms->trustletSignature(1).starts_with("VNDT"));
    EXPECT_EQ(developerCms->fileSignature(3), "");
    EXPECT_EQ(clientCms->fileSignature(0), "");
}

TEST_F(SignedPackages, AreRefusedWithAnyByteChanged) {
    auto bytes = package + Container::encodedTail(package.size(), {byDeveloper, byClient});
    ASSERT_TRUE(accepts(bytes));
    for (std::size_t i = 0, step = 0; i < bytes.size(); i += step) {
        step = i < package.size() ? 53U : i + 100 < bytes.size() ? 7U : 1U;
        for (const char bit : {'\x01', '\x80'}) {
            bytes[i] = static_cast<char>(bytes[i] ^ bit);
            EXPECT_FALSE(accepts(bytes)) << "byte " << i << " of " << bytes.size();
            bytes[i] = static_cast<char>(bytes[i] ^ bit);
        }
    }
    for (const std::size_t place : {std::size_t{0}, package.size(), package.size() + 8, bytes.size()}) {
        EXPECT_FALSE(accepts(std::string(bytes).insert(place, 1, '\0'))) << "a byte more at " << place;
        EXPECT_FALSE(accepts(std::string(bytes).erase(std::min(place, bytes.size() - 1), 1)))
            << "a byte less at " << place;
    }
}

TEST_F(SignedPackages, AreRefusedWithACertificateThatIsNotValid) {
    const auto now = std::time(nullptr);
    const auto developerIf = [this](const Signing::CertificateRequest& request) {
        return openedWith({cmsOver(content(package), authority.issue(request))})->verifyCmses(authorityFile);
    };
    const std::string both = std::string(developerUsage) + "," + clientUsage;
    EXPECT_TRUE(developerIf({.extendedKeyUsage = developerUsage}));
    {
        const LogCapture log;
        EXPECT_FALSE(developerIf({.extendedKeyUsage = developerUsage, .validity = {now - 200, now - 100}}));
        EXPECT_EQ(log.text(), "WARN: couldn't verify the signatures of \"" + file.native() +
                                  "\": certificate: certificate has expired\n");
    }
    EXPECT_FALSE(developerIf({.extendedKeyUsage = developerUsage, .validity = {now + 10000, now + 20000}}));
    EXPECT_FALSE(developerIf({.extendedKeyUsage = developerUsage, .keyUsage = ""}));
    EXPECT_FALSE(developerIf({.extendedKeyUsage = developerUsage, .keyUsage = "keyEncipherment"}));
    EXPECT_FALSE(developerIf({.extendedKeyUsage = developerUsage, .basicConstraints = "CA:TRUE"}));
    EXPECT_FALSE(developerIf({.extendedKeyUsage = ""}));
    EXPECT_FALSE(developerIf({.extendedKeyUsage = "codeSigning"}));
    EXPECT_FALSE(developerIf({.extendedKeyUsage = both}));

    // An authority and a developer of the same names.
    const Signing::TestAuthority other;
    const auto stranger = other.issue({.extendedKeyUsage = developerUsage});
    const auto signedFile = openedWith({cmsOver(content(package), stranger)});
    EXPECT_FALSE(signedFile->verifyCmses(authorityFile));
    EXPECT_FALSE(openedWith({byDeveloper, cmsOver(content(package), stranger)})->verifyCmses(authorityFile));
    for (const auto* noAuthority : {"", "no certificates", "-----BEGIN CERTIFICATE-----\nAAAA\n"}) {
        writeFile(scratch.path() / "other.pem", noAuthority);
        EXPECT_FALSE(signedFile->verifyCmses(scratch.path() / "other.pem"));
    }
    EXPECT_FALSE(signedFile->verifyCmses(scratch.path() / "missing.pem"));
    writeFile(scratch.path() / "other.pem", Signing::certificatePem(other.identity()));
    EXPECT_TRUE(signedFile->verifyCmses(scratch.path() / "other.pem"));
}

TEST_F(SignedPackages, AreRefusedWithTheSignaturesOfAnother) {
    const auto other =
        readFile(buildPackage(scratch.path() / "other", {.files = {{"/usr/bin/tool", "another tool"}}}));
    EXPECT_FALSE(openedWith({cmsOver(content(other), developer)})->verifyCmses(authorityFile));
    EXPECT_FALSE(openedWith({byDeveloper, cmsOver(content(other), client)})->verifyCmses(authorityFile));
}

TEST_F(SignedPackages, HaveOneSignatureOfEachRoleAtMostTheDevelopersFirst) {
    EXPECT_TRUE(openedWith({byDeveloper, byClient})->verifyCmses(authorityFile));
    EXPECT_FALSE(openedWith({byClient, byDeveloper})->verifyCmses(authorityFile));
    const auto twice = openedWith({byDeveloper, cmsOver(content(package), issue(developerUsage))});
    EXPECT_FALSE(twice->verifyCmses(authorityFile));
    EXPECT_FALSE(developerCmsFromVector(twice->cmses()));

    const auto clientOnly = openedWith({byClient});
    EXPECT_TRUE(clientOnly->verifyCmses(authorityFile));
    EXPECT_FALSE(developerCmsFromVector(clientOnly->cmses()));
    EXPECT_TRUE(clientCmsFromVector(clientOnly->cmses()));
    const auto developerOnly = openedWith({byDeveloper});
    EXPECT_FALSE(clientCmsFromVector(developerOnly->cmses()));
}

TEST_F(SignedPackages, AcceptNoOtherEncodingOfASignature) {
    using namespace std::string_literals;
    const auto good = content(package);
    const auto withFiles = [&good](const std::string& entries) { return good.substr(0, 56) + entries; };
    EXPECT_TRUE(openedWith({cmsOver(withFiles("\0\0\0\x01\0\0\0\x01\0\x01\0\0x"s), developer)}));
    for (const auto& bytes :
         {"x"s, good.substr(0, 59), good + "x", withFiles("\xFF\xFF\xFF\xFF"s), withFiles("\0\0\0\x01"s),
          withFiles("\0\0\0\x02\0\0\0\x01\0\x01\0\0x\0\0\0\x01\0\x01\0\0x"s),
          withFiles("\0\0\0\x01\0\0\0\x01\0\0\0\0"s),
          withFiles("\0\0\0\x01\0\0\0\x01\x08\x01\0\0"s + std::string(0x801, 'x'))}) {
        EXPECT_FALSE(openedWith({cmsOver(bytes, developer)})) << testing::PrintToString(bytes);
    }
    EXPECT_FALSE(openedWith({cmsOver(good, developer, 0)})) << "with signed attributes";
    EXPECT_FALSE(openedWith({cmsOver(good, developer, CMS_NOATTR | CMS_DETACHED)})) << "without content";
    EXPECT_FALSE(openedWith({cmsOver(good, developer, CMS_NOATTR | CMS_NOCERTS)})) << "without certificate";
    EXPECT_FALSE(openedWith({cmsOver(good, developer, CMS_NOATTR | CMS_USE_KEYID)}))
        << "signer by key identifier";
    EXPECT_FALSE(openedWith({cmsOver(good, developer) + std::string(1, '\0')})) << "a byte behind";
    EXPECT_FALSE(openedWith({std::string(2000, '\x30')})) << "no CMS";
}

/// A BER element, its length in four octets.
std::string element(char tag, const std::string& content) {
    std::string bytes{tag, '\x84'};
    appendNumber(bytes, static_cast<std::uint32_t>(content.size()));
    return bytes + content;
}

TEST_F(SignedPackages, AreRefusedBeforeTheManyElementsOfASignatureAreRead) {
    const std::string sha256 = "\x30\x0B\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01";
    const auto oid = [](char type) {
        return "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x07" + std::string(1, type);
    };
    const auto many = [](const std::string& one) {
        std::string all;
        while (all.size() < std::size_t{1024} * 1024) {
            all += one;
        }
        return all;
    };
    const auto blob = [&](const std::string& digests, const std::string& certificates) {
        const auto encapsulated = oid('\x01') + element('\xA0', element('\x04', content(package)));
        const auto signedData = "\x02\x01\x01" + element('\x31', digests) + element('\x30', encapsulated) +
                                element('\xA0', certificates) + element('\x31', "");
        return element('\x30', oid('\x02') + element('\xA0', element('\x30', signedData)));
    };
    const auto certificate = OpenSsl::derOf<const X509>(developer.certificate.get(), i2d_X509);
    const auto refusal = [](const std::string& bytes) {
        try {
            static_cast<void>(readCms(bytes));
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string("none");
    };
    // OpenSSL, which reads every element, would have other reasons.
    const std::string tooLarge = "CMS has an element that is too large";
    EXPECT_NE(refusal(blob(sha256, certificate)), tooLarge);
    EXPECT_EQ(refusal(blob(many(sha256), certificate)), tooLarge);
    EXPECT_EQ(refusal(blob(sha256, many(certificate))), tooLarge);
}

TEST_F(SignedPackages, HaveATrailerThatDescribesThem) {
    const auto bytes = package + Container::encodedTail(package.size(), {byDeveloper});
    const auto trailer = bytes.size() - Container::trailerSize;
    const std::pair<std::size_t, std::string> fields[] = {
        {0, std::string(8, '\xFF')}, {0, std::string(8, '\0')},
        {8, std::string(4, '\0')},   {8, std::string("\0\0\0\x02", 4)},
        {8, std::string(4, '\xFF')}, {12, std::string(4, '\xFF')},
        {12, std::string(4, '\0')},  {12, std::string("\x03\xFF\xFF\xFF")},
        {16, std::string(4, '\xFF')}};
    for (const auto& [offset, value] : fields) {
        EXPECT_FALSE(opened(std::string(bytes).replace(trailer + offset, value.size(), value))) << offset;
    }
    EXPECT_FALSE(opened(bytes.substr(trailer))) << "a trailer alone";
    EXPECT_FALSE(opened("")) << "nothing at all";
    EXPECT_FALSE(opened("no package" + bytes.substr(10)));
    EXPECT_FALSE(FileWithCmses::fromPath(scratch.path()));
    EXPECT_FALSE(FileWithCmses::fromPath(scratch.path() / "missing"));
    ASSERT_EQ(mkfifo((scratch.path() / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(FileWithCmses::fromPath(scratch.path() / "fifo"));
    const auto unsignedFile = opened(package);
    ASSERT_TRUE(unsignedFile);
    EXPECT_TRUE(unsignedFile->cmses().empty());
    EXPECT_TRUE(unsignedFile->verifyCmses(authorityFile));
}

TEST_F(SignedPackages, AreVerifiedAsTheFileThatWasOpened) {
    const auto bytes = package + Container::encodedTail(package.size(), {byDeveloper});
    const auto signedFile = opened(bytes);
    std::filesystem::rename(file, scratch.path() / "moved");
    writeFile(file, "something else");
    EXPECT_TRUE(signedFile->verifyCmses(authorityFile));
    writeFile(scratch.path() / "moved", std::string(bytes).replace(500, 1, "?"));
    EXPECT_FALSE(signedFile->verifyCmses(authorityFile));
    std::filesystem::resize_file(scratch.path() / "moved", 400);
    EXPECT_FALSE(signedFile->verifyCmses(authorityFile));
}

TEST_F(SignedPackages, AreStillReadByRpmsTools) {
    for (const auto* payload : {"w9.gzdio", "w6.xzdio", "w6.lzdio", "w3.zstdio", "w9.bzdio"}) {
        const auto plain =
            buildPackage(scratch.path() / payload,
                         {.files = {{"/usr/bin/tool", std::string(100'000, 'x')}}, .payload = payload});
        Signing::signPackage({.package = plain, .output = file, .developer = issue(developerUsage)});
        const auto name = run({"rpm", "-qp", file}, {.environment = {{"HOME", scratch.path()}}});
        EXPECT_EQ(name.output, "com.example.app-1.0-1.noarch\n");
        const auto unpacked = run({"rpm2cpio", file});
        EXPECT_EQ(unpacked.status, 0) << payload;
        EXPECT_EQ(unpacked.output, run({"rpm2cpio", plain}).output) << payload;
    }
}

} // namespace

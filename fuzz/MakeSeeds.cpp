#include "platform/reference/pkgverify/Container.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "testbed/RpmPackage.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace {

using namespace PackageSignatures;

void write(const std::filesystem::path& file, const std::string& bytes) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
}

void makeSeeds(const std::filesystem::path& directory) {
    write(directory / "fuzz-manifest/plain",
          "# comment\n[Desktop Entry]\nType=Application\nName=Tool\nName[de_DE]=Werkzeug\nExec=tool\\s%u\n\n"
          "[X-Application]\nOrganizationName=org.example\nApplicationName=t\xC3\xB6\xC3\xB6l\n");
    write(directory / "fuzz-record/plain",
          "; comment\n[general]\nid=com.example.app\nversion=1.0-1\norgname=org.example\nappname=tool\n\n"
          "[certificate]\nsubgroup=apps\nid=7\n\n[install]\nkey = value\n");

    const Signing::TestAuthority authority;
    const auto sign = [&authority](const char* usage, const SignedContent& content) {
        const auto signer = authority.issue({.extendedKeyUsage = usage});
        return makeCms(*signer.certificate, *signer.key, content);
    };
    // The lead of an rpm package and nothing more: what follows is not the signatures' business.
    const auto package = "\xED\xAB\xEE\xDB" + std::string(96, '\0');
    SignedContent content;
    content.package.length = package.size();
    const auto client = sign(clientUsage, content);
    content.files = {{0, "integrity", ""}, {7, "integrity", "trustlet"}};
    const auto developer = sign(developerUsage, content);
    write(directory / "fuzz-cms/developer", developer);
    write(directory / "fuzz-cms/content", content.encoded());
    write(directory / "fuzz-signed-file/plain", package);
    write(directory / "fuzz-signed-file/one", package + Container::encodedTail(package.size(), {developer}));
    write(directory / "fuzz-signed-file/two",
          package + Container::encodedTail(package.size(), {developer, client}));
}

void makePackageSeeds(const std::filesystem::path& directory) {
    for (const std::string payload : {"w9.gzdio", "w1.xzdio", "w1.lzdio", "w3.zstdio", "w1.bzdio"}) {
        static_cast<void>(Testbed::buildPackage(
            directory / "fuzz-package-file",
            {.release = payload.substr(3),
             .files = {{"/usr/share/applications/com.example.app.desktop",
                        "[Desktop Entry]\nType=Application\nName=Tool\nExec=tool\n", "0644", "%config"},
                       {"/etc/example", "text", "0600", "%config"}},
             .payload = payload,
             .installScript = "cd %{buildroot}/etc; ln -s example link; ln example hard",
             .fileList = "%config /etc/link\n%config /etc/hard"}));
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: vendara-make-fuzz-seeds DIRECTORY\n";
        return 2;
    }
    try {
        makeSeeds(argv[1]);
        makePackageSeeds(argv[1]);
    } catch (const std::exception& error) {
        std::cerr << "vendara-make-fuzz-seeds: " << error.what() << "\n";
        return 1;
    }
    return 0;
}

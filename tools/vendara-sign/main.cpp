#include "common/Error.h"
#include "common/PrintableText.h"
#include "common/rpm/WholePackage.h"
#include "platform/reference/pkgverify/OpenPackage.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "tools/CommandLine.h"
#include "tools/vendara-sign/PackageSigner.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <array>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using PackageSignatures::OpenPackage;

constexpr int failure = 1;

struct Arguments {
    std::string package;
    std::string output;
    std::string developerKey, developerCertificate;
    std::string clientKey, clientCertificate;
    std::vector<std::string> trustlets;
    std::string testAuthority;
    std::string notBefore, notAfter;
    std::string authority;
    bool allowExpired = false;
    bool verify = false;
    bool show = false;
};

std::optional<std::time_t> midnightOf(const std::string& date) {
    std::tm fields{};
    strptime(date.c_str(), "%Y-%m-%d", &fields);
    const auto time = timegm(&fields);
    // A day that its month does not have has become another one.
    std::array<char, sizeof "YYYY-MM-DD"> written{};
    const auto length = std::strftime(written.data(), written.size(), "%Y-%m-%d", &fields);
    return std::string_view(written.data(), length) == date ? std::optional(time) : std::nullopt;
}

std::string checkDate(const std::string& date) {
    return midnightOf(date) ? std::string() : "\"" + date + "\" is not a date (YYYY-MM-DD)";
}

Signing::Validity validityFrom(const Arguments& arguments) {
    auto validity = Signing::Validity::usual();
    validity.notBefore = midnightOf(arguments.notBefore).value_or(validity.notBefore);
    validity.notAfter = midnightOf(arguments.notAfter).value_or(validity.notAfter);
    return validity;
}

std::string checkPath(const std::string& path) { return path.empty() ? "the path is empty" : ""; }

CLI::Option* addFile(CLI::App& app, const std::string& name, std::string& value, const std::string& help) {
    return app.add_option(name, value, help)->type_name("FILE")->check(checkPath);
}

void declareSigning(CLI::App& app, Arguments& arguments) {
    auto* developerKey = addFile(app, "--developer-key", arguments.developerKey,
                                 "Sign the package and its files with this private key (PEM)");
    auto* developerCertificate =
        addFile(app, "--developer-cert", arguments.developerCertificate, "The developer's certificate (PEM)");
    developerKey->needs(developerCertificate);
    developerCertificate->needs(developerKey);
    auto* clientKey =
        addFile(app, "--client-key", arguments.clientKey, "Sign the package as client with this private key");
    auto* clientCertificate =
        addFile(app, "--client-cert", arguments.clientCertificate, "The client's certificate");
    clientKey->needs(clientCertificate);
    clientCertificate->needs(clientKey);
    app.add_flag("--allow-expired", arguments.allowExpired,
                 "Sign with a certificate that is not valid today; no device takes the package");
    app.add_option("--trustlet", arguments.trustlets,
                   "Sign this file, or all files below this directory of the package, as trustlets too")
        ->type_name("PATH")
        ->allow_extra_args(false)
        ->needs(developerKey);
    addFile(app, "--output", arguments.output, "Write the signed package here instead of replacing PACKAGE");
}

void declare(CLI::App& app, Arguments& arguments) {
    app.set_version_flag("--version", "vendara-sign " VENDARA_VERSION);
    addFile(app, "PACKAGE", arguments.package, "The rpm package");
    declareSigning(app, arguments);
    auto* authority = addFile(app, "--authority", arguments.authority, "The authority's certificate (PEM)");
    authority->needs(
        app.add_flag("--verify", arguments.verify, "Verify the package's signatures")->needs(authority));
    app.add_flag("--show", arguments.show, "Print who signed the package, without verifying it");
    auto* testAuthority = addFile(app, "--make-test-ca", arguments.testAuthority,
                                  "Make a throw-away authority and keys of a developer, a client and a "
                                  "system developer in this directory")
                              ->type_name("DIRECTORY");
    const auto addDate = [&](const char* name, std::string& value, const char* help) {
        app.add_option(name, value, help)->type_name("YYYY-MM-DD")->check(checkDate)->needs(testAuthority);
    };
    addDate("--not-before", arguments.notBefore, "First day of their certificates");
    addDate("--not-after", arguments.notAfter, "Day on which their certificates end, at 0:00 UTC");
    app.footer("Exit status: 0 success, 1 failure, 2 wrong usage.");
}

void checkUsage(const Arguments& arguments) {
    const bool sign = !arguments.developerKey.empty() || !arguments.clientKey.empty();
    const bool makeTestAuthority = !arguments.testAuthority.empty();
    if (int{sign} + int{arguments.verify} + int{arguments.show} + int{makeTestAuthority} != 1) {
        throw CLI::ValidationError(
            "give exactly one of: keys to sign with, --verify, --show, --make-test-ca");
    }
    if (makeTestAuthority != arguments.package.empty()) {
        throw CLI::ValidationError(makeTestAuthority ? "--make-test-ca takes no PACKAGE"
                                                     : "PACKAGE is required");
    }
    if (!arguments.output.empty() && !sign) {
        throw CLI::ValidationError("--output is for signing");
    }
    if (arguments.allowExpired && !sign) {
        throw CLI::ValidationError("--allow-expired is for signing");
    }
    if (const auto validity = validityFrom(arguments); validity.notAfter <= validity.notBefore) {
        throw CLI::ValidationError("the certificates would end before they begin");
    }
    for (const auto& trustlet : arguments.trustlets) {
        if (!trustlet.starts_with('/')) {
            throw CLI::ValidationError("--trustlet takes an absolute path of the package");
        }
    }
}

void printSigners(const OpenPackage& package) {
    for (const auto& cms : package.cmses()) {
        const auto& certificate = cms.certificate();
        const bool developer = certificate.role() == PackageSignatures::Role::Developer;
        std::cout << (!certificate.role() ? "unknown role"
                      : developer         ? "developer"
                                          : "client")
                  << "\n  subject: " << Common::printable(certificate.subject())
                  << "\n  key: " << certificate.keyId()
                  << "\n  signed files: " << cms.data().content.files.size() << "\n";
    }
}

void show(const Arguments& arguments) {
    const OpenPackage package(arguments.package);
    std::cout << "package: " << package.packageLength() << " bytes\n";
    printSigners(package);
}

void verify(const Arguments& arguments) {
    const OpenPackage package(arguments.package);
    if (!PackageSignatures::developerCmsFromVector(package.cmses())) {
        throw std::runtime_error(arguments.package + ": not signed by a developer");
    }
    package.requireVerified(arguments.authority);
    try {
        const Common::Rpm::Reader reader("/proc/self/fd/" + std::to_string(package.descriptor()));
        Common::Rpm::requireWholePackage(reader, package.packageLength());
    } catch (const Common::Error& error) {
        throw std::runtime_error(arguments.package + ": " + error.what());
    }
    printSigners(package);
}

void makeTestAuthority(const Arguments& arguments) {
    Signing::makeTestAuthority(arguments.testAuthority, validityFrom(arguments));
}

Signing::Identity signerFrom(const std::string& key, const std::string& certificate, bool allowExpired) {
    auto identity = Signing::loadIdentity(key, certificate);
    if (!allowExpired) {
        try {
            Signing::requireValidNow(*identity.certificate);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(certificate + ": " + error.what());
        }
    }
    return identity;
}

void sign(const Arguments& arguments) {
    Signing::SignRequest request;
    request.package = arguments.package;
    request.output = arguments.output.empty() ? arguments.package : arguments.output;
    request.trustlets = arguments.trustlets;
    if (!arguments.developerKey.empty()) {
        request.developer =
            signerFrom(arguments.developerKey, arguments.developerCertificate, arguments.allowExpired);
    }
    if (!arguments.clientKey.empty()) {
        request.client = signerFrom(arguments.clientKey, arguments.clientCertificate, arguments.allowExpired);
    }
    Signing::signPackage(request);
}

void run(const Arguments& arguments) {
    if (arguments.verify) {
        verify(arguments);
    } else if (arguments.show) {
        show(arguments);
    } else if (!arguments.testAuthority.empty()) {
        makeTestAuthority(arguments);
    } else {
        sign(arguments);
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Signs packages for the device, and verifies them as the device does.", "vendara-sign");
    try {
        Arguments arguments;
        declare(app, arguments);
        app.callback([&arguments] { checkUsage(arguments); });
        if (const auto status = Tools::parse(app, argc, argv)) {
            return *status;
        }
        run(arguments);
        if (!std::cout.flush()) {
            throw std::runtime_error("couldn't write to standard output");
        }
    } catch (const std::exception& error) {
        std::cerr << "vendara-sign: " << Common::printable(error.what()) << "\n";
        return failure;
    }
    return 0;
}

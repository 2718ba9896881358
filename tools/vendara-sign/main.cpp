#include "common/Error.h"
#include "common/Files.h"
#include "common/PrintableText.h"
#include "common/rpm/WholePackage.h"
#include "platform/reference/pkgverify/OpenPackage.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "tools/CommandLine.h"
#include "tools/vendara-sign/PackageSigner.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <nlohmann/json.hpp>

#include <array>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using PackageSignatures::OpenPackage;
using Json = nlohmann::ordered_json;

constexpr int failure = 1;
constexpr std::size_t maximumTextSize = std::size_t{64} * 1024 * 1024;

struct Arguments {
    std::vector<std::string> packages;
    std::string output;
    std::string developerKey, developerCertificate;
    std::string clientKey, clientCertificate;
    std::string passphraseFile;
    std::optional<std::string> passphrase; ///< from that file
    std::vector<std::string> trustlets;
    std::string digestOutput;
    std::vector<std::string> signatureFiles;
    Signing::DigestFile digests; ///< with the signatures of those files
    std::string testAuthority;
    std::string notBefore, notAfter;
    std::string authority;
    bool allowExpired = false;
    bool replace = false;
    bool strip = false;
    bool verify = false;
    bool show = false;
    bool json = false;

    [[nodiscard]] bool usesDigests() const { return !digestOutput.empty() || !signatureFiles.empty(); }
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

// A file that an option takes, as a part of the command line: what is wrong with it is wrong usage.
std::string readArgument(const std::string& path) {
    try {
        return Common::readExistingFile(path, maximumTextSize);
    } catch (const Common::Error& error) {
        throw CLI::ValidationError(error.what());
    }
}

void declareSigning(CLI::App& app, Arguments& arguments) {
    addFile(app, "--developer-key", arguments.developerKey,
            "Sign the package and its files with this private key: PEM, DER, PKCS #12 or a pkcs11: URI");
    addFile(app, "--developer-cert", arguments.developerCertificate,
            "The developer's certificate, unless it is where the key is");
    addFile(app, "--client-key", arguments.clientKey, "Sign the package as client with this private key");
    addFile(app, "--client-cert", arguments.clientCertificate,
            "The client's certificate, unless it is where the key is");
    addFile(app, "--passphrase-file", arguments.passphraseFile,
            "The first line is the passphrase of the keys; without it the terminal is asked");
    app.add_flag("--allow-expired", arguments.allowExpired,
                 "Sign with a certificate that is not valid today; no device takes the package");
    app.add_flag("--replace", arguments.replace, "Replace signatures of the same role");
    app.add_option("--trustlet", arguments.trustlets,
                   "Sign this file, or all files below this directory of the package, as trustlets too")
        ->type_name("PATH")
        ->allow_extra_args(false);
    addFile(app, "--write-digest", arguments.digestOutput,
            "Instead of signing, write the digests that lack a signature here");
    app.add_option("--attach", arguments.signatureFiles,
                   "Sign with the signatures in this file, which were made of such digests")
        ->type_name("FILE")
        ->allow_extra_args(false);
    addFile(app, "--output", arguments.output, "Write the package here instead of replacing PACKAGE");
}

void declare(CLI::App& app, Arguments& arguments) {
    app.set_version_flag("--version", "vendara-sign " VENDARA_VERSION);
    app.add_option("PACKAGE", arguments.packages, "The rpm packages")->type_name("FILE");
    declareSigning(app, arguments);
    app.add_flag("--strip", arguments.strip, "Remove all signatures");
    auto* authority = addFile(app, "--authority", arguments.authority, "The authority's certificate (PEM)");
    authority->needs(
        app.add_flag("--verify", arguments.verify, "Verify the package's signatures")->needs(authority));
    app.add_flag("--show", arguments.show, "Print who signed the package, without verifying it");
    app.add_flag("--json", arguments.json, "Print the signers as JSON, one text for each package");
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

void require(bool isRight, const std::string& problem) {
    if (!isRight) {
        throw CLI::ValidationError(problem);
    }
}

void checkSigning(const Arguments& arguments) {
    const bool hasKey = !arguments.developerKey.empty() || !arguments.clientKey.empty();
    const bool isDeveloper = !arguments.developerKey.empty() || !arguments.developerCertificate.empty();
    if (arguments.usesDigests()) {
        require(!hasKey, "--write-digest and --attach are for signing without a key");
        require(arguments.packages.size() == 1, "--write-digest and --attach take one PACKAGE");
        require(arguments.digestOutput.empty() || arguments.output.empty(),
                "--write-digest writes no package");
    } else {
        require(arguments.developerCertificate.empty() || !arguments.developerKey.empty(),
                "--developer-cert requires --developer-key");
        require(arguments.clientCertificate.empty() || !arguments.clientKey.empty(),
                "--client-cert requires --client-key");
    }
    require(arguments.trustlets.empty() || isDeveloper, "--trustlet is for the developer's signature");
    for (const auto& trustlet : arguments.trustlets) {
        require(trustlet.starts_with('/'), "--trustlet takes an absolute path of the package");
    }
}

void checkUsage(Arguments& arguments) {
    const bool sign = !arguments.developerKey.empty() || !arguments.developerCertificate.empty() ||
                      !arguments.clientKey.empty() || !arguments.clientCertificate.empty();
    const bool makeTestAuthority = !arguments.testAuthority.empty();
    const bool reads = arguments.show || arguments.verify;
    require(int{sign} + int{arguments.strip} + int{arguments.verify} + int{arguments.show} +
                    int{makeTestAuthority} ==
                1,
            "give exactly one of: keys or certificates to sign with, --strip, --verify, --show, "
            "--make-test-ca");
    require(makeTestAuthority == arguments.packages.empty(),
            makeTestAuthority ? "--make-test-ca takes no PACKAGE" : "PACKAGE is required");
    for (const auto& package : arguments.packages) {
        require(!package.empty(), "PACKAGE: the path is empty");
    }
    require(arguments.output.empty() || sign || arguments.strip, "--output is for signing and --strip");
    require(arguments.output.empty() || arguments.packages.size() == 1, "--output takes one PACKAGE");
    require(sign || (!arguments.allowExpired && !arguments.replace && arguments.passphraseFile.empty() &&
                     !arguments.usesDigests() && arguments.trustlets.empty()),
            "--allow-expired, --replace, --passphrase-file, --trustlet, --write-digest and --attach are for "
            "signing");
    require(!arguments.json || reads, "--json is for --show and --verify");
    const auto validity = validityFrom(arguments);
    require(validity.notAfter > validity.notBefore, "the certificates would end before they begin");
    checkSigning(arguments);
    for (const auto& file : arguments.signatureFiles) {
        try {
            arguments.digests.addSignatures(readArgument(file));
        } catch (const std::runtime_error& error) {
            throw CLI::ValidationError(file + ": " + error.what());
        }
    }
    if (!arguments.passphraseFile.empty()) {
        const auto text = readArgument(arguments.passphraseFile);
        arguments.passphrase = text.substr(0, text.find('\n'));
        require(!arguments.passphrase->empty(), arguments.passphraseFile + ": the first line is empty");
    }
}

Json toJson(const PackageSignatures::Cms& cms) {
    using PackageSignatures::Role;
    const auto x509 = PackageSignatures::x509Of(cms);
    const auto& certificate = cms.certificate();
    const auto role = certificate.role();
    return {{"role", !role ? Json() : Json(*role == Role::Developer ? "developer" : "client")},
            {"subject", certificate.subject()},
            {"issuer", PackageSignatures::textOf(*X509_get_issuer_name(x509.get()))},
            {"validFrom", Signing::textOf(*X509_get0_notBefore(x509.get()))},
            {"validUntil", Signing::textOf(*X509_get0_notAfter(x509.get()))},
            {"keyId", certificate.keyId()},
            {"signedFiles", cms.data().content.files.size()}};
}

void printSigners(const std::string& path, const OpenPackage& package, bool asJson) {
    auto signers = Json::array();
    for (const auto& cms : package.cmses()) {
        signers.push_back(toJson(cms));
    }
    if (asJson) {
        const Json result{{"package", path}, {"bytes", package.packageLength()}, {"signatures", signers}};
        std::cout << result.dump(-1, ' ', true, Json::error_handler_t::replace) << "\n";
        return;
    }
    constexpr std::array<std::pair<const char*, const char*>, 5> lines{{{"subject", "subject"},
                                                                        {"issuer", "issuer"},
                                                                        {"validFrom", "valid from"},
                                                                        {"validUntil", "valid until"},
                                                                        {"keyId", "key"}}};
    for (const auto& signer : signers) {
        std::cout << (signer["role"].is_null() ? "unknown role" : signer["role"].get<std::string>()) << "\n";
        for (const auto& [key, words] : lines) {
            std::cout << "  " << words << ": " << Common::printable(signer[key].get<std::string>()) << "\n";
        }
        std::cout << "  signed files: " << signer["signedFiles"] << "\n";
    }
}

void show(const std::string& path, const Arguments& arguments) {
    const OpenPackage package(path);
    if (!arguments.json) {
        std::cout << "package: " << package.packageLength() << " bytes\n";
    }
    printSigners(path, package, arguments.json);
}

void verify(const std::string& path, const Arguments& arguments) {
    const OpenPackage package(path);
    if (!PackageSignatures::developerCmsFromVector(package.cmses())) {
        throw std::runtime_error(path + ": not signed by a developer");
    }
    package.requireVerified(arguments.authority);
    try {
        const Common::Rpm::Reader reader("/proc/self/fd/" + std::to_string(package.descriptor()));
        Common::Rpm::requireWholePackage(reader, package.packageLength());
    } catch (const Common::Error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
    printSigners(path, package, arguments.json);
}

void makeTestAuthority(const Arguments& arguments) {
    Signing::makeTestAuthority(arguments.testAuthority, validityFrom(arguments));
}

// From the file, or from a person at the terminal.
std::optional<std::string> passphraseOf(const std::string& source, const Arguments& arguments) {
    if (arguments.passphrase || isatty(STDIN_FILENO) == 0) {
        return arguments.passphrase;
    }
    std::array<char, 1024> text{};
    const auto prompt = "Passphrase of " + Common::printable(source) + ": ";
    if (EVP_read_pw_string(text.data(), text.size(), prompt.c_str(), 0) != 0) {
        return {};
    }
    return std::string(text.data());
}

std::optional<Signing::Identity> signerFrom(const std::string& key, const std::string& certificate,
                                            const Arguments& arguments) {
    if (key.empty() && certificate.empty()) {
        return {};
    }
    auto identity = Signing::loadIdentity(
        key, certificate, [&](const std::string& source) { return passphraseOf(source, arguments); });
    if (!arguments.allowExpired) {
        try {
            Signing::requireValidNow(*identity.certificate);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error((certificate.empty() ? key : certificate) + ": " + error.what());
        }
    }
    return identity;
}

/// What a signer that takes only digests has to sign, one a line.
void writeDigests(const Signing::DigestFile& digests, const std::string& path) {
    const auto file = Signing::placeOf(path);
    Common::AtomicFile output(file.parent_path(), file.filename().native());
    for (const auto& line : digests.missing()) {
        output.write(line + "\n");
    }
    output.commit(Common::Durability::Now);
}

/// Carries out an action for each package.
/// @return whether it succeeded for all; the failures have been reported
template<typename Action>
bool forEachPackage(const Arguments& arguments, const Action& action) {
    bool hasFailed = false;
    for (const auto& package : arguments.packages) {
        try {
            action(package);
        } catch (const std::exception& error) {
            std::cerr << "vendara-sign: " << Common::printable(error.what()) << std::endl;
            hasFailed = true;
        }
    }
    return !hasFailed;
}

bool sign(Arguments& arguments) {
    Signing::SignRequest request;
    auto& digests = arguments.digests;
    request.digests = arguments.usesDigests() ? &digests : nullptr;
    request.trustlets = arguments.trustlets;
    request.replaces = arguments.replace;
    request.developer = signerFrom(arguments.developerKey, arguments.developerCertificate, arguments);
    request.client = signerFrom(arguments.clientKey, arguments.clientCertificate, arguments);
    return forEachPackage(arguments, [&](const std::string& package) {
        request.package = package;
        request.output = arguments.output.empty() ? package : arguments.output;
        Signing::signPackage(request);
        if (!arguments.digestOutput.empty()) {
            writeDigests(digests, arguments.digestOutput);
        } else if (!digests.missing().empty()) {
            throw std::runtime_error(
                package + ": digests without a signature: " + std::to_string(digests.missing().size()));
        }
    });
}

/// @return whether all went well; failures of single packages have been reported
bool run(Arguments& arguments) {
    if (!arguments.testAuthority.empty()) {
        makeTestAuthority(arguments);
        return true;
    }
    if (!arguments.verify && !arguments.show && !arguments.strip) {
        return sign(arguments);
    }
    return forEachPackage(arguments, [&](const std::string& package) {
        if (arguments.verify) {
            verify(package, arguments);
        } else if (arguments.show) {
            show(package, arguments);
        } else {
            Signing::stripPackage(package, arguments.output.empty() ? package : arguments.output);
        }
    });
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
        const bool isDone = run(arguments);
        if (!std::cout.flush()) {
            throw std::runtime_error("couldn't write to standard output");
        }
        return isDone ? 0 : failure;
    } catch (const std::exception& error) {
        std::cerr << "vendara-sign: " << Common::printable(error.what()) << "\n";
        return failure;
    }
}

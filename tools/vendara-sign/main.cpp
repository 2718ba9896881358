#include "common/Error.h"
#include "common/Files.h"
#include "common/PrintableText.h"
#include "core/zul/package/Package.h"
#include "platform/reference/pkgverify/OpenPackage.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "tools/Json.h"
#include "tools/Progress.h"
#include "tools/vendara-sign/CommandLine.h"
#include "tools/vendara-sign/PackageSigner.h"
#include "tools/vendara-sign/PassphrasePrompt.h"

#include <array>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

using PackageSignatures::OpenPackage;
using Signing::Arguments;
using Json = Tools::JsonValue;

constexpr int failure = 1;

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
        std::cout << Tools::textOf(result) << "\n";
        return;
    }
    std::cout << Common::printable(path) << ": " << package.packageLength() << " bytes"
              << (signers.empty() ? ", no signatures" : "") << "\n";
    constexpr std::array<std::pair<const char*, const char*>, 5> lines{{{"subject", "subject"},
                                                                        {"issuer", "issuer"},
                                                                        {"validFrom", "valid from"},
                                                                        {"validUntil", "valid until"},
                                                                        {"keyId", "key"}}};
    for (const auto& signer : signers) {
        std::cout << (signer["role"].is_null() ? "unknown role" : signer["role"].get<std::string>()) << "\n";
        for (const auto& [key, label] : lines) {
            std::cout << "  " << label << ": " << Common::printable(signer[key].get<std::string>()) << "\n";
        }
        std::cout << "  signed files: " << signer["signedFiles"] << "\n";
    }
}

void verify(const std::string& path, const Arguments& arguments, Tools::Progress& progress) {
    const OpenPackage package(path);
    progress(0, 0);
    try {
        // The system developer's key is irrelevant here.
        static_cast<void>(Core::ZUL::Package::fromFile(
            "/proc/self/fd/" + std::to_string(package.descriptor()),
            {.certificates = arguments.authority, .systemDeveloperKeyId = "/dev/null"},
            {.progress = std::ref(progress)}));
    } catch (const Common::Error& error) {
        if (error.code() == Common::ErrorCode::BadPackageSignature) {
            // The library only logs the reason; this throws it.
            package.requireVerified(arguments.authority);
            if (!PackageSignatures::developerCmsFromVector(package.cmses())) {
                throw std::runtime_error("not signed by a developer");
            }
        }
        throw;
    }
    progress.end();
    printSigners(path, package, arguments.json);
}

// From the file, or by a prompt on the terminal.
std::optional<Signing::Secret> passphraseOf(const std::string& source, const Arguments& arguments) {
    if (arguments.passphrase || isatty(STDIN_FILENO) == 0) {
        return arguments.passphrase;
    }
    return Signing::promptForPassphrase("Passphrase of " + Common::printable(Signing::withoutQuery(source)) +
                                        ": ");
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
            throw std::runtime_error(Signing::withoutQuery(certificate.empty() ? key : certificate) + ": " +
                                     error.what());
        }
    }
    return identity;
}

/// Writes the digests for an external signer, one a line.
void writeDigests(const Signing::DigestFile& digests, const std::string& path) {
    const auto file = Signing::placeOf(path);
    Common::AtomicFile output(file.parent_path(), file.filename().native());
    for (const auto& line : digests.missing()) {
        output.write(line + "\n");
    }
    output.commit(Common::Durability::Now);
}

/// @param subject  the package; empty: none, or it is in the message
void report(const Arguments& arguments, const std::string& subject, const std::string& message) {
    if (arguments.json && std::cout) {
        std::cout << Tools::textOf(Tools::failure(subject, message)) << std::endl;
    } else {
        std::cerr << "vendara-sign: " << Common::printable((subject.empty() ? "" : subject + ": ") + message)
                  << std::endl;
    }
}

/// Runs an action for each package and reports its failures.
/// @param activity  for the progress line
/// @return whether it succeeded for all
template<typename Action>
bool forEachPackage(const Arguments& arguments, const std::string& activity, const Action& action) {
    bool hasFailed = false;
    for (std::size_t index = 0; index < arguments.packages.size(); ++index) {
        const auto& package = arguments.packages[index];
        try {
            Tools::Progress progress(activity, index, arguments.packages.size());
            action(package, progress);
        } catch (const std::exception& error) {
            report(arguments, arguments.show || arguments.verify ? package : "", error.what());
            hasFailed = true;
        }
    }
    return !hasFailed;
}

bool sign(Arguments& arguments) {
    Signing::SignRequest request;
    auto& digests = arguments.digests;
    request.digests = arguments.usesDigests() ? &digests : nullptr;
    request.onlyDigests = !arguments.digestOutput.empty();
    request.trustlets = arguments.trustlets;
    request.replaces = arguments.replace;
    request.developer = signerFrom(arguments.developerKey, arguments.developerCertificate, arguments);
    request.client = signerFrom(arguments.clientKey, arguments.clientCertificate, arguments);
    const auto& output = request.onlyDigests ? arguments.digestOutput : arguments.output;
    return forEachPackage(arguments, "signing", [&](const std::string& package, Tools::Progress& progress) {
        request.package = package;
        request.progress = std::ref(progress);
        request.output = output.empty() ? package : output;
        Signing::signPackage(request);
        if (request.onlyDigests) {
            writeDigests(digests, arguments.digestOutput);
        } else if (!digests.missing().empty()) {
            throw std::runtime_error(
                package + ": digests without a signature: " + std::to_string(digests.missing().size()));
        }
    });
}

/// @return whether all steps succeeded; failures of single packages have been reported
bool run(Arguments& arguments) {
    if (!arguments.testAuthority.empty()) {
        Signing::makeTestAuthority(arguments.testAuthority, arguments.validity);
        return true;
    }
    if (!arguments.verify && !arguments.show && !arguments.strip) {
        return sign(arguments);
    }
    return forEachPackage(arguments, "verifying", [&](const std::string& package, Tools::Progress& progress) {
        if (arguments.verify) {
            verify(package, arguments, progress);
        } else if (arguments.show) {
            printSigners(package, OpenPackage(package), arguments.json);
        } else {
            Signing::stripPackage(package, arguments.output.empty() ? package : arguments.output);
        }
    });
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    try {
        if (const auto status = Signing::parseCommandLine(argc, argv, arguments)) {
            return *status;
        }
        const bool isDone = run(arguments);
        if (!std::cout.flush()) {
            throw std::runtime_error("couldn't write to standard output");
        }
        return isDone ? 0 : failure;
    } catch (const std::exception& error) {
        report(arguments, {}, error.what());
        return failure;
    }
}

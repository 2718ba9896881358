#include "tools/vendara-sign/CommandLine.h"

#include "common/Error.h"
#include "common/Files.h"
#include "tools/CommandLine.h"

#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace Signing {

namespace {

constexpr std::size_t maximumTextSize = std::size_t{64} * 1024 * 1024;
constexpr std::size_t maximumPassphraseSize = PEM_BUFSIZE;

std::optional<std::time_t> midnightOf(const std::string& date) {
    std::tm fields{};
    strptime(date.c_str(), "%Y-%m-%d", &fields);
    const auto time = timegm(&fields);
    // timegm(3) has normalized a day that the month does not have.
    std::array<char, sizeof "YYYY-MM-DD"> written{};
    const auto length = std::strftime(written.data(), written.size(), "%Y-%m-%d", &fields);
    return std::string_view(written.data(), length) == date ? std::optional(time) : std::nullopt;
}

std::string checkDate(const std::string& date) {
    return midnightOf(date) ? std::string() : "\"" + date + "\" is not a date (YYYY-MM-DD)";
}

Validity validityFrom(const Arguments& arguments) {
    auto validity = Validity::usual();
    validity.notBefore = midnightOf(arguments.notBefore).value_or(validity.notBefore);
    validity.notAfter = midnightOf(arguments.notAfter).value_or(validity.notAfter);
    return validity;
}

std::string checkPath(const std::string& path) { return path.empty() ? "the path is empty" : ""; }

CLI::Option* addFile(CLI::App& app, const std::string& name, std::string& value, const std::string& help) {
    return app.add_option(name, value, help)->type_name("FILE")->check(checkPath);
}

void require(bool isRight, const std::string& problem) {
    if (!isRight) {
        throw CLI::ValidationError(problem);
    }
}

// Reads a file that is a part of the command line: its errors are usage errors.
std::string readArgument(const std::string& path) {
    try {
        return Common::readExistingFile(path, maximumTextSize);
    } catch (const Common::Error& error) {
        throw CLI::ValidationError(error.what());
    }
}

// The file may be a pipe.
Secret firstLineOf(const std::string& path) {
    Secret text(maximumPassphraseSize);
    const Common::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto count =
        file ? Common::readAll(file.get(), std::as_writable_bytes(std::span(text))) : std::nullopt;
    if (!count) {
        throw CLI::ValidationError(Common::filesystemError(path).what());
    }
    const auto end = std::find(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(*count), '\n');
    require(end != text.begin(), path + ": the first line is empty");
    require(end != text.end(), path + ": the first line is too long");
    text.erase(end, text.end());
    return text;
}

void declareSigning(CLI::App& app, Arguments& arguments) {
    addFile(app, "--developer-key", arguments.developerKey,
            "Sign the package and its files with this private key: PEM, DER, PKCS #12, or a pkcs11: URI "
            "where OpenSSL's configuration has a provider for it");
    addFile(app, "--developer-cert", arguments.developerCertificate,
            "The developer's certificate [from the place of the key]");
    addFile(app, "--client-key", arguments.clientKey, "Sign the package as client with this private key");
    addFile(app, "--client-cert", arguments.clientCertificate,
            "The client's certificate [from the place of the key]");
    addFile(app, "--passphrase-file", arguments.passphraseFile,
            "File whose first line is the passphrase of the keys [prompt on the terminal]");
    app.add_flag("--allow-expired", arguments.allowExpired,
                 "Also sign with a certificate that is not valid now; devices reject the package");
    app.add_flag("--replace", arguments.replace, "Replace signatures of the same role");
    app.add_option("--trustlet", arguments.trustlets,
                   "Also sign this file, or all files below this directory, as trustlets")
        ->type_name("PATH")
        ->allow_extra_args(false);
    addFile(app, "--write-digest", arguments.digestOutput,
            "Write the digests that lack a signature to this file instead of signing");
    app.add_option("--attach", arguments.signatureFiles,
                   "Sign with the signatures of such digests in this file")
        ->type_name("FILE")
        ->allow_extra_args(false);
    addFile(app, "--output", arguments.output, "Write the package to this file instead of replacing PACKAGE");
}

void declare(CLI::App& app, Arguments& arguments) {
    app.set_version_flag("--version", "vendara-sign " VENDARA_VERSION);
    app.add_option("PACKAGE", arguments.packages, "The rpm packages")->type_name("FILE");
    declareSigning(app, arguments);
    app.add_flag("--strip", arguments.strip, "Remove all signatures");
    auto* authority = addFile(app, "--authority", arguments.authority, "The authority's certificate (PEM)")
                          ->check(CLI::ExistingFile);
    authority->needs(
        app.add_flag("--verify", arguments.verify, "Verify the package's signatures")->needs(authority));
    app.add_flag("--show", arguments.show, "Print the signers without verifying the package");
    app.add_flag("--json", arguments.json, "Print the signers as JSON, one object for each package");
    auto* testAuthority = addFile(app, "--make-test-ca", arguments.testAuthority,
                                  "Create a test authority and keys of a developer, a client and a "
                                  "system developer in this directory")
                              ->type_name("DIRECTORY");
    const auto addDate = [&](const char* name, std::string& value, const char* help) {
        app.add_option(name, value, help)->type_name("YYYY-MM-DD")->check(checkDate)->needs(testAuthority);
    };
    addDate("--not-before", arguments.notBefore, "First day on which their certificates are valid");
    addDate("--not-after", arguments.notAfter, "Day on which their certificates expire, at 0:00 UTC");
    app.footer("Exit status: 0 success, 1 failure, 2 wrong usage.");
}

void checkSigning(const Arguments& arguments) {
    const bool hasKey = !arguments.developerKey.empty() || !arguments.clientKey.empty();
    const bool isDeveloper = !arguments.developerKey.empty() || !arguments.developerCertificate.empty();
    if (arguments.usesDigests()) {
        require(!hasKey, "--write-digest and --attach cannot be used with a key");
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

void requireOther(const std::string& option, const std::string& output,
                  const std::vector<std::string>& inputs) {
    const auto directory = std::filesystem::path(output).parent_path();
    std::error_code unknown;
    const bool isThere = directory.empty() || std::filesystem::is_directory(directory, unknown);
    require(isThere, option + ": " + directory.native() + ": " +
                         (unknown ? unknown : std::make_error_code(std::errc::not_a_directory)).message());
    for (const auto& input : inputs) {
        std::error_code notThere;
        require(!std::filesystem::equivalent(output, input, notThere), option + " would overwrite " + input);
    }
}

// Input files must not be overwritten, except a package by its signed form.
void checkOutputs(const Arguments& arguments) {
    auto inputs = arguments.signatureFiles;
    inputs.insert(inputs.end(), {arguments.developerKey, arguments.developerCertificate, arguments.clientKey,
                                 arguments.clientCertificate, arguments.passphraseFile});
    requireOther("--output", arguments.output, inputs);
    inputs.insert(inputs.end(), arguments.packages.begin(), arguments.packages.end());
    requireOther("--write-digest", arguments.digestOutput, inputs);
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
    arguments.validity = validityFrom(arguments);
    require(arguments.validity.notAfter > arguments.validity.notBefore,
            "the certificates would expire before they become valid");
    checkSigning(arguments);
    checkOutputs(arguments);
    for (const auto& file : arguments.signatureFiles) {
        const auto text = readArgument(file);
        try {
            arguments.digests.addSignatures(text);
        } catch (const std::runtime_error& error) {
            throw CLI::ValidationError(file + ": " + error.what());
        }
    }
    if (!arguments.passphraseFile.empty()) {
        arguments.passphrase = firstLineOf(arguments.passphraseFile);
    }
}

} // namespace

std::optional<int> parseCommandLine(int argc, const char* const* argv, Arguments& arguments) {
    CLI::App app("Signs packages for the device, and verifies them as the device does.", "vendara-sign");
    declare(app, arguments);
    app.callback([&arguments] { checkUsage(arguments); });
    return Tools::parse(app, argc, argv);
}

} // namespace Signing

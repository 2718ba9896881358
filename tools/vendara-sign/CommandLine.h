#pragma once

#include "tools/vendara-sign/DigestFile.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <optional>
#include <string>
#include <vector>

namespace Signing {

/// The parsed command line. Paths and URIs are as given; empty if the option was not given.
struct Arguments {
    std::vector<std::string> packages;
    std::string output;
    std::string developerKey, developerCertificate;
    std::string clientKey, clientCertificate;
    std::string passphraseFile;
    std::optional<Secret> passphrase; ///< from that file
    std::vector<std::string> trustlets;
    std::string digestOutput;
    std::vector<std::string> signatureFiles;
    DigestFile digests; ///< with the signatures of those files
    std::string testAuthority;
    std::string notBefore, notAfter;
    Validity validity{}; ///< from those two
    std::string authority;
    bool allowExpired = false;
    bool replace = false;
    bool strip = false;
    bool verify = false;
    bool show = false;
    bool json = false;

    [[nodiscard]] bool usesDigests() const { return !digestOutput.empty() || !signatureFiles.empty(); }
};

/// Parses the command line and reads the passphrase file and the files with signatures of digests. Help and
/// version are printed on standard output, errors on standard error or, with --json, on standard output.
/// @return nothing if the program is to continue; otherwise its exit status
[[nodiscard]] std::optional<int> parseCommandLine(int argc, const char* const* argv, Arguments& arguments);

} // namespace Signing

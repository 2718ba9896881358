#pragma once

#include "tools/vendara-sign/DigestFile.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <optional>
#include <string>
#include <vector>

namespace Signing {

/// What the command line asks for. Paths and URIs are as they were given; empty for options that were not.
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

/// Reads the command line, and the files that are a part of it: passphrases and signatures of digests. Help
/// and version go to standard output, what is wrong to standard error.
/// @return nothing when the program is to go on; its exit status else
[[nodiscard]] std::optional<int> parseCommandLine(int argc, const char* const* argv, Arguments& arguments);

} // namespace Signing

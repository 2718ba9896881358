#pragma once

#include <memory>
#include <span>
#include <string>

struct DIGEST_CTX_s;

namespace Common::Rpm {

/// The digest of a file's content in a package's header.
struct FileDigest {
    int algorithm = 0; ///< number of the hash algorithm, RFC 4880, section 9.4
    std::string value; ///< the raw bytes
};

/// A running digest over a file's content. Used by one thread at a time.
class ContentDigest {
public:
    /// Throws Error, code BadPackage, when the digest is empty, has an unknown algorithm or does not have the
    /// length of its algorithm.
    explicit ContentDigest(FileDigest expected);

    void update(std::span<const char> piece);

    /// Whether the content has the expected digest; no further update() is allowed.
    [[nodiscard]] bool matches();

private:
    FileDigest expected_;
    std::unique_ptr<DIGEST_CTX_s, void (*)(DIGEST_CTX_s*)> context_;
};

} // namespace Common::Rpm

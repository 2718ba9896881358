#pragma once

#include <memory>
#include <span>
#include <string>

struct DIGEST_CTX_s;

namespace Common::Rpm {

/// What a header promises about a file's content.
struct FileDigest {
    int algorithm = 0; ///< number of the hash algorithm, RFC 4880, section 9.4
    std::string value; ///< the raw bytes
};

/// A running digest over a file's content. Used by one thread at a time.
class ContentDigest {
public:
    /// Throws Error, code BadPackage, when the promise is empty or its algorithm is unknown or of another
    /// length.
    explicit ContentDigest(FileDigest expected);

    void update(std::span<const char> piece);

    /// Whether all that was fed is what the header promised; nothing more can be fed afterwards.
    [[nodiscard]] bool matches();

private:
    FileDigest expected_;
    std::unique_ptr<DIGEST_CTX_s, void (*)(DIGEST_CTX_s*)> context_;
};

} // namespace Common::Rpm

#pragma once

#include "common/rpm/ContentDigest.h"
#include "common/rpm/Reader.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <sys/types.h>

namespace Common::Rpm {

enum class EntryKind : std::int32_t { Directory = 0, RegularFile = 1, SymbolicLink = 2, HardLink = 3 };

/// One entry of a package's payload.
struct PayloadEntry {
    EntryKind kind = EntryKind::Directory;
    std::string path;       ///< the name in the package, meant to be an absolute system path
    std::string linkTarget; ///< symbolic link: where to; hard link: path of the set's member with content
    mode_t permissions = 0; ///< mode without set-user-id, set-group-id and sticky bits
    bool isSigned = false;  ///< whether the file gets signature attributes
    std::uint32_t fileIndex = 0; ///< place in the package's file list
    std::uint64_t size = 0;      ///< bytes of content of a regular file
    FileDigest digest;           ///< of that content
};

/// The bytes of the regular file that is being visited, valid during the visit only.
class EntryContent {
public:
    virtual ~EntryContent() = default;
    EntryContent() = default;
    EntryContent(const EntryContent&) = delete;
    EntryContent& operator=(const EntryContent&) = delete;

    /// The next piece, valid until the next call; empty at the end.
    /// Throws Error, code BadPackage, when the archive is damaged or has not as many bytes as the header
    /// says, and at the end when the bytes are not those whose digest the header has.
    virtual std::span<const char> next() = 0;
};

/// Visits the payload of a package file. Used by one thread.
class ExtractFileIterator {
public:
    using Visitor = std::function<void(const PayloadEntry&, EntryContent&)>;

    /// Loads the rpm configuration. The reader must stay unused by others until the object ends.
    explicit ExtractFileIterator(const Reader& reader);

    /// Calls the visitor on the caller's thread once per directory, regular file and link, in archive order;
    /// of a set of hard links the member with content comes first. Other entries are skipped with a warning.
    /// Throws Error, code BadPackage, for a payload that cannot be opened or is damaged, incomplete or
    /// contradicts its header; throws what the visitor throws.
    void forEach(const Visitor& visitor) const;

private:
    Reader reader_;
    bool signConfigFiles_;
};

} // namespace Common::Rpm

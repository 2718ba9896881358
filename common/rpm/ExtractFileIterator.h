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
    std::string path;            ///< name in the package, normally an absolute system path; not checked
    std::string linkTarget;      ///< target of a symbolic link; hard link: path of the member with content
    mode_t permissions = 0;      ///< mode without set-user-id, set-group-id and sticky bits
    bool isSigned = false;       ///< whether the file gets signature attributes
    std::uint32_t fileIndex = 0; ///< index in the package's file list
    std::uint64_t size = 0;      ///< bytes of content of a regular file
    FileDigest digest;           ///< of that content
};

/// The content of the visited regular file, valid during the visit only.
class EntryContent {
public:
    virtual ~EntryContent() = default;
    EntryContent() = default;
    EntryContent(const EntryContent&) = delete;
    EntryContent& operator=(const EntryContent&) = delete;

    /// The next piece, valid until the next call; empty at the end.
    /// Throws Error, code BadPackage, when the archive is damaged or has fewer bytes than the header says,
    /// and at the end when the content does not match the digest in the header.
    virtual std::span<const char> next() = 0;
};

/// Visits the payload of a package file. Used by one thread.
class ExtractFileIterator {
public:
    using Visitor = std::function<void(const PayloadEntry&, EntryContent&)>;

    /// Loads the rpm configuration. The reader must not be used elsewhere during the object's lifetime.
    explicit ExtractFileIterator(const Reader& reader);

    /// Calls the visitor for each directory, regular file and link, in archive order. In a set of hard links
    /// the member with content comes first. Other entries are skipped with a warning. Throws Error, code
    /// BadPackage, for a payload that cannot be opened, is damaged or incomplete or contradicts its header.
    /// Exceptions of the visitor are passed on.
    void forEach(const Visitor& visitor) const;

private:
    Reader reader_;
    bool signConfigFiles_;
};

} // namespace Common::Rpm

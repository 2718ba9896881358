#pragma once

#include "common/UniqueFd.h"
#include "common/rpm/ExtractFileIterator.h"
#include "core/zul/AttributeWriter.h"
#include "core/zul/DestinationTree.h"
#include "core/zul/PackagePath.h"

#include <filesystem>

namespace Core::ZUL {

/// Puts payload entries, one after the other, into the tree of a package. Used by one thread; the package and
/// the writer must outlive it.
class Extraction {
public:
    /// Throws std::filesystem::filesystem_error when the destination cannot be made.
    Extraction(const Package& package, const std::filesystem::path& destination,
               const AttributeWriter& attributes);

    /// Throws Common::Error: BadPackage for an entry that has no place in the tree or whose content is
    /// damaged, BadPackageSignature for a file to be signed in a package without developer signature, else
    /// Filesystem.
    void extract(const Common::Rpm::PayloadEntry& entry, Common::Rpm::EntryContent& content);

    /// Ends the extraction, after the last entry.
    void finish();

private:
    void extractFile(const Common::Rpm::PayloadEntry& entry, Common::Rpm::EntryContent& content);
    void extractSymbolicLink(const Common::Rpm::PayloadEntry& entry);
    void sign(const Common::Rpm::PayloadEntry& entry, int file, const std::filesystem::path& place);

    const Package& package_;
    PackagePath paths_;
    DestinationTree tree_;
    const AttributeWriter& attributes_;
};

} // namespace Core::ZUL

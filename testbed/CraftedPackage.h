#pragma once

#include <rpm/rpmtypes.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Testbed {

struct CraftedEntry {
    std::string directory = {}; ///< as the header stores it, "/usr/bin/"
    std::string name = {};
    std::uint32_t mode = S_IFREG | 0644U;
    std::string content = {}; ///< or the target of a symbolic link
    std::uint32_t inode = 0;  ///< equal ones make a set of hard links; 0 for a number of its own
    std::optional<std::uint32_t> declaredSize = {}; ///< size in the header if it differs
    std::string declaredDigest = {};                ///< digest in the header if it differs, hexadecimal
    bool isArchived = true;                         ///< whether it is in the payload
    std::string archived = {};                      ///< content in the payload instead of `content`
    std::uint32_t flags = 0;                        ///< for example RPMFILE_CONFIG
};

/// What else the header says.
struct CraftedHeader {
    std::string name = "com.example.app";
    std::string version = "1";
    std::function<void(Header)> adjust = {}; ///< changes the main header before it is sealed
};

/// A package file that rpmbuild would refuse to make: entries as given, in this order, in an uncompressed
/// payload behind headers whose own sizes and digests are right. Of a set of hard links the last member
/// carries content.
[[nodiscard]] std::string craftedPackage(const std::vector<CraftedEntry>& entries,
                                         const CraftedHeader& about = {});

/// Writes such a package to a file; loads the rpm configuration before.
void craftPackage(const std::filesystem::path& file, const std::vector<CraftedEntry>& entries,
                  const CraftedHeader& about = {});

} // namespace Testbed

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Core::ZUL {

// Functions that read the database of the running system or of an image. They change and lock nothing and run
// no recovery; results may be outdated while a package manager works. All throw Common::Error, code
// Filesystem for files that cannot be read. Any thread.

/// The location of a database.
struct InspectedDatabase {
    std::filesystem::path directory;        ///< root directory of the database, as a path of its system
    std::filesystem::path root = "/";       ///< takes the place of "/" in that path and in targets of links
    std::filesystem::path systemRoot = "/"; ///< takes the place of "/" in the paths of mappings

    /// The database of a system image, at the path in the image's configuration. No link leads out of the
    /// image.
    [[nodiscard]] static InspectedDatabase ofImage(const std::filesystem::path& image);
};

/// A file of a package. Both are paths of the system.
struct InstalledFile {
    std::string path;  ///< in the database
    std::string place; ///< of its mapping in a system directory; empty: not mapped
};

/// The files of the installed version, without directories, record and mapping list. Throws BadPackageID,
/// PackageNotExist, and CorruptedInstalledPackage when there is no installed version or no record.
[[nodiscard]] std::vector<InstalledFile> filesOf(const std::string& packageId,
                                                 const InspectedDatabase& database);

/// The package that a path belongs to.
struct Owner {
    std::string package;
    std::string version; ///< the version that has the file; empty when the package has no such version
    std::string file;    ///< in the database
};

/// The installed package that a mapping or a file in the database belongs to; nothing for any other file. A
/// link at the path itself is not followed. Throws FileNotFound when the path does not exist.
/// @param path  absolute path of the system
[[nodiscard]] std::optional<Owner> ownerOf(const std::filesystem::path& path,
                                           const InspectedDatabase& database);

/// Bytes of the files of a package; hard links count once.
struct InstalledSize {
    std::string package;
    std::string version;         ///< the installed one; empty when there is none
    std::uint64_t installed = 0; ///< in the installed version
    std::uint64_t others = 0;    ///< in other versions, such as a prepared upgrade
    std::uint64_t copies = 0;    ///< in system directories

    [[nodiscard]] std::uint64_t total() const { return installed + others + copies; }
};

/// The size of a package. Throws BadPackageID and PackageNotExist.
[[nodiscard]] InstalledSize sizeOf(const std::string& packageId, const InspectedDatabase& database);

/// A file that could not be read, so it is not known whether it is damaged.
struct Unread {
    std::string package; ///< empty: not of a package
    std::string message;
};

struct InstalledSizes {
    std::vector<InstalledSize> sizes;
    std::vector<Unread> unread; ///< packages without a size
};

/// The sizes of all packages.
[[nodiscard]] InstalledSizes sizesOf(const InspectedDatabase& database);

/// A difference from the state that the package manager leaves.
struct Finding {
    std::string package; ///< identifier; empty: not of a package
    std::string path;    ///< the affected path of the system
    std::string problem; ///< sentence without its subject, which is the path
    std::string repair;  ///< a sentence in the imperative
};

struct Verification {
    struct Package {
        std::string id;
        std::string version;  ///< the installed one; empty when there is none
        std::string prepared; ///< the version of a prepared upgrade; empty: none
    };

    std::vector<Package> packages;
    std::vector<Finding> findings;
    std::vector<Unread> unread;
};

enum class SecurityAttributes { Expected, Ignored };

/// Compares the database and the system directories: records, links, mapping lists, mappings and their
/// copies, the attributes of executable files, and leftovers of other versions and of removed packages. A
/// file that cannot be read is reported, and the verification continues.
/// @param packageId   only this package; throws BadPackageID and PackageNotExist
/// @param attributes  whether to check attributes in the namespace "security"; an unprivileged installation
///                    has none
[[nodiscard]] Verification verify(const InspectedDatabase& database,
                                  const std::optional<std::string>& packageId = {},
                                  SecurityAttributes attributes = SecurityAttributes::Expected);

} // namespace Core::ZUL

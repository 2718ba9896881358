#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Core::ZUL {

// A look at an installed database, of the running system or of an image. Nothing is changed or locked, and no
// recovery runs: a package manager that works at the same time may make what is found outdated. All throw
// Common::Error, code Filesystem for what could not be read this time. Any thread.

/// Where the database is.
struct InspectedDatabase {
    std::filesystem::path directory;        ///< of the packages, as the system names it
    std::filesystem::path root = "/";       ///< stands for "/" in that path and in the targets of links
    std::filesystem::path systemRoot = "/"; ///< stands for "/" in the places of mappings

    /// The database of an image: where its configuration says, with the image for "/". No link leads out.
    [[nodiscard]] static InspectedDatabase ofImage(const std::filesystem::path& image);
};

/// A file of a package. Paths are as the system names them.
struct InstalledFile {
    std::string path;  ///< in the database
    std::string place; ///< where the system sees it; empty: it is not mapped
};

/// The files of the installed version, without directories, record and mapping list. Throws BadPackageID,
/// PackageNotExist, and CorruptedInstalledPackage when there is no installed version or no record.
[[nodiscard]] std::vector<InstalledFile> filesOf(const std::string& packageId,
                                                 const InspectedDatabase& database);

/// Whose a path is.
struct Owner {
    std::string package;
    std::string version; ///< the version that has the file; empty when the package has no such version
    std::string file;    ///< in the database
};

/// The installed package that a mapping or a file in the database belongs to. A link at the path itself is
/// not followed. Throws FileNotFound when there is nothing at the path.
/// @param path  absolute, as the system names it
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

/// What could not be read this time: neither damaged nor in order.
struct Unread {
    std::string package; ///< empty: it is about none
    std::string message;
};

struct InstalledSizes {
    std::vector<InstalledSize> sizes;
    std::vector<Unread> unread; ///< packages without a size
};

/// The sizes of all packages.
[[nodiscard]] InstalledSizes sizesOf(const InspectedDatabase& database);

/// Something that is not as the package manager leaves it.
struct Finding {
    std::string package; ///< identifier; empty: it is about none
    std::string path;    ///< what it is about, as the system names it
    std::string problem; ///< what is wrong with it: a sentence without its subject
    std::string mend;    ///< what mends it: a sentence in the imperative
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
/// copies, the attributes of executable files, what is left over of other versions and of packages that are
/// gone. What cannot be read is reported and the verification goes on.
/// @param packageId   only this package; throws BadPackageID and PackageNotExist
/// @param attributes  whether those in the namespace "security" are; an unprivileged installation has none
[[nodiscard]] Verification verify(const InspectedDatabase& database,
                                  const std::optional<std::string>& packageId = {},
                                  SecurityAttributes attributes = SecurityAttributes::Expected);

} // namespace Core::ZUL

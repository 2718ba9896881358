#pragma once

#include <rpm/rpmfiles.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace Common::Rpm {

/// The files of a header, sorted by full name: librpm looks up each entry of an archive by name, in a sorted
/// list by binary search, in any other list one by one. Used by one thread at a time.
class FileList {
public:
    /// Maximum number of hard links of a file: librpm's time to read a set is quadratic in its size.
    static constexpr std::uint32_t mostLinks = 1000;

    /// Throws Error, code BadPackage, when the header's arrays are inconsistent, one of them has the wrong
    /// type, a name has PATH_MAX bytes or more, or a hard-link set has more than mostLinks names or is not
    /// sorted.
    /// These checks are made before librpm gets the list: it leaks the memory of some lists that it refuses,
    /// and does not limit the number of directories. The header's own inode and device numbers are not passed
    /// to librpm either.
    explicit FileList(Header header);

    [[nodiscard]] rpmfiles get() const { return files_.get(); }
    [[nodiscard]] int size() const { return static_cast<int>(order_.size()); }

    /// The full name of a file of this list.
    [[nodiscard]] std::string name(int file) const;

    /// Converts an index of this list to an index of the header's list.
    [[nodiscard]] int headerIndex(int file) const { return order_[static_cast<std::size_t>(file)]; }

    /// The index of a file's first hard link, which identifies the file.
    [[nodiscard]] int firstLink(int file) const;

    /// The index of a full name, or -1.
    [[nodiscard]] int find(const std::string& path) const {
        return rpmfilesFindFN(files_.get(), path.c_str());
    }

private:
    void requireUsableLinks() const;

    std::vector<int> order_;
    std::unique_ptr<std::remove_pointer_t<rpmfiles>, rpmfiles (*)(rpmfiles)> files_;
};

} // namespace Common::Rpm

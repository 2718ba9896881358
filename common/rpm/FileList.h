#pragma once

#include <rpm/rpmfiles.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace Common::Rpm {

/// The files that a header lists, in the order of their full names. librpm looks up each entry of an archive
/// by its name: in a list that is in this order quickly, in any other one name by name. Used by one thread at
/// a time.
class FileList {
public:
    /// The names that one file may have. librpm compares each name of a set with each when it reads them.
    static constexpr std::uint32_t mostLinks = 1000;

    /// Throws Error, code BadPackage, where the header's arrays do not go together, one of them is of the
    /// wrong type, a name has PATH_MAX bytes or more, or a hard-link set has more than mostLinks names or
    /// does not have them in order.
    /// librpm never gives back the memory of some lists that it refuses, and does not limit the number of
    /// directories: such lists do not reach it. Nor do the header's own inode and device numbers.
    explicit FileList(Header header);

    [[nodiscard]] rpmfiles get() const { return files_.get(); }
    [[nodiscard]] int size() const { return static_cast<int>(order_.size()); }

    /// The full name of a file of this list.
    [[nodiscard]] std::string name(int file) const;

    /// The index in the header's own list of a file of this one.
    [[nodiscard]] int headerIndex(int file) const { return order_[static_cast<std::size_t>(file)]; }

    /// The first of all the names that a file of this list has; names the file itself.
    [[nodiscard]] int firstLink(int file) const;

    /// The place of a full name, or -1.
    [[nodiscard]] int find(const std::string& path) const {
        return rpmfilesFindFN(files_.get(), path.c_str());
    }

private:
    void requireUsableLinks() const;

    std::vector<int> order_;
    std::unique_ptr<std::remove_pointer_t<rpmfiles>, rpmfiles (*)(rpmfiles)> files_;
};

} // namespace Common::Rpm

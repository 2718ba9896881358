#include "common/rpm/FileList.h"

#include "common/Error.h"

#include <rpm/header.h>
#include <rpm/rpmtd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <utility>

namespace Common::Rpm {

namespace {

using HeaderHandle = std::unique_ptr<std::remove_pointer_t<Header>, Header (*)(Header)>;

// Flags that omit from the list what extraction does not use.
constexpr rpmfiFlags unusedTags =
    RPMFI_NOFILECLASS | RPMFI_NOFILEDEPS | RPMFI_NOFILELANGS | RPMFI_NOFILEUSER | RPMFI_NOFILEGROUP |
    RPMFI_NOFILECAPS | RPMFI_NOFILESTATES | RPMFI_NOFILEVERIFYFLAGS | RPMFI_NOFILESIGNATURES |
    RPMFI_NOVERITYSIGNATURES | RPMFI_NOFILECOLORS | RPMFI_NOFILERDEVS | RPMFI_NOFILEMTIMES;

// The arrays with one value a file that are left and copied as they are.
constexpr std::array perFile{RPMTAG_BASENAMES,     RPMTAG_DIRINDEXES, RPMTAG_FILEMODES,   RPMTAG_FILESIZES,
                             RPMTAG_LONGFILESIZES, RPMTAG_FILEFLAGS,  RPMTAG_FILEDIGESTS, RPMTAG_FILELINKTOS};

[[noreturn]] void throwUnusable() {
    throw Error(ErrorCode::BadPackage, "couldn't open rpm package for extraction");
}

/// The values of a tag, in the header's own memory as far as possible.
class Values {
public:
    Values(Header header, rpmTag tag) {
        exists_ = headerGet(header, tag, &data_, HEADERGET_MINMEM) != 0;
        if (exists_ && data_.type != rpmTagGetTagType(tag)) {
            throwUnusable();
        }
    }
    ~Values() { rpmtdFreeData(&data_); }
    Values(const Values&) = delete;
    Values& operator=(const Values&) = delete;

    [[nodiscard]] bool exists() const { return exists_; }
    [[nodiscard]] std::size_t size() const { return exists_ ? data_.count : 0; }
    [[nodiscard]] rpm_tagtype_t type() const { return data_.type; }
    template<typename Value>
    [[nodiscard]] std::span<const Value> as() const {
        return {static_cast<const Value*>(data_.data), size()};
    }

private:
    rpmtd_s data_{};
    bool exists_ = false;
};

/// The directories of a header, sorted by name. Comparing their places is cheap even if the names are long
/// and similar.
class Directories {
public:
    explicit Directories(std::span<const char* const> names)
        : sorted_(names.begin(), names.end()) {
        std::sort(sorted_.begin(), sorted_.end());
        sorted_.erase(std::unique(sorted_.begin(), sorted_.end()), sorted_.end());
        for (const char* name : names) {
            const auto place = std::lower_bound(sorted_.begin(), sorted_.end(), std::string_view(name));
            places_.push_back(static_cast<std::size_t>(place - sorted_.begin()));
        }
        // Names that begin with this one follow it directly.
        last_.resize(sorted_.size(), sorted_.size() - 1);
        std::vector<std::size_t> open;
        for (std::size_t place = 0; place < sorted_.size(); ++place) {
            while (!open.empty() && !sorted_[place].starts_with(sorted_[open.back()])) {
                last_[open.back()] = place - 1;
                open.pop_back();
            }
            open.push_back(place);
        }
    }

    [[nodiscard]] std::size_t count() const { return places_.size(); }
    [[nodiscard]] std::size_t placeOf(std::size_t index) const { return places_[index]; }
    [[nodiscard]] std::string_view name(std::size_t place) const { return sorted_[place]; }
    [[nodiscard]] bool beginsWith(std::size_t place, std::size_t outer) const {
        return outer <= place && place <= last_[outer];
    }

private:
    std::vector<std::string_view> sorted_;
    std::vector<std::size_t> places_; ///< by the header's index
    std::vector<std::size_t> last_;   ///< the last place whose name begins with this one's
};

struct Name {
    std::string_view base;
    std::uint32_t directory; ///< its place
    int file;                ///< the header's index
};

/// Whether a full name comes before another in the order of their bytes.
bool isBefore(const Directories& directories, const Name& left, const Name& right) {
    if (left.directory == right.directory) {
        return left.base < right.base;
    }
    if (left.directory > right.directory) {
        return directories.beginsWith(left.directory, right.directory) && !isBefore(directories, right, left);
    }
    if (!directories.beginsWith(right.directory, left.directory)) {
        return true;
    }
    const auto rest = directories.name(right.directory).substr(directories.name(left.directory).size());
    const int order = left.base.substr(0, rest.size()).compare(rest);
    return order != 0 ? order < 0 : left.base.substr(rest.size()) < right.base;
}

std::vector<Name> namesIn(const Values& bases, const Values& indexes, const Directories& directories) {
    std::vector<Name> names;
    names.reserve(bases.size());
    for (std::size_t file = 0; file < bases.size(); ++file) {
        const auto directory = indexes.as<std::uint32_t>()[file];
        if (directory >= directories.count()) {
            throwUnusable();
        }
        const auto place = directories.placeOf(directory);
        names.push_back(
            {bases.as<const char*>()[file], static_cast<std::uint32_t>(place), static_cast<int>(file)});
        if (directories.name(place).size() + names.back().base.size() >= PATH_MAX) {
            throw Error(ErrorCode::BadPackage, "the rpm package has a file name that is too long");
        }
    }
    return names;
}

/// The indexes of a header's files in the order of their full names.
std::vector<int> sortedFiles(Header header) {
    const Values bases(header, RPMTAG_BASENAMES);
    const Values directoryNames(header, RPMTAG_DIRNAMES);
    const Values indexes(header, RPMTAG_DIRINDEXES);
    if (indexes.size() != bases.size() || directoryNames.size() > bases.size() || bases.size() > INT_MAX) {
        throwUnusable();
    }
    const Directories directories(directoryNames.as<const char*>());
    auto names = namesIn(bases, indexes, directories);
    const auto before = [&](const Name& left, const Name& right) {
        return isBefore(directories, left, right);
    };
    if (!std::is_sorted(names.begin(), names.end(), before)) {
        std::sort(names.begin(), names.end(), before);
    }
    std::vector<int> order(names.size());
    std::transform(names.begin(), names.end(), order.begin(), [](const Name& name) { return name.file; });
    return order;
}

template<typename Value>
std::vector<Value> arranged(const Values& values, const std::vector<int>& order) {
    std::vector<Value> result;
    result.reserve(order.size());
    for (const int file : order) {
        result.push_back(values.as<Value>()[static_cast<std::size_t>(file)]);
    }
    return result;
}

void copyArranged(Header from, Header to, rpmTag tag, const std::vector<int>& order) {
    const Values values(from, tag);
    if (!values.exists()) {
        return;
    }
    if (values.size() != order.size()) {
        throwUnusable();
    }
    const auto count = static_cast<rpm_count_t>(order.size());
    switch (values.type()) {
    case RPM_INT16_TYPE:
        headerPutUint16(to, tag, arranged<std::uint16_t>(values, order).data(), count);
        break;
    case RPM_INT32_TYPE:
        headerPutUint32(to, tag, arranged<std::uint32_t>(values, order).data(), count);
        break;
    case RPM_INT64_TYPE:
        headerPutUint64(to, tag, arranged<std::uint64_t>(values, order).data(), count);
        break;
    default:
        headerPutStringArray(to, tag, arranged<const char*>(values, order).data(), count);
        break;
    }
}

/// Numbers from 1 up, one for each pair of device and inode. Inode 0 is kept: for librpm it is not a link.
std::vector<std::uint32_t> numbersOf(const std::vector<std::uint32_t>& inodes,
                                     const std::vector<std::uint32_t>& devices) {
    std::vector<std::pair<std::uint64_t, std::size_t>> pairs; // with the file's place
    pairs.reserve(inodes.size());
    for (std::size_t file = 0; file < inodes.size(); ++file) {
        const std::uint64_t device = devices.empty() ? 0 : devices[file];
        pairs.emplace_back(device << 32U | inodes[file], file);
    }
    std::sort(pairs.begin(), pairs.end());
    std::vector<std::uint32_t> numbers(inodes.size());
    std::uint32_t number = 0;
    for (std::size_t place = 0; place < pairs.size(); ++place) {
        const auto& [pair, file] = pairs[place];
        if (place == 0 || pair != pairs[place - 1].first) {
            ++number;
        }
        numbers[file] = inodes[file] == 0 ? 0 : number;
    }
    return numbers;
}

// librpm finds hard links by a simple hash of device and inode. A header whose pairs all have the same hash
// would take it minutes, so librpm gets generated pairs instead of the header's.
void putFileNumbers(Header from, Header to, const std::vector<int>& order) {
    const Values inodes(from, RPMTAG_FILEINODES);
    const Values devices(from, RPMTAG_FILEDEVICES);
    if (!inodes.exists()) {
        return;
    }
    if (inodes.size() != order.size() || (devices.exists() && devices.size() != order.size())) {
        throwUnusable();
    }
    const auto numbers =
        numbersOf(arranged<std::uint32_t>(inodes, order),
                  devices.exists() ? arranged<std::uint32_t>(devices, order) : std::vector<std::uint32_t>{});
    const std::vector<std::uint32_t> oneDevice(order.size(), 1);
    const auto count = static_cast<rpm_count_t>(order.size());
    headerPutUint32(to, RPMTAG_FILEINODES, numbers.data(), count);
    headerPutUint32(to, RPMTAG_FILEDEVICES, oneDevice.data(), count);
}

void copyWhole(Header from, Header to, rpmTag tag) {
    rpmtd_s values{};
    if (headerGet(from, tag, &values, HEADERGET_MINMEM) != 0) {
        headerPut(to, &values, HEADERPUT_DEFAULT);
        rpmtdFreeData(&values);
    }
}

rpmfiles makeFiles(Header header, const std::vector<int>& order) {
    const HeaderHandle ordered(headerNew(), headerFree);
    if (!order.empty()) {
        copyWhole(header, ordered.get(), RPMTAG_DIRNAMES);
        copyWhole(header, ordered.get(), RPMTAG_FILEDIGESTALGO);
        for (const auto tag : perFile) {
            copyArranged(header, ordered.get(), tag, order);
        }
        putFileNumbers(header, ordered.get(), order);
    }
    return rpmfilesNew(nullptr, ordered.get(), RPMTAG_BASENAMES, unusedTags);
}

} // namespace

FileList::FileList(Header header)
    : order_(sortedFiles(header))
    , files_(makeFiles(header, order_), rpmfilesFree) {
    if (!files_) {
        throwUnusable();
    }
    requireUsableLinks();
}

// librpm expects the content of a hard-link set at the last of its names in the list.
void FileList::requireUsableLinks() const {
    for (int file = 0; file < size(); ++file) {
        const int* links = nullptr;
        const auto count = rpmfilesFLinks(files_.get(), file, &links);
        if (count > mostLinks) {
            throw Error(ErrorCode::BadPackage, "the rpm package has a file with too many hard links");
        }
        const bool isFirst = count > 1 && links != nullptr && *links == file;
        if (isFirst && !std::is_sorted(links, links + count, [this](int left, int right) {
                return headerIndex(left) < headerIndex(right);
            })) {
            throw Error(ErrorCode::BadPackage, "the rpm package does not list its hard links in order");
        }
    }
}

std::string FileList::name(int file) const {
    const std::unique_ptr<char, void (*)(void*)> name(rpmfilesFN(files_.get(), file), std::free);
    return name ? name.get() : "";
}

int FileList::firstLink(int file) const {
    const int* links = nullptr;
    return rpmfilesFLinks(files_.get(), file, &links) > 1 && links != nullptr ? *links : file;
}

} // namespace Common::Rpm

#include "common/rpm/FileList.h"

#include "common/Error.h"

#include <rpm/header.h>
#include <rpm/rpmtd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <span>
#include <string_view>

namespace Common::Rpm {

namespace {

using HeaderHandle = std::unique_ptr<std::remove_pointer_t<Header>, Header (*)(Header)>;

// What extraction never looks at stays out of the list.
constexpr rpmfiFlags unusedTags =
    RPMFI_NOFILECLASS | RPMFI_NOFILEDEPS | RPMFI_NOFILELANGS | RPMFI_NOFILEUSER | RPMFI_NOFILEGROUP |
    RPMFI_NOFILECAPS | RPMFI_NOFILESTATES | RPMFI_NOFILEVERIFYFLAGS | RPMFI_NOFILESIGNATURES |
    RPMFI_NOVERITYSIGNATURES | RPMFI_NOFILECOLORS | RPMFI_NOFILERDEVS | RPMFI_NOFILEMTIMES;

// The arrays with one value a file that are left.
constexpr std::array perFile{RPMTAG_BASENAMES,     RPMTAG_DIRINDEXES, RPMTAG_FILEMODES,  RPMTAG_FILESIZES,
                             RPMTAG_LONGFILESIZES, RPMTAG_FILEFLAGS,  RPMTAG_FILEINODES, RPMTAG_FILEDEVICES,
                             RPMTAG_FILEDIGESTS,   RPMTAG_FILELINKTOS};

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

struct Name {
    std::string_view directory;
    std::string_view base;

    /// In the order of the full names' bytes.
    bool operator<(const Name& other) const {
        const auto common = std::min(directory.size(), other.directory.size());
        if (const int order = directory.substr(0, common).compare(other.directory.substr(0, common))) {
            return order < 0;
        }
        if (directory.size() == other.directory.size()) {
            return base < other.base;
        }
        return directory.size() < other.directory.size() ? isBefore(base, other, common)
                                                         : !isBefore(other.base, *this, common);
    }

private:
    /// Whether a text is less than what follows in the name of a longer directory.
    static bool isBefore(std::string_view text, const Name& name, std::size_t start) {
        const auto directory = name.directory.substr(start);
        const int order = text.substr(0, directory.size()).compare(directory);
        return order != 0 ? order < 0 : text.substr(directory.size()) < name.base;
    }
};

std::vector<Name> namesIn(Header header) {
    const Values bases(header, RPMTAG_BASENAMES);
    const Values directories(header, RPMTAG_DIRNAMES);
    const Values indexes(header, RPMTAG_DIRINDEXES);
    if (indexes.size() != bases.size() || directories.size() > bases.size() || bases.size() > INT_MAX) {
        throwUnusable();
    }
    std::vector<std::string_view> directoryNames;
    for (const char* text : directories.as<const char*>()) {
        directoryNames.emplace_back(text);
    }
    std::vector<Name> names;
    names.reserve(bases.size());
    for (std::size_t file = 0; file < bases.size(); ++file) {
        const auto directory = indexes.as<std::uint32_t>()[file];
        if (directory >= directoryNames.size()) {
            throwUnusable();
        }
        names.push_back({directoryNames[directory], bases.as<const char*>()[file]});
        if (names.back().directory.size() + names.back().base.size() >= PATH_MAX) {
            throw Error(ErrorCode::BadPackage, "the rpm package has a file name that is too long");
        }
    }
    return names;
}

std::vector<int> sorted(const std::vector<Name>& names) {
    std::vector<int> order(names.size());
    std::iota(order.begin(), order.end(), 0);
    if (!std::is_sorted(names.begin(), names.end())) {
        std::sort(order.begin(), order.end(), [&names](int left, int right) {
            return names[static_cast<std::size_t>(left)] < names[static_cast<std::size_t>(right)];
        });
    }
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
    }
    return rpmfilesNew(nullptr, ordered.get(), RPMTAG_BASENAMES, unusedTags);
}

} // namespace

FileList::FileList(Header header)
    : order_(sorted(namesIn(header)))
    , files_(makeFiles(header, order_), rpmfilesFree) {
    if (!files_) {
        throwUnusable();
    }
    requireLinksInOrder();
}

// librpm expects the content of a hard-link set at the last of its names in the list.
void FileList::requireLinksInOrder() const {
    for (int file = 0; file < size(); ++file) {
        const int* links = nullptr;
        const auto count = rpmfilesFLinks(files_.get(), file, &links);
        const bool isFirst = count > 1 && links != nullptr && *links == file;
        if (isFirst && !std::is_sorted(links, links + count, [this](int left, int right) {
                return headerIndex(left) < headerIndex(right);
            })) {
            throw Error(ErrorCode::BadPackage, "the rpm package does not list its hard links in order");
        }
    }
}

int FileList::firstLink(int file) const {
    const int* links = nullptr;
    return rpmfilesFLinks(files_.get(), file, &links) > 1 && links != nullptr ? *links : file;
}

} // namespace Common::Rpm

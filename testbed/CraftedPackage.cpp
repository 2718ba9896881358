#include "testbed/CraftedPackage.h"

#include "common/rpm/Configuration.h"
#include "testbed/ScratchDirectory.h"

#include <rpm/header.h>
#include <rpm/rpmpgp.h>
#include <rpm/rpmtag.h>
#include <rpm/rpmtd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <unordered_map>

namespace Testbed {

namespace {

using HeaderHandle = std::unique_ptr<std::remove_pointer_t<Header>, Header (*)(Header)>;

std::string sha256(const std::string& bytes) {
    auto* context = rpmDigestInit(PGPHASHALGO_SHA256, RPMDIGEST_NONE);
    rpmDigestUpdate(context, bytes.data(), bytes.size());
    void* text = nullptr;
    rpmDigestFinal(context, &text, nullptr, 1);
    const std::unique_ptr<char, void (*)(void*)> owner(static_cast<char*>(text), std::free);
    return owner.get();
}

std::uint32_t inodeOf(const CraftedEntry& entry, std::size_t place) {
    return entry.inode != 0 ? entry.inode : static_cast<std::uint32_t>(1000 + place);
}

template<typename Value, typename Of>
std::vector<Value> listOf(const std::vector<CraftedEntry>& entries, const Of& of) {
    std::vector<Value> values;
    for (std::size_t place = 0; place < entries.size(); ++place) {
        values.push_back(static_cast<Value>(of(entries[place], place)));
    }
    return values;
}

template<typename Of>
void putStrings(Header header, rpmTag tag, const std::vector<CraftedEntry>& entries, const Of& of) {
    const auto texts = listOf<std::string>(
        entries, [&](const auto& entry, std::size_t) -> std::string { return of(entry); });
    std::vector<const char*> pointers;
    pointers.reserve(texts.size());
    for (const auto& text : texts) {
        pointers.push_back(text.c_str());
    }
    headerPutStringArray(header, tag, pointers.data(), static_cast<rpm_count_t>(pointers.size()));
}

template<typename Of>
void putNumbers(Header header, rpmTag tag, const std::vector<CraftedEntry>& entries, const Of& of) {
    const auto numbers = listOf<std::uint32_t>(entries, of);
    headerPutUint32(header, tag, numbers.data(), static_cast<rpm_count_t>(numbers.size()));
}

std::string digestOf(const CraftedEntry& entry) {
    if (!S_ISREG(entry.mode)) {
        return "";
    }
    return entry.declaredDigest.empty() ? sha256(entry.content) : entry.declaredDigest;
}

void putFiles(Header header, const std::vector<CraftedEntry>& entries) {
    if (entries.empty()) {
        return;
    }
    putStrings(header, RPMTAG_DIRNAMES, entries, [](const auto& entry) { return entry.directory; });
    putStrings(header, RPMTAG_BASENAMES, entries, [](const auto& entry) { return entry.name; });
    putNumbers(header, RPMTAG_DIRINDEXES, entries, [](const auto&, std::size_t place) { return place; });
    const auto modes =
        listOf<std::uint16_t>(entries, [](const auto& entry, std::size_t) { return entry.mode; });
    headerPutUint16(header, RPMTAG_FILEMODES, modes.data(), static_cast<rpm_count_t>(modes.size()));
    putNumbers(header, RPMTAG_FILESIZES, entries, [](const auto& entry, std::size_t) {
        return entry.declaredSize.value_or(
            static_cast<std::uint32_t>(S_ISDIR(entry.mode) ? 0 : entry.content.size()));
    });
    putNumbers(header, RPMTAG_FILEINODES, entries, inodeOf);
    putNumbers(header, RPMTAG_FILEDEVICES, entries, [](const auto&, std::size_t) { return 1; });
    putNumbers(header, RPMTAG_FILEMTIMES, entries, [](const auto&, std::size_t) { return 0; });
    putNumbers(header, RPMTAG_FILEFLAGS, entries, [](const auto& entry, std::size_t) { return entry.flags; });
    putStrings(header, RPMTAG_FILEDIGESTS, entries, digestOf);
    putStrings(header, RPMTAG_FILELINKTOS, entries,
               [](const auto& entry) { return S_ISLNK(entry.mode) ? entry.content : ""; });
    for (const auto tag : {RPMTAG_FILEUSERNAME, RPMTAG_FILEGROUPNAME}) {
        putStrings(header, tag, entries, [](const auto&) { return "root"; });
    }
}

std::string exported(Header header, rpmTagVal region) {
    const HeaderHandle sealed(headerReload(headerLink(header), region), headerFree);
    unsigned int size = 0;
    const std::unique_ptr<void, void (*)(void*)> blob(headerExport(sealed.get(), &size), std::free);
    if (!blob) {
        throw std::runtime_error("cannot seal a crafted header");
    }
    const std::string magic("\x8e\xad\xe8\x01\0\0\0\0", 8);
    return magic + std::string(static_cast<const char*>(blob.get()), size);
}

std::string padded(std::string bytes, std::size_t unit) {
    bytes.resize((bytes.size() + unit - 1) / unit * unit);
    return bytes;
}

// cpio(5), "New ASCII Format".
std::string archiveEntry(const std::string& path, std::uint32_t mode, std::uint32_t inode,
                         const std::string& content) {
    std::array<char, 128> fields{};
    std::snprintf(fields.data(), fields.size(),
                  "070701%08x%08x%08x%08x%08x%08x%08zx%08x%08x%08x%08x%08zx%08x", inode, mode, 0U, 0U, 1U, 0U,
                  content.size(), 0U, 1U, 0U, 0U, path.size() + 1, 0U);
    return padded(fields.data() + path + '\0', 4) + padded(content, 4);
}

std::string archive(const std::vector<CraftedEntry>& entries) {
    std::unordered_map<std::uint32_t, std::size_t> lastOfSet;
    for (std::size_t place = 0; place < entries.size(); ++place) {
        lastOfSet[inodeOf(entries[place], place)] = place;
    }
    std::string bytes;
    for (std::size_t place = 0; place < entries.size(); ++place) {
        const auto& entry = entries[place];
        const auto inode = inodeOf(entry, place);
        if (entry.isArchived) {
            const auto& content = entry.archived.empty() ? entry.content : entry.archived;
            bytes += archiveEntry("." + entry.directory + entry.name, entry.mode, inode,
                                  lastOfSet[inode] == place ? content : "");
        }
    }
    return bytes + archiveEntry("TRAILER!!!", 0, 0, "");
}

} // namespace

std::string craftedPackage(const std::vector<CraftedEntry>& entries, const CraftedHeader& about) {
    const HeaderHandle header(headerNew(), headerFree);
    headerPutString(header.get(), RPMTAG_NAME, about.name.c_str());
    headerPutString(header.get(), RPMTAG_VERSION, about.version.c_str());
    for (const auto tag : {RPMTAG_RELEASE, RPMTAG_SUMMARY, RPMTAG_LICENSE}) {
        headerPutString(header.get(), tag, "1");
    }
    headerPutString(header.get(), RPMTAG_OS, "linux");
    headerPutString(header.get(), RPMTAG_ARCH, "noarch");
    headerPutString(header.get(), RPMTAG_PAYLOADFORMAT, "cpio");
    const std::uint32_t algorithm = PGPHASHALGO_SHA256;
    headerPutUint32(header.get(), RPMTAG_FILEDIGESTALGO, &algorithm, 1);
    putFiles(header.get(), entries);
    const auto payload = archive(entries);
    const auto payloadDigest = sha256(payload);
    const char* digests = payloadDigest.c_str();
    headerPutStringArray(header.get(), RPMTAG_PAYLOADDIGEST, &digests, 1);
    headerPutUint32(header.get(), RPMTAG_PAYLOADDIGESTALGO, &algorithm, 1);
    if (about.adjust) {
        about.adjust(header.get());
    }
    const auto main = exported(header.get(), RPMTAG_HEADERIMMUTABLE);
    const HeaderHandle signature(headerNew(), headerFree);
    headerPutString(signature.get(), RPMTAG_SHA256HEADER, sha256(main).c_str());
    auto size = static_cast<std::uint32_t>(main.size() + payload.size());
    rpmtd_s sizeTag{}; // whose number means something else in other headers
    sizeTag.tag = RPMSIGTAG_SIZE;
    sizeTag.type = RPM_INT32_TYPE;
    sizeTag.count = 1;
    sizeTag.data = &size;
    headerPut(signature.get(), &sizeTag, HEADERPUT_DEFAULT);
    std::string lead("\xed\xab\xee\xdb\x03\0\0\0\0\x01", 10);
    lead.resize(96);
    lead[79] = 5; // the kind of signature that every package has
    return lead + padded(exported(signature.get(), RPMTAG_HEADERSIGNATURES), 8) + main + payload;
}

void craftPackage(const std::filesystem::path& file, const std::vector<CraftedEntry>& entries,
                  const CraftedHeader& about) {
    Common::Rpm::readRpmConfiguration();
    writeFile(file, craftedPackage(entries, about));
}

} // namespace Testbed

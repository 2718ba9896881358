#include "testbed/CraftedPackage.h"

#include "common/rpm/Configuration.h"
#include "testbed/ScratchDirectory.h"

#include <rpm/header.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>
#include <rpm/rpmpgp.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <type_traits>

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

void putFiles(Header header, const std::vector<CraftedEntry>& entries) {
    const char* const nobody = "root";
    for (std::size_t place = 0; place < entries.size(); ++place) {
        const auto& entry = entries[place];
        const auto index = static_cast<std::uint32_t>(place);
        const auto mode = static_cast<std::uint16_t>(entry.mode);
        const auto size = entry.promisedSize.value_or(
            static_cast<std::uint32_t>(S_ISDIR(entry.mode) ? 0 : entry.content.size()));
        const std::uint32_t number = inodeOf(entry, place);
        const std::uint32_t device = 1;
        const std::uint32_t none = 0;
        const auto digest = !S_ISREG(entry.mode)           ? std::string()
                            : entry.promisedDigest.empty() ? sha256(entry.content)
                                                           : entry.promisedDigest;
        const auto link = S_ISLNK(entry.mode) ? entry.content : "";
        headerPutString(header, RPMTAG_DIRNAMES, entry.directory.c_str());
        headerPutString(header, RPMTAG_BASENAMES, entry.name.c_str());
        headerPutUint32(header, RPMTAG_DIRINDEXES, &index, 1);
        headerPutUint16(header, RPMTAG_FILEMODES, &mode, 1);
        headerPutUint32(header, RPMTAG_FILESIZES, &size, 1);
        headerPutUint32(header, RPMTAG_FILEINODES, &number, 1);
        headerPutUint32(header, RPMTAG_FILEDEVICES, &device, 1);
        headerPutUint32(header, RPMTAG_FILEMTIMES, &none, 1);
        headerPutUint32(header, RPMTAG_FILEFLAGS, &entry.flags, 1);
        headerPutUint16(header, RPMTAG_FILERDEVS, std::array<std::uint16_t, 1>{}.data(), 1);
        headerPutString(header, RPMTAG_FILEDIGESTS, digest.c_str());
        headerPutString(header, RPMTAG_FILELINKTOS, link.c_str());
        headerPutString(header, RPMTAG_FILEUSERNAME, nobody);
        headerPutString(header, RPMTAG_FILEGROUPNAME, nobody);
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
    std::string bytes;
    for (std::size_t place = 0; place < entries.size(); ++place) {
        const auto& entry = entries[place];
        bool isLast = true;
        for (std::size_t later = place + 1; later < entries.size(); ++later) {
            isLast = isLast && inodeOf(entries[later], later) != inodeOf(entry, place);
        }
        if (entry.isArchived) {
            const auto& content = entry.archived.empty() ? entry.content : entry.archived;
            bytes += archiveEntry("." + entry.directory + entry.name, entry.mode, inodeOf(entry, place),
                                  isLast ? content : "");
        }
    }
    return bytes + archiveEntry("TRAILER!!!", 0, 0, "");
}

} // namespace

void craftPackage(const std::filesystem::path& file, const std::vector<CraftedEntry>& entries,
                  const std::string& name, const std::string& version) {
    Common::Rpm::readRpmConfiguration();
    const HeaderHandle header(headerNew(), headerFree);
    headerPutString(header.get(), RPMTAG_NAME, name.c_str());
    headerPutString(header.get(), RPMTAG_VERSION, version.c_str());
    for (const auto tag : {RPMTAG_RELEASE, RPMTAG_SUMMARY, RPMTAG_LICENSE}) {
        headerPutString(header.get(), tag, "1");
    }
    headerPutString(header.get(), RPMTAG_OS, "linux");
    headerPutString(header.get(), RPMTAG_ARCH, "noarch");
    headerPutString(header.get(), RPMTAG_PAYLOADFORMAT, "cpio");
    const std::uint32_t algorithm = PGPHASHALGO_SHA256;
    headerPutUint32(header.get(), RPMTAG_FILEDIGESTALGO, &algorithm, 1);
    putFiles(header.get(), entries);
    const auto main = exported(header.get(), RPMTAG_HEADERIMMUTABLE);
    const HeaderHandle signature(headerNew(), headerFree);
    headerPutString(signature.get(), RPMTAG_SHA256HEADER, sha256(main).c_str());
    std::string lead("\xed\xab\xee\xdb\x03\0\0\0\0\x01", 10);
    lead.resize(96);
    lead[79] = 5; // the kind of signature that every package has
    writeFile(file,
              lead + padded(exported(signature.get(), RPMTAG_HEADERSIGNATURES), 8) + main + archive(entries));
}

} // namespace Testbed

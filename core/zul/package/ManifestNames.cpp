#include "core/zul/package/ManifestNames.h"

#include "common/rpm/FileIterator.h"
#include "platform/manifestkit/AppManifest.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <sys/stat.h>
#include <utility>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;
using Common::Rpm::FileIterator;
using Common::Rpm::ReadingProgress;

namespace {

// Maximum number of bytes unpacked in search of the manifest of a package that is refused anyway: one second
// with the slowest compression.
constexpr std::uint64_t searchLimit = 8UL * 1024 * 1024;

/// The content of the current entry, with its digest checked.
std::string readEntry(FileIterator& files, const std::string& path) {
    if (files.size() > AppManifest::ManifestEntry::maximumSize) {
        throw Error(ErrorCode::BadPackage, "the package's manifest is too large: " + path);
    }
    std::string bytes(files.size(), '\0');
    Common::Rpm::ContentDigest digest(files.digest());
    const auto count = files.read(bytes);
    digest.update(bytes);
    if (count != bytes.size() || !digest.matches()) {
        throw Error(ErrorCode::BadPackage, "couldn't read the package's manifest: " + path);
    }
    return bytes;
}

/// @param refusal  why the package is refused anyway, if it is; thrown when the search takes too long
/// @return nothing if the payload has no such file
std::optional<std::string> readFromPayload(const Common::Rpm::Reader& reader, const std::string& path,
                                           const std::optional<Error>& refusal,
                                           const ReadingProgress& progress) {
    FileIterator files(reader);
    auto left = searchLimit;
    std::uint64_t passed = 0;
    const int wanted = files.fileOf(path);
    while (wanted >= 0 && files.next()) {
        // The first member of a hard-link set in the archive has the content.
        const bool isWanted = files.file() == wanted;
        if (isWanted && S_ISREG(files.mode()) && files.hasContent()) {
            return readEntry(files, path);
        }
        if (isWanted && files.path() == path) {
            throw Error(ErrorCode::BadPackage, "the package's manifest is not a regular file: " + path);
        }
        // The next step unpacks this entry's content and a name.
        const auto cost = std::min<std::uint64_t>(files.size(), searchLimit) + PATH_MAX;
        if (refusal && cost > left) {
            throw Error(*refusal);
        }
        left -= std::min(cost, left);
        if (progress) {
            progress(passed);
        }
        passed += files.hasContent() ? files.size() : 0;
    }
    return {};
}

} // namespace

PackageIdentity identityOf(const Common::Rpm::Reader& header) {
    return {header.getStringTag(RPMTAG_NAME),
            header.getStringTag(RPMTAG_VERSION) + "-" + header.getStringTag(RPMTAG_RELEASE)};
}

std::string manifestPathOf(const PackageIdentity& package) {
    return "/usr/share/applications/" + package.id() + ".desktop";
}

std::optional<PackageIdentity> withManifest(const PackageIdentity& package, const Common::Rpm::Reader& reader,
                                            const std::optional<Error>& refusal,
                                            const ReadingProgress& progress) {
    const auto bytes = readFromPayload(reader, manifestPathOf(package), refusal, progress);
    if (!bytes) {
        return {};
    }
    const auto names = [&bytes] {
        try {
            const auto manifest = AppManifest::ManifestEntry::fromBytes(*bytes);
            return std::pair(manifest.appOrgname(), manifest.appName());
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception& error) {
            throw Error(ErrorCode::BadPackage,
                        std::string("couldn't parse the package's manifest: ") + error.what());
        }
    }();
    return PackageIdentity(package.id(), package.version(), names.first, names.second);
}

} // namespace Core::ZUL

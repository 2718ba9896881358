#include "core/zul/package/Package.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/rpm/FileIterator.h"
#include "common/rpm/WholePackage.h"
#include "core/zul/Edge.h"
#include "core/zul/package/Extraction.h"
#include "core/zul/package/PackageFile.h"
#include "platform/manifestkit/AppManifest.h"
#include "platform/pkgverify/FileWithCmses.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fstream>
#include <optional>
#include <sys/stat.h>
#include <utility>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;
using Common::Rpm::FileIterator;
using Common::Rpm::ReadingProgress;

namespace {

// Bytes to unpack at most in search of the manifest of a package that is refused anyway: the slowest
// compression takes a second for them.
constexpr std::uint64_t searchLimit = 8UL * 1024 * 1024;

/// The bytes of the entry that the iterator is at, checked.
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

/// @param refusal  why the package is refused in the end, if it is; thrown when the search becomes too long
/// @return nothing when the payload has no such file
std::optional<std::string> readFromPayload(const Common::Rpm::Reader& reader, const std::string& path,
                                           const std::optional<Error>& refusal,
                                           const ReadingProgress& progress) {
    FileIterator files(reader);
    auto left = searchLimit;
    std::uint64_t passed = 0;
    const int wanted = files.fileOf(path);
    while (wanted >= 0 && files.next()) {
        // A file with several names has its content at the first of them that the archive has.
        const bool isWanted = files.file() == wanted;
        if (isWanted && S_ISREG(files.mode()) && files.hasContent()) {
            return readEntry(files, path);
        }
        if (isWanted && files.path() == path) {
            throw Error(ErrorCode::BadPackage, "the package's manifest is not a regular file: " + path);
        }
        // The next step unpacks what this entry has: its content and a name.
        const auto cost = std::min<std::uint64_t>(files.size(), searchLimit) + PATH_MAX;
        if (refusal && cost > left) {
            throw Error(*refusal);
        }
        left -= std::min(cost, left);
        progress(passed);
        passed += files.hasContent() ? files.size() : 0;
    }
    return {};
}

/// The identity with the names of the package's manifest, if it has one. Parameters as readFromPayload().
PackageIdentity withManifest(const PackageIdentity& package, const Common::Rpm::Reader& reader,
                             const std::optional<Error>& refusal, const ReadingProgress& progress) {
    const auto path = "/usr/share/applications/" + package.id() + ".desktop";
    const auto bytes = readFromPayload(reader, path, refusal, progress);
    if (!bytes) {
        Common::logWarning() << "the package does not contain a manifest: " << path;
        return package;
    }
    const auto names = [&bytes] {
        try {
            const auto manifest = AppManifest::ManifestEntry::fromBytes(*bytes);
            return std::pair(manifest.appOrgname(), manifest.appName());
        } catch (const std::exception& error) {
            throw Error(ErrorCode::BadPackage,
                        std::string("couldn't parse the package's manifest: ") + error.what());
        }
    }();
    return {package.id(), package.version(), names.first, names.second};
}

struct Signatures {
    std::optional<PackageSignatures::Cms> developer = {}; ///< exists unless the package is refused
    std::optional<PackageSignatures::Cms> client = {};
    std::optional<Error> refusal = {};
};

Signatures readSignatures(const PackageFile& file, const std::filesystem::path& authority) {
    const auto refused = [](ErrorCode code, const char* text) {
        return Signatures{.refusal = Error(code, text)};
    };
    const auto signedFile = PackageSignatures::FileWithCmses::fromPath(file.openFile());
    if (!signedFile) {
        return refused(ErrorCode::BadPackage, "couldn't open file for reading cmses");
    }
    if (!signedFile->verifyCmses(authority)) {
        return refused(ErrorCode::BadPackageSignature, "package is signed with a non-legal key");
    }
    const auto& cmses = signedFile->cmses();
    if (cmses.empty()) {
        return refused(ErrorCode::BadPackageSignature, "couldn't retrieve cmses from package");
    }
    const auto developer = PackageSignatures::developerCmsFromVector(cmses);
    if (!developer) {
        return refused(ErrorCode::BadPackageSignature, "package doesn't have developer signature");
    }
    return {.developer = developer, .client = PackageSignatures::clientCmsFromVector(cmses)};
}

bool isSystemDeveloperKey(const std::string& keyId, const std::filesystem::path& file) {
    std::ifstream stream(file);
    std::string line;
    if (stream.is_open()) {
        std::getline(stream, line);
    }
    if (!stream.is_open() || stream.bad()) {
        Common::logWarning() << "couldn't retrieve system developer key id";
        return false;
    }
    return line == keyId;
}

Expiry expiryOf(const PackageSignatures::Cms& cms) {
    return PackageSignatures::validUntil != nullptr ? Expiry(PackageSignatures::validUntil(cms)) : Expiry();
}

} // namespace

Package::Package(PackageIdentity identity, const PackageSignatures::Cms& developerCms,
                 std::shared_ptr<const PackageFile> file)
    : PackageIdentity(std::move(identity))
    , developerCms_(std::make_shared<const PackageSignatures::Cms>(developerCms))
    , file_(std::move(file)) {}

Package Package::fromFile(const std::filesystem::path& file, const Authorities& authorities,
                          const ExtractionWatch& watch) try {
    auto opened = std::make_shared<const PackageFile>(file);
    const auto& header = opened->reader();
    const auto id = header.getStringTag(RPMTAG_NAME);
    const auto version = header.getStringTag(RPMTAG_VERSION);
    const auto release = header.getStringTag(RPMTAG_RELEASE);
    auto architecture = header.getStringTag(RPMTAG_ARCH);
    const PackageIdentity identity(id, version + "-" + release);
    // A header may claim any size.
    const auto unpackedSize =
        std::min<std::uint64_t>(headerGetNumber(header.header(), RPMTAG_LONGSIZE), INT64_MAX);
    const auto total = unpackedSize + Common::Rpm::packageLength(header);
    const auto report = [&](std::uint64_t done) {
        if (watch.stop.stop_requested()) {
            throw Error(ErrorCode::Internal, "the validation was stopped");
        }
        if (watch.progress) {
            watch.progress(done, total);
        }
    };
    // What is wrong with the manifest is reported before what is wrong with the signatures, but how much may
    // be unpacked to find it depends on them.
    const auto signatures = readSignatures(*opened, authorities.certificates);
    auto named = withManifest(identity, header, signatures.refusal,
                              [&](std::uint64_t unpacked) { report(std::min(unpacked, unpackedSize)); });
    if (signatures.refusal) {
        throw Error(*signatures.refusal);
    }
    Common::Rpm::requirePayloadDigest(header, [&](std::uint64_t place) { report(unpackedSize + place); });
    Package package(std::move(named), *signatures.developer, std::move(opened));
    package.architecture_ = std::move(architecture);
    package.developerExpiry_ = expiryOf(*signatures.developer);
    if (signatures.client) {
        package.sourceKeyId_ = signatures.client->certificate().keyId();
        package.sourceSubject_ = signatures.client->certificate().subject();
        package.sourceExpiry_ = expiryOf(*signatures.client);
    }
    package.isSystemDeveloper_ =
        isSystemDeveloperKey(package.developerKeyId(), authorities.systemDeveloperKeyId);
    // All that was looked at since the header was read came from one and the same file.
    package.file_->requireUnchanged();
    return package;
} catch (...) {
    throwAsError();
}

const PackageFile& fileOf(const Package& package) { return *package.file_; }

void Package::requireArchitecture(const std::string& platform) const {
    if (architecture_ != "noarch" && architecture_ != platform) {
        throw Error(ErrorCode::BadPackageArchitecture,
                    "package " + id() + " is built for " + architecture_ + ", not for " + platform);
    }
}

const std::string& Package::developerKeyId() const { return developerCms_->certificate().keyId(); }

void Package::extract(const std::filesystem::path& file, const std::filesystem::path& destination,
                      const AttributeWriter& attributes, const ExtractionWatch& watch) const try {
    file_->requireSame(file);
    unpack(*file_, *this, developerCms_.get(), destination, attributes, watch);
} catch (...) {
    throwAsError();
}

} // namespace Core::ZUL

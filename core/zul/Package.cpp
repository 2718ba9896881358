#include "core/zul/Package.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/rpm/ExtractFileIterator.h"
#include "common/rpm/FileIterator.h"
#include "common/rpm/WholePackage.h"
#include "core/zul/Edge.h"
#include "core/zul/Extraction.h"
#include "core/zul/PackageFile.h"
#include "core/zul/PackageNames.h"
#include "platform/manifestkit/AppManifest.h"
#include "platform/pkgverify/FileWithCmses.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fstream>
#include <sys/stat.h>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;
using Common::Rpm::FileIterator;

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
                                           const std::exception_ptr& refusal) {
    FileIterator files(reader);
    auto left = searchLimit;
    const int wanted = files.fileOf(path);
    while (wanted >= 0 && files.next()) {
        // A file with several names has its content at the first of them that the archive has.
        const bool isWanted = files.file() == wanted;
        if (isWanted && S_ISREG(files.mode()) && files.hasContent()) {
            return readEntry(files, path);
        }
        if (isWanted && files.path() == path) {
            throw Error(ErrorCode::BadPackage, "the package's manifest is no regular file: " + path);
        }
        // The next step unpacks what this entry has: its content and a name.
        const auto cost = std::min<std::uint64_t>(files.size(), searchLimit) + PATH_MAX;
        if (refusal && cost > left) {
            std::rethrow_exception(refusal);
        }
        left -= std::min(cost, left);
    }
    return {};
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

} // namespace

Package Package::fromFile(const std::filesystem::path& file, const Authorities& authorities) try {
    auto opened = std::make_shared<PackageFile>(file);
    const auto& header = opened->reader();
    const auto id = header.getStringTag(RPMTAG_NAME);
    const auto version = header.getStringTag(RPMTAG_VERSION);
    Package package(id, version + "-" + header.getStringTag(RPMTAG_RELEASE));
    package.architecture_ = header.getStringTag(RPMTAG_ARCH);
    requireOrdinaryNames(package);
    static_cast<void>(Common::Rpm::packageLength(header));
    package.file_ = std::move(opened);
    // What is wrong with the manifest is told before what is wrong with the signatures, but how much may be
    // unpacked to find it depends on them. Anything else than a refusal says nothing about the package.
    std::exception_ptr refusal;
    try {
        package.readSignatures(authorities);
    } catch (const Error&) {
        refusal = std::current_exception();
    }
    package.readManifest(refusal);
    if (refusal) {
        std::rethrow_exception(refusal);
    }
    Common::Rpm::requirePayloadDigest(header);
    package.isSystemDeveloper_ =
        isSystemDeveloperKey(package.developerCms_->certificate().keyId(), authorities.systemDeveloperKeyId);
    // All that was looked at since the header was read came from one and the same file.
    package.file_->requireUnchanged();
    return package;
} catch (...) {
    throwAsError();
}

void Package::readManifest(const std::exception_ptr& refusal) {
    const auto path = "/usr/share/applications/" + id_ + ".desktop";
    const auto bytes = readFromPayload(file_->reader(), path, refusal);
    if (!bytes) {
        Common::logWarning() << "the package does not contain a manifest: " << path;
        return;
    }
    try {
        const auto manifest = AppManifest::ManifestEntry::fromBytes(*bytes);
        orgName_ = manifest.appOrgname();
        appName_ = manifest.appName();
    } catch (const std::exception& error) {
        throw Error(ErrorCode::BadPackage,
                    std::string("couldn't parse the package's manifest: ") + error.what());
    }
    requireOrdinaryNames(*this);
}

void Package::readSignatures(const Authorities& authorities) {
    const auto signedFile = PackageSignatures::FileWithCmses::fromPath(file_->openFile());
    if (!signedFile) {
        throw Error(ErrorCode::BadPackage, "couldn't open file for reading cmses");
    }
    if (!signedFile->verifyCmses(authorities.certificates)) {
        throw Error(ErrorCode::BadPackageSignature, "package is signed with a non-legal key");
    }
    const auto& cmses = signedFile->cmses();
    if (cmses.empty()) {
        throw Error(ErrorCode::BadPackageSignature, "couldn't retrieve cmses from package");
    }
    developerCms_ = PackageSignatures::developerCmsFromVector(cmses);
    if (!developerCms_) {
        throw Error(ErrorCode::BadPackageSignature, "package doesn't have developer signature");
    }
    if (const auto client = PackageSignatures::clientCmsFromVector(cmses)) {
        sourceKeyId_ = client->certificate().keyId();
        sourceSubject_ = client->certificate().subject();
    }
}

void Package::extract(const std::filesystem::path& file, const std::filesystem::path& destination,
                      const AttributeWriter& attributes) const try {
    if (file_) {
        file_->requireSame(file);
    }
    const auto source = file_ ? file_ : std::make_shared<const PackageFile>(file);
    try {
        Extraction extraction(*this, destination, attributes);
        Common::Rpm::ExtractFileIterator(source->reader()).forEach([&](const auto& entry, auto& content) {
            extraction.extract(entry, content);
        });
        source->requireUnchanged();
        extraction.finish();
    } catch (const std::filesystem::filesystem_error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, "couldn't make directory to extract package into");
    }
} catch (...) {
    throwAsError();
}

} // namespace Core::ZUL

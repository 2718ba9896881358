#include "core/zul/package/Package.h"

#include "common/Error.h"
#include "common/LogLine.h"
#include "common/rpm/WholePackage.h"
#include "core/zul/Edge.h"
#include "core/zul/package/Extraction.h"
#include "core/zul/package/ManifestNames.h"
#include "core/zul/package/PackageFile.h"
#include "platform/pkgverify/FileWithCmses.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <optional>
#include <utility>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;

namespace {

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

} // namespace

Expiry expiryOf(const PackageSignatures::Cms& cms) {
    return PackageSignatures::validUntil != nullptr ? Expiry(PackageSignatures::validUntil(cms)) : Expiry();
}

Package::Package(PackageIdentity identity, const PackageSignatures::Cms& developerCms,
                 std::shared_ptr<const PackageFile> file)
    : PackageIdentity(std::move(identity))
    , developerCms_(std::make_shared<const PackageSignatures::Cms>(developerCms))
    , file_(std::move(file)) {}

Package Package::fromFile(const std::filesystem::path& file, const Authorities& authorities,
                          const ExtractionWatch& watch) try {
    auto opened = std::make_shared<const PackageFile>(file);
    const auto& header = opened->reader();
    const auto identity = identityOf(header);
    auto architecture = header.getStringTag(RPMTAG_ARCH);
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
    // A manifest error is reported before a signature error, but the signatures decide how much may be
    // unpacked.
    const auto signatures = readSignatures(*opened, authorities.certificates);
    auto named = withManifest(identity, header, signatures.refusal,
                              [&](std::uint64_t unpacked) { report(std::min(unpacked, unpackedSize)); });
    if (!named) {
        Common::logWarning() << "the package does not contain a manifest: " << manifestPathOf(identity);
    }
    if (signatures.refusal) {
        throw Error(*signatures.refusal);
    }
    Common::Rpm::requirePayloadDigest(header, [&](std::uint64_t place) { report(unpackedSize + place); });
    Package package(std::move(named).value_or(identity), *signatures.developer, std::move(opened));
    package.architecture_ = std::move(architecture);
    package.developerExpiry_ = expiryOf(*signatures.developer);
    if (signatures.client) {
        package.sourceKeyId_ = signatures.client->certificate().keyId();
        package.sourceSubject_ = signatures.client->certificate().subject();
        package.sourceExpiry_ = expiryOf(*signatures.client);
    }
    package.isSystemDeveloper_ =
        isSystemDeveloperKey(package.developerKeyId(), authorities.systemDeveloperKeyId);
    // The header and everything after it were read from the same, unchanged file.
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

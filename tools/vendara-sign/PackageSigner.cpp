#include "tools/vendara-sign/PackageSigner.h"

#include "common/Files.h"
#include "common/rpm/Reader.h"
#include "common/rpm/WholePackage.h"
#include "core/zul/package/ManifestNames.h"
#include "platform/reference/pkgverify/OpenPackage.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "tools/vendara-sign/FileSigner.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

namespace Signing {

using PackageSignatures::OpenPackage;
using PackageSignatures::Role;

namespace {

/// CMSes in their order in the file.
using CmsesByRole = std::map<Role, std::string>;

const char* nameOf(Role role) { return role == Role::Developer ? "developer" : "client"; }

/// The existing signatures to keep.
CmsesByRole existingCmses(const std::vector<PackageSignatures::Cms>& existing,
                          const PackageSignatures::PackageDigest& digest, const SignRequest& request) {
    CmsesByRole cmses;
    for (const auto& cms : existing) {
        const auto role = cms.certificate().role();
        const auto& successor = role == Role::Developer ? request.developer : request.client;
        if (role && request.replaces && successor) {
            continue;
        }
        if (!role || cms.data().content.package != digest || !cmses.emplace(*role, cms.data().der).second) {
            throw std::runtime_error("the package's existing signature is not valid");
        }
    }
    return cmses;
}

bool isSignatureMissing(const SignRequest& request) {
    return request.digests != nullptr && !request.digests->missing().empty();
}

/// Signs with the request's identity of one role; adds nothing while signatures of digests are missing.
void addCms(CmsesByRole& cmses, Role role, const SignRequest& request, const Common::Rpm::Reader& package,
            const PackageSignatures::PackageDigest& packageDigest) {
    const auto& identity = role == Role::Developer ? request.developer : request.client;
    if (!identity) {
        return;
    }
    auto& certificate = *identity->certificate;
    if (PackageSignatures::certificateOf(certificate).role() != role) {
        throw std::runtime_error(std::string("the certificate given for the ") + nameOf(role) + " is not a " +
                                 nameOf(role) + "'s");
    }
    if (cmses.contains(role)) {
        throw std::runtime_error(std::string("the package already has a ") + nameOf(role) + "'s signature");
    }
    const PackageSignatures::DigestSigner sign = [&](const EVP_MD& algorithm, std::string_view digest) {
        return request.digests != nullptr ? request.digests->signatureOf(certificate, algorithm, digest)
                                          : PackageSignatures::signDigest(*identity->key, algorithm, digest);
    };
    PackageSignatures::SignedContent content{packageDigest, {}};
    if (role == Role::Developer) {
        content.files = signFiles(package, certificate, sign, request.trustlets);
    }
    if (!isSignatureMissing(request)) { // the package's signature is made over those of its files
        cmses.emplace(role, PackageSignatures::makeCms(certificate, sign, content));
    }
}

void copyBytes(int source, std::uint64_t length, Common::AtomicFile& output,
               const Common::Rpm::ReadingProgress& progress = {}) {
    std::string piece(std::size_t{1024} * 1024, '\0');
    for (std::uint64_t offset = 0; offset < length;) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), length - offset));
        const auto count =
            Common::readAll(source, std::as_writable_bytes(std::span(piece).first(wanted)), offset);
        if (count.value_or(0) == 0) {
            throw std::runtime_error("unexpected end of file");
        }
        output.write(std::string_view(piece).substr(0, *count));
        offset += *count;
        if (progress) {
            progress(offset);
        }
    }
}

Common::AtomicFile newFile(const Common::UniqueFd& package, const std::filesystem::path& output) {
    const auto mode = Common::statusOf(package.get()).st_mode & 0777;
    const auto path = placeOf(output);
    return {path.parent_path(), path.filename().native(), {.mode = mode, .concurrentWriters = true}};
}

std::string pathOf(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

/// The package's length by its own header: the signatures after it may be damaged.
std::uint64_t lengthOf(const Common::UniqueFd& package) {
    return Common::Rpm::packageLength(Common::Rpm::Reader(pathOf(package.get())));
}

void writeSigned(const SignRequest& request) {
    const auto file = Common::openExistingFile(request.package);
    std::optional<OpenPackage> package;
    if (!request.replaces || !request.developer || !request.client) {
        package.emplace(pathOf(file.get()));
    }
    const auto length = package ? package->packageLength() : lengthOf(file);
    auto output = newFile(file, request.output);
    // Progress counts three passes: the copy, the validation, the search for the manifest.
    const auto report = [&](std::uint64_t done) {
        if (request.progress) {
            request.progress(done, 3 * length);
        }
    };
    copyBytes(file.get(), length, output, report);
    // From here on only the copy is read, because no other process can write to it.
    const auto digest = PackageSignatures::Container::digestOf(output.descriptor(), length);
    const Common::Rpm::Reader reader(pathOf(output.descriptor()));
    if (!request.allowInvalid) {
        Common::Rpm::requireWholePackage(reader, length,
                                         [&](std::uint64_t place) { report(length + place); });
        const auto searched = [&](std::uint64_t unpacked) {
            report(2 * length + std::min(unpacked, length));
        };
        static_cast<void>(Core::ZUL::withManifest(Core::ZUL::identityOf(reader), reader, {}, searched));
        report(3 * length);
    }
    auto cmses = package ? existingCmses(package->cmses(), digest, request) : CmsesByRole();
    for (const auto role : {Role::Developer, Role::Client}) {
        addCms(cmses, role, request, reader, digest);
    }
    if (request.onlyDigests || isSignatureMissing(request)) {
        return;
    }
    std::vector<std::string> ordered;
    for (auto& [role, cms] : cmses) {
        ordered.push_back(std::move(cms));
    }
    output.write(PackageSignatures::Container::encodedTail(length, ordered));
    output.commit(Common::Durability::Now);
}

void writeStripped(const std::filesystem::path& path, const std::filesystem::path& output) {
    const auto package = Common::openExistingFile(path);
    auto copy = newFile(package, output);
    copyBytes(package.get(), lengthOf(package), copy);
    copy.commit(Common::Durability::Now);
}

template<typename Action>
void named(const std::string& message, const std::filesystem::path& package, const Action& action) {
    try {
        action();
    } catch (const std::exception& error) {
        throw std::runtime_error(message + package.string() + ": " + error.what());
    }
}

} // namespace

std::filesystem::path placeOf(const std::filesystem::path& output) {
    const auto type = std::filesystem::status(output).type();
    const bool isLink = std::filesystem::is_symlink(std::filesystem::symlink_status(output));
    if (type == std::filesystem::file_type::not_found && isLink) {
        throw std::runtime_error(output.string() + " is a dangling symbolic link");
    }
    if (type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::regular) {
        throw std::runtime_error(output.string() + " is not a regular file");
    }
    return std::filesystem::weakly_canonical(std::filesystem::absolute(output));
}

void signPackage(const SignRequest& request) {
    named("couldn't sign ", request.package, [&] { writeSigned(request); });
}

void stripPackage(const std::filesystem::path& package, const std::filesystem::path& output) {
    named("couldn't strip ", package, [&] { writeStripped(package, output); });
}

} // namespace Signing

#include "tools/vendara-sign/PackageSigner.h"

#include "common/Files.h"
#include "common/rpm/Reader.h"
#include "common/rpm/WholePackage.h"
#include "platform/reference/pkgverify/OpenPackage.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "tools/vendara-sign/FileSigner.h"

#include <algorithm>
#include <map>
#include <sys/stat.h>

namespace Signing {

using PackageSignatures::OpenPackage;
using PackageSignatures::Role;

namespace {

/// CMSes in the order in which a file carries them.
using CmsesByRole = std::map<Role, std::string>;

const char* nameOf(Role role) { return role == Role::Developer ? "developer" : "client"; }

void requireRole(const std::optional<Identity>& identity, Role role) {
    if (identity && PackageSignatures::certificateOf(*identity->certificate).role() != role) {
        throw std::runtime_error(std::string("the certificate given for the ") + nameOf(role) +
                                 " is not one of a " + nameOf(role));
    }
}

CmsesByRole existingCmses(const OpenPackage& package, const PackageSignatures::PackageDigest& digest) {
    CmsesByRole cmses;
    for (const auto& cms : package.cmses()) {
        const auto role = cms.certificate().role();
        if (!role || cms.data().content.package != digest || !cmses.emplace(*role, cms.data().der).second) {
            throw std::runtime_error("the signature that the package has is not valid");
        }
    }
    return cmses;
}

void addCms(CmsesByRole& cmses, Role role, const Identity& identity,
            const PackageSignatures::SignedContent& content) {
    if (cmses.contains(role)) {
        throw std::runtime_error(std::string("the package has a ") + nameOf(role) + "'s signature already");
    }
    cmses.emplace(role, PackageSignatures::makeCms(*identity.certificate, *identity.key, content));
}

void copyBytes(int source, std::uint64_t length, Common::AtomicFile& output) {
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
    }
}

/// What the output takes the place of: where it is a link, what that leads to.
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

void writeSigned(const SignRequest& request) {
    requireRole(request.developer, Role::Developer);
    requireRole(request.client, Role::Client);
    const OpenPackage package(request.package);
    struct stat status {};
    if (fstat(package.descriptor(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), "couldn't read");
    }
    const auto path = placeOf(request.output);
    Common::AtomicFile output(path.parent_path(), path.filename().native(),
                              {.mode = status.st_mode & 0777, .concurrentWriters = true});
    copyBytes(package.descriptor(), package.packageLength(), output);
    // From here on it is the copy that is read: nobody else writes to that.
    const auto digest = PackageSignatures::Container::digestOf(output.descriptor(), package.packageLength());
    const Common::Rpm::Reader reader("/proc/self/fd/" + std::to_string(output.descriptor()));
    if (!request.evenBroken) {
        Common::Rpm::requireWholePackage(reader, package.packageLength());
    }
    auto cmses = existingCmses(package, digest);
    if (request.developer) {
        addCms(cmses, Role::Developer, *request.developer,
               {digest, signFiles(reader, *request.developer, request.trustlets)});
    }
    if (request.client) {
        addCms(cmses, Role::Client, *request.client, {digest, {}});
    }
    std::vector<std::string> ordered;
    for (auto& [role, cms] : cmses) {
        ordered.push_back(std::move(cms));
    }
    output.write(PackageSignatures::Container::encodedTail(package.packageLength(), ordered));
    output.commit(Common::Durability::Now);
}

} // namespace

void signPackage(const SignRequest& request) {
    try {
        writeSigned(request);
    } catch (const std::exception& error) {
        throw std::runtime_error("couldn't sign " + request.package.string() + ": " + error.what());
    }
}

} // namespace Signing

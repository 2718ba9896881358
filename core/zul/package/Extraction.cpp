#include "core/zul/package/Extraction.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/LogLine.h"
#include "common/rpm/ExtractFileIterator.h"
#include "core/zul/package/DestinationTree.h"
#include "core/zul/package/PackagePath.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>

namespace Core::ZUL {

using Common::Error;
using Common::ErrorCode;
using Common::Rpm::EntryContent;
using Common::Rpm::EntryKind;
using Common::Rpm::PayloadEntry;

namespace {

template<typename Action>
void reported(const char* message, const Action& action) {
    try {
        action();
    } catch (const std::filesystem::filesystem_error& error) {
        Common::logError() << error;
        throw Error(ErrorCode::Filesystem, message);
    }
}

std::string errnoText(int error) { return std::error_code(error, std::generic_category()).message(); }

[[noreturn]] void throwNotWritten(const std::filesystem::path& place) {
    Common::logError() << errnoText(errno);
    throw Error(ErrorCode::Filesystem, "couldn't write rpm package content to " + place.native());
}

/// Writes payload entries into the package's directory.
class Extraction {
public:
    Extraction(const PackageIdentity& package, const PackageSignatures::Cms* developer,
               const std::filesystem::path& destination, const AttributeWriter& attributes,
               const ExtractionWatch& watch, std::uint64_t size)
        : package_(package)
        , developer_(developer)
        , paths_(package)
        , tree_(destination)
        , attributes_(attributes)
        , watch_(watch)
        , size_(size) {}

    void extract(const PayloadEntry& entry, EntryContent& content);
    void finish() {
        reported("couldn't extract directory", [&] { tree_.finish(); });
    }

private:
    void requireNotStopped() const;
    void extractFile(const PayloadEntry& entry, EntryContent& content);
    void writeContent(EntryContent& content, int file, const std::filesystem::path& place);
    void sign(const PayloadEntry& entry, int file, const std::filesystem::path& place);

    const PackageIdentity& package_;
    const PackageSignatures::Cms* developer_;
    PackagePath paths_;
    DestinationTree tree_;
    const AttributeWriter& attributes_;
    const ExtractionWatch& watch_;
    std::uint64_t size_;
    std::uint64_t written_ = 0;
};

void Extraction::requireNotStopped() const {
    if (watch_.stop.stop_requested()) {
        throw Error(ErrorCode::Internal, "the extraction was stopped");
    }
}

void Extraction::extract(const PayloadEntry& entry, EntryContent& content) {
    requireNotStopped();
    switch (entry.kind) {
    case EntryKind::Directory:
        reported("couldn't extract directory",
                 [&] { tree_.makeDirectory(paths_.toPackagePath(entry.path), entry.permissions); });
        break;
    case EntryKind::RegularFile:
        reported("couldn't extract regular file", [&] { extractFile(entry, content); });
        break;
    case EntryKind::SymbolicLink:
        reported("couldn't extract symlink", [&] {
            tree_.makeSymbolicLink(paths_.toPackagePath(entry.path),
                                   paths_.linkTarget(entry.path, entry.linkTarget));
        });
        break;
    case EntryKind::HardLink:
        reported("couldn't extract hardlink", [&] {
            tree_.makeHardLink(paths_.toPackagePath(entry.path), paths_.toPackagePath(entry.linkTarget));
        });
        break;
    }
}

void Extraction::extractFile(const PayloadEntry& entry, EntryContent& content) {
    const auto path = paths_.toPackagePath(entry.path);
    const auto place = tree_.nameOf(path);
    auto file = tree_.makeFile(path);
    writeContent(content, file.get(), place);
    // Permissions last: a file cannot be executed before it has its signature.
    if (entry.isSigned) {
        sign(entry, file.get(), place);
    }
    if (fchmod(file.get(), entry.permissions) != 0) {
        throw std::filesystem::filesystem_error("cannot set permissions", place,
                                                std::error_code(errno, std::generic_category()));
    }
    if (close(file.release()) != 0) {
        throwNotWritten(place);
    }
}

void Extraction::writeContent(EntryContent& content, int file, const std::filesystem::path& place) {
    for (auto piece = content.next(); !piece.empty(); piece = content.next()) {
        if (!Common::writeAll(file, piece)) {
            throwNotWritten(place);
        }
        written_ += piece.size();
        if (watch_.progress) {
            watch_.progress(written_, size_);
        }
        requireNotStopped();
    }
}

void Extraction::sign(const PayloadEntry& entry, int file, const std::filesystem::path& place) {
    if (developer_ == nullptr) {
        throw Error(ErrorCode::BadPackageSignature, "package doesn't have developer signature");
    }
    const auto attach = [&](const std::string& name, const std::string& value) {
        if (value.empty()) {
            return;
        }
        if (const int error = attributes_(file, name, value)) {
            throw Error(ErrorCode::Filesystem, "couldn't attach " + name + " extended attribute to " +
                                                   place.native() + ": " + errnoText(error));
        }
    };
    attach("security.ima", developer_->fileSignature(entry.fileIndex));
    attach("user.TA.shdr", developer_->trustletSignature(entry.fileIndex));
    attach("security.appid", package_.id());
}

} // namespace

int attachAttribute(int file, const std::string& name, const std::string& value) {
    return fsetxattr(file, name.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
}

void unpack(const PackageFile& file, const PackageIdentity& package, const PackageSignatures::Cms* developer,
            const std::filesystem::path& destination, const AttributeWriter& attributes,
            const ExtractionWatch& watch) try {
    const auto size = headerGetNumber(file.reader().header(), RPMTAG_LONGSIZE);
    Extraction extraction(package, developer, destination, attributes, watch, size);
    Common::Rpm::ExtractFileIterator(file.reader()).forEach([&](const auto& entry, auto& content) {
        extraction.extract(entry, content);
    });
    file.requireUnchanged();
    extraction.finish();
} catch (const std::filesystem::filesystem_error& error) {
    Common::logError() << error;
    throw Error(ErrorCode::Filesystem, "couldn't make directory to extract package into");
}

} // namespace Core::ZUL

#include "core/zul/Extraction.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/LogLine.h"

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

void writeContent(EntryContent& content, int file, const std::filesystem::path& place) {
    for (auto piece = content.next(); !piece.empty(); piece = content.next()) {
        if (!Common::writeAll(file, piece)) {
            throwNotWritten(place);
        }
    }
}

} // namespace

int attachAttribute(int file, const std::string& name, const std::string& value) {
    return fsetxattr(file, name.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
}

Extraction::Extraction(const Package& package, const std::filesystem::path& destination,
                       const AttributeWriter& attributes)
    : package_(package)
    , paths_(package)
    , tree_(destination)
    , attributes_(attributes) {}

void Extraction::extract(const PayloadEntry& entry, EntryContent& content) {
    switch (entry.kind) {
    case EntryKind::Directory:
        reported("couldn't extract directory",
                 [&] { tree_.makeDirectory(paths_.toPackagePath(entry.path), entry.permissions); });
        break;
    case EntryKind::RegularFile:
        reported("couldn't extract regular file", [&] { extractFile(entry, content); });
        break;
    case EntryKind::SymbolicLink:
        reported("couldn't extract symlink", [&] { extractSymbolicLink(entry); });
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
    // The permissions come last: nobody can run a file before it has its signature.
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

void Extraction::extractSymbolicLink(const PayloadEntry& entry) {
    tree_.makeSymbolicLink(paths_.toPackagePath(entry.path), paths_.linkTarget(entry.path, entry.linkTarget));
}

void Extraction::sign(const PayloadEntry& entry, int file, const std::filesystem::path& place) {
    const auto& developer = package_.developerCms();
    if (!developer) {
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
    attach("security.ima", developer->fileSignature(entry.fileIndex));
    attach("user.TA.shdr", developer->trustletSignature(entry.fileIndex));
    attach("security.appid", package_.id());
}

void Extraction::finish() {
    reported("couldn't extract directory", [&] { tree_.finish(); });
}

} // namespace Core::ZUL

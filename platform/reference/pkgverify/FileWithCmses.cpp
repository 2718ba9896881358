#include "platform/pkgverify/FileWithCmses.h"

#include "platform/reference/pkgverify/OpenPackage.h"

#include <exception>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

namespace PackageSignatures {

namespace {

/// Writes why the signatures of a file could not be read or do not hold.
/// @param path  of the file, or a link to it. It is written in ASCII: a name must not write log lines itself.
void warn(const char* words, const std::filesystem::path& path, const std::exception& reason) {
    std::error_code isNotALink;
    const auto target = std::filesystem::read_symlink(path, isNotALink);
    std::ostringstream text;
    text << "WARN: " << words << " the signatures of \"" << std::hex;
    for (const char character : (isNotALink ? path : target).native()) {
        const bool isPlain = character >= ' ' && character < 0x7f && character != '"' && character != '\\';
        isPlain ? text << character
                : text << "\\x" << std::setw(2) << std::setfill('0')
                       << static_cast<int>(static_cast<unsigned char>(character));
    }
    text << "\": " << reason.what() << '\n';
    std::cerr << text.str();
}

} // namespace

FileWithCmses::FileWithCmses(std::shared_ptr<const OpenPackage> file)
    : file_(std::move(file)) {}

std::optional<FileWithCmses> FileWithCmses::fromPath(const std::filesystem::path& path) {
    try {
        return FileWithCmses(std::make_shared<const OpenPackage>(path));
    } catch (const std::exception& error) {
        warn("couldn't read", path, error);
        return {};
    }
}

bool FileWithCmses::verifyCmses(const std::filesystem::path& caPath) const {
    try {
        file_->requireVerified(caPath);
        return true;
    } catch (const std::exception& error) {
        warn("couldn't verify", "/proc/self/fd/" + std::to_string(file_->descriptor()), error);
        return false;
    }
}

const std::vector<Cms>& FileWithCmses::cmses() const { return file_->cmses(); }

} // namespace PackageSignatures

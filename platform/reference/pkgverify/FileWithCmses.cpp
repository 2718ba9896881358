#include "platform/pkgverify/FileWithCmses.h"

#include "platform/reference/pkgverify/OpenPackage.h"

#include <exception>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

namespace PackageSignatures {

namespace {

/// The file's path as it is now, in ASCII: a name must not write log lines of its own.
std::string nameOf(const OpenPackage& file) {
    std::error_code error;
    const auto path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.descriptor()), error);
    std::ostringstream text;
    text << '"' << std::hex;
    for (const unsigned char character : path.native()) {
        const bool isPlain = character >= ' ' && character < 0x7f && character != '"' && character != '\\';
        isPlain ? text << static_cast<char>(character)
                : text << "\\x" << std::setw(2) << std::setfill('0') << static_cast<int>(character);
    }
    return text.str() + '"';
}

} // namespace

FileWithCmses::FileWithCmses(std::shared_ptr<const OpenPackage> file)
    : file_(std::move(file)) {}

std::optional<FileWithCmses> FileWithCmses::fromPath(const std::filesystem::path& path) {
    try {
        return FileWithCmses(std::make_shared<const OpenPackage>(path));
    } catch (const std::exception&) {
        return {};
    }
}

bool FileWithCmses::verifyCmses(const std::filesystem::path& caPath) const {
    try {
        file_->requireVerified(caPath);
        return true;
    } catch (const std::exception& error) {
        std::cerr << "WARN: couldn't verify the signatures of " + nameOf(*file_) + ": " + error.what() + "\n";
        return false;
    }
}

const std::vector<Cms>& FileWithCmses::cmses() const { return file_->cmses(); }

} // namespace PackageSignatures

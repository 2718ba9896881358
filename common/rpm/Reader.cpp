#include "common/rpm/Reader.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/rpm/PackageLayout.h"
#include "common/rpm/Transaction.h"

#include <rpm/header.h>
#include <rpm/rpmkeyring.h>
#include <rpm/rpmtd.h>

#include <cerrno>
#include <sys/mman.h>

namespace Common::Rpm {

namespace {

void freeTagData(rpmtd container) {
    rpmtdFreeData(container);
    rpmtdFree(container);
}

/// Whether the failure of an open() may be temporary.
bool isPassing(int error) {
    return error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR;
}

// When memory is short librpm ends the process, and the Lua in it aborts.
void requireMemory(std::uint64_t headers) {
    constexpr std::uint64_t forConfiguration = 16UL * 1024 * 1024;
    const auto size = forConfiguration + 4 * headers;
    void* spare = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (spare == MAP_FAILED) {
        throw filesystemError("not enough memory to read the rpm package");
    }
    munmap(spare, size);
}

void requireHeadersWithinBounds(FD_t file) {
    const auto layout = readPackageLayout(Fileno(file));
    const auto size = layout ? layout->payloadOffset - PackageLayout::signatureOffset : 0;
    if (size > Reader::maximumHeaderSize) {
        throw Error(ErrorCode::BadPackage, "the headers of the rpm package are too large");
    }
    requireMemory(size);
}

/// Reads and checks the header at the file's position.
rpmRC readHeader(const Transaction& transaction, FD_t file, const std::string& path,
                 std::shared_ptr<std::remove_pointer_t<Header>>& result) {
    Header header = nullptr;
    const auto verdict = rpmReadPackageFile(transaction.get(), file, path.c_str(), &header);
    result = {header, headerFree};
    return verdict;
}

} // namespace

UniqueFd openPackageFile(const std::string& path) {
    auto descriptor = openRegularFile(path);
    if (!descriptor && isPassing(errno)) {
        throw filesystemError("couldn't open rpm package");
    }
    if (!descriptor) {
        throw Error(ErrorCode::FileNotFound, "couldn't open rpm package");
    }
    return descriptor;
}

Reader::Reader(const std::string& path)
    : Reader(openPackageFile(path), path) {}

Reader::Reader(const UniqueFd& file, const std::string& path)
    : file_(fdDup(file.get()), Fclose) {
    if (!file_) {
        throw filesystemError("couldn't open rpm package");
    }
    requireHeadersWithinBounds(file_.get());
    const Transaction transaction; // loads the configuration that the read needs
    // To load its keyring librpm starts a shell and opens the user's key database. Only a package with an rpm
    // signature needs that: with an empty keyring the read fails for a missing key, and is then repeated.
    const std::unique_ptr<std::remove_pointer_t<rpmKeyring>, rpmKeyring (*)(rpmKeyring)> noKeys(
        rpmKeyringNew(), rpmKeyringFree);
    rpmtsSetKeyring(transaction.get(), noKeys.get());
    auto result = readHeader(transaction, file_.get(), path, header_);
    if ((result == RPMRC_NOKEY || result == RPMRC_NOTTRUSTED) && Fseek(file_.get(), 0, SEEK_SET) == 0) {
        rpmtsSetKeyring(transaction.get(), nullptr);
        result = readHeader(transaction, file_.get(), path, header_);
    }
    if (result != RPMRC_OK && Ferror(file_.get()) != 0) {
        throw Error(ErrorCode::Filesystem,
                    std::string("couldn't read rpm package: ") + Fstrerror(file_.get()));
    }
    if (result != RPMRC_OK || !header_) {
        throw Error(ErrorCode::BadPackage, "couldn't read rpm package");
    }
}

Reader::Reader(Header header)
    : header_(header, headerFree) {}

std::string Reader::getStringTag(rpmTag tag) const {
    const std::shared_ptr<std::remove_pointer_t<rpmtd>> container(rpmtdNew(), freeTagData);
    if (headerGet(header_.get(), tag, container.get(), HEADERGET_EXT) != 0) {
        if (const char* text = rpmtdGetString(container.get())) {
            return text;
        }
    }
    throw Error(ErrorCode::BadPackage,
                "couldn't retrieve rpm tag from package (type=" + std::to_string(tag) + ")");
}

} // namespace Common::Rpm

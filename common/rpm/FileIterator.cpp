#include "common/rpm/FileIterator.h"

#include "common/Error.h"
#include "common/Files.h"
#include "common/LogLine.h"

#include <rpm/header.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace Common::Rpm {

namespace {

struct Compressor {
    std::string_view name;
    const char* mode; ///< for librpm to read with
};

constexpr std::array compressors{
    Compressor{"gzip", "r.gzdio"}, Compressor{"bzip2", "r.bzdio"}, Compressor{"xz", "r.xzdio"},
    Compressor{"lzma", "r.lzdio"}, Compressor{"zstd", "r.zstdio"},
};

[[noreturn]] void throwNotOpened() {
    throw Error(ErrorCode::BadPackage, "couldn't open rpm package for extraction");
}

const Compressor& compressorOf(Header header) {
    const char* format = headerGetString(header, RPMTAG_PAYLOADFORMAT);
    if (format != nullptr && std::string_view(format) != "cpio") {
        throwNotOpened();
    }
    const char* name = headerGetString(header, RPMTAG_PAYLOADCOMPRESSOR);
    for (const auto& compressor : compressors) {
        if (compressor.name == (name != nullptr ? name : "gzip")) {
            return compressor;
        }
    }
    throwNotOpened();
}

// Opens the file again for an independent position: a duplicated descriptor would share it.
UniqueFd openAtPayload(const Reader& reader) {
    if (reader.file() == nullptr) {
        throwNotOpened();
    }
    const int original = Fileno(reader.file());
    const off_t offset = lseek(original, 0, SEEK_CUR);
    UniqueFd file(open(("/proc/self/fd/" + std::to_string(original)).c_str(), O_RDONLY | O_CLOEXEC));
    if (offset < 0 || !file || lseek(file.get(), offset, SEEK_SET) != offset) {
        throw filesystemError("couldn't open rpm package for extraction");
    }
    return file;
}

// A header that names no compressor may have a payload without compression, which librpm's gzip reader
// passes through.
bool isGzip(const UniqueFd& file) {
    std::array<char, 2> start{};
    const auto offset = static_cast<std::uint64_t>(lseek(file.get(), 0, SEEK_CUR));
    const auto count = readAll(file.get(), std::as_writable_bytes(std::span(start)), offset);
    if (!count) {
        throw filesystemError("couldn't read payload of rpm package");
    }
    return *count == start.size() && start == std::array{'\x1f', '\x8b'};
}

/// Blocks signals in this thread: librpm treats a read interrupted by a signal handler as failed.
class SignalsHeldBack {
public:
    SignalsHeldBack() {
        sigset_t held;
        sigfillset(&held);
        for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGTRAP}) {
            sigdelset(&held, fault);
        }
        pthread_sigmask(SIG_SETMASK, &held, &before_);
    }
    ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

private:
    sigset_t before_{};
};

} // namespace

FileIterator::FileIterator(const Reader& reader)
    : files_(reader.header())
    , payload_(nullptr, Fclose)
    , iterator_(nullptr, rpmfiFree) {
    openPayload(reader);
    requireShortLinks();
    iterator_.reset(
        rpmfiNewArchiveReader(payload_.get(), files_.get(), RPMFI_ITER_READ_ARCHIVE_CONTENT_FIRST));
    if (!iterator_) {
        throwNotOpened();
    }
    seen_.resize(static_cast<std::size_t>(files_.size()));
}

void FileIterator::openPayload(const Reader& reader) {
    const auto& compressor = compressorOf(reader.header());
    file_ = openAtPayload(reader);
    if (compressor.name == "gzip" && isGzip(file_)) {
        stream_ = std::make_unique<GzipStream>(file_.get());
    }
    payload_.reset(fdDup(stream_ ? stream_->descriptor() : file_.get()));
    if (!payload_) {
        throw filesystemError("couldn't open rpm package for extraction");
    }
    // librpm's gzip reader passes the decompressed content through and completes short reads. Without it
    // librpm would treat a short read, for example after SIGSTOP, as the end.
    if (Fdopen(payload_.get(), compressor.mode) == nullptr) {
        throwNotOpened();
    }
}

// librpm reads a link's target into memory that it allocates by the size in the header.
void FileIterator::requireShortLinks() const {
    for (int index = 0; index < files_.size(); ++index) {
        if (S_ISLNK(rpmfilesFMode(files_.get(), index)) && rpmfilesFSize(files_.get(), index) >= PATH_MAX) {
            throw Error(ErrorCode::BadPackage, "the rpm package has a symbolic link that is too long");
        }
    }
}

bool FileIterator::next() {
    const int result = [&] {
        const SignalsHeldBack guard;
        return rpmfiNext(iterator_.get());
    }();
    if (result == RPMERR_ITER_END) {
        checkComplete();
        return false;
    }
    if (result < 0) {
        const std::unique_ptr<char, void (*)(void*)> reason(rpmfileStrerror(result), std::free);
        fail(std::string("couldn't read payload of rpm package: ") + (reason ? reason.get() : "damaged"));
    }
    markSeen(rpmfiFX(iterator_.get()));
    taken_ = 0;
    return true;
}

// librpm does not report whether the read or the decompression failed, so the file is read once more.
void FileIterator::fail(const std::string& message) {
    errno = stream_ ? stream_->stop() : 0;
    char byte = 0;
    if (errno != 0 || ::read(file_.get(), &byte, 1) < 0) {
        throw filesystemError("couldn't read payload of rpm package");
    }
    throw Error(ErrorCode::BadPackage, message);
}

void FileIterator::markSeen(int index) {
    const auto place = static_cast<std::size_t>(index);
    if (place >= seen_.size() || seen_[place]) {
        throw Error(ErrorCode::BadPackage,
                    "the payload of the rpm package has an entry twice: " + Common::quoted(path()));
    }
    seen_[place] = true;
}

void FileIterator::checkComplete() const {
    for (std::size_t place = 0; place < seen_.size(); ++place) {
        const int index = static_cast<int>(place);
        if (!seen_[place] && (rpmfilesFFlags(files_.get(), index) & RPMFILE_GHOST) == 0) {
            throw Error(ErrorCode::BadPackage, "the payload of the rpm package lacks an entry: " +
                                                   Common::quoted(files_.name(index)));
        }
    }
}

std::string FileIterator::path() const {
    const char* name = rpmfiFN(iterator_.get());
    return name != nullptr ? name : "";
}

std::string FileIterator::linkTarget() const {
    const char* target = rpmfiFLink(iterator_.get());
    return target != nullptr ? target : "";
}

FileDigest FileIterator::digest() const {
    int algorithm = 0;
    std::size_t length = 0;
    const unsigned char* value = rpmfiFDigest(iterator_.get(), &algorithm, &length);
    return value != nullptr ? FileDigest{algorithm, {value, value + length}} : FileDigest{};
}

std::size_t FileIterator::read(std::span<char> buffer) {
    const SignalsHeldBack guard;
    std::size_t total = 0;
    while (total < buffer.size() && taken_ < size()) {
        const auto count = rpmfiArchiveRead(iterator_.get(), buffer.data() + total, buffer.size() - total);
        if (count <= 0) {
            fail("couldn't read content from rpm package");
        }
        total += static_cast<std::size_t>(count);
        taken_ += static_cast<std::uint64_t>(count);
    }
    return total;
}

} // namespace Common::Rpm

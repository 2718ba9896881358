#include "platform/pkgverify/FileWithCmses.h"
#include "platform/reference/pkgverify/Container.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

/// Feeds whole files to the reader of package signatures. None of them was signed by an authority that is
/// asked, so whatever carries a signature must not verify.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("fuzz", MFD_CLOEXEC);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    const auto signedFile =
        PackageSignatures::FileWithCmses::fromPath("/proc/self/fd/" + std::to_string(file));
    if (signedFile && signedFile->verifyCmses("/dev/null") && !signedFile->cmses().empty()) {
        std::abort();
    }
    return 0;
}

#include "fuzz/Require.h"
#include "platform/pkgverify/FileWithCmses.h"

#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

/// Feeds whole files to the reader of package signatures. No input is signed by the authority, so no file
/// with signatures may verify.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("fuzz", MFD_CLOEXEC);
    Fuzz::require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    const auto signedFile =
        PackageSignatures::FileWithCmses::fromPath("/proc/self/fd/" + std::to_string(file));
    Fuzz::require(!signedFile || !signedFile->verifyCmses("/dev/null") || signedFile->cmses().empty());
    return 0;
}

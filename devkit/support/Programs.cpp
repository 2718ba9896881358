#include "devkit/support/Programs.h"

#include <array>
#include <stdexcept>
#include <unistd.h>

namespace Devkit {

namespace {

// Relative to this program's folder: of the build tree first, then of an installation.
constexpr std::array folders{".",
                             "../../daemon",
                             "../../tools",
                             "../../tools/vendaractl",
                             "../../tools/vendara-sign",
                             "../libexec",
                             "../libexec/vendara-devkit"};

} // namespace

std::filesystem::path findProgram(const std::string& name) {
    const auto own = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    for (const auto* folder : folders) {
        auto candidate = (own / folder / name).lexically_normal();
        if (std::filesystem::is_regular_file(candidate) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error("couldn't find the program " + name + " near " + own.native());
}

} // namespace Devkit

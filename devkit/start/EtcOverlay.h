#pragma once

#include <filesystem>
#include <string>

namespace Devkit {

/// Lays a directory over "/etc" for one program. The program gets a mount namespace of its own
/// (mount_namespaces(7)) and, where that takes it, a user namespace in which it keeps its user; everybody
/// else sees the old "/etc".
class EtcOverlay {
public:
    /// @param layer  what is to be found in "/etc" first; a path without ",", ":" and "\"
    explicit EtcOverlay(const std::filesystem::path& layer);

    /// Enters the namespaces, for good. Makes system calls only, so it may run between fork and exec.
    /// @return 0, or the errno value of what the kernel refused
    [[nodiscard]] int enter() const noexcept;

private:
    [[nodiscard]] bool mapIds() const noexcept;

    std::string mountOptions_;
    std::string userMap_;
    std::string groupMap_;
};

} // namespace Devkit

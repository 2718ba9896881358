#include "devkit/start/EtcOverlay.h"

#include "common/UniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <string_view>
#include <sys/mount.h>
#include <unistd.h>

namespace Devkit {

namespace {

std::string sameId(unsigned id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; }

bool writeTo(const char* file, std::string_view text) {
    const Common::UniqueFd descriptor(open(file, O_WRONLY | O_CLOEXEC));
    return descriptor && write(descriptor.get(), text.data(), text.size()) > 0;
}

} // namespace

EtcOverlay::EtcOverlay(const std::filesystem::path& layer)
    : mountOptions_("lowerdir=" + layer.native() + ":/etc")
    , userMap_(sameId(geteuid()))
    , groupMap_(sameId(getegid())) {}

int EtcOverlay::enter() const noexcept {
    const bool privileged = unshare(CLONE_NEWNS) == 0;
    if (!privileged && (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !mapIds())) {
        return errno;
    }
    // First of all no mount of this namespace may reach the others.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("overlay", "/etc", "overlay", MS_RDONLY, mountOptions_.c_str()) != 0) {
        return errno;
    }
    return 0;
}

// user_namespaces(7): a plain user maps itself only, and its group only after giving up setgroups(2).
bool EtcOverlay::mapIds() const noexcept {
    return writeTo("/proc/self/setgroups", "deny") && writeTo("/proc/self/uid_map", userMap_) &&
           writeTo("/proc/self/gid_map", groupMap_);
}

} // namespace Devkit

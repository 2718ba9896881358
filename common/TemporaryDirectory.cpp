#include "common/TemporaryDirectory.h"

#include "common/Files.h"
#include "common/Guard.h"

#include <cstdlib>

namespace Common {

TemporaryDirectory::TemporaryDirectory(const std::filesystem::path& parent, const std::string& name) {
    makePublicDirectories(parent);
    auto pattern = (parent / (name + "-XXXXXX")).native();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw filesystemError("couldn't create " + pattern);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    guarded("couldn't remove a temporary directory", [this] { removeTree(path_); });
}

} // namespace Common

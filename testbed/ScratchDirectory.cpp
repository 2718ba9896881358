#include "testbed/ScratchDirectory.h"

#include <fstream>
#include <set>
#include <sstream>
#include <sys/xattr.h>

namespace Testbed {

namespace fs = std::filesystem;

void writeFile(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

std::string readFile(const fs::path& file) {
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

std::string readFile(const Common::UniqueFd& file) {
    // Opened anew it has an offset of its own.
    return readFile("/proc/self/fd/" + std::to_string(file.get()));
}

std::string extendedAttribute(const fs::path& file, const char* name) {
    std::string value(4096, '\0');
    const auto size = lgetxattr(file.c_str(), name, value.data(), value.size());
    value.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return value;
}

std::string digestOfTree(const fs::path& directory) {
    std::set<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        std::ostringstream line;
        const auto status = entry.symlink_status();
        line << entry.path().lexically_relative(directory).native() << ' ' << static_cast<int>(status.type())
             << ' ' << std::oct << static_cast<unsigned>(status.permissions()) << ' ';
        if (fs::is_symlink(status)) {
            line << fs::read_symlink(entry.path()).native();
        } else if (fs::is_regular_file(status)) {
            line << std::hash<std::string>()(readFile(entry.path()));
        }
        lines.insert(line.str());
    }
    std::string digest;
    for (const auto& line : lines) {
        digest += line + '\n';
    }
    return digest;
}

} // namespace Testbed

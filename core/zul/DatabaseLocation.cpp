#include "core/zul/DatabaseLocation.h"

#include "common/Files.h"
#include "common/LogLine.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <sstream>

namespace Core::ZUL {

namespace fs = std::filesystem;

namespace {

using Tree = boost::property_tree::ptree;

Tree parsed(const std::string& text) {
    std::istringstream stream(text);
    stream.exceptions(std::ios::badbit); // a failed allocation is not a syntax error
    Tree tree;
    boost::property_tree::read_ini(stream, tree);
    return tree;
}

fs::path rootDirectoryOf(const Tree& tree) {
    return tree.get<std::string>("database.root_directory", "/opt/app");
}

DatabaseLocation locationOf(const Tree& tree) {
    return {rootDirectoryOf(tree), tree.get<std::string>("database.temp_directory", "/opt/zul/tmp")};
}

} // namespace

// Links in the database have absolute targets, so its paths must be absolute. Without memory libstdc++
// crashes when it extends a path that ends with a slash.
fs::path wholePath(const fs::path& path) {
    std::error_code error;
    auto result = fs::absolute(path, error);
    const auto& whole = error ? path : result;
    return whole.has_filename() ? whole : whole.parent_path();
}

DatabaseLocation::DatabaseLocation(const fs::path& configuration)
    : DatabaseLocation(ifReadable(configuration).value_or(locationOf({}))) {}

std::optional<DatabaseLocation> DatabaseLocation::ifReadable(const fs::path& configuration) {
    constexpr std::size_t sizeLimit = 1024UL * 1024;
    std::optional<DatabaseLocation> location;
    try {
        if (const auto text = Common::readRegularFile(configuration, sizeLimit)) {
            return locationOf(parsed(*text));
        }
        location = locationOf({});
    } catch (const boost::property_tree::ptree_error&) {
        location = locationOf({});
    } catch (const std::exception&) {
        // It could not be read.
    }
    Common::logError() << "couldn't parse config file: " << configuration.native();
    return location;
}

std::optional<fs::path> DatabaseLocation::rootDirectoryIn(const std::string& text) try {
    return rootDirectoryOf(parsed(text));
} catch (const boost::property_tree::ptree_error&) {
    return std::nullopt;
}

DatabaseLocation::DatabaseLocation(const fs::path& root, const fs::path& temp)
    : rootDirectory_(wholePath(root))
    , tempDirectory_(wholePath(temp)) {}

bool DatabaseLocation::hasPreparedNextVersion(const std::string& packageId) const {
    return fs::is_directory(rootDirectory_ / fs::path(packageId).relative_path() / "next");
}

} // namespace Core::ZUL

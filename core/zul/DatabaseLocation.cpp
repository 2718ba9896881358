#include "core/zul/DatabaseLocation.h"

#include "common/LogLine.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <fstream>
#include <stdexcept>

namespace Core::ZUL {

namespace fs = std::filesystem;

// Links in the database name whole paths, which a relative one would not be from where they are.
fs::path wholePath(const fs::path& path) {
    std::error_code error;
    auto result = fs::absolute(path, error);
    return error ? path : result;
}

DatabaseLocation::DatabaseLocation(const fs::path& configuration) {
    std::ifstream stream(configuration);
    *this = DatabaseLocation(stream, configuration);
}

DatabaseLocation::DatabaseLocation(std::istream& configuration, const fs::path& name) {
    boost::property_tree::ptree tree;
    try {
        if (!configuration.good()) {
            throw std::runtime_error("not readable");
        }
        boost::property_tree::read_ini(configuration, tree);
    } catch (const std::exception&) {
        Common::logError() << "couldn't parse config file: " << name.native();
        tree.clear();
    }
    rootDirectory_ = wholePath(tree.get<std::string>("database.root_directory", "/opt/app"));
    tempDirectory_ = wholePath(tree.get<std::string>("database.temp_directory", "/opt/zul/tmp"));
}

DatabaseLocation::DatabaseLocation(const fs::path& root, const fs::path& temp)
    : rootDirectory_(wholePath(root))
    , tempDirectory_(wholePath(temp)) {}

bool DatabaseLocation::hasPreparedNextVersion(const std::string& packageId) const {
    return fs::is_directory(rootDirectory_ / fs::path(packageId).relative_path() / "next");
}

} // namespace Core::ZUL

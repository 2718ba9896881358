#include "core/zul/Database.h"

#include "common/LogLine.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

namespace Core::ZUL {

namespace {

boost::property_tree::ptree readConfiguration(const std::filesystem::path& file) {
    boost::property_tree::ptree tree;
    try {
        boost::property_tree::read_ini(file.native(), tree);
        return tree;
    } catch (const std::exception&) {
        Common::logError() << "couldn't parse config file: " << file.native();
        return {};
    }
}

} // namespace

Database::Database(const std::filesystem::path& configuration) {
    const auto tree = readConfiguration(configuration);
    rootDirectory_ = tree.get<std::string>("database.root_directory", "/opt/app");
    tempDirectory_ = tree.get<std::string>("database.temp_directory", "/opt/zul/tmp");
}

bool Database::hasPreparedNextVersion(const std::string& packageId) const {
    const auto package = rootDirectory_ / std::filesystem::path(packageId).relative_path();
    return std::filesystem::is_directory(package / "next");
}

} // namespace Core::ZUL

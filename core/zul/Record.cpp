#include "core/zul/Record.h"

#include "common/Files.h"
#include "common/LogLine.h"
#include "common/Names.h"

#include <boost/algorithm/string/trim.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <sstream>

namespace Core::ZUL {

namespace {

namespace pt = boost::property_tree;
namespace Keys = Common::Names::PackageKeys;
using Common::Error;
using Common::ErrorCode;

constexpr std::size_t sizeLimit = 1024UL * 1024UL;

PackageData parse(const std::string& text) {
    std::istringstream stream(text);
    stream.exceptions(std::ios::badbit); // a failed allocation is not a syntax error
    pt::ptree tree;
    pt::read_ini(stream, tree);
    PackageData data;
    for (const auto& [section, keys] : tree) {
        for (const auto& [key, value] : keys) {
            auto dotted = section;
            dotted.append(".").append(key);
            data.emplace(std::move(dotted), value.data());
        }
    }
    return data;
}

std::string format(const PackageData& data) {
    pt::ptree tree;
    for (const auto& [key, value] : data) {
        tree.put(pt::ptree::path_type(key, '.'), value);
    }
    std::ostringstream stream;
    pt::write_ini(stream, tree);
    return stream.str();
}

/// write_ini() does not escape: a line break in a value would be read as a further line.
void requireReadable(const std::string& text, const PackageData& given) {
    PackageData expected;
    for (const auto& [key, value] : given) {
        expected.emplace(key, boost::algorithm::trim_copy(value));
    }
    if (parse(text) != expected || text.size() > sizeLimit) {
        throw Error(ErrorCode::Filesystem, "an entry would not read back as it was given");
    }
}

} // namespace

void writeRecord(const PackageIdentity& package, const PackageData& entries,
                 const std::filesystem::path& directory) {
    PackageData data{{Keys::id, package.id()}, {Keys::version, package.version()}};
    if (package.orgName() && package.appName()) {
        data.emplace(Keys::orgName, *package.orgName());
        data.emplace(Keys::appName, *package.appName());
    }
    for (const auto& [key, value] : entries) {
        data.insert_or_assign(key, value);
    }
    try {
        const auto text = format(data);
        requireReadable(text, data);
        Common::AtomicFile file(directory, recordName);
        file.write(text);
        file.commit(Common::Durability::Later);
    } catch (const std::exception& error) {
        const auto path = directory / recordName;
        Common::logError() << "couldn't write package record: " << error;
        throw Error(ErrorCode::Filesystem, "couldn't create quenra.pkg file " + path.native());
    }
}

PackageData parseRecord(const std::string& text, const std::filesystem::path& file) {
    PackageData data;
    try {
        data = parse(text);
    } catch (const pt::ini_parser_error& error) {
        const pt::ini_parser_error located(error.message(), file.native(), error.line());
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    std::string("couldn't parse quenra.pkg file: ") + located.what());
    }
    for (const auto& key : {Keys::id, Keys::version, Keys::certificateSubgroup, Keys::certificateId}) {
        if (!data.contains(key)) {
            throw Error(ErrorCode::CorruptedInstalledPackage,
                        "package doesn't contains required key: " + key);
        }
    }
    return data;
}

PackageData readRecord(const std::filesystem::path& file, const Common::FileReader& read) {
    std::optional<std::string> text;
    try {
        text = read(file, sizeLimit);
    } catch (const Error& error) {
        // A read error is not damage of the package.
        if (error.code() != ErrorCode::FileNotFound) {
            throw;
        }
        throw Error(ErrorCode::CorruptedInstalledPackage,
                    std::string("couldn't parse quenra.pkg file: ") + error.what());
    }
    if (!text) {
        throw Error(ErrorCode::CorruptedInstalledPackage, "quenra.pkg doesn't exist: " + file.native());
    }
    return parseRecord(*text, file);
}

} // namespace Core::ZUL

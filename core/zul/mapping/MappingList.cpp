#include "core/zul/mapping/MappingList.h"

#include "common/LogLine.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace Core::ZUL {

namespace {

using Common::Error;
using Common::ErrorCode;

constexpr std::size_t sizeLimit = 256UL * 1024UL * 1024UL;

std::optional<std::string> readText(const std::filesystem::path& versionDirectory,
                                    const Common::FileReader& read = Common::readRegularFile) {
    try {
        return read(versionDirectory / mappingListName, sizeLimit);
    } catch (const Error& error) {
        if (error.code() != ErrorCode::FileNotFound) {
            throw;
        }
        return std::nullopt;
    }
}

} // namespace

std::optional<MappingList> readMappingList(const std::filesystem::path& versionDirectory,
                                           const Common::FileReader& read) {
    const auto text = readText(versionDirectory, read);
    if (!text) {
        return std::nullopt;
    }
    MappingList list;
    for (std::string_view rest(*text); !rest.empty();) {
        const auto line = rest.substr(0, rest.find('\n'));
        list.emplace_back(line);
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
    return list;
}

void writeMappingList(const std::filesystem::path& versionDirectory, const MappingList& list,
                      Common::Durability durability) {
    std::string text;
    for (const auto& target : list) {
        text += target + "\n";
    }
    const char* failure = "couldn't open file to create mapping list";
    try {
        if (!Common::linkTarget(versionDirectory / mappingListName) && readText(versionDirectory) == text) {
            return;
        }
        Common::AtomicFile file(versionDirectory, mappingListName);
        failure = "couldn't write lines to mapping list";
        if (text.size() > sizeLimit) { // such a list would not be read again
            throw Error(ErrorCode::Filesystem, "the mapping list is too large");
        }
        file.write(text);
        file.commit(durability);
    } catch (const Error& error) {
        Common::logError() << "couldn't write package mapping list: " << error;
        throw Error(ErrorCode::Filesystem, failure);
    }
}

bool keepMappingListOf(const std::filesystem::path& otherVersion,
                       const std::filesystem::path& versionDirectory) {
    const auto list = readMappingList(otherVersion);
    if (list) {
        writeMappingList(versionDirectory,
                         mergedMappingList(readMappingList(versionDirectory).value_or(MappingList()), *list),
                         Common::Durability::Now);
    }
    return list.has_value();
}

MappingList mergedMappingList(MappingList first, const MappingList& second) {
    const std::unordered_set<std::string> known(first.begin(), first.end());
    std::copy_if(second.begin(), second.end(), std::back_inserter(first),
                 [&known](const auto& target) { return !known.contains(target); });
    return first;
}

} // namespace Core::ZUL

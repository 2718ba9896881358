#pragma once

#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <sstream>

namespace Testbed {

/// The JSON objects in the output of a tool, one a line. Lines of the log are left out; others are failures.
inline std::vector<nlohmann::json> objectsOf(const std::string& output) {
    std::vector<nlohmann::json> objects;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('{')) {
            objects.push_back(nlohmann::json::parse(line));
        } else {
            EXPECT_THAT(line, testing::MatchesRegex("(INFO|WARN|ERROR): .*"));
        }
    }
    return objects;
}

/// Expects each member of a JSON text, at every depth, in the manual of vendaractl.
inline void expectDocumented(const nlohmann::json& value) {
    static const auto manual = readFile(MANUALS "/vendaractl.1");
    if (!value.is_structured()) {
        return;
    }
    for (const auto& [key, member] : value.items()) {
        if (value.is_object()) {
            const std::regex line("\n\\.Va ([^\n]* )?" + key + "[ \n]");
            EXPECT_TRUE(std::regex_search(manual, line)) << key;
        }
        expectDocumented(member);
    }
}

} // namespace Testbed

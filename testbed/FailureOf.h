#pragma once

#include "common/Error.h"

#include <string>
#include <utility>

namespace Testbed {

/// Runs an action that should fail.
/// @return code and text of its Common::Error; none and "" when it succeeds
template<typename Action>
std::pair<Common::ErrorCode, std::string> failureOf(const Action& action) {
    try {
        action();
    } catch (const Common::Error& error) {
        return {error.code(), error.what()};
    }
    return {Common::ErrorCode::None, ""};
}

} // namespace Testbed

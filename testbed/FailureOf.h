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

/// Checks that an action fails with this error; for tests that include GoogleMock.
#define EXPECT_ERROR(action, expectedCode, message)                                                          \
    EXPECT_THAT(Testbed::failureOf([&] { static_cast<void>(action); }),                                      \
                testing::Pair(Common::ErrorCode::expectedCode, message))

} // namespace Testbed

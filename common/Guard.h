#pragma once

#include "common/LogLine.h"

#include <exception>
#include <string_view>

namespace Common {

/// Makes a call from which no exception may escape, for example in a thread function or a callback of a C
/// library. An exception is logged as error lines, `message` first.
template<typename Call>
void guarded(std::string_view message, Call&& call) noexcept {
    try {
        call();
    } catch (const std::exception& error) {
        logFailure(LogLevel::Error, message, error);
    } catch (...) {
        logError() << message;
    }
}

} // namespace Common

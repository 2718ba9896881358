#pragma once

#include "common/LogLine.h"

#include <exception>
#include <string_view>

namespace Common {

/// Makes a call that must not throw, for example on a thread of the program or below frames of a C library.
/// An exception is logged as error lines that begin with `message`.
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

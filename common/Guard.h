#pragma once

#include "common/LogLine.h"

#include <exception>
#include <string_view>

namespace Common {

/// Calls what must not throw here: on a thread of our own or below a C library's frames. An exception becomes
/// error lines that begin with the words, and goes no further.
template<typename Call>
void guarded(std::string_view words, Call&& call) noexcept {
    try {
        call();
    } catch (const std::exception& error) {
        logFailure(LogLevel::Error, words, error);
    } catch (...) {
        logError() << words;
    }
}

} // namespace Common

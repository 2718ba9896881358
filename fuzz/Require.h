#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <source_location>

namespace Fuzz {

using Place = std::source_location;

/// Aborts unless the condition is true. Prints the line, because the stack may not be readable.
inline void require(bool holds, const Place& place = Place::current(),
                    const char* reason = "not as required") {
    if (!holds) {
        static_cast<void>(std::fprintf(stderr, "%s:%u: %s\n", place.file_name(), place.line(), reason));
        std::abort();
    }
}

/// The same for a call that returns a negative errno value when it fails.
inline void requireDone(int result, const Place& place = Place::current()) {
    require(result >= 0, place, std::strerror(-result));
}

} // namespace Fuzz

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace Tools {

/// Whether a descriptor is a terminal that supports cursor movements.
inline bool isTerminal(int descriptor) {
    const char* const kind = std::getenv("TERM");
    return isatty(descriptor) != 0 && kind != nullptr && std::string_view(kind) != "dumb";
}

/// Shows the progress of a long operation in a line that is rewritten and finally erased. Shows nothing
/// unless standard error is a terminal that supports this. Used by one thread.
class Progress {
public:
    /// @param activity  the activity, in ASCII: "signing"
    /// @param index  of the package, where there are several
    Progress(const std::string& activity, std::size_t index, std::size_t count)
        : activity_(activity +
                    (count > 1 ? " " + std::to_string(index + 1) + " of " + std::to_string(count) : "")) {}
    ~Progress() { end(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// @param done, total  bytes; a total of 0 is unknown
    void operator()(std::uint64_t done, std::uint64_t total) {
        const auto part =
            total == 0 ? 0 : static_cast<double>(std::min(done, total)) / static_cast<double>(total);
        const int percent = static_cast<int>(100 * part);
        if (!isTerminal_ || percent == shown_) {
            return;
        }
        shown_ = percent;
        // Other output must start at the beginning of the line, so the cursor is left there.
        std::cerr << activity_ << ": " << percent << " %\x1b[K\r" << std::flush;
    }

    /// Erases the line.
    void end() {
        if (std::exchange(shown_, -1) >= 0) {
            std::cerr << "\x1b[K" << std::flush;
        }
    }

private:
    std::string activity_;
    bool isTerminal_ = isTerminal(STDERR_FILENO);
    int shown_ = -1; ///< percent; -1: no line is shown
};

} // namespace Tools

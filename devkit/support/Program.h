#pragma once

#include "common/UniqueFd.h"

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Devkit {

/// A program whose standard output and error are read while it runs. Killed when the object ends. One thread.
class Program {
public:
    /// Throws std::system_error when it cannot be started.
    /// @param environment  further variables, "NAME=value"
    explicit Program(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The next line that it writes, without its end; nothing at the end of its output.
    /// Throws std::runtime_error, with the program's name and output, when none comes within the limit.
    std::optional<std::string> readLine(std::chrono::milliseconds limit);

    /// All that it has written, as far as it was read.
    [[nodiscard]] const std::string& output() const { return output_; }

    /// Waits for its end, after its output has been read to the end.
    /// @return exit status, or 128 and the signal's number
    int wait();

private:
    std::string name_;
    Common::UniqueFd pipe_;
    std::string output_;
    std::size_t read_ = 0; // how much of the output was told
    pid_t process_ = -1;
};

} // namespace Devkit

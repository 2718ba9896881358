#pragma once

#include "common/UniqueFd.h"
#include "testbed/WaitUntil.h"

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Testbed {

/// A child process with standard output and error in one file. The destructor kills it. Throws
/// std::system_error for a program that cannot be executed.
class Process {
public:
    struct Options {
        std::map<std::string, std::string> environment = {}; ///< added to this process's own
        std::filesystem::path directory = {};                ///< to run in; empty: this process's
        std::string input = {};                              ///< its standard input
    };

    explicit Process(const std::vector<std::string>& arguments)
        : Process(arguments, Options{}) {}
    Process(const std::vector<std::string>& arguments, const Options& options);
    /// Takes ownership of a child that writes to the file.
    Process(pid_t child, Common::UniqueFd output)
        : output_(std::move(output))
        , pid_(child) {}
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const;
    /// Waits for the process to end.
    /// @return the exit status, or 128 plus the signal's number; -1 when the limit has passed
    int wait(std::chrono::milliseconds limit = longestWait);
    [[nodiscard]] bool isRunning();
    /// The output so far.
    [[nodiscard]] std::string output() const;
    /// @return whether it has written the text within the limit of waitUntil()
    [[nodiscard]] bool shows(const std::string& text) const;

private:
    Common::UniqueFd output_;
    pid_t pid_ = -1;
    int status_ = -1;
};

/// A file in memory for a child's standard input or output.
[[nodiscard]] Common::UniqueFd streamFile(const std::string& content = {});

struct ProcessResult {
    int status;
    std::string output;
};

/// Runs a program to its end, at most four minutes: a loaded machine may take one to build a large package.
ProcessResult run(const std::vector<std::string>& arguments, const Process::Options& options = {});

} // namespace Testbed

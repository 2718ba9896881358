#include "common/Files.h"
#include "common/LogLine.h"
#include "common/UniqueFd.h"
#include "devkit/start/Platform.h"
#include "devkit/start/Supervisor.h"
#include "devkit/support/Spawn.h"
#include "tools/CommandLine.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <string_view>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Devkit::Event;

struct Options {
    std::string logs;
    std::string keys;
    bool shell = false;
    bool withoutNamespace = false;
    std::vector<std::string> command;
};

// The path goes into bus addresses, mount options and configuration files.
void requirePlainPath(const std::string& path) {
    constexpr std::size_t longest = 80; // with what follows it, a socket's path has 108 bytes
    const auto* ordinary = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-.";
    if (path.size() > longest || path.find_first_not_of(ordinary) != std::string::npos) {
        throw std::runtime_error(
            "the temporary directory's path has to be short and of letters, digits, \"/\", \"_\", "
            "\"-\" and \".\": " +
            Common::quoted(path));
    }
}

std::filesystem::path makeScratchDirectory() {
    // Processes are told by the real paths of their programs, and a relative path is no bus address.
    const auto parent = std::filesystem::canonical(std::filesystem::temp_directory_path());
    auto path = (parent / "vendara-devkit-XXXXXX").native();
    requirePlainPath(path);
    if (mkdtemp(path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "couldn't create " + path);
    }
    return path;
}

void removeScratch(const std::filesystem::path& directory) noexcept {
    try {
        Common::removeTree(directory);
    } catch (const std::exception& error) {
        Common::logError() << error;
    }
}

/// The platform's directory: the keeper removes it, and the guard when the keeper did not come to it.
class Scratch {
public:
    Scratch()
        : path_(makeScratchDirectory())
        , directory_(open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    ~Scratch() { remove(); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

    // Nothing when it is gone, whoever has got its name since.
    void remove() const noexcept {
        struct stat own {};
        struct stat named {};
        if (fstat(directory_.get(), &own) == 0 && lstat(path_.c_str(), &named) == 0 &&
            own.st_dev == named.st_dev && own.st_ino == named.st_ino) {
            removeScratch(path_);
        }
    }

private:
    std::filesystem::path path_;
    Common::UniqueFd directory_;
};

// A word as a shell reads it.
std::string inShell(const std::string& text) {
    std::string result = "'";
    for (const char character : text) {
        result += character == '\'' ? "'\\''" : std::string(1, character);
    }
    return result + "'";
}

int runPlatform(Devkit::Platform& platform, const Options& options) {
    platform.start();
    if (options.shell) {
        const char* shell = std::getenv("SHELL");
        std::cout << "The platform runs. Leave this shell to end it.\n" << std::flush;
        // An interactive shell ignores SIGTERM.
        return platform.run({shell != nullptr ? shell : "/bin/sh"}, SIGHUP);
    }
    if (!options.command.empty()) {
        return platform.run(options.command, SIGTERM);
    }
    for (const auto& variable : platform.environment()) {
        const auto equals = variable.find('=');
        std::cout << "export " << variable.substr(0, equals) << '=' << inShell(variable.substr(equals + 1))
                  << '\n';
    }
    std::cout << "# The platform runs until Ctrl-C.\n" << std::flush;
    platform.waitForTrouble();
}

// The process that all programs of the platform belong to.
int keep(const std::filesystem::path& scratch, const Options& options) {
    int status = EXIT_FAILURE;
    try {
        Devkit::Supervisor supervisor;
        const auto logs = options.logs.empty() ? scratch / "logs" : std::filesystem::absolute(options.logs);
        const auto keys = options.keys.empty() ? scratch / "keys" : std::filesystem::absolute(options.keys);
        Devkit::Platform platform({scratch, logs, keys, !options.withoutNamespace}, supervisor);
        status = runPlatform(platform, options);
    } catch (const Devkit::Interruption& interruption) {
        status = 128 + interruption.signal;
    } catch (const std::exception& error) {
        std::cerr << "vendara-devkit: " << error.what() << std::endl;
    }
    return status;
}

// Waits for the keeper's end. Signals go on to it: it tears the platform down.
int waitForKeeper(Devkit::Supervisor& supervisor) {
    int signal = 0;
    for (;;) {
        const auto event = supervisor.wait();
        if (event.kind == Event::Kind::Ended) {
            if (event.killed) {
                std::cerr << "vendara-devkit: the platform's keeper was killed\n";
            }
            return signal != 0 ? 128 + signal : event.status;
        }
        signal = event.status;
        supervisor.stop("keeper");
    }
}

// Two processes look after the platform, so that one of them is there to clean up when the other is killed.
int guard(const Options& options) {
    const Scratch scratch;
    Devkit::Supervisor supervisor;
    const pid_t own = getpid();
    const pid_t keeper = Devkit::checked(fork(), "couldn't create a process");
    if (keeper == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int status = getppid() == own ? keep(scratch.path(), options) : EXIT_FAILURE;
        scratch.remove();
        _exit(status);
    }
    supervisor.adopt("keeper", keeper);
    const int status = waitForKeeper(supervisor);
    for (const pid_t process : supervisor.stopAll()) {
        std::cerr << "vendara-devkit: process " << process << " belongs to another user and is left behind\n";
    }
    return status;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App parser(
        "Runs the whole platform in a directory of its own: two buses, a package manager, a runtime "
        "manager, an identification service and vendara-daemon.\n"
        "After \"--\" comes a command to run in it. Without one it prints the variables that clients "
        "need and runs until Ctrl-C.",
        "vendara-devkit");
    // Not the parser's: it would take arguments in brackets apart.
    char** const end = argv + argc;
    char** const separator = std::find(argv, end, std::string_view("--"));
    Options options;
    if (separator != end) {
        options.command.assign(separator + 1, end);
    }
    parser.set_version_flag("--version", "vendara-devkit " VENDARA_VERSION);
    parser.add_flag("--shell", options.shell, "Run an interactive shell in it instead of a command");
    parser.add_option("--logs", options.logs, "Directory for the programs' logs; they stay there");
    parser.add_option("--keys", options.keys,
                      "Directory of the keys that sign packages; made by vendara-sign if missing");
    parser.add_flag("--without-namespace", options.withoutNamespace,
                    "Let the daemon read the host's /etc/zul/zul.conf; it then knows no prepared upgrades");
    parser.callback([&options] {
        if (options.shell && !options.command.empty()) {
            throw CLI::ExcludesError("command", "--shell");
        }
    });
    if (const auto status = Tools::parse(parser, static_cast<int>(separator - argv), argv)) {
        return *status;
    }
    try {
        return guard(options);
    } catch (const std::exception& error) {
        std::cerr << "vendara-devkit: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}

#include "common/Files.h"
#include "common/Guard.h"
#include "common/Spawn.h"
#include "common/TemporaryDirectory.h"
#include "devkit/start/Descendants.h"
#include "devkit/start/Platform.h"
#include "tools/CommandLine.h"

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Options {
    std::string logs;
    std::string keys;
    bool shell = false;
    bool withoutNamespace = false;
    std::vector<std::string> command;
};

// The parent of the platform's directory. Its path is part of bus addresses and configuration files, which
// cannot escape other characters. It is canonical, like the kernel's paths of running programs.
std::filesystem::path scratchParent() {
    auto path = std::filesystem::canonical(std::filesystem::temp_directory_path());
    constexpr std::size_t longest = 58; // the longest path of a socket below it then has 108 bytes
    const auto* ordinary = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-.";
    if (path.native().size() > longest || path.native().find_first_not_of(ordinary) != std::string::npos) {
        throw std::runtime_error(
            "the path of the temporary directory is longer than " + std::to_string(longest) +
            " bytes or has other characters than letters, digits, \"/\", \"_\", \"-\" and "
            "\".\": " +
            Common::quoted(path));
    }
    return path;
}

// Quotes a text for the shell.
std::string inShell(const std::string& text) {
    return "'" + boost::algorithm::replace_all_copy(text, "'", "'\\''") + "'";
}

int runPlatform(Devkit::Platform& platform, const Options& options) {
    platform.start();
    if (options.shell) {
        const char* shell = std::getenv("SHELL");
        // The platform can be used without them; they need rpmbuild(8).
        static_cast<void>(platform.run({"vendara-samples"}, SIGTERM));
        std::cout << "The platform is running. Exit this shell to end it.\n" << std::flush;
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
    std::cout << "# The platform is running. Press Ctrl-C to end it.\n" << std::flush;
    platform.waitForFailure();
}

// The supervisor process: all programs of the platform are its children.
int supervise(const std::filesystem::path& scratch, const Options& options) {
    try {
        const auto logs = options.logs.empty() ? scratch / "logs" : std::filesystem::absolute(options.logs);
        const auto keys = options.keys.empty() ? scratch / "keys" : std::filesystem::absolute(options.keys);
        Devkit::Platform platform({scratch, logs, keys, !options.withoutNamespace});
        return runPlatform(platform, options);
    } catch (const Devkit::Interruption& interruption) {
        return 128 + interruption.signal;
    } catch (const std::exception& error) {
        std::cerr << "vendara-devkit: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}

// Forwards signals to the supervisor, which then stops the platform.
int waitForSupervisor(pid_t supervisor, const sigset_t& signals) {
    for (int signal = 0;;) {
        const int received = sigwaitinfo(&signals, nullptr);
        if (received > 0 && received != SIGCHLD) {
            signal = received;
            kill(supervisor, SIGTERM);
        }
        int status = 0;
        for (pid_t process = 0; (process = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (process == supervisor) {
                if (WIFSIGNALED(status)) {
                    std::cerr << "vendara-devkit: the supervisor of the platform was killed\n";
                }
                return signal != 0 ? 128 + signal : Common::exitStatusOf(status);
            }
        }
    }
}

// Two processes manage the platform, so that either can clean up when the other is killed.
int guard(const Options& options) {
    std::signal(SIGCHLD, SIG_DFL); // if it is ignored, children cannot be waited for
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    for (const int signal : Devkit::interruptions()) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    Devkit::adoptDescendants();
    const Common::TemporaryDirectory scratch(scratchParent(), "vendara-devkit");
    const pid_t own = getpid();
    const pid_t supervisor = fork();
    if (supervisor < 0) {
        throw Common::filesystemError("couldn't create a process");
    }
    if (supervisor == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int status = getppid() == own ? supervise(scratch.path(), options) : EXIT_FAILURE;
        Common::guarded("couldn't remove the platform's directory",
                        [&] { Common::removeTree(scratch.path()); });
        _exit(status);
    }
    const int status = waitForSupervisor(supervisor, signals);
    for (const pid_t process : Devkit::killDescendants()) {
        std::cerr << "vendara-devkit: process " << process << " belongs to another user and is left behind\n";
    }
    return status;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App parser(
        "Runs the whole platform in a temporary directory: two buses, a package manager, a runtime "
        "manager, an identification service and vendara-daemon.\n"
        "Runs the command after \"--\" on the platform. Without a command it prints the environment "
        "variables for clients and runs until Ctrl-C.",
        "vendara-devkit");
    // The parser would split arguments in brackets.
    char** const end = argv + argc;
    char** const separator = std::find(argv, end, std::string_view("--"));
    Options options;
    if (separator != end) {
        options.command.assign(separator + 1, end);
    }
    parser.set_version_flag("--version", "vendara-devkit " VENDARA_VERSION);
    parser.add_flag("--shell", options.shell, "Run an interactive shell in it instead of a command");
    parser.add_option("--logs", options.logs, "Directory for the programs' logs, which are kept");
    parser.add_option("--keys", options.keys,
                      "Directory of the keys that sign packages; vendara-sign creates missing ones");
    parser.add_flag(
        "--without-namespace", options.withoutNamespace,
        "Let the daemon read the host's /etc/zul/zul.conf; it then does not detect prepared upgrades");
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

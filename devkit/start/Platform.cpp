#include "devkit/start/Platform.h"

#include "common/Files.h"
#include "common/Guard.h"
#include "common/Names.h"
#include "common/bus/PrivateBus.h"
#include "core/zul/package/Package.h"
#include "devkit/start/Descendants.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Devkit {

namespace Names = Common::Names;
namespace fs = std::filesystem;

namespace {

void changeAllSignals(int how) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(how, &all, nullptr);
}

// Folders of programs built or installed together with this one, relative to its own: first those of the
// build tree, then those of an installation.
constexpr std::array folders{".",
                             "../../daemon",
                             "../../tools",
                             "../../tools/vendaractl",
                             "../../tools/vendara-sign",
                             "../libexec",
                             "../libexec/vendara-devkit"};

fs::path findProgram(const std::string& name) {
    const auto own = fs::read_symlink("/proc/self/exe").parent_path();
    for (const auto* folder : folders) {
        auto candidate = (own / folder / name).lexically_normal();
        if (fs::is_regular_file(candidate) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error("couldn't find the program " + name + " near " + own.native());
}

void ignoreLoss(const sdbus::Error& /*error*/) {} // the end of the bus's process is handled

std::string endOfLog(const fs::path& log) {
    constexpr std::size_t kept = 10;
    std::ifstream stream(log);
    std::deque<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
        if (lines.size() > kept) {
            lines.pop_front();
        }
    }
    std::string result;
    for (const auto& line : lines) {
        result += "\n    " + line;
    }
    return result;
}

// A program with a private "/etc" in which "zul" is another directory. A mount namespace needs privileges or
// a user namespace; bwrap(1) handles both.
std::vector<std::string> withPrivateEtc(const fs::path& zul, const fs::path& program) {
    std::vector<std::string> result{"bwrap", "--dev-bind", "/", "/", "--tmpfs", "/etc"};
    for (const auto& entry : Common::entriesOf("/etc")) {
        if (const auto target = Common::linkTarget(entry)) {
            result.insert(result.end(), {"--symlink", *target, entry});
        } else if (entry != "/etc/zul") {
            result.insert(result.end(), {"--ro-bind-try", entry, entry});
        }
    }
    result.insert(result.end(), {"--ro-bind", zul, "/etc/zul", "--remount-ro", "/etc", "--", program});
    return result;
}

} // namespace

std::vector<int> interruptions() {
    std::vector<int> result{SIGTERM};
    for (const int signal : {SIGINT, SIGHUP, SIGQUIT}) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            result.push_back(signal);
        }
    }
    return result;
}

Platform::Platform(Settings settings)
    : settings_(std::move(settings))
    , signals_(loop_.context(), SIGCHLD) {
    adoptDescendants();
    for (const int signal : interruptions()) {
        signals_.add(signal);
    }
    changeAllSignals(SIG_UNBLOCK);
    handleSignals();
}

Platform::~Platform() {
    changeAllSignals(SIG_BLOCK); // signals must not interrupt the shutdown
    Common::guarded("couldn't end the platform", [this] {
        for (; !programs_.empty(); programs_.pop_back()) {
            stop(programs_.back());
        }
        killDescendants();
    });
}

void Platform::start() {
    makeDirectories();
    makeKeys();
    systemBus_ = startBus("system");
    sessionBus_ = startBus("session");
    // For this process's own connections.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", systemBus_.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", sessionBus_.c_str(), 1);
    Common::BusConnection system(loop_, sdbus::createSystemBusConnection(), ignoreLoss);
    Common::BusConnection session(loop_, sdbus::createSessionBusConnection(), ignoreLoss);
    const auto zul = expect(Names::Zul::service, system);
    const auto identification = expect(Names::Identification::service, session);
    const auto runtimeManager = expect(Names::RuntimeManager::service, session);
    const auto& directory = settings_.directory;
    std::vector<std::string> zulOptions{"--configuration", directory / "etc/zul/zul.conf",
                                        "--system-root",   directory / "root",
                                        "--keys",          settings_.keys};
    hasSecurityAttributes_ = mayAttachSecurityAttributes();
    if (!hasSecurityAttributes_) {
        zulOptions.emplace_back("--without-security-attributes");
    }
    startService("zul-service", zulOptions);
    startService("identity-service", {"--package-root", directory / "opt/app"});
    startService("runtime-manager", {"--system-root", directory / "root"});
    waitForNames();
    const auto daemon = expect(Names::Vendara::service, session);
    const auto program = findProgram("vendara-daemon");
    startProgram("vendara-daemon", settings_.privateEtc ? withPrivateEtc(directory / "etc/zul", program)
                                                        : std::vector<std::string>{program});
    waitForNames();
}

int Platform::run(const std::vector<std::string>& command, int stopSignal) {
    const std::string name = "command";
    try {
        const pid_t process = Common::spawn(command, {.environment = environment(), .terminal = true});
        programs_.push_back({name, process, process, stopSignal});
    } catch (const std::system_error& error) {
        // As env(1) does.
        constexpr int notExecuted = 126;
        constexpr int notFound = 127;
        std::cerr << "vendara-devkit: " << error.what() << std::endl;
        return error.code() == std::errc::no_such_file_or_directory ? notFound : notExecuted;
    }
    return waitForEndOf(name);
}

void Platform::waitForFailure() {
    for (;;) {
        loop_.context().run_one();
    }
}

std::vector<std::string> Platform::environment() const {
    const char* path = std::getenv("PATH");
    std::string programs;
    // The tour is beside the services.
    for (const auto* name : {"vendaractl", "vendara-sign", "zul-service"}) {
        programs += findProgram(name).parent_path().native() + ":";
    }
    std::vector<std::string> result{"DBUS_SESSION_BUS_ADDRESS=" + sessionBus_,
                                    "DBUS_SYSTEM_BUS_ADDRESS=" + systemBus_,
                                    "VENDARA_DEVKIT_DIRECTORY=" + settings_.directory.native(),
                                    "VENDARA_DEVKIT_KEYS=" + settings_.keys.native(),
                                    "PATH=" + programs + (path != nullptr ? path : "/usr/bin:/bin"),
                                    "VENDARA_CONFIGURATION=" +
                                        (settings_.directory / "etc/zul/zul.conf").native(),
                                    "VENDARA_SYSTEM_ROOT=" + (settings_.directory / "root").native(),
                                    "VENDARA_AUTHORITY=" + (settings_.keys / "ca.pem").native()};
    if (!hasSecurityAttributes_) {
        result.emplace_back("VENDARA_NO_ATTRIBUTES=1");
    }
    return result;
}

void Platform::handleSignals() {
    signals_.async_wait([this](const asio::error_code& error, int number) {
        if (error) {
            return;
        }
        handleSignals();
        if (number != SIGCHLD) {
            throw Interruption{number};
        }
        reap();
    });
}

// Descendants that have become children are reaped as well.
void Platform::reap() {
    int waitStatus = 0;
    for (pid_t process = 0; (process = waitpid(-1, &waitStatus, WNOHANG)) > 0;) {
        const auto isEnded = [process](const Program& each) { return each.process == process; };
        const auto program = std::find_if(programs_.begin(), programs_.end(), isEnded);
        if (program == programs_.end()) {
            continue;
        }
        const auto name = program->name;
        const int status = Common::exitStatusOf(waitStatus);
        programs_.erase(program);
        if (name != awaited_) {
            throw failureOf(name, status);
        }
        status_ = status;
    }
}

void Platform::stop(const Program& program) {
    kill(program.target, program.stopSignal);
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGCHLD);
    const auto deadline = Common::TimePoint::clock::now() + std::chrono::seconds(3);
    int flags = WNOHANG;
    // A process that outlives its group leader, as the daemon outlives bwrap(1), becomes a child of this one.
    for (pid_t ended = 0; (ended = waitpid(program.target, nullptr, flags)) >= 0;) {
        const std::chrono::nanoseconds left = deadline - Common::TimePoint::clock::now();
        if (ended == 0 && left.count() > 0) {
            const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
            const timespec limit{seconds.count(), (left - seconds).count()};
            sigtimedwait(&ends, nullptr, &limit);
        } else if (ended == 0) {
            if (kill(program.target, SIGKILL) != 0) {
                return;
            }
            flags = 0;
        }
    }
}

void Platform::makeDirectories() const {
    const auto& directory = settings_.directory;
    for (const auto* name : {"bus", "etc/zul", "home", "opt/app", "opt/zul/tmp", "root/usr/bin",
                             "root/usr/share/applications"}) {
        fs::create_directories(directory / name);
    }
    fs::create_directories(settings_.logs);
    Common::AtomicFile configuration(directory / "etc/zul", "zul.conf");
    configuration.write("[database]\nroot_directory=" + (directory / "opt/app").native() +
                        "\ntemp_directory=" + (directory / "opt/zul/tmp").native() + "\n");
    configuration.commit(Common::Durability::Later);
}

// An ordinary user may not set them, nor root without CAP_SYS_ADMIN; some file systems do not support them.
bool Platform::mayAttachSecurityAttributes() const {
    const Common::AtomicFile file(settings_.directory / "opt/zul/tmp", "attribute");
    // The type of a signature, the one byte that the kernel looks at (ima.h of Linux).
    return Core::ZUL::attachAttribute(file.descriptor(), "security.ima", "\x03") == 0;
}

void Platform::makeKeys() {
    if (fs::exists(settings_.keys / "ca.pem")) {
        return;
    }
    const std::string name = "vendara-sign";
    startProgram(name, {findProgram(name), "--make-test-ca", settings_.keys});
    if (const int status = waitForEndOf(name); status != 0) {
        throw failureOf(name, status);
    }
}

// Returns the bus's address.
std::string Platform::startBus(const std::string& name) {
    const auto socket = settings_.directory / "bus" / name;
    const auto program = name + "-bus";
    try {
        const pid_t process = Common::startPrivateBus(socket, openLog(program).get());
        programs_.push_back({program, process, -process, SIGTERM});
    } catch (const std::exception& error) {
        throw std::runtime_error(error.what() + endOfLog(settings_.logs / (program + ".log")));
    }
    return "unix:path=" + socket.native();
}

void Platform::startService(const std::string& program, const std::vector<std::string>& options) {
    std::vector<std::string> arguments{findProgram(program)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    startProgram(program, arguments);
}

void Platform::startProgram(const std::string& name, const std::vector<std::string>& arguments) {
    const auto log = openLog(name);
    // librpm keeps a database in the home directory.
    const pid_t process = Common::spawn(
        arguments, {.environment = {"HOME=" + (settings_.directory / "home").native()}, .output = log.get()});
    programs_.push_back({name, process, -process, SIGTERM});
}

Common::UniqueFd Platform::openLog(const std::string& program) const {
    const auto log = settings_.logs / (program + ".log");
    Common::UniqueFd result(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    if (!result) {
        throw Common::filesystemError("couldn't create the log " + Common::quoted(log));
    }
    return result;
}

std::unique_ptr<Common::SignalSource> Platform::expect(const std::string& name, Common::BusConnection& bus) {
    missing_.insert(name);
    return std::make_unique<Common::SignalSource>(bus, name, [this, name] { missing_.erase(name); });
}

void Platform::waitForNames() {
    const auto deadline = Common::TimePoint::clock::now() + std::chrono::seconds(60);
    while (!missing_.empty()) {
        if (loop_.context().run_one_until(deadline) == 0) {
            throw std::runtime_error("timed out after 60 s waiting for " + *missing_.begin());
        }
    }
}

// Waits for a program that is expected to end, and returns its status.
int Platform::waitForEndOf(const std::string& name) {
    awaited_ = name;
    while (status_ < 0) {
        loop_.context().run_one();
    }
    awaited_.clear();
    return std::exchange(status_, -1);
}

std::runtime_error Platform::failureOf(const std::string& program, int status) const {
    std::error_code error;
    // On a full disk the logs are empty.
    const auto free = fs::space(settings_.directory, error).available;
    const auto log = endOfLog(settings_.logs / (program + ".log"));
    const bool isNamespaceRefused = log.find("\n    bwrap: ") != std::string::npos;
    return std::runtime_error(
        program + " ended with status " + std::to_string(status) +
        (!error && free == 0 ? ", no space is left in " + settings_.directory.native() : "") +
        (isNamespaceRefused ? ", it needs a mount namespace for its own /etc/zul/zul.conf; with "
                              "--without-namespace it reads the host's"
                            : "") +
        "; the end of its log:" + log);
}

} // namespace Devkit

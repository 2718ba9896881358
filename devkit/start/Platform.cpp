#include "devkit/start/Platform.h"

#include "common/LogLine.h"
#include "common/Names.h"
#include "core/zul/package/AttributeWriter.h"
#include "devkit/start/EtcOverlay.h"
#include "devkit/support/NameWatch.h"
#include "devkit/support/Programs.h"

#include <array>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <system_error>
#include <unistd.h>

namespace Devkit {

namespace Names = Common::Names;

namespace {

void writeFile(const std::filesystem::path& file, const std::string& content) {
    std::ofstream stream(file);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("couldn't write " + Common::quoted(file));
    }
}

// A bus for one user, without any service of the host.
std::string busConfiguration(const std::filesystem::path& socket) {
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=)" +
           socket.native() + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

std::string endOfLog(const std::filesystem::path& log) {
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

} // namespace

Platform::Platform(Settings settings, Supervisor& supervisor)
    : settings_(std::move(settings))
    , supervisor_(supervisor) {}

void Platform::start() {
    makeDirectories();
    makeKeys();
    systemBus_ = startBus("system");
    sessionBus_ = startBus("session");
    // For this process's own connections.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", systemBus_.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", sessionBus_.c_str(), 1);
    NameWatch system(Common::Bus::System);
    NameWatch session(Common::Bus::Session);
    const auto untilOwned = [this](NameWatch& bus, const std::string& name) {
        while (!bus.isOwned(name)) {
            waitUntilReadable(bus.descriptor(), name);
        }
    };
    const auto& directory = settings_.directory;
    std::vector<std::string> zulOptions{"--configuration", directory / "etc/zul/zul.conf",
                                        "--system-root",   directory / "root",
                                        "--keys",          settings_.keys};
    if (!mayAttachSecurityAttributes()) {
        zulOptions.emplace_back("--without-security-attributes");
    }
    startService("zul-service", zulOptions, false);
    startService("identity-service", {"--package-root", directory / "opt/app"}, false);
    startService("runtime-manager", {"--system-root", directory / "root"}, false);
    untilOwned(system, Names::Zul::service);
    untilOwned(session, Names::Identification::service);
    untilOwned(session, Names::RuntimeManager::service);
    startService("vendara-daemon", {}, settings_.privateEtc);
    untilOwned(session, Names::Vendara::service);
}

int Platform::run(const std::vector<std::string>& command, int stopSignal) {
    SpawnOptions options;
    options.environment = environment();
    options.terminal = true;
    const std::string name = "command";
    try {
        supervisor_.start(name, command, options, stopSignal);
    } catch (const ExecutionError& error) {
        // As env(1) does.
        constexpr int notExecuted = 126;
        constexpr int notFound = 127;
        std::cerr << "vendara-devkit: " << error.what() << std::endl;
        return error.code() == std::errc::no_such_file_or_directory ? notFound : notExecuted;
    }
    for (;;) {
        const auto event = supervisor_.wait();
        if (event.kind == Event::Kind::Signal) {
            throw Interruption{event.status};
        }
        if (event.program == name) {
            return event.status;
        }
        throw failureOf(event);
    }
}

void Platform::waitForTrouble() {
    const auto event = supervisor_.wait();
    if (event.kind == Event::Kind::Signal) {
        throw Interruption{event.status};
    }
    throw failureOf(event);
}

std::vector<std::string> Platform::environment() const {
    const char* path = std::getenv("PATH");
    std::string programs;
    // The tour lies where the services do.
    for (const auto* name : {"vendaractl", "vendara-sign", "zul-service"}) {
        programs += findProgram(name).parent_path().native() + ":";
    }
    return {"DBUS_SESSION_BUS_ADDRESS=" + sessionBus_, "DBUS_SYSTEM_BUS_ADDRESS=" + systemBus_,
            "VENDARA_DEVKIT_DIRECTORY=" + settings_.directory.native(),
            "VENDARA_DEVKIT_KEYS=" + settings_.keys.native(),
            "PATH=" + programs + (path != nullptr ? path : "/usr/bin:/bin")};
}

void Platform::makeDirectories() const {
    const auto& directory = settings_.directory;
    for (const auto* name : {"bus", "etc/zul", "home", "opt/app", "opt/zul/tmp", "root/usr/bin",
                             "root/usr/share/applications"}) {
        std::filesystem::create_directories(directory / name);
    }
    std::filesystem::create_directories(settings_.logs);
    writeFile(directory / "etc/zul/zul.conf",
              "[database]\nroot_directory=" + (directory / "opt/app").native() +
                  "\ntemp_directory=" + (directory / "opt/zul/tmp").native() + "\n");
}

// A plain user may not, nor root in a container without CAP_SYS_ADMIN, nor does every file system take them.
bool Platform::mayAttachSecurityAttributes() const {
    const auto file = settings_.directory / "opt/zul/tmp/attribute";
    const Common::UniqueFd descriptor(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    checked(descriptor.get(), ("couldn't create " + Common::quoted(file)).c_str());
    std::filesystem::remove(file);
    // The type of a signature, the one byte that the kernel looks at (ima.h of Linux).
    return Core::ZUL::attachAttribute(descriptor.get(), "security.ima", "\x03") == 0;
}

void Platform::makeKeys() {
    if (std::filesystem::exists(settings_.keys / "ca.pem")) {
        return;
    }
    startProgram("vendara-sign", {findProgram("vendara-sign"), "--make-test-ca", settings_.keys}, {});
    const auto event = supervisor_.wait();
    if (event.kind == Event::Kind::Signal) {
        throw Interruption{event.status};
    }
    if (event.status != 0) {
        throw failureOf(event);
    }
}

// Returns the bus's address, once it can be connected to.
std::string Platform::startBus(const std::string& name) {
    const auto configuration = settings_.directory / "bus" / (name + ".conf");
    writeFile(configuration, busConfiguration(settings_.directory / "bus" / name));
    std::array<int, 2> ends{};
    checked(pipe(ends.data()), "couldn't create a pipe");
    const Common::UniqueFd reading(ends[0]);
    Common::UniqueFd writing(ends[1]);
    checked(fcntl(reading.get(), F_SETFD, FD_CLOEXEC), "couldn't set up a pipe");
    startProgram(name + "-bus",
                 {"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + configuration.native(),
                  "--print-address=" + std::to_string(writing.get())},
                 {});
    writing = Common::UniqueFd();
    std::string address;
    while (!address.ends_with('\n')) {
        waitUntilReadable(reading.get(), name + " bus");
        std::array<char, 512> text{};
        const auto length = read(reading.get(), text.data(), text.size());
        if (length <= 0) {
            throw std::runtime_error("the " + name + " bus doesn't print its address" +
                                     endOfLog(settings_.logs / (name + "-bus.log")));
        }
        address.append(text.data(), static_cast<std::size_t>(length));
    }
    address.pop_back();
    return address;
}

void Platform::startService(const std::string& program, const std::vector<std::string>& options,
                            bool privateEtc) {
    std::vector<std::string> arguments{findProgram(program)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    SpawnOptions spawning;
    // librpm keeps a database in the home directory.
    spawning.environment = {"HOME=" + (settings_.directory / "home").native()};
    if (!privateEtc) {
        startProgram(program, arguments, spawning);
        return;
    }
    const EtcOverlay overlay(settings_.directory / "etc");
    spawning.prepare = [&overlay] { return overlay.enter(); };
    try {
        startProgram(program, arguments, spawning);
    } catch (const PreparationError& error) {
        throw std::runtime_error(std::string(error.what()) +
                                 ", with an /etc/zul/zul.conf of its own. That takes " +
                                 "a mount namespace, for a plain user also a user namespace; with " +
                                 "--without-namespace it reads the host's.");
    }
}

void Platform::startProgram(const std::string& name, const std::vector<std::string>& arguments,
                            SpawnOptions options) {
    const auto log = settings_.logs / (name + ".log");
    const Common::UniqueFd output(
        open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    checked(output.get(), ("couldn't create the log " + Common::quoted(log)).c_str());
    options.output = output.get();
    supervisor_.start(name, arguments, options);
}

void Platform::waitUntilReadable(int descriptor, const std::string& forWhat) {
    const auto event = supervisor_.wait(descriptor, Supervisor::Clock::now() + std::chrono::seconds(60));
    switch (event.kind) {
    case Event::Kind::Readable:
        return;
    case Event::Kind::Signal:
        throw Interruption{event.status};
    case Event::Kind::Ended:
        throw failureOf(event);
    case Event::Kind::TimedOut:
        throw std::runtime_error("timed out after 60 s waiting for " + forWhat);
    }
}

std::runtime_error Platform::failureOf(const Event& ended) const {
    std::error_code error;
    // On a full disk there are no logs to tell.
    const auto free = std::filesystem::space(settings_.directory, error).available;
    return std::runtime_error(
        ended.program + " ended with status " + std::to_string(ended.status) +
        (!error && free == 0 ? ", no space is left in " + settings_.directory.native() : "") +
        "; the end of its log:" + endOfLog(settings_.logs / (ended.program + ".log")));
}

} // namespace Devkit

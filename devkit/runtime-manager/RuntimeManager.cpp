#include "devkit/runtime-manager/RuntimeManager.h"

#include "common/LogLine.h"
#include "common/Names.h"
#include "common/PackageId.h"
#include "common/Spawn.h"
#include "devkit/runtime-manager/DesktopEntry.h"
#include "devkit/support/Service.h"
#include "devkit/support/Tasks.h"

#include <csignal>
#include <sys/wait.h>

namespace Devkit {

namespace Names = Common::Names::RuntimeManager;

namespace {

const std::string errorPrefix = Names::service + ".Error.";

// Whether the child has ended and is not reaped yet.
bool hasEnded(pid_t process) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == process;
}

std::string endOf(int status) {
    if (WIFSIGNALED(status)) {
        return "by signal " + std::to_string(WTERMSIG(status));
    }
    return "with status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

RuntimeManager::RuntimeManager(Common::BusConnection& bus, Settings settings)
    : bus_(bus)
    , settings_(std::move(settings))
    , control_(sdbus::createObject(bus.bus(), Names::controlPath))
    , intents_(sdbus::createObject(bus.bus(), Names::intentsPath)) {
    control_->registerMethod(Names::terminate)
        .onInterface(Names::controlInterface)
        .withInputParamNames("application")
        .implementedAs(
            [this](const std::string& id) { withBusErrors(errorPrefix + "Failed", [&] { terminate(id); }); });
    control_->registerSignal(Names::terminated)
        .onInterface(Names::controlInterface)
        .withParameters<std::string>("application");
    control_->finishRegistration();
    intents_->registerMethod(Names::invokeIntent)
        .onInterface(Names::intentsInterface)
        .withInputParamNames("intent", "hints", "parameters")
        .implementedAs([this](const std::string& intent, const std::map<std::string, sdbus::Variant>& hints,
                              const std::map<std::string, sdbus::Variant>& /*parameters*/) {
            withBusErrors(errorPrefix + "Failed", [&] { invokeIntent(intent, hints); });
        });
    intents_->finishRegistration();
}

RuntimeManager::~RuntimeManager() {
    intents_->unregister();
    control_->unregister();
    for (const auto& [id, application] : applications_) {
        kill(-application.process, SIGKILL);
    }
}

void RuntimeManager::invokeIntent(const std::string& intent,
                                  const std::map<std::string, sdbus::Variant>& hints) {
    if (intent != Names::startIntent) {
        throw sdbus::Error(errorPrefix + "NotSupported", "unknown intent: " + Common::quoted(intent));
    }
    const auto handler = hints.find(Names::preferredHandler);
    if (handler == hints.end() || !handler->second.containsValueOfType<std::string>()) {
        throw sdbus::Error(errorPrefix + "InvalidArgument", "no preferred handler is given");
    }
    const auto id = handler->second.get<std::string>();
    Common::requirePackageId(id);
    auto found = applications_.find(id);
    if (found != applications_.end() && hasEnded(found->second.process)) {
        // A client may see its end before the loop has reported it here, and request the next start.
        applicationEnded(id, found->second.serial);
        found = applications_.end();
    }
    if (found == applications_.end()) {
        start(id);
    } else if (found->second.ending) {
        throw sdbus::Error(errorPrefix + "Failed", "application is ending: " + Common::quoted(id));
    } else {
        Common::logInfo() << id << " is already running";
    }
}

void RuntimeManager::start(const std::string& id) {
    const pid_t process = Common::spawn(commandFor(id));
    try {
        const auto serial = ++lastSerial_;
        applications_.emplace(id, Application{process, serial});
        postWhenEnded(bus_, process, [this, id, serial] { applicationEnded(id, serial); });
    } catch (...) {
        // Its end would not be noticed.
        applications_.erase(id);
        kill(-process, SIGKILL);
        Common::reap(process);
        throw;
    }
    Common::logInfo() << "started " << id << ", process " << std::to_string(process);
}

void RuntimeManager::terminate(const std::string& id) {
    Common::requirePackageId(id);
    const auto found = applications_.find(id);
    if (found == applications_.end()) {
        throw sdbus::Error(errorPrefix + "NotRunning", "application isn't running: " + Common::quoted(id));
    }
    if (found->second.ending) {
        return;
    }
    postAfter(bus_, settings_.patience,
              [this, id, serial = found->second.serial] { killIfStillRunning(id, serial); });
    found->second.ending = true;
    kill(-found->second.process, SIGTERM);
}

void RuntimeManager::killIfStillRunning(const std::string& id, std::uint64_t serial) {
    const auto found = applications_.find(id);
    if (found != applications_.end() && found->second.serial == serial) {
        Common::logWarning() << id << " doesn't end after SIGTERM, killing it";
        kill(-found->second.process, SIGKILL);
    }
}

void RuntimeManager::applicationEnded(const std::string& id, std::uint64_t serial) {
    const auto found = applications_.find(id);
    if (found == applications_.end() || found->second.serial != serial) {
        return;
    }
    // Processes that the application has left behind are killed as well. The process is not reaped yet, so
    // its number still names its own group.
    kill(-found->second.process, SIGKILL);
    int status = 0;
    waitpid(found->second.process, &status, 0);
    applications_.erase(found);
    Common::logInfo() << id << " ended " << endOf(status);
    control_->emitSignal(Names::terminated).onInterface(Names::controlInterface).withArguments(id);
}

std::vector<std::string> RuntimeManager::commandFor(const std::string& id) const {
    const auto applications = settings_.systemRoot / "usr/share/applications";
    auto command = commandOf(readDesktopEntry(applications / (id + ".desktop")));
    const std::filesystem::path program = command.front();
    if (program.is_absolute()) {
        // Without "..", which would lead out of the system.
        command.front() = settings_.systemRoot / program.lexically_normal().relative_path();
    } else if (program.has_parent_path()) {
        throw sdbus::Error(errorPrefix + "Failed",
                           "program is neither a name nor an absolute path: " + Common::quoted(program));
    } else {
        command.front() = settings_.systemRoot / "usr/bin" / program;
    }
    return command;
}

} // namespace Devkit

#include "devkit/identity-service/IdentityService.h"

#include "common/Names.h"
#include "devkit/support/Service.h"

#include <systemd/sd-bus.h>

#include <map>
#include <pwd.h>

namespace Devkit {

namespace Names = Common::Names::Identification;

namespace {

const std::string failed = Names::service + ".Error.Failed";

std::string userName(std::uint32_t user) {
    const passwd* entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::uint32_t credential(const std::map<std::string, sdbus::Variant>& credentials, const std::string& key) {
    const auto found = credentials.find(key);
    if (found == credentials.end()) {
        throw sdbus::Error(failed, "the bus doesn't report the connection's " + key);
    }
    return found->second.get<std::uint32_t>();
}

} // namespace

IdentityService::IdentityService(sdbus::IConnection& connection, const std::filesystem::path& packageRoot)
    : packageRoot_(std::filesystem::weakly_canonical(packageRoot))
    , bus_(sdbus::createProxy(connection, Common::Names::MessageBus::service,
                              Common::Names::MessageBus::objectPath))
    , object_(sdbus::createObject(connection, Names::objectPath)) {
    bus_->finishRegistration();
    object_->registerMethod(Names::identifyByBusName)
        .onInterface(Names::interface)
        .withInputParamNames("busName")
        .withOutputParamNames("application", "user")
        .implementedAs([this](Identity&& result, const std::string& busName) {
            identifyByBusName(std::move(result), busName);
        });
    object_->finishRegistration();
}

IdentityService::~IdentityService() {
    object_->unregister();
    bus_->unregister();
}

void IdentityService::identifyByBusName(Identity result, const std::string& busName) {
    // The bus repeats the name in its error, which a long text makes longer than the bus library accepts.
    withBusErrors(failed, [&] {
        if (sd_bus_service_name_is_valid(busName.c_str()) <= 0) {
            throw sdbus::Error(failed, "not a bus name");
        }
    });
    const auto pending = std::make_shared<Identity>(std::move(result));
    const auto answer = [this, pending](sdbus::MethodReply& reply, const sdbus::Error* error) {
        try {
            withBusErrors(failed, [&] {
                // Any client of the bus may send a reply to any call.
                if (error != nullptr || reply.getSender() != Common::Names::MessageBus::service) {
                    throw error != nullptr ? *error
                                           : sdbus::Error(failed, "dropped a reply not sent by the bus");
                }
                std::map<std::string, sdbus::Variant> credentials;
                reply >> credentials;
                pending->returnResults(applicationOf(credential(credentials, "ProcessID")),
                                       userName(credential(credentials, "UnixUserID")));
            });
        } catch (const sdbus::Error& failure) {
            pending->returnError(failure);
        }
    };
    auto question = bus_->createMethodCall(Common::Names::MessageBus::interface,
                                           Common::Names::MessageBus::getConnectionCredentials);
    question << busName;
    bus_->callMethod(question, answer);
}

std::string IdentityService::applicationOf(std::uint32_t process) const {
    auto executable = std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/exe").native();
    // A program whose file was removed while it runs, as an upgrade does, is still the same application.
    constexpr std::string_view removed = " (deleted)";
    if (executable.ends_with(removed)) {
        executable.resize(executable.size() - removed.size());
    }
    const auto inPackages = std::filesystem::path(executable).lexically_relative(packageRoot_);
    if (inPackages.empty() || *inPackages.begin() == ".." || *inPackages.begin() == ".") {
        return executable;
    }
    return *inPackages.begin();
}

} // namespace Devkit

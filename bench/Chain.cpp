#include "bench/Chain.h"

#include "common/Names.h"
#include "common/bus/WireTypes.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>

namespace Bench {

namespace {

namespace Names = Common::Names;

// A call and its reply on a connection that nothing else uses.
class Peer {
public:
    Peer(std::unique_ptr<sdbus::IConnection> connection, const std::string& service, const std::string& path)
        : connection_(std::move(connection))
        , proxy_(sdbus::createProxy(*connection_, service, path)) {}

    template<typename... Results, typename... Arguments>
    std::tuple<Results...> call(const std::string& interface, const std::string& method,
                                const Arguments&... arguments) {
        std::tuple<Results...> results;
        auto message = proxy_->createMethodCall(interface, method);
        static_cast<void>((message << ... << arguments));
        auto reply = proxy_->callMethod(message);
        std::apply([&](auto&... each) { static_cast<void>((reply >> ... >> each)); }, results);
        return results;
    }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

class Chain {
public:
    Chain() {
        const auto add = [this](const char* method, const char* in, const char* out, auto body) {
            object_->registerMethod("norvane.Vendara", method, in, out, [body](sdbus::MethodCall call) {
                auto reply = call.createReply();
                body(call, reply);
                reply.send();
            });
        };
        add("Install", "s", "(ssiii)", [this](sdbus::MethodCall& call, sdbus::MethodReply& reply) {
            identify(call);
            list();
            identify(call);
            reply << Common::OperationRecord();
        });
        add("GetAllProperties", "", "a(ssssa{sv})",
            [this](sdbus::MethodCall& call, sdbus::MethodReply& reply) {
                identify(call);
                std::vector<Common::PackageRecord> packages;
                for (const auto& package : list()) {
                    packages.push_back({package.at(Names::PackageKeys::id),
                                        package.at(Names::PackageKeys::version),
                                        package.at(Names::PackageKeys::certificateSubgroup),
                                        package.at(Names::PackageKeys::certificateId)});
                }
                reply << packages;
            });
        add("Start", "s", "", [this](sdbus::MethodCall& call, sdbus::MethodReply& /*reply*/) {
            std::string id;
            call >> id;
            using Dictionary = std::map<std::string, sdbus::Variant>;
            runtime_.call<>(Names::RuntimeManager::intentsInterface, Names::RuntimeManager::invokeIntent,
                            Names::RuntimeManager::startIntent,
                            Dictionary{{Names::RuntimeManager::preferredHandler, sdbus::Variant(id)}},
                            Dictionary());
        });
        object_->finishRegistration();
        connection_->requestName("norvane.Vendara.Chain");
    }

    [[noreturn]] void serve() {
        connection_->enterEventLoop();
        std::abort(); // killed before that
    }

private:
    void identify(const sdbus::MethodCall& call) {
        identification_.call<std::string, std::string>(
            Names::Identification::interface, Names::Identification::identifyByBusName, call.getSender());
    }
    std::vector<Common::PackageProperties> list() {
        return std::get<0>(manager_.call<std::vector<Common::PackageProperties>>(Names::Zul::interface,
                                                                                 Names::Zul::getPackageList));
    }

    std::unique_ptr<sdbus::IConnection> connection_ = sdbus::createSessionBusConnection();
    std::unique_ptr<sdbus::IObject> object_ = sdbus::createObject(*connection_, Names::Vendara::objectPath);
    Peer identification_{sdbus::createSessionBusConnection(), Names::Identification::service,
                         Names::Identification::objectPath};
    Peer runtime_{sdbus::createSessionBusConnection(), Names::RuntimeManager::service,
                  Names::RuntimeManager::intentsPath};
    Peer manager_{sdbus::createSystemBusConnection(), Names::Zul::service, Names::Zul::objectPath};
};

} // namespace

void serveChain() { Chain().serve(); }

} // namespace Bench

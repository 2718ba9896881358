#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace Testbed {

/// A service of the test's own: a connection, an object on it and the thread that runs the loop. Ignores the
/// loss of its bus.
class BusPeer {
public:
    BusPeer(std::unique_ptr<sdbus::IConnection> connection, const std::string& objectPath)
        : connection_(std::move(connection))
        , object_(sdbus::createObject(*connection_, objectPath)) {}
    ~BusPeer() {
        stop();
        object_->unregister();
    }
    BusPeer(const BusPeer&) = delete;
    BusPeer& operator=(const BusPeer&) = delete;

    [[nodiscard]] sdbus::IObject& object() { return *object_; }
    [[nodiscard]] sdbus::IConnection& connection() { return *connection_; }

    /// Answers calls of a method with what a function returns; before start().
    template<typename Function>
    void on(const std::string& interface, const std::string& method, Function&& function) {
        object_->registerMethod(method).onInterface(interface).implementedAs(
            std::forward<Function>(function));
    }

    void start() {
        object_->finishRegistration();
        loop_ = std::thread([this] {
            try {
                connection_->enterEventLoop();
            } catch (const sdbus::Error&) {
            }
        });
    }

    /// Returns when no handler runs any more.
    void stop() {
        if (loop_.joinable()) {
            connection_->leaveEventLoop();
            loop_.join();
        }
    }

    /// Broadcasts a signal of the object.
    template<typename... Arguments>
    void send(const std::string& interface, const std::string& name, const Arguments&... arguments) {
        auto signal = object_->createSignal(interface, name);
        static_cast<void>((signal << ... << arguments));
        signal.send();
    }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
    std::thread loop_;
};

} // namespace Testbed

#pragma once

#include "common/BusText.h"
#include "common/LogLine.h"
#include "common/PrintableText.h"
#include "common/bus/BusConnection.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <string>

namespace Devkit {

/// Runs the posted tasks and writes all queued messages, for at most two seconds.
inline void flush(Common::BusConnection& bus) {
    const auto write = [](Common::BusConnection& connection) -> asio::awaitable<void> {
        co_await connection.flushed(Common::TimePoint::clock::now() + std::chrono::seconds(2));
        connection.loop().stop();
    };
    bus.loop().context().restart();
    bus.post([&] { bus.loop().spawn("couldn't write to the bus", write(bus)); });
    bus.loop().run();
}

/// Runs a service on a bus until SIGTERM, SIGINT or the loss of the bus.
/// @param connect  opens the connection, for example sdbus::createSessionBusConnection
/// @param name  well-known name
/// @param make  makes the service on a bus connection and returns it as a unique_ptr; its member finish(), if
///              any, is called when the loop has ended, while replies can still be sent
/// @return the program's exit status: 1, with two lines in the log, for a bus error or a lost connection
template<typename Connect, typename Make>
int serve(Connect connect, const std::string& name, Make make) {
    try {
        const std::shared_ptr<sdbus::IConnection> connection = connect();
        Common::Loop loop;
        Common::BusConnection bus(
            loop, connection, [&](const sdbus::Error& error) { loop.fail(std::make_exception_ptr(error)); });
        // Requests that come before the object is there wait for the loop.
        connection->requestName(name);
        const auto service = make(bus);
        loop.onTermination([&loop] { loop.stop(); });
        loop.run();
        if constexpr (requires { service->finish(); }) {
            service->finish();
        }
        flush(bus);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        Common::logFailure(Common::LogLevel::Error, "couldn't serve " + name, error);
        return EXIT_FAILURE;
    }
}

/// Logs a failure and returns its error reply. A text that is not a valid D-Bus string is replaced. A text
/// longer than any about one path is cut: it has a client's argument.
[[nodiscard]] inline sdbus::Error loggedError(const std::string& name, std::string text) {
    constexpr std::size_t longest = 8192;
    if (text.size() > longest) {
        text = Common::printable(text.substr(0, longest)) + "...";
    }
    Common::logWarning() << text;
    return {name, Common::isBusText(text) ? text : "The error message is not valid UTF-8"};
}

/// Runs the body of a method handler. An exception becomes a loggedError(), the only type that may pass
/// through the bus library.
/// @param errorName  for an exception without a bus error name
template<typename Body>
auto withBusErrors(const std::string& errorName, Body body) {
    try {
        return body();
    } catch (const sdbus::Error& error) {
        throw loggedError(error.getName(), error.getMessage());
    } catch (const std::exception& error) {
        throw loggedError(errorName, error.what());
    }
}

} // namespace Devkit

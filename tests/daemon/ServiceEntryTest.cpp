#include "testbed/PrivateBus.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>

#include <array>
#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/local/datagram_protocol.hpp>
#include <csignal>
#include <regex>
#include <sstream>
#include <unistd.h>

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

const std::string twoLines = "ERROR: couldn't register service: norvane.Vendara\nERROR: [^\n]+\n";

class TheService : public testing::Test {
protected:
    Testbed::PrivateBuses buses_;
};

// One line per member of an interface, from gdbus or the XML file.
std::multiset<std::string> membersOf(const std::string& xml) {
    std::multiset<std::string> members;
    std::string member;
    const auto interface = xml.substr(xml.find("<interface name=\"norvane.Vendara\">"));
    std::istringstream stream(interface.substr(0, interface.find("</interface>")));
    for (std::string line; std::getline(stream, line);) {
        std::smatch match;
        if (std::regex_search(line, match, std::regex("<(method|signal|property) name=\"(\\w+)\""))) {
            member = match.str(1) + " " + match.str(2);
            members.insert(member);
        } else if (line.find("<arg") != std::string::npos) {
            for (const auto* attribute : {"name", "type", "direction"}) {
                if (std::regex_search(line, match, std::regex(std::string(attribute) + "=\"([^\"]+)\""))) {
                    member += " " + match.str(1);
                }
            }
            members.insert(member);
        }
    }
    return members;
}

TEST_F(TheService, ImplementsExactlyTheInterfaceOfItsXml) {
    Testbed::Process daemon({VENDARA_DAEMON});
    ASSERT_TRUE(Testbed::waitForService()) << daemon.output();
    auto shown = Testbed::run({"gdbus", "introspect", "--session", "--dest", "norvane.Vendara",
                               "--object-path", "/norvane/Vendara", "--xml"});
    const auto members = membersOf(shown.output);
    EXPECT_EQ(members, membersOf(Testbed::readFile(VENDARA_INTERFACE_XML))) << shown.output;
    EXPECT_FALSE(members.empty());
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_EQ(daemon.output(), "");
}

TEST_F(TheService, NotifiesTheServiceManagerWhenItCanBeCalled) {
    const Testbed::ScratchDirectory scratch;
    const auto path = scratch.path() / "notify";
    asio::io_context context;
    asio::local::datagram_protocol::socket manager(context, path.string());
    const Testbed::Process daemon({VENDARA_DAEMON}, {.environment = {{"NOTIFY_SOCKET", path}}});
    ASSERT_TRUE(Testbed::waitUntil([&] { return manager.available() > 0; })) << daemon.output();
    std::array<char, 64> message{};
    const auto size = manager.receive(asio::buffer(message));
    EXPECT_EQ(std::string(message.data(), size), "READY=1");
    EXPECT_TRUE(Testbed::isServiceThere());
}

TEST_F(TheService, RunsOnlyOnce) {
    const Testbed::Process first({VENDARA_DAEMON});
    ASSERT_TRUE(Testbed::waitForService()) << first.output();
    const auto second = Testbed::run({VENDARA_DAEMON});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.output, MatchesRegex(twoLines));
    EXPECT_TRUE(Testbed::isServiceThere());
}

TEST_F(TheService, DoesNotStartWithoutItsBuses) {
    for (const auto* variable : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) {
        const auto result =
            Testbed::run({VENDARA_DAEMON}, {.environment = {{variable, "unix:path=/nonexistent/bus"}}});
        EXPECT_EQ(result.status, 1) << variable;
        EXPECT_THAT(result.output, MatchesRegex(twoLines)) << variable;
    }
}

// From too few resources to enough: the daemon starts or logs the cause, and never crashes.
TEST_F(TheService, WithTooFewResourcesLogsTheCauseAndEnds) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need descriptors and memory of their own";
#endif
    const auto comesUp = [](const std::string& limit) {
        Testbed::Process daemon({"bash", "-c", "ulimit " + limit + " && exec " VENDARA_DAEMON});
        EXPECT_TRUE(Testbed::waitUntil([&] { return !daemon.isRunning() || Testbed::isServiceThere(); }))
            << limit;
        daemon.signal(SIGTERM);
        const int status = daemon.wait();
        if (status == 1) {
            EXPECT_THAT(daemon.output(), MatchesRegex(twoLines)) << limit;
        } else if (status != 0) {
            EXPECT_THAT(daemon.output(), HasSubstr("error while loading shared libraries"))
                << limit << status;
        }
        return status == 0;
    };
    for (int descriptors = 4; !comesUp("-n " + std::to_string(descriptors)); ++descriptors) {
        ASSERT_LT(descriptors, 64);
    }
    for (int memory = 8000; !comesUp("-v " + std::to_string(memory)); memory += 1000) {
        ASSERT_LT(memory, 200000);
    }
}

// With too little memory librpm exits and its Lua aborts.
TEST_F(TheService, RefusesAPackageThatItHasTooLittleMemoryFor) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need memory of their own";
#endif
    const Testbed::ScratchDirectory scratch;
    const auto file = Testbed::buildPackage(scratch.path(), {});
    Testbed::PackageManager manager;
    Testbed::Identification identification;
    for (unsigned long spare = 100'000; spare < 100'000'000; spare = spare * 3 / 2) {
        Testbed::Process daemon({VENDARA_DAEMON}, {.environment = {{"HOME", scratch.path()}}});
        ASSERT_TRUE(Testbed::waitForService()) << daemon.output();
        const auto pid = std::to_string(daemon.pid());
        const auto pages = std::stoul(Testbed::readFile("/proc/" + pid + "/statm"));
        const auto limit = std::to_string(pages * static_cast<unsigned long>(getpagesize()) + spare);
        ASSERT_EQ(Testbed::run({"prlimit", "--pid", pid, "--as=" + limit}).status, 0);
        const auto reply =
            Testbed::run({"gdbus", "call", "--session", "--dest=norvane.Vendara",
                          "--object-path=/norvane/Vendara", "--method=norvane.Vendara.Install", file});
        EXPECT_TRUE(reply.status == 0 || reply.output.find("norvane.Vendara.Error") != std::string::npos)
            << spare << reply.output << daemon.output();
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.wait(), 0) << spare << daemon.output();
    }
}

} // namespace

#include "common/bus/BusConnection.h"
#include "tests/daemon/DaemonTest.h"

#include <csignal>
#include <future>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace Testbed {

namespace {

class ADaemonThatLosesItsConnection : public DaemonTest {
protected:
    // The daemon's socket on the session bus.
    [[nodiscard]] Common::UniqueFd socket() const {
        const auto process = static_cast<int>(syscall(SYS_pidfd_open, daemon->pid(), 0));
        const Common::UniqueFd owner(process);
        const auto descriptors = "/proc/" + std::to_string(daemon->pid()) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
            const auto number = std::stoi(entry.path().filename());
            Common::UniqueFd copy(static_cast<int>(syscall(SYS_pidfd_getfd, process, number, 0)));
            sockaddr_un peer{};
            socklen_t size = sizeof peer;
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as the function takes it
            if (copy && getpeername(copy.get(), reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
                peer.sun_path[0] != 0 &&
                buses.session.address().find(&peer.sun_path[0]) != std::string::npos) {
                return copy;
            }
        }
        throw std::runtime_error("the daemon has no connection to the session bus");
    }
    static std::string owner() {
        const auto bus = sdbus::createSessionBusConnection();
        return Common::BusConnection::ask<std::string>(*bus, "GetNameOwner", "norvane.Vendara");
    }
    void lose() const { shutdown(socket().get(), SHUT_RDWR); }

    Client client;
};

TEST_F(ADaemonThatLosesItsConnection, ContinuesThoughTheBusHasNotReadItsLastMessages) {
    const auto running = beginInstallation(client);
    const auto queued = client.install(packageFile("com.example.queued"));
    EXPECT_EQ(client.errorOf("Restart", "a"), "");
    const auto before = owner();
    buses.session.signal(SIGSTOP);
    for (int count = 0; count < 2000; ++count) {
        zul.emit("PackageRemoved", std::string(200, 'x'));
    }
    const auto lost = socket();
    int unread = 0;
    EXPECT_TRUE(waitUntil([&] { return ioctl(lost.get(), SIOCOUTQ, &unread) == 0 && unread > 100000; }));
    lose();
    buses.session.signal(SIGCONT);
    EXPECT_TRUE(waitUntil([&] { return daemon->output().find("WARN: reconnected") != std::string::npos; }));
    EXPECT_NE(owner(), before) << "it sends as the service";
    runtime.emit("Terminated", std::string("a"));
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
    zul.releaseCalls();
    EXPECT_TRUE(client.waitForStatus(running, 100));
    EXPECT_TRUE(client.waitForStatus(queued, 100));
    zul.emit("PackageRemoved", std::string("last"));
    EXPECT_TRUE(waitUntil([&] { return client.events().back() == "removed last"; }));
}

TEST_F(ADaemonThatLosesItsConnection, ReportsAnEndWhoseInitiatorItWasIdentifying) {
    const auto running = beginInstallation(client);
    ASSERT_TRUE(client.waitForStatus(running, 10));
    const auto before = identification.calls("IdentifyByBusName").size();
    identification.hold("IdentifyByBusName");
    zul.answer("Install");
    ASSERT_TRUE(identification.waitForCalls("IdentifyByBusName", before + 1));
    lose();
    identification.releaseCalls();
    EXPECT_TRUE(client.waitForStatus(running, 100));
}

TEST_F(ADaemonThatLosesItsConnection, ExecutesNoRequestWhoseCallerGotAnError) {
    setInstalled({"a", "b"});
    zul.hold("GetPackageList");
    auto removal = std::async(std::launch::async, [&] { return client.errorOf("Remove", "a"); });
    ASSERT_TRUE(zul.waitForCalls("GetPackageList", 1));
    lose();
    EXPECT_THAT(removal.get(), HasSubstr("NoReply"));
    zul.releaseCalls();
    EXPECT_TRUE(waitForService());
    EXPECT_TRUE(client.waitForStatus(client.remove("b"), 100));
    EXPECT_THAT(zul.calls("Remove"), ElementsAre("b"));
}

TEST_F(ADaemonThatLosesItsConnection, WaitsForItsNameAndLogsWhichConnectionOwnsIt) {
    const auto running = beginInstallation(client);
    auto other = sdbus::createSessionBusConnection();
    static_cast<void>(Common::BusConnection::ask<std::uint32_t>(
        *other, "RequestName", std::string("norvane.Vendara"), std::uint32_t{0})); // it gets in the queue
    lose();
    EXPECT_TRUE(
        logged("WARN: waiting for the name norvane.Vendara, which is owned by " + other->getUniqueName()));
    zul.releaseCalls();
    other.reset();
    EXPECT_TRUE(client.waitForStatus(running, 100));
}

TEST_F(ADaemonThatLosesItsConnection, EndsWhenAnotherBusHasTheAddress) {
    daemon->signal(SIGSTOP);
    const auto address = buses.session.address();
    buses.session.stop();
    const Process another(
        {"dbus-daemon", "--session", "--nofork", "--print-address", "--address=" + address});
    ASSERT_TRUE(waitUntil([&] { return !another.output().empty(); }));
    daemon->signal(SIGCONT);
    expectedStatus = 1;
    EXPECT_EQ(daemon->wait(), expectedStatus);
    EXPECT_THAT(daemon->output(), HasSubstr("ERROR: the session bus was replaced\n"));
}

} // namespace

} // namespace Testbed

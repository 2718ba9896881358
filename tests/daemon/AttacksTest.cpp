#include "common/bus/Loop.h"
#include "testbed/CraftedPackage.h"
#include "tests/daemon/DaemonTest.h"

#include <csignal>
#include <fcntl.h>
#include <future>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace Testbed {

namespace {

class AnAttacker : public DaemonTest {
protected:
    static std::vector<std::string> connectionsOn(sdbus::IConnection& bus) {
        std::vector<std::string> names;
        sdbus::createProxy(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus")
            ->callMethod("ListNames")
            .onInterface("org.freedesktop.DBus")
            .storeResultsTo(names);
        std::erase_if(names, [](const std::string& name) { return !name.starts_with(':'); });
        return names;
    }

    // Sends a signal as the object of a service to every connection of a bus, without owning the service's
    // name: as another user, where the test has the right to become one.
    static void forge(const std::string& busOption, const std::string& path, const std::string& signal,
                      const std::string& argument) {
        const auto bus = busOption == "--system" ? sdbus::createSystemBusConnection()
                                                 : sdbus::createSessionBusConnection();
        for (const auto& name : connectionsOn(*bus)) {
            std::vector<std::string> command{"gdbus",         "emit", busOption,  "--dest", name,
                                             "--object-path", path,   "--signal", signal,   argument};
            if (geteuid() == 0) {
                command.insert(command.begin(), {"setpriv", "--reuid=65534", "--clear-groups"});
            }
            const auto result = run(command);
            EXPECT_EQ(result.status, 0) << result.output;
        }
    }

    // As the package manager does, but to every connection; returns when the bus has taken it.
    static void sendRemoval(sdbus::IConnection& bus, const std::string& id) {
        const auto object = sdbus::createObject(bus, "/norvane/ZUL");
        for (const auto& name : connectionsOn(bus)) {
            auto message = object->createSignal("norvane.ZUL", "PackageRemoved");
            message << id;
            message.setDestination(name);
            message.send();
        }
        static_cast<void>(connectionsOn(bus));
        object->unregister();
    }

    // Takes the package manager's name.
    static void takeName(sdbus::IConnection& bus, std::uint32_t flags) {
        std::uint32_t reply = 0;
        sdbus::createProxy(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus")
            ->callMethod("RequestName")
            .onInterface("org.freedesktop.DBus")
            .withArguments("norvane.ZUL", flags)
            .storeResultsTo(reply);
        ASSERT_EQ(reply, 1) << "owner of the name";
    }

    [[nodiscard]] bool isLoggedOnce(const std::string& text) const {
        const auto log = daemon->output();
        const auto first = log.find(text);
        return first != std::string::npos && log.rfind(text) == first;
    }

    Client client;
};

TEST_F(AnAttacker, CannotImpersonateThePackageManagerOrTheRuntimeManager) {
    const auto upgrade = prepareUpgrade(client);
    EXPECT_EQ(client.errorOf("Restart", "a"), "");
    client.forget();
    buses.system.openToOthers();
    buses.session.openToOthers();
    const auto* const package = "{'general.id': 'com.example.app', 'general.version': '1.0-1', "
                                "'certificate.subgroup': 'group', 'certificate.id': 'certificate'}";
    forge("--system", "/norvane/ZUL", "norvane.ZUL.PackageUpgraded", package);
    forge("--system", "/norvane/ZUL", "norvane.ZUL.PackageInstalled", package);
    forge("--system", "/norvane/ZUL", "norvane.ZUL.PackageRemoved", "'com.example.app'");
    forge("--session", "/norvane/RuntimeManager/Control1", "norvane.RuntimeManager.Control1.Terminated",
          "'a'");
    for (const auto* service : {"norvane.RuntimeManager", "norvane.ZUL"}) {
        const auto line = std::string("dropped signals not sent by ") + service;
        EXPECT_TRUE(waitUntil([&] { return isLoggedOnce(line); })) << service;
    }
    zul.emit("PackageRemoved", std::string("last"));
    EXPECT_TRUE(client.waitForEvents(1));
    EXPECT_THAT(client.events(), ElementsAre("removed last"));
    EXPECT_THAT(runtime.calls("InvokeIntent"), IsEmpty());
    EXPECT_EQ(client.operations().at(0).status, OperationStatus::AwaitingUpgrade);
    runtime.restart();
    runtime.emit("Terminated", std::string("a"));
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
    EXPECT_TRUE(isLoggedOnce("dropped signals not sent by norvane.ZUL")) << daemon->output();
}

TEST_F(AnAttacker, CanSendPackageSignalsOnlyWhileItOwnsThePackageManagersName) {
    constexpr std::uint32_t allowReplacement = 1 | 4; // and do not queue for it afterwards
    constexpr std::uint32_t replaceExisting = 2;
    const auto replaced = sdbus::createSystemBusConnection();
    auto replacing = sdbus::createSystemBusConnection();
    zul.releaseName();
    takeName(*replaced, allowReplacement);
    sendRemoval(*replaced, "owner");
    takeName(*replacing, replaceExisting);
    sendRemoval(*replaced, "replaced");
    sendRemoval(*replacing, "replacing");
    replacing.reset();
    zul.takeName();
    sendRemoval(*replaced, "former");
    zul.emit("PackageRemoved", std::string("returned"));
    EXPECT_TRUE(client.waitForEvents(3));
    EXPECT_THAT(client.events(), ElementsAre("removed owner", "removed replacing", "removed returned"));
    setInstalled({"com.example.app"});
    EXPECT_TRUE(client.waitForStatus(client.remove("com.example.app"), 100));
}

TEST_F(AnAttacker, CannotForgeReplies) {
    identification.hold("IdentifyByBusName");
    auto read = std::async(std::launch::async, [this] { return client.errorOf("GetAllProperties"); });
    ASSERT_TRUE(identification.waitForCalls("IdentifyByBusName", 1));
    buses.session.forgeReplies("('shop', 'user')", "norvane.Vendara");
    EXPECT_EQ(read.get(), "Couldn't determinate operation initiator");
    runtime.hold("InvokeIntent");
    auto start = std::async(std::launch::async, [this] { return client.errorOf("Start", "a"); });
    ASSERT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
    buses.session.forgeReplies("()", "norvane.Vendara");
    EXPECT_EQ(start.get(), "Failed to start application");
    EXPECT_TRUE(logged("ERROR: dropped a reply not sent by norvane.RuntimeManager"));
}

TEST_F(AnAttacker, WithHugeArgumentsIsRefusedInAShortLineWithoutDelayingOthers) {
    const std::string huge(8UL << 20U, 'x');
    const auto before = daemon->output().size();
    EXPECT_EQ(client.errorOf("Start", huge), "Failed to start application");
    EXPECT_EQ(client.errorOf("Restart", huge), "Failed to restart application");
    EXPECT_EQ(client.errorOf("Remove", huge), "The package does not exist");
    EXPECT_EQ(client.errorOf("Install", huge), "Failed to retrieve id from the rpm package");
    EXPECT_EQ(client.errorOf("Install", "relative.rpm"), "Failed to retrieve id from the rpm package");
    const auto file = scratch.path() / "long.rpm";
    craftPackage(file, {}, {.version = huge});
    EXPECT_EQ(client.errorOf("Install", file.string()), "Failed to retrieve id from the rpm package");
    for (const auto* id : {"", ".", "..", "a/b", "/a"}) {
        EXPECT_EQ(client.errorOf("Start", id), "Failed to start application") << id;
        EXPECT_EQ(client.errorOf("Remove", id), "The package does not exist") << id;
    }
    EXPECT_LT(daemon->output().size() - before, 4096);
    EXPECT_THAT(runtime.calls("InvokeIntent"), IsEmpty());
    EXPECT_EQ(client.errorOf("Start", "a"), "");
}

TEST_F(AnAttacker, CannotHaveMoreRequestsWaitingWithMoreConnections) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the time limit of the requests ends before a sanitized daemon has received all";
#endif
    runtime.hold("InvokeIntent");
    std::vector<std::unique_ptr<sdbus::IProxy>> connections(3);
    for (auto& connection : connections) {
        connection =
            sdbus::createProxy(sdbus::createSessionBusConnection(), "norvane.Vendara", "/norvane/Vendara");
        for (int count = 0; count < 15'000; ++count) {
            connection->callMethod("Start")
                .onInterface("norvane.Vendara")
                .withArguments("a")
                .dontExpectReply();
        }
    }
    for (const auto& connection : connections) { // returns when all its requests have arrived
        connection->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
    }
    EXPECT_THAT([&] { connections.back()->callMethod("GetAllProperties").onInterface("norvane.Vendara"); },
                testing::ThrowsMessage<sdbus::Error>(HasSubstr("Too many requests are waiting")));
    EXPECT_THAT(client.operations(), IsEmpty()) << "others are answered";
}

// With the sender added by the bus, the message exceeds the limit of the bus library, which then closes the
// connection.
TEST_F(AnAttacker, CannotEndTheServiceWithTheLongestMessageOfTheBus) {
    constexpr std::size_t otherBytes = 133;
    const std::string longest((1UL << 27U) - otherBytes, 'x');
    const auto running = beginInstallation(client);
    for (int round = 1; round <= 2; ++round) {
        Client starter;
        runtime.hold("InvokeIntent");
        auto start = std::async(std::launch::async, [&] { return starter.errorOf("Start", "b"); });
        ASSERT_TRUE(runtime.waitForCalls("InvokeIntent", static_cast<std::size_t>(round)));
        EXPECT_THAT(Client().errorOf("Start", longest), HasSubstr("NoReply"));
        EXPECT_THAT(start.get(), HasSubstr("NoReply"));
        runtime.hold("InvokeIntent", false);
        EXPECT_TRUE(runtime.answer("InvokeIntent"));
        EXPECT_TRUE(waitForService());
        EXPECT_THAT(starter.operations(), IsEmpty());
    }
    zul.releaseCalls();
    EXPECT_TRUE(client.waitForStatus(running, 100));
    EXPECT_THAT(daemon->output(), testing::ContainsRegex("WARN: reconnected to the session bus: .*"
                                                         "WARN: reconnected to the session bus: "));
}

TEST_F(AnAttacker, ThatLeavesAtTheEndOfAnOperationGetsTheResultLater) {
    std::optional<Client> leaver(std::in_place);
    const auto name = leaver->busName();
    identification.set(name, "shop");
    identification.set(client.busName(), "shop");
    const auto operation = beginInstallation(*leaver);
    ASSERT_TRUE(leaver->waitForStatus(operation, 10));
    leaver.reset(); // the identification service still takes the name for the application's
    zul.answer("Install");
    std::vector<Client::Operation> completed;
    EXPECT_TRUE(waitUntil([&] { return !(completed = client.operations("CompletedOperations")).empty(); }));
    EXPECT_THAT(completed, ElementsAre(Client::ended(operation)));
    EXPECT_THAT(client.operations(), IsEmpty());
}

// A FUSE file system whose server never reads a request.
class AFileSystemThatDoesNotRespond : public DaemonTest {
protected:
    void SetUp() override {
        server = Common::UniqueFd(open("/dev/fuse", O_RDWR));
        std::filesystem::create_directory(mountPoint);
        const auto fd = std::to_string(server.get());
        preparation = "mount -i -t fuse -o fd=" + fd + ",rootmode=40000,user_id=0,group_id=0 none " +
                      mountPoint.string() + " && exec " + fd + ">&-";
        if (!server || run(inNamespace(preparation)).status != 0) {
            GTEST_SKIP() << "no right to mount a FUSE file system";
        }
        server = {}; // used by the probe; the new descriptor has the same number
        server = Common::UniqueFd(open("/dev/fuse", O_RDWR));
        DaemonTest::SetUp();
    }

    Common::UniqueFd server;
    const std::filesystem::path mountPoint = scratch.path() / "stalled";
};

TEST_F(AFileSystemThatDoesNotRespond, DelaysOnlyClientsWhoseFilesAreRead) {
    const auto file = packageFile();
    const auto install = [this] { return Client().errorOf("Install", (mountPoint / "x.rpm").string()); };
    std::vector<std::future<std::string>> stalled;
    stalled.push_back(std::async(std::launch::async, install));
    EXPECT_TRUE(waitUntil([&] { return isHelperWaiting(); }));
    Client other;
    EXPECT_TRUE(other.waitForStatus(other.install(file), 100));
    for (std::size_t count = 0; count < Common::Loop::maximumJobs; ++count) {
        stalled.push_back(std::async(std::launch::async, install));
    }
    EXPECT_TRUE(logged("ERROR: too many jobs have not ended")) << "no more than that may wait";
    Client client;
    setInstalled({"com.example.old"});
    EXPECT_EQ(client.errorOf("Start", "a"), "");
    EXPECT_TRUE(client.waitForStatus(client.remove("com.example.old"), 100));
    EXPECT_TRUE(isHelperWaiting());
    server = {}; // aborts pending requests
    for (auto& each : stalled) {
        EXPECT_EQ(each.get(), "Failed to retrieve id from the rpm package");
    }
    EXPECT_TRUE(client.waitForStatus(client.install(file), 100));
}

TEST_F(AFileSystemThatDoesNotRespond, DoesNotKeepTheServiceFromEnding) {
    auto stalled = std::async(
        std::launch::async, [this] { return Client().errorOf("Install", (mountPoint / "x.rpm").string()); });
    Client client;
    ASSERT_TRUE(waitUntil([&] { return isHelperWaiting(); }));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
    EXPECT_THAT(stalled.get(), HasSubstr("NoReply"));
}

TEST_F(AFileSystemThatDoesNotRespond, DoesNotKeepTheServiceFromEndingWithTheBus) {
    auto stalled = std::async(std::launch::async, [this] {
        try {
            return Client().errorOf("Install", (mountPoint / "x.rpm").string());
        } catch (const sdbus::Error& error) {
            return error.getName();
        }
    });
    ASSERT_TRUE(waitUntil([&] { return isHelperWaiting(); }));
    buses.session.stop();
    expectedStatus = 1;
    EXPECT_EQ(daemon->wait(), 1);
}

class ADaemonWithFewDescriptors : public DaemonTest {
protected:
    void SetUp() override {
        preparation = "ulimit -n 256";
        DaemonTest::SetUp();
    }
};

TEST_F(ADaemonWithFewDescriptors, SurvivesRequestsWithAttachedDescriptors) {
    runtime.hold("InvokeIntent");
    const auto attacker = run({"/usr/bin/python3", "-c", R"py(if True:
        import os
        from gi.repository import Gio, GLib
        bus = Gio.bus_get_sync(Gio.BusType.SESSION)
        service = ("norvane.Vendara", "/norvane/Vendara")
        for _ in range(40):
            call = Gio.DBusMessage.new_method_call(*service, "norvane.Vendara", "Start")
            call.set_body(GLib.Variant("(s)", ("a",)))
            call.set_unix_fd_list(Gio.UnixFDList.new_from_array([os.dup(0) for _ in range(16)]))
            bus.send_message(call, Gio.DBusSendMessageFlags.NONE)
            bus.flush_sync()
        bus.call_sync(*service, "org.freedesktop.DBus.Peer", "Ping", None, None, 0, -1)
    )py"});
    EXPECT_EQ(attacker.status, 0) << attacker.output;
    EXPECT_TRUE(runtime.waitForCalls("InvokeIntent", 1));
    runtime.hold("InvokeIntent", false);
    EXPECT_TRUE(runtime.answer("InvokeIntent"));
    Client client;
    EXPECT_TRUE(waitUntil([&] { return client.errorOf("Start", "a").empty(); }));
}

} // namespace

} // namespace Testbed

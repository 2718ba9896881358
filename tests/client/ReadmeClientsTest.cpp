#include "client/Records.h"
#include "testbed/PrivateBus.h"
#include "testbed/Process.h"
#include "testbed/ScratchDirectory.h"
#include "testbed/ScriptedService.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using namespace Testbed;

class ThePythonClient : public testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<Process> beginScript(const std::string& script) const {
        const std::vector<std::string> arguments{"/usr/bin/python3", "-c", R"(
import os, vendara
from gi.repository import Gio, GLib

def attempt(function, *arguments):
    try:
        print(function(*arguments))
    except Exception as error:
        print(f"{type(error).__name__}: {error}")

def dispatch():
    while GLib.MainContext.default().iteration(False):
        pass
)" + script};
        return std::make_unique<Process>(arguments, options);
    }

    PrivateBuses buses;
    ScratchDirectory scratch;
    const Process::Options options{.environment = {{"PYTHONPATH", PYTHON_MODULES},
                                                   {"PYTHONDONTWRITEBYTECODE", "1"},
                                                   {"PYTHONUNBUFFERED", "1"}},
                                   .directory = scratch.path()};
};

// The same program in two languages.
class AClientOfTheReadme : public ThePythonClient, public testing::WithParamInterface<std::string> {
protected:
    [[nodiscard]] static std::vector<std::string> command(const std::string& path) {
        return GetParam() == "Python" ? std::vector<std::string>{"/usr/bin/python3", PYTHON_CLIENT, path}
                                      : std::vector<std::string>{CPP_CLIENT, path};
    }
    [[nodiscard]] ProcessResult install(const std::string& path) const { return run(command(path), options); }
};

TEST_P(AClientOfTheReadme, ReportsAReceivedEndEvenIfTheBusIsLost) {
    ScriptedService service({{"good.rpm", {{0, 100}}}});
    service.onPing = [this] { buses.session.stop(); };
    const auto good = install("good.rpm");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.output, "install good.rpm: queued\ninstall good.rpm: finished\n");
}

TEST_P(AClientOfTheReadme, FollowsItsOperationToTheEnd) {
    ScriptedService service({{"good.rpm", {{0, 10, 90, 100}}},
                             {"bad.rpm", {{0, 10, 101}, 4}},
                             {"missed.rpm", {{0}, 0, true}},
                             {"forgotten.rpm", {}},
                             {"late", {.completed = true}},
                             {"text.rpm", {.refusal = "Failed to retrieve id from the rpm package"}}});
    const auto good = install("good.rpm");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.output, "install good.rpm: queued\ninstall good.rpm: in progress\n"
                           "install good.rpm: awaiting upgrade\ninstall good.rpm: finished\n");
    EXPECT_EQ(service.requests.back(), scratch.path() / "good.rpm");
    EXPECT_TRUE(waitUntil([&] { return service.pings == 1; }))
        << "it left before the service recorded the end";
    const auto bad = install("bad.rpm");
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.output,
                HasSubstr("\ninstall bad.rpm: failed: the file is damaged or not a package (error 4)\n"));
    service.refusesOnce = true;
    const auto missed = install("missed.rpm");
    EXPECT_EQ(missed.status, 0);
    EXPECT_THAT(missed.output,
                AllOf(HasSubstr("install missed.rpm: finished\n"), HasSubstr("install late: ")));
    const auto forgotten = install("forgotten.rpm");
    EXPECT_EQ(forgotten.status, 2);
    EXPECT_THAT(forgotten.output, HasSubstr("the service no longer lists the operation"));
    const auto text = install("text.rpm");
    EXPECT_EQ(text.status, 2);
    EXPECT_EQ(text.output, "Failed to retrieve id from the rpm package\n");
    for (const auto* name : {"\xff.rpm", "\ufdd0.rpm", "\U0010ffff.rpm"}) {
        const auto invalid = install(name);
        EXPECT_EQ(invalid.status, 2);
        EXPECT_EQ(invalid.output, "not valid UTF-8, or with a character that D-Bus does not allow\n");
    }
}

TEST_P(AClientOfTheReadme, ReportsThatTheServiceOrTheBusIsGone) {
    EXPECT_EQ(install("good.rpm").status, 2) << "nothing starts the service";
    for (const bool isBus : {false, true}) {
        auto service =
            std::make_unique<ScriptedService>(std::map<std::string, Script>{{"app", {.known = true}}});
        Process client(command("app"), options);
        ASSERT_TRUE(client.shows("queued"));
        isBus ? buses.session.stop() : service.reset();
        EXPECT_EQ(client.wait(), 2);
        EXPECT_THAT(client.output(), HasSubstr(isBus ? "bus" : "the service left the bus; the result of"));
    }
    const auto client = install("good.rpm");
    EXPECT_EQ(client.status, 2);
    EXPECT_THAT(client.output, testing::StartsWith("there is no session bus: "));
}

TEST_P(AClientOfTheReadme, RefusesRepliesOfOtherTypesAndSenders) {
    BusPeer service(sdbus::createSessionBusConnection(Own::service), Own::objectPath);
    std::atomic<bool> isForged = false;
    service.on(Own::interface, Own::install, [&](const std::string& path) {
        if (isForged) {
            buses.session.forgeReplies("(('1', 'com.example.forged', 0, 100, 0),)");
        }
        return path;
    });
    service.start();
    const testing::Matcher<std::string> refusals[] = {
        testing::StartsWith("unexpected reply of the service: "),
        testing::Eq("dropped a reply not sent by norvane.Vendara\n")};
    for (const auto& refusal : refusals) {
        const auto client = install("good.rpm");
        EXPECT_EQ(client.status, 2);
        EXPECT_THAT(client.output, refusal);
        isForged = true;
    }
}

TEST_F(ThePythonClient, ReportsStatesAsTheCppClientDoes) {
    const ScriptedService service({{"app", {.known = true}}});
    const auto client = beginScript(R"(
print(*vendara.Client().properties(), sep="\n")
for code in range(1, 20):
    print(vendara.Operation("1", "app", 0, vendara.FAILED, code))
)");
    EXPECT_EQ(client->wait(), 0);
    std::string expected =
        "aarch64\n4.2\n[Operation(id='id of app', package_id='app', type=0, status=10, error_code=0)]\n[]\n"
        "[Package(id='com.example.one', version='1.0-1', certificate_subgroup='apps', certificate_id='cert', "
        "extra={'size': 7})]\n";
    for (int code = 1; code < 20; ++code) {
        expected += Vendara::describe(ScriptedService::operation("app", 101, code)) + "\n";
    }
    EXPECT_EQ(client->output(), expected);
}

TEST_F(ThePythonClient, DistinguishesARefusalFromAnAbsentService) {
    ScriptedService service(
        {{"app", {.called = [] { throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "No"); }}},
         {"ended", {.called = [] { throw sdbus::Error("org.freedesktop.DBus.Error.NoReply", "No"); }}}});
    const auto client = beginScript(R"(
client = vendara.Client()
attempt(client.start, "app")
attempt(client.start, "ended")
attempt(client.install, "app\0.rpm")
os.mkdir("gone")
os.chdir("gone")
os.rmdir("../gone")
attempt(client.install, "app")
)");
    EXPECT_EQ(client->wait(), 0);
    EXPECT_EQ(
        client->output(),
        "CallRefused: No\nServiceAbsent: No\n"
        "CallRefused: not valid UTF-8, or with a character that D-Bus does not allow\nCallRefused: No\n");
    EXPECT_EQ(service.requests.back(), "app") << "not the path as it was given";
}

TEST_F(ThePythonClient, RaisesInFollowAFailureThatAnotherLoopHandled) {
    auto service = std::make_unique<ScriptedService>(std::map<std::string, Script>{{"app", {{0, 10}}}});
    const auto client = beginScript(R"(
def changed(operation):
    print(operation)
    if operation.status == 10:
        raise LookupError("in changed")
client = vendara.Client(changed)
client.install("app")
dispatch()
try:
    while True:
        client.start("app")
except vendara.ServiceAbsent:
    dispatch()  # The bus announced the loss before this error.
attempt(client.follow)
attempt(client.follow)
)");
    ASSERT_TRUE(client->shows("in progress"));
    service.reset();
    EXPECT_EQ(client->wait(), 0);
    EXPECT_EQ(client->output(),
              "install app: queued\ninstall app: in progress\nLookupError: in changed\n"
              "ServiceAbsent: the service left the bus; the result of the operation is unknown\n");
}

TEST_F(ThePythonClient, LeavesTheBusWhenItEndsOrIsClosed) {
    ScriptedService service(std::map<std::string, Script>{{"app", {}}});
    const auto client = beginScript(R"(
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
def names():
    return set(bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListNames",
                             None, None, Gio.DBusCallFlags.NONE, -1).unpack()[0])
before = names()
client = vendara.Client()
client.install("app")
del client
while names() != before:
    pass
print("ended")
with vendara.Client() as client:
    client.install("app")
while names() != before:
    pass
dispatch()
client.close()
attempt(client.follow)
)");
    EXPECT_EQ(client->wait(), 0);
    EXPECT_EQ(client->output(),
              "ended\nServiceAbsent: the client left the bus; the result of the operation is unknown\n");
}

TEST_F(ThePythonClient, FollowsAnOperationOfTheServiceThatReplacedAnother) {
    auto service =
        std::make_unique<ScriptedService>(std::map<std::string, Script>{{"app", {.refusal = "No"}}});
    const auto client = beginScript(R"(
client = vendara.Client()
print("connected")
while True:
    try:
        client.install("app")
        break
    except vendara.Error:
        pass
print(client.follow())
)");
    ASSERT_TRUE(waitUntil([&] { return !client->output().empty(); }));
    service.reset();
    service = std::make_unique<ScriptedService>(std::map<std::string, Script>{{"app", {{0, 100}}}});
    EXPECT_EQ(client->wait(), 0);
    EXPECT_EQ(client->output(), "connected\nTrue\n");
}

INSTANTIATE_TEST_SUITE_P(In, AClientOfTheReadme, testing::Values("Cpp", "Python"),
                         [](const auto& language) { return language.param; });

} // namespace

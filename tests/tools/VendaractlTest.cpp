#include "testbed/PrivateBus.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/ScriptedService.h"
#include "testbed/WaitUntil.h"
#include "tests/tools/JsonOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using namespace Testbed;
namespace MessageBus = Common::Names::MessageBus;
using Json = nlohmann::json;

class Vendaractl : public testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<Process> begin(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), VENDARACTL);
        return std::make_unique<Process>(arguments, Process::Options{.directory = scratch.path()});
    }
    [[nodiscard]] ProcessResult ctl(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), VENDARACTL);
        return run(arguments, {.directory = scratch.path()});
    }

    PrivateBuses buses;
    ScratchDirectory scratch;
};

Json lastLine(const std::string& output) {
    const auto text = output.substr(0, output.size() - 1);
    auto value = Json::parse(text.substr(text.rfind('\n') + 1));
    expectDocumented(value);
    return value;
}

TEST_F(Vendaractl, FollowsEveryOperationToItsEndAndExplainsItsErrorCode) {
    for (const char* name : {"good.rpm", "unsigned.rpm", "text.rpm"}) {
        writeFile(scratch.path() / name, "package");
    }
    ScriptedService service({{"good.rpm", {{0, 10, 90, 100}}},
                             {"same", {{101}, 8}},
                             {"forgotten", {{0, 10}}},
                             {"[a,b]", {{100}}},
                             {"-x", {{100}}},
                             {"late", {.completed = true}},
                             {"unsigned.rpm", {{0, 10, 101}, 7}},
                             {"text.rpm", {.refusal = "Failed to retrieve id from the rpm package"}}});
    EXPECT_THAT(ctl({"list"}).output,
                testing::StartsWith("earlier: install late: finished\ncom.example.one\t"));
    EXPECT_TRUE(waitUntil([&] { return service.pings == 2; }))
        << "it left before the service recorded the end";
    const auto result = ctl({"install", "good.rpm", "./unsigned.rpm", "text.rpm"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "install good.rpm: queued\ninstall good.rpm: in progress\n"
                             "install good.rpm: awaiting upgrade\ninstall good.rpm: finished\n"
                             "install unsigned.rpm: queued\ninstall unsigned.rpm: in progress\n"
                             "install unsigned.rpm: failed: the package's signature is missing, wrong or not "
                             "trusted (error 7)\nvendaractl: " +
                                 (scratch.path() / "text.rpm").string() +
                                 ": Failed to retrieve id from the rpm package\n");
    for (const auto& request : service.requests) {
        EXPECT_TRUE(std::filesystem::path(request).is_absolute()) << request;
    }
    EXPECT_THAT(ctl({"remove", "same", "forgotten"}).output,
                AllOf(HasSubstr("the same or a newer version is installed (error 8)"),
                      HasSubstr("vendaractl: forgotten: the service no longer lists the operation")));
    EXPECT_EQ(ctl({"remove", "good.rpm", "[a,b]", "--", "-x"}).status, 0);
    EXPECT_THAT(service.requests, testing::IsSupersetOf({"[a,b]", "-x"}));
}

TEST_F(Vendaractl, ExitsWithThreeIfTheServiceIsAbsentOrLeaves) {
    EXPECT_EQ(ctl({"list"}).status, 3);
    EXPECT_EQ(ctl({"install", "absent.rpm"}).status, 2);
    std::unique_ptr<ScriptedService> service;
    const auto beginRemoval = [&] {
        service = std::make_unique<ScriptedService>(std::map<std::string, Script>{{"app", {.known = true}}});
        auto client = begin({"remove", "app"});
        EXPECT_TRUE(client->shows("queued"));
        return client;
    };
    const auto client = beginRemoval();
    service.reset();
    EXPECT_EQ(client->wait(), 3);
    EXPECT_THAT(client->output(), HasSubstr("the service left the bus"));
    // The reply and the loss of the service arrive together.
    std::atomic<pid_t> stopped = 0;
    std::atomic<bool> isStopped = false;
    service = std::make_unique<ScriptedService>(std::map<std::string, Script>{
        {"app", {.statuses = {}, .called = [&] {
                     isStopped = waitUntil([&] { return stopped != 0; }) && kill(stopped, SIGSTOP) == 0;
                 }}}});
    const auto late = begin({"remove", "app"});
    stopped = late->pid();
    ASSERT_TRUE(waitUntil([&] { return isStopped.load(); }));
    service.reset();
    late->signal(SIGCONT);
    EXPECT_EQ(late->wait(), 3) << late->output();
    const auto other = beginRemoval();
    buses.session.stop();
    EXPECT_EQ(other->wait(), 3);
    EXPECT_EQ(ctl({"--json", "info"}).status, 3);
    EXPECT_TRUE(lastLine(ctl({"--json", "info"}).output).contains("error"));
    const PrivateBus strict("<policy context='mandatory'><deny send_interface='org.freedesktop.DBus' "
                            "send_member='StartServiceByName'/></policy>");
    setenv("DBUS_SESSION_BUS_ADDRESS", strict.address().c_str(), 1);
    EXPECT_EQ(ctl({"list"}).status, 3);
}

TEST_F(Vendaractl, ReportsThatTheServiceEndedDuringItsStart) {
    // One that fails at once, and one that fails when it has taken its name.
    for (const std::string command :
         {"/bin/false", "/usr/bin/env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/none " DAEMON}) {
        writeFile(scratch.path() / "norvane.Vendara.service",
                  "[D-BUS Service]\nName=norvane.Vendara\nExec=" + command + "\n");
        const PrivateBus bus("<servicedir>" + scratch.path().native() + "</servicedir>");
        setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
        const auto result = ctl({"list"});
        EXPECT_EQ(result.status, 3);
        EXPECT_EQ(result.output, "vendaractl: the service ended during its start; see its log\n") << command;
    }
}

TEST_F(Vendaractl, ReportsTheErrorOfACommandLine) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "a command is required"},
        {{"frobnicate"}, "unknown command: frobnicate"},
        {{"--bogus", "list"}, "list: unknown option: --bogus"},
        {{"install", "--bogus"}, "install: unknown option: --bogus"},
        {{"info", "--no-wait"}, "info: unknown option: --no-wait"},
        {{"start", "a", "b"}, "start: unexpected argument: b"},
        {{"remove"}, "ID is required"},
        {{"wait", "a", "b"}, "wait: unexpected argument: b"},
        {{"wait", "a/b"}, "vendaractl: a/b: not a valid identifier"},
        {{"history", "a/b"}, "vendaractl: a/b: not a valid identifier"},
        {{"history", "--directory", "absent"}, "--directory: "},
        {{"history", "--directory", "/", "--root", "/"}, "--root excludes --directory"},
        {{"size", "--configuration", "/etc/passwd"}, "--configuration: /etc/passwd: line 1: "},
        {{"check", "--configuration", "/dev/null", "x"}, "--configuration: "},
        {{"verify", "--configuration", "none.conf"}, "--configuration: none.conf: has no section [database]"},
        {{"operations", "--follow=3"}, "--follow takes no value"}};
    writeFile(scratch.path() / "none.conf", "[other]\nroot_directory=/\n");
    for (const auto& [arguments, problem] : cases) {
        const auto result = ctl(arguments);
        EXPECT_EQ(result.status, 2) << problem;
        EXPECT_THAT(result.output, testing::StartsWith(problem));
    }
    const auto fromEnvironment =
        run({VENDARACTL, "verify"}, {.environment = {{"VENDARA_CONFIGURATION", "none"}}});
    EXPECT_EQ(fromEnvironment.status, 2);
    EXPECT_THAT(fromEnvironment.output, HasSubstr("VENDARA_CONFIGURATION: "));
    EXPECT_EQ(ctl({"--json", "frobnicate"}).output,
              "{\"error\":{\"message\":\"unknown command: frobnicate\"}}\n");
    // An unexpected failure is JSON too: the working directory does not exist.
    const auto lost =
        run({"sh", "-c", "mkdir gone; cd gone; rmdir ../gone; exec " VENDARACTL " --json owner x"},
            {.directory = scratch.path()});
    EXPECT_EQ(lost.status, 1);
    EXPECT_THAT(lastLine(lost.output)["error"]["message"].get<std::string>(), HasSubstr("[x]"));
}

TEST_F(Vendaractl, WaitsForTheServiceUntilItIsInterrupted) {
    ScriptedService service({{"app", {.known = true}}});
    EXPECT_EQ(ctl({"remove", "--no-wait", "app"}).output, "install app: queued\n");
    const auto client = begin({"remove", "app"});
    ASSERT_TRUE(waitUntil([&] { return service.propertyReads >= 1; }));
    BusPeer forger(sdbus::createSessionBusConnection(), Own::objectPath);
    const auto claimEnd = [&] {
        auto signal = forger.object().createSignal(Own::interface, Own::operationStatusChanged);
        signal << ScriptedService::operation("app", 100, 0);
        signal.setDestination(service.client);
        signal.send();
    };
    claimEnd();
    // It cannot claim the service's name or its loss either.
    const auto bus = sdbus::createObject(forger.connection(), MessageBus::objectPath);
    const auto claimOwner = [&](const std::string& owner) {
        auto signal = bus->createSignal(MessageBus::interface, MessageBus::nameOwnerChanged);
        signal << Own::service << "" << owner;
        signal.setDestination(service.client);
        signal.send();
    };
    claimOwner(forger.connection().getUniqueName());
    claimEnd();
    claimOwner("");
    // No accepted signal arrived, so it queries again.
    const int before = service.propertyReads;
    ASSERT_TRUE(waitUntil([&] { return service.propertyReads > before; }));
    client->signal(SIGINT);
    EXPECT_EQ(client->wait(), 128 + SIGINT);
    const auto output = client->output();
    EXPECT_THAT(output,
                AllOf(HasSubstr("the operations continue in the background"), Not(HasSubstr("finished"))));
    const std::string warning = "WARN: dropped signals not sent by norvane.Vendara, first: ";
    EXPECT_THAT(output, HasSubstr(warning + Own::operationStatusChanged));
    EXPECT_EQ(output.find(warning), output.rfind(warning)) << output;
}

TEST_F(Vendaractl, FollowsOperationsThatAnotherProcessRequested) {
    PackageManager zul;
    RuntimeManager runtime;
    Identification identification;
    for (int connection = 0; connection < 10000; ++connection) {
        identification.set(":1." + std::to_string(connection), "vendaractl");
    }
    Process daemon({DAEMON});
    const auto package = buildPackage(scratch.path(), {.name = "app"});
    zul.hold("Install");
    ASSERT_TRUE(waitForService()) << daemon.output();

    // The first process is interrupted before the operation fails.
    const auto first = begin({"install", package});
    ASSERT_TRUE(first->shows("in progress")) << first->output();
    const auto waiting = begin({"wait", "app"});
    ASSERT_TRUE(waiting->shows("install app: in progress")) << waiting->output();
    first->signal(SIGINT);
    EXPECT_EQ(first->wait(), 128 + SIGINT);
    const std::string hint = "in the background; to follow them: vendaractl wait ";
    ASSERT_THAT(first->output(), HasSubstr(hint));
    const auto id = first->output().substr(first->output().find(hint) + hint.size(), 36);
    EXPECT_EQ(ctl({"wait", "other"}).output,
              "vendaractl: other: there is no such operation, or its result was already reported\n");
    ASSERT_TRUE(zul.answer("Install", "norvane.ZUL.Error.BadPackage"));
    EXPECT_EQ(waiting->wait(), 1);
    EXPECT_THAT(waiting->output(), HasSubstr("install app: failed: the file is damaged"));
    const auto later = ctl({"wait", id, "--json"});
    EXPECT_EQ(later.status, 1);
    EXPECT_EQ(lastLine(later.output)["operation"]["errorCode"], 4);

    // It is not interrupted: the end is sent to it alone.
    zul.setPackages({PackageManager::package("app")});
    const auto upgrade = begin({"install", package});
    ASSERT_TRUE(zul.waitForCalls("Install", 2) && zul.answer("Install"));
    ASSERT_TRUE(
        upgrade->shows("waits for the application to end; to terminate it: vendaractl restart app\n"));
    const auto follower = begin({"operations", "--follow"});
    ASSERT_TRUE(follower->shows("upgrade app: awaiting upgrade"));
    Process inPython({"/usr/bin/python3", "-c",
                      "import sys, vendara\n"
                      "client = vendara.Client(print)\n"
                      "for operation in client.properties().operations: client.attach(operation)\n"
                      "sys.exit(0 if client.follow() else 1)"},
                     {.environment = {{"PYTHONPATH", PYTHON_MODULES},
                                      {"PYTHONDONTWRITEBYTECODE", "1"},
                                      {"PYTHONUNBUFFERED", "1"}}});
    ASSERT_TRUE(inPython.shows("upgrade app: awaiting upgrade")) << inPython.output();
    zul.emit("PackageUpgraded", PackageManager::package("app", "2.0-1"));
    for (auto* process : {upgrade.get(), follower.get(), &inPython}) {
        EXPECT_EQ(process->wait(), 0);
        EXPECT_THAT(process->output(), testing::EndsWith("upgrade app: finished\n"));
    }
}

TEST_F(Vendaractl, PrintsJsonForEveryCommand) {
    writeFile(scratch.path() / "app.rpm", "package");
    ScriptedService service({{"app.rpm", {{0, 101}, 9}}, {"app", {{}, 3, true}}, {"no", {.refusal = "No"}}});
    const auto list = lastLine(ctl({"list", "--json"}).output);
    EXPECT_EQ(list["packages"][0],
              Json::parse(R"({"id": "com.example.one", "version": "1.0-1", "certificateSubgroup": "apps",
                              "certificateId": "cert", "extra": {"size": 7}})"));
    EXPECT_EQ(list["completedOperations"][0]["errorCode"], 3);
    EXPECT_EQ(ctl({"--json", "info"}).output,
              "{\"architecture\":\"aarch64\",\"quenraVersion\":\"4.2\",\"completedOperations\":[]}\n");
    EXPECT_EQ(ctl({"info"}).output, "architecture\taarch64\nversion\t4.2\n");
    EXPECT_EQ(lastLine(ctl({"--json", "operations"}).output)["operations"], Json::array());
    EXPECT_EQ(
        lastLine(ctl({"install", "--json", "app.rpm"}).output)["operation"],
        Json::parse(R"({"id": "id of app.rpm", "package": "app.rpm", "type": "install", "status": "failed",
                              "errorCode": 9, "error": "an upgrade to this version is already prepared"})"));
    EXPECT_EQ(lastLine(ctl({"start", "--json", "app"}).output)["started"], "app");
    const auto absent =
        Json::parse(R"({"error": {"message": "No such file or directory", "subject": "absent.rpm"}})");
    EXPECT_EQ(lastLine(ctl({"install", "app.rpm", "absent.rpm", "--json"}).output), absent);
    const auto refused = ctl({"restart", "--json", "no"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(lastLine(refused.output), Json::parse(R"({"error": {"message": "No", "subject": "no"}})"));
}

TEST_F(Vendaractl, MonitorsPackagesAndEscapesControlCharacters) {
    auto service = std::make_unique<ScriptedService>(std::map<std::string, Script>{});
    const auto text = begin({"monitor"});
    const auto json = begin({"monitor", "--json"});
    const auto package = ScriptedService::package("evil\x1b[2J\u202e");
    // The subscriptions are in place when an announcement has come through.
    ASSERT_TRUE(waitUntil([&] {
        service->peer().send(Own::interface, Own::packageInstalled, package);
        return !text->output().empty() && !json->output().empty();
    }));
    EXPECT_THAT(text->output(),
                AllOf(HasSubstr("installed evil\\x1b[2J\\u{202e} 1.0-1\n"), Not(HasSubstr("\x1b"))));
    EXPECT_THAT(json->output(), HasSubstr("evil\\u001b[2J\\u202e"));
    EXPECT_THAT(ctl({"list", "\x1b[2J\u202e"}).output, HasSubstr(": \\x1b[2J\\u{202e}\n"));
    service->peer().send(Own::interface, Own::packageRemoved, std::string("gone"));
    service.reset();
    EXPECT_TRUE(text->shows("removed gone\nthe service left the bus\n") && json->shows("ServiceLeft"));
    EXPECT_EQ(lastLine(json->output())["event"], "ServiceLeft");
    // The package of an event is its identifier, whatever the event.
    for (const auto& event : objectsOf(json->output())) {
        expectDocumented(event);
        EXPECT_TRUE(event["event"] == "ServiceLeft" || event["package"].is_string()) << event;
        EXPECT_EQ(event["event"] == "PackageInstalled", event.contains("certificateId")) << event;
    }
    text->signal(SIGTERM);
    EXPECT_EQ(text->wait(), 128 + SIGTERM);
}

TEST_F(Vendaractl, RewritesALinePerOperationOnATerminal) {
    const std::string longName = "com.example.with-a-long-name";
    ScriptedService service(
        {{"app", {{0, 10}, 0, true}}, {longName, {{0, 10, 100}}}, {"\u00e4\u00f6", {.known = true}}});
    const Process::Options options{.environment = {{"TERM", "xterm"}, {"LC_ALL", "C"}}};
    const auto result = run({"script", "-qec", VENDARACTL " remove app", "/dev/null"}, options);
    EXPECT_EQ(result.status, 0);
    // The indicator has moved, in place, and nothing is left of it at the end.
    EXPECT_THAT(result.output, AllOf(HasSubstr("\x1b[1A\x1b[J/ install app: in progress"),
                                     HasSubstr("\x1b[1A\x1b[J- install app: in progress")));
    EXPECT_THAT(result.output, testing::EndsWith("\x1b[1A\x1b[J  install app: finished\r\n"));
    // Where a line is too long its package is cut, not its status.
    const auto narrow =
        run({"script", "-qec", "stty cols 40; " VENDARACTL " remove " + longName, "/dev/null"}, options);
    EXPECT_THAT(narrow.output, HasSubstr("| install com.example.w...: in progress\r\n"));
    // Columns are those of characters, not of bytes.
    EXPECT_THAT(run({"script", "-qec", VENDARACTL " operations", "/dev/null"}, options).output,
                HasSubstr("OPERATION  STATUS\r\nid of \u00e4\u00f6   install"));
}

TEST_F(Vendaractl, ReadsAnImageAndNeverLeavesIt) {
    namespace fs = std::filesystem;
    const auto image = scratch.path() / "image";
    const auto install = [](const fs::path& root, const std::string& id) {
        const auto version = root / "opt/app" / id / "1-1";
        writeFile(version / "bin" / id, "12345");
        writeFile(version / "quenra.pkg",
                  "[general]\nid=" + id + "\nversion=1-1\n[certificate]\nid=a\nsubgroup=b\n");
        writeFile(version / "symlink.list", "/usr/bin/" + id + "\n");
        const auto inside = "/opt/app/" + id;
        fs::create_symlink(inside + "/1-1", root / "opt/app" / id / "current");
        fs::create_directories(root / "usr/bin");
        fs::create_symlink(inside + "/current/bin/" + id, root / "usr/bin" / id);
    };
    install(image, "app");
    const auto look = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--root", image});
        return ctl(arguments);
    };
    const auto clean = look({"verify", "--json"});
    EXPECT_EQ(clean.status, 0);
    EXPECT_EQ(lastLine(clean.output), Json::parse(R"({"errors": [], "findings": [],
        "packages": [{"package": "app", "version": "1-1", "prepared": null}]})"));
    EXPECT_THAT(look({"files", "app"}).output, testing::EndsWith("/opt/app/app/1-1/bin/app\t/usr/bin/app\n"));
    EXPECT_THAT(look({"owner", "/usr/bin/app"}).output,
                testing::EndsWith("app\t1-1\t/opt/app/app/current/bin/app\n"));
    EXPECT_EQ(lastLine(look({"size", "--json"}).output)["packages"][0]["total"], 5);
    const auto gone = look({"files", "gone", "--json"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(lastLine(gone.output),
              Json::parse(R"({"error": {"message": "the package is not installed: gone",
                                                              "subject": "gone"}})"));
    EXPECT_EQ(look({"owner", "/usr"}).status, 1);
    EXPECT_EQ(look({"owner", "usr"}).status, 2);
    EXPECT_EQ(look({"verify", "--system-root", "/"}).status, 2);

    // A package that is complete by links to what is outside.
    const auto outside = scratch.path() / "outside";
    install(outside, "evil");
    fs::create_directories(image / "opt/app/evil");
    fs::create_directory_symlink(outside / "opt/app/evil/1-1", image / "opt/app/evil/1-1");
    fs::create_directory_symlink(outside / "opt/app/evil/1-1", image / "opt/app/evil/current");
    fs::create_directory_symlink(outside / "usr/bin", image / "usr/share");
    fs::create_directories(image / "etc/zul");
    writeFile(outside / "zul.conf", "[database]\nroot_directory=/elsewhere\n");
    fs::create_symlink(outside / "zul.conf", image / "etc/zul/zul.conf");
    const auto damaged = look({"verify"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_THAT(damaged.output, AllOf(HasSubstr("evil/current: it points to"), HasSubstr("evil again"),
                                      testing::EndsWith("2 packages, 1 finding\n")));
    EXPECT_EQ(look({"files", "evil"}).status, 1);

    fs::remove(image / "etc/zul/zul.conf");
    writeFile(image / "etc/zul/zul.conf", "no configuration");
    const auto unknown = look({"verify"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_THAT(unknown.output, HasSubstr("zul.conf is damaged"));
}

} // namespace

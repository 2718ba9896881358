#include "common/Error.h"
#include "common/Names.h"
#include "devkit/zul-service/PackageManager.h"
#include "devkit/zul-service/ProcessScan.h"
#include "testbed/LogCapture.h"
#include "testbed/PrivateBus.h"
#include "testbed/RpmPackage.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>
#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

using namespace Testbed;
using namespace Common::Names;
using Common::ErrorCode;
namespace fs = std::filesystem;

namespace {

using Packages = std::vector<std::map<std::string, std::string>>;
using Map = std::map<std::string, sdbus::Variant>;
constexpr std::chrono::seconds limit(30);
const std::string longText(1U << 20U, 'x');

template<typename... Arguments>
std::string errorOf(sdbus::IProxy& proxy, const std::string& interface, const std::string& method,
                    const Arguments&... arguments) {
    try {
        proxy.callMethod(method).onInterface(interface).withTimeout(limit).withArguments(arguments...);
        return {};
    } catch (const sdbus::Error& error) {
        return error.getName();
    }
}

class Peers : public testing::Test {
protected:
    void start(const std::vector<std::string>& arguments, const char* bus, const std::string& name) {
        service_ =
            std::make_unique<Process>(arguments, Process::Options{.environment = {{"HOME", directory_}}});
        ASSERT_EQ(run({"gdbus", "wait", bus, "--timeout", "20", name}).status, 0) << service_->output();
    }

    ScratchDirectory scratch_;
    fs::path directory_ = scratch_.path();
    PrivateBuses buses_;
    std::unique_ptr<Process> service_;
};

class ThePackageManager : public Peers {
protected:
    void start(std::vector<std::string> command = {}) {
        ASSERT_EQ(run({SIGN, "--make-test-ca", directory_ / "keys"}).status, 0);
        const auto root = "root_directory=" + (directory_ / "db/app").native() + "\n";
        const auto temp = "temp_directory=" + (directory_ / "db/tmp").native() + "\n";
        writeFile(directory_ / "zul.conf", "[database]\n" + root + temp);
        fs::create_directories(directory_ / "db/app");
        fs::create_directories(directory_ / "root");
        const std::string program = PROGRAMS "zul-service";
        command.insert(command.end(),
                       {program, "--configuration", directory_ / "zul.conf", "--system-root",
                        directory_ / "root", "--keys", directory_ / "keys", "--retry-delay", "10"});
        if (geteuid() != 0) {
            command.emplace_back("--without-security-attributes");
        }
        Peers::start(command, "--system", Zul::service);
        command_ = command;
        client_->registerSignalHandler(Zul::interface, Zul::packageUpgraded,
                                       [this](sdbus::Signal&) { upgraded_ = true; });
        client_->registerSignalHandler(Zul::interface, Zul::packageRemoved,
                                       [this](sdbus::Signal&) { ++removals_; });
        client_->finishRegistration();
    }

    fs::path package(PackageSpec spec, const std::string& signer = "developer", std::size_t size = 10) {
        spec.files = {{"/usr/bin/app", "#!/bin/sh\nread line\n", "0755"}, {"/opt/x", std::string(size, 'x')}};
        auto file = buildPackage(directory_, spec);
        const auto key = (directory_ / "keys" / signer).native();
        const auto keyOption = "--" + signer + "-key";
        const auto certificateOption = "--" + signer + "-cert";
        EXPECT_EQ(run({SIGN, keyOption, key + ".key", certificateOption, key + ".pem", file}).status, 0);
        return file;
    }

    std::string install(const fs::path& file) {
        return errorOf(*client_, Zul::interface, Zul::install, file.native(), Map());
    }
    Packages list() {
        Packages packages;
        client_->callMethod(Zul::getPackageList).onInterface(Zul::interface).storeResultsTo(packages);
        return packages;
    }
    fs::path current() { return fs::read_symlink(directory_ / "db/app/com.example.app/current").filename(); }

    std::vector<std::string> command_;
    std::atomic<bool> upgraded_ = false;
    std::atomic<int> removals_ = 0;
    std::unique_ptr<sdbus::IProxy> client_ =
        sdbus::createProxy(sdbus::createSystemBusConnection(), Zul::service, Zul::objectPath);
};

class TheRuntimeManager : public Peers {
protected:
    /// @param script  the program "app"
    void start(const std::string& script, const std::string& exec, const std::string& patience) {
        writeFile(directory_ / "usr/bin/app", script);
        fs::permissions(directory_ / "usr/bin/app", fs::perms::owner_all);
        writeEntry("app", exec);
        ASSERT_EQ(run({"mkfifo", directory_ / "fifo"}).status, 0);
        const std::string program = PROGRAMS "runtime-manager";
        Peers::start({"env", "-C", directory_, program, "--system-root", directory_, "--patience", patience},
                     "--session", RuntimeManager::service);
    }
    void writeEntry(const std::string& id, const std::string& exec) const {
        writeFile(directory_ / "usr/share/applications" / (id + ".desktop"),
                  "[Desktop Entry]\nType=Application\nName=My App\nExec=" + exec + "\n");
    }
    static Map hintsFor(const std::string& id) {
        return {{RuntimeManager::preferredHandler, sdbus::Variant(id)}};
    }
    std::string startApplication(const std::string& id) {
        return errorOf(*intents_, RuntimeManager::intentsInterface, RuntimeManager::invokeIntent,
                       RuntimeManager::startIntent, hintsFor(id), Map());
    }
    std::string terminateApplication(const std::string& id = "app") {
        return errorOf(*control_, RuntimeManager::controlInterface, RuntimeManager::terminate, id);
    }

    std::unique_ptr<sdbus::IProxy> control_ = sdbus::createProxy(
        sdbus::createSessionBusConnection(), RuntimeManager::service, RuntimeManager::controlPath);
    std::unique_ptr<sdbus::IProxy> intents_ = sdbus::createProxy(
        sdbus::createSessionBusConnection(), RuntimeManager::service, RuntimeManager::intentsPath);
};

} // namespace

TEST_F(ThePackageManager, RefusesWithAnErrorNameAndChangesNothing) {
    start();
    ASSERT_EQ(install(package({.version = "2.0"})), "") << service_->output();
    const auto before = digestOfTree(directory_ / "db");
    writeFile(directory_ / "text.rpm", "no package");
    const std::vector<std::pair<fs::path, ErrorCode>> refusals{
        {package({.version = "3.0", .architecture = "m68k"}), ErrorCode::BadPackageArchitecture},
        {package({.version = "1.0"}), ErrorCode::DowngradeAttempt},
        {package({.version = "3.0"}, "client"), ErrorCode::BadPackageSignature},
        {directory_ / "text.rpm", ErrorCode::BadPackage},
        {"text.rpm", ErrorCode::FileNotFound}};
    for (const auto& [file, code] : refusals) {
        EXPECT_EQ(install(file), Common::errorNameOf(code)) << file << service_->output();
    }
    EXPECT_EQ(errorOf(*client_, Zul::interface, Zul::remove, std::string("none")),
              Common::errorNameOf(ErrorCode::PackageNotExist));
    EXPECT_EQ(digestOfTree(directory_ / "db"), before);
    const auto record = directory_ / "db/app/com.example.app/current/quenra.pkg";
    ASSERT_EQ(run({"sed", "-i", "/certificate/,$s/^id=.*/id=of another developer/", record}).status, 0);
    EXPECT_EQ(install(package({.version = "3.0"})), Common::errorNameOf(ErrorCode::BadPackageSignature));
    writeFile(record, "damaged");
    EXPECT_EQ(install(package({.version = "3.0"})), "") << service_->output();
}

TEST_F(ThePackageManager, CompletesAnUpgradeWhenTheLastProcessOfTheOldVersionHasEndedAndAgainAfterAFailure) {
    start();
    ASSERT_EQ(install(package({.version = "1.0"})), "");
    // The kernel executes the shell; only the open script shows the process's package.
    Process application({"sh", "-c", "mkfifo fifo; exec \"$0\" <>fifo", directory_ / "root/usr/bin/app"},
                        {.directory = directory_});
    const auto version = fs::canonical(directory_ / "db/app/com.example.app/current");
    ASSERT_TRUE(waitUntil([&] { return Devkit::findProcessUsing(version) == application.pid(); }));
    const auto second = package({.version = "2.0"});
    ASSERT_EQ(install(second), "");
    EXPECT_EQ(install(second), Common::errorNameOf(ErrorCode::UpgradeAlreadyPrepared));
    EXPECT_FALSE(upgraded_);
    EXPECT_EQ(current(), "1.0-1");
    const auto mapping = directory_ / "root/usr/bin/app";
    fs::remove(mapping);
    writeFile(mapping, "a file of the system");
    application.signal(SIGKILL);
    EXPECT_TRUE(service_->shows("couldn't complete the upgrade")) << service_->output();
    EXPECT_FALSE(upgraded_);
    EXPECT_EQ(current(), "1.0-1");
    fs::remove(mapping);
    EXPECT_TRUE(waitUntil([this] { return upgraded_.load(); })) << service_->output();
    EXPECT_EQ(current(), "2.0-1");
}

TEST_F(ThePackageManager, LogsProgressAndStopsAValidation) {
    ASSERT_EQ(run({SIGN, "--make-test-ca", directory_ / "keys"}).status, 0);
    fs::create_directory(directory_ / "root");
    Devkit::PackageManager manager({directory_ / "apps", directory_ / "temp", directory_ / "root"},
                                   {{directory_ / "keys/ca.pem", directory_ / "keys/system-developer-keyid"},
                                    [](auto...) { return 0; },
                                    "noarch",
                                    std::chrono::seconds(0)});
    const auto file = package({.version = "1.0"});
    const LogCapture log;
    manager.install(file);
    EXPECT_THAT(log.text(),
                testing::ContainsRegex("validated 100 % of .*unpacked 100 % of com.example.app\n"));
    manager.stop();
    EXPECT_THAT([&] { manager.install(file); },
                testing::ThrowsMessage<Common::Error>("the validation was stopped"));
}

TEST(AProcessScan, FailsWhenAProcessCannotBeRead) {
    const ScratchDirectory scratch;
    const std::string script = "exec <\"$1/file\"; rm \"$1/file\"; exec sleep 1000";
    writeFile(scratch.path() / "file", "");
    const Process user({"sh", "-c", script, "sh", scratch.path()});
    ASSERT_TRUE(waitUntil([&] { return fs::is_empty(scratch.path()); }));
    const auto directory = fs::canonical(scratch.path());
    EXPECT_TRUE(Devkit::findProcessUsing(directory).has_value());
    // One descriptor is left, for the list of the processes.
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = static_cast<rlim_t>(dup(STDIN_FILENO)) + 1;
    close(static_cast<int>(descriptors.rlim_cur) - 1);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    EXPECT_THROW(static_cast<void>(Devkit::findProcessUsing(directory)), fs::filesystem_error);
}

TEST_F(ThePackageManager, AnnouncesTheUpgradeThatItsRestartCompletes) {
    start();
    ASSERT_EQ(install(package({.version = "1.0"})), "");
    Process application({"sleep", "1000"}, {.directory = directory_ / "db/app/com.example.app/current"});
    const auto second = package({.version = "2.0"});
    const auto workingDirectory = "/proc/" + std::to_string(application.pid()) + "/cwd";
    ASSERT_TRUE(waitUntil([&] { return fs::read_symlink(workingDirectory).filename() == "1.0-1"; }));
    ASSERT_EQ(install(second), "");
    service_->signal(SIGKILL);
    service_->wait();
    EXPECT_FALSE(upgraded_);
    Peers::start(command_, "--system", Zul::service);
    EXPECT_TRUE(waitUntil([this] { return upgraded_.load(); })) << service_->output();
    EXPECT_EQ(current(), "2.0-1");
}

TEST_F(ThePackageManager, ListsNoPackageThatWasDeletedFromTheDiskAndAnnouncesItsRemoval) {
    start();
    const auto file = package({.version = "1.0"});
    const auto link = directory_ / "db/app/com.example.app/current";
    ASSERT_EQ(install(file), "");
    EXPECT_EQ(list().size(), 1U);
    fs::remove(link);
    EXPECT_EQ(list().size(), 0U);
    EXPECT_EQ(install(file), "");
    EXPECT_EQ(list().size(), 1U);
    EXPECT_TRUE(waitUntil([this] { return removals_ == 1; })) << service_->output();
    Process application({"sleep", "1000"}, {.directory = link});
    const auto version = fs::canonical(link);
    ASSERT_TRUE(waitUntil([&] { return Devkit::findProcessUsing(version) == application.pid(); }));
    ASSERT_EQ(install(package({.version = "2.0"})), "");
    fs::remove(link);
    application.signal(SIGKILL);
    EXPECT_TRUE(waitUntil([this] { return removals_ == 2; })) << service_->output();
    ASSERT_EQ(install(file), "");
    EXPECT_EQ(errorOf(*client_, Zul::interface, Zul::remove, std::string("com.example.app")), "");
    EXPECT_TRUE(waitUntil([this] { return removals_ == 3; })) << service_->output();
}

TEST_F(ThePackageManager, ListsPackagesWhileItInstallsAndReportsAFullDisk) {
    if (run({"unshare", "-m", "true"}).status != 0) {
        GTEST_SKIP() << "mount namespaces are root's here";
    }
    const std::string onSmallDisk = "mount -t tmpfs -o size=4m none \"$0\" && exec \"$@\"";
    start({"unshare", "-m", "sh", "-c", onSmallDisk, directory_ / "db"});
    std::atomic<bool> answered = false;
    std::string error;
    client_->callMethodAsync(Zul::install)
        .onInterface(Zul::interface)
        .withArguments(package({.version = "1.0"}, "developer", 20'000'000).native(), Map())
        .uponReplyInvoke([&](const sdbus::Error* failure) {
            error = failure != nullptr ? failure->getName() : "";
            answered = true;
        });
    EXPECT_TRUE(list().empty());
    ASSERT_TRUE(waitUntil([&] { return answered.load(); }));
    EXPECT_EQ(error, Common::errorNameOf(ErrorCode::Filesystem)) << service_->output();
}

using TheIdentityService = Peers;
TEST_F(TheIdentityService, ForwardsNoTextThatIsNotABusName) {
    start({PROGRAMS "identity-service"}, "--session", Identification::service);
    const auto service = sdbus::createProxy(sdbus::createSessionBusConnection(), Identification::service,
                                            Identification::objectPath);
    const auto identify = [&](const std::string& name) {
        return errorOf(*service, Identification::interface, Identification::identifyByBusName, name);
    };
    EXPECT_EQ(identify("not a bus name"), Identification::service + ".Error.Failed");
    EXPECT_EQ(identify(Identification::service), "") << service_->output();
    EXPECT_THAT(service_->output(), testing::HasSubstr("not a bus name"));
}

TEST_F(TheRuntimeManager, StartsAnApplicationWhoseEndIsStillQueued) {
    start("#!/bin/sh\ntrap : TERM\necho \"pid $$\"\nwhile :; do read line <>fifo; done\n", "app", "60000");
    const auto lastProcess = [this] {
        const auto output = service_->output();
        const auto found = output.rfind("pid ");
        return found == std::string::npos ? 0 : std::atoi(output.c_str() + found + 4);
    };
    std::atomic<int> answers = 0;
    const auto requestStart = [&] {
        intents_->callMethodAsync(RuntimeManager::invokeIntent)
            .onInterface(RuntimeManager::intentsInterface)
            .withArguments(RuntimeManager::startIntent, hintsFor("app"), Map())
            .uponReplyInvoke([&](const sdbus::Error* error) {
                EXPECT_EQ(error, nullptr);
                ++answers;
            });
    };
    requestStart();
    // Which of the two the stalled program notices first is left to chance.
    pid_t process = 0;
    for (int round = 1; round <= 5; ++round) {
        ASSERT_TRUE(waitUntil([&] { return answers == round && lastProcess() != process; }));
        process = lastProcess();
        EXPECT_EQ(terminateApplication(), "");
        service_->signal(SIGSTOP);
        kill(process, SIGKILL);
        const auto status = "/proc/" + std::to_string(process) + "/stat";
        ASSERT_TRUE(waitUntil([&] { return readFile(status).find(") Z ") != std::string::npos; }));
        requestStart();
        service_->signal(SIGCONT);
        ASSERT_TRUE(waitUntil([&] { return answers == round + 1 && lastProcess() != process; }))
            << service_->output();
    }
}

TEST_F(TheRuntimeManager, ReportsTheEndOfAnApplicationThatIgnoresSigtermAndRefusesBadEntries) {
    start("#!/bin/sh\ntrap : TERM\nprintf '<%s>' \"$@\"\nread line <>fifo\nread line <>fifo\n",
          "app \"a \\\\$b\" %F %c 100%%", "100");
    std::atomic<int> ends = 0;
    control_->registerSignalHandler(RuntimeManager::controlInterface, RuntimeManager::terminated,
                                    [&](sdbus::Signal&) { ++ends; });
    control_->finishRegistration();
    const std::string arguments = "<a $b><My App><100%>";
    for (const int round : {1, 2}) {
        EXPECT_EQ(startApplication("app"), "");
        EXPECT_TRUE(waitUntil([&] {
            const auto output = service_->output();
            return output.find(arguments) != output.npos &&
                   (round == 1 || output.rfind(arguments) != output.find(arguments));
        })) << service_->output();
        EXPECT_EQ(terminateApplication(), "");
        EXPECT_TRUE(waitUntil([&] { return ends == round; })) << service_->output();
    }
    EXPECT_EQ(terminateApplication(), RuntimeManager::service + ".Error.NotRunning");
    for (const auto& id : {longText, std::string("a/b"), std::string()}) {
        EXPECT_EQ(terminateApplication(id), RuntimeManager::service + ".Error.Failed");
        EXPECT_EQ(startApplication(id), RuntimeManager::service + ".Error.Failed");
    }
    const auto before = service_->output().size();
    EXPECT_EQ(errorOf(*intents_, RuntimeManager::intentsInterface, RuntimeManager::invokeIntent, longText,
                      Map(), Map()),
              RuntimeManager::service + ".Error.NotSupported");
    EXPECT_LT(service_->output().size() - before, 10'000);
    // Every wrong entry gets an error reply, and nothing outside of the system root is started.
    for (const auto* exec : {"app %\u00e9", "app \"a", "./\ufffe", "/../../bin/true"}) {
        writeEntry("odd", exec);
        EXPECT_EQ(startApplication("odd"), RuntimeManager::service + ".Error.Failed") << exec;
    }
    EXPECT_THAT(service_->output(), testing::HasSubstr("ended by signal 9"));
}

#include "testbed/Process.h"
#include "testbed/ScratchDirectory.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

using namespace Testbed;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

const std::string program = PROGRAMS "vendara-devkit";

/// How many processes have the directory in their command line or environment.
std::size_t countProcessesOf(const std::string& directory) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const auto text = readFile(entry.path() / "cmdline") + readFile(entry.path() / "environ");
        count += text.find(directory + "/") != std::string::npos ? 1U : 0U;
    }
    return count;
}

/// Waits for the child: a process gets its name when it begins its program.
pid_t childOf(pid_t parent, const std::string& name) {
    pid_t found = 0;
    const auto find = [&] {
        const auto process = "/proc/" + std::to_string(parent);
        std::ifstream stream(process + "/task/" + std::to_string(parent) + "/children");
        for (pid_t child = 0; found == 0 && stream >> child;) {
            found = readFile("/proc/" + std::to_string(child) + "/comm") == name + "\n" ? child : 0;
        }
        return found != 0;
    };
    if (!waitUntil(find)) {
        throw std::runtime_error("no process " + name);
    }
    return found;
}

/// Ends a platform whose command leaves an orphan process behind, and looks for leftovers.
/// @param awaited  the platform is ended when this exists in its directory
void expectNothingLeftAfter(const std::function<void(pid_t platform)>& end, int status,
                            const std::string& awaited = "ready") {
    static const ScratchDirectory keys;
    const ScratchDirectory scratch;
    const std::string script =
        "(setsid tail -f /dev/null &); touch $VENDARA_DEVKIT_DIRECTORY/ready; exec sleep 1000";
    Process platform({program, "--keys", keys.path() / "keys", "--", "sh", "-c", script},
                     {.environment = {{"TMPDIR", scratch.path()}}});
    std::string directory;
    ASSERT_TRUE(waitUntil([&] {
        for (const auto& entry : fs::directory_iterator(scratch.path())) {
            directory = entry.path();
        }
        return !directory.empty() && fs::exists(directory + "/" + awaited);
    })) << platform.output();
    // A process has no command line and no environment while it begins its program.
    ASSERT_TRUE(awaited.empty() || waitUntil([&] { return countProcessesOf(directory) >= 8; }));
    end(platform.pid());
    EXPECT_EQ(platform.wait(), status) << platform.output();
    EXPECT_TRUE(waitUntil([&] { return countProcessesOf(directory) == 0 && fs::is_empty(scratch.path()); }));
}

} // namespace

TEST(TheTour, PassesFromInstallationToRemoval) {
    // Below a relative path with a link: the kernel and the buses know it by another.
    const ScratchDirectory scratch;
    fs::create_directory(scratch.path() / "real");
    fs::create_directory_symlink("real", scratch.path() / "link");
    const auto result = run({program, "--", "vendara-tour"},
                            {.environment = {{"TMPDIR", "link"}}, .directory = scratch.path()});
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("All steps passed"));
}

TEST(TheShellOfAPlatform, BeginsWithCommandsThatWorkAsPrinted) {
    std::vector<std::string> user; // this one, then one without privileges
    for (int round = 0; round < 2;
         ++round, user = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}) {
        auto command = user;
        command.insert(command.end(), {program, "--shell"});
        auto trial = command;
        trial.back() = "--version";
        if (const auto result = run(trial); result.status != 0) {
            ASSERT_FALSE(user.empty()) << result.output;
            continue;
        }
        const ScratchDirectory input;
        const ScratchDirectory scratch;
        fs::permissions(scratch.path(), fs::perms::all);
        ASSERT_EQ(mkfifo((input.path() / "in").c_str(), 0600), 0);
        command.insert(command.begin(), {"sh", "-c", "exec \"$@\" <in", "sh"});
        Process platform(command, {.environment = {{"TMPDIR", scratch.path()}, {"SHELL", "/bin/sh"}},
                                   .directory = input.path()});
        std::ofstream shell(input.path() / "in");
        ASSERT_TRUE(waitUntil([&] { return platform.output().find("Exit this shell") != std::string::npos; },
                              std::chrono::minutes(3)))
            << platform.output();
        shell << "set -e\n";
        std::istringstream banner(platform.output());
        for (std::string line; std::getline(banner, line);) {
            shell << (line.starts_with("  ") ? line + "\n" : "");
            if (line.find("--no-wait") != std::string::npos) {
                shell << "{ vendaractl operations --follow & } | grep -m 1 'awaiting upgrade'\n";
            }
        }
        shell.close();
        EXPECT_EQ(platform.wait(std::chrono::minutes(2)), 0);
        for (const auto* text : {"would be installed", "awaiting upgrade", "1 package, 0 findings",
                                 "remove org.example.sample: finished"}) {
            EXPECT_THAT(platform.output(), HasSubstr(text));
        }
        EXPECT_THAT(platform.output(), testing::Not(HasSubstr("WARN")));
        EXPECT_TRUE(fs::is_empty(scratch.path()));
    }
}

TEST(APlatform, PassesACommandsArgumentsUnchangedAndHasItsOwnProgramsInThePath) {
    EXPECT_EQ(run({program, "--", "echo", "[1,2]", "--", ""}).output, "[1,2] -- \n");
    EXPECT_EQ(run({program, "--", "vendaractl", "list"}).status, 0);
    EXPECT_EQ(run({program, "--", "no such command"}).status, 127);
    EXPECT_EQ(run({program, "vendaractl", "list"}).status, 2);
}

TEST(APlatform, SurvivesTheEndOfItsTerminalIfStartedWithNohup) {
    // The signal goes to both processes of the platform and to its command.
    const auto result =
        run({"env", "--ignore-signal=CHLD,HUP", program, "--", "sh", "-c", "kill -HUP 0; exit 3"});
    EXPECT_EQ(result.status, 3) << result.output;
}

TEST(APlatform, ReportsAProcessThatItMayNotKill) {
    const std::vector<std::string> withoutPower{"setpriv", "--bounding-set=-kill"};
    auto command = withoutPower;
    command.emplace_back("true");
    if (run(command).status != 0) {
        GTEST_SKIP() << "capabilities cannot be given up here";
    }
    const std::string foreign =
        "setpriv --reuid=65534 --clear-groups sh -c 'tail -f /dev/null >/dev/null & echo $!'";
    command = withoutPower;
    command.insert(command.end(), {program, "--", "sh", "-c", "echo pid=$(" + foreign + ")"});
    const auto result = run(command);
    const pid_t left = std::atoi(result.output.c_str() + result.output.find('=') + 1);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("process " + std::to_string(left) + " belongs to another user"));
    EXPECT_TRUE(left > 1 && kill(left, SIGKILL) == 0) << result.output;
}

TEST(APlatform, LeavesNothingBehindHoweverItEnds) {
    const auto supervisorOf = [](pid_t platform) { return childOf(platform, "vendara-devkit"); };
    for (const int signal : {SIGINT, SIGQUIT}) { // from a terminal
        expectNothingLeftAfter([signal](pid_t platform) { kill(-platform, signal); }, 128 + signal);
    }
    expectNothingLeftAfter([](pid_t platform) { kill(platform, SIGTERM); }, 128 + SIGTERM, "");
    expectNothingLeftAfter([](pid_t platform) { kill(platform, SIGKILL); }, 128 + SIGKILL);
    expectNothingLeftAfter([&](pid_t platform) { kill(supervisorOf(platform), SIGKILL); }, 128 + SIGKILL);
    expectNothingLeftAfter(
        [&](pid_t platform) { kill(childOf(supervisorOf(platform), "zul-service"), SIGKILL); }, 1);
    expectNothingLeftAfter([&](pid_t platform) { kill(childOf(supervisorOf(platform), "sleep"), SIGTERM); },
                           128 + SIGTERM);
}

TEST(APlatform, ReportsAFullDisk) {
    const ScratchDirectory scratch;
    const std::string script = R"sh(mount -t tmpfs -o size=4k none "$1" || exit 77
        TMPDIR=$1 "$2" -- true; status=$?; [ -z "$(ls -A "$1")" ] && exit $status)sh";
    const auto result = run({"unshare", "-rm", "sh", "-c", script, "sh", scratch.path(), program});
    if (result.status == 77) {
        GTEST_SKIP() << "a tmpfs may not be mounted here: " << result.output;
    }
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("no space is left"));
}

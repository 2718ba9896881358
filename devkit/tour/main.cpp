// The tour: an application's life on the platform that vendara-devkit runs, from its installation to its
// removal. Every step is checked.

#include "devkit/support/Program.h"
#include "devkit/tour/SampleApplication.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Devkit::SampleApplication;
namespace fs = std::filesystem;

constexpr std::chrono::seconds patience(20);

void require(bool condition, const std::string& expectation) {
    if (!condition) {
        throw std::runtime_error("expected that " + expectation);
    }
    std::cout << "  [x] " << expectation << std::endl;
}

void tell(const std::string& words) { std::cout << '\n' << words << std::endl; }

std::vector<std::string> shown(std::vector<std::string> arguments) {
    std::cout << "  $";
    for (const auto& argument : arguments) {
        std::cout << ' ' << (argument.front() == '/' ? fs::path(argument).filename().native() : argument);
    }
    std::cout << std::endl;
    return arguments;
}

/// A command of a client, shown with what it says.
class Command {
public:
    explicit Command(const std::vector<std::string>& arguments)
        : program_(shown(arguments)) {}

    /// Shows output up to and including the line that ends so; false when no line does.
    bool showUntil(const std::string& ending) {
        while (const auto line = program_.readLine(patience)) {
            std::cout << "  " << *line << std::endl;
            if (!ending.empty() && line->ends_with(ending)) {
                return true;
            }
        }
        return false;
    }

    /// Shows the rest; returns the exit status.
    int finish() {
        showUntil({});
        return program_.wait();
    }

    [[nodiscard]] bool said(const std::string& text) const {
        return program_.output().find(text) != std::string::npos;
    }

private:
    Devkit::Program program_;
};

class Tour {
public:
    Tour(const fs::path& platform, const fs::path& keys)
        : platform_(platform)
        , sample_(platform, keys) {}

    void run() {
        tell("A sample application is packaged in two versions and signed.");
        first_ = sample_.package("1.0");
        second_ = sample_.package("2.0");
        install();
        start();
        upgradeWhileRunning();
        refuseDamaged();
        remove();
    }

private:
    void install() {
        tell("The first version is installed.");
        Command command({"vendaractl", "install", first_});
        require(command.finish() == 0 && command.said(": finished"), "the operation finishes");
        requireListed("1.0-1");
        require(fs::read_symlink(program()).native().starts_with((platform_ / "opt/app").native()),
                "its program is mapped into the system");
    }

    void start() {
        tell("It is started.");
        Command command({"vendaractl", "start", SampleApplication::id});
        require(command.finish() == 0, "the application is started");
        require(sample_.awaitVersion() == "1.0-1", "version 1.0-1 answers on the bus");
        require(sample_.identity() == SampleApplication::id, "the bus knows it as " + SampleApplication::id);
    }

    void upgradeWhileRunning() {
        tell("It is upgraded while it runs.");
        Command upgrade({"vendaractl", "install", second_});
        require(upgrade.showUntil(": in progress"), "the upgrade is in progress");
        require(upgrade.showUntil(": awaiting upgrade"), "it waits for the application's end");
        require(sample_.awaitVersion() == "1.0-1", "version 1.0-1 still answers");
        tell("The application is restarted.");
        Command restart({"vendaractl", "restart", SampleApplication::id});
        require(restart.finish() == 0, "the restart is accepted");
        require(upgrade.finish() == 0 && upgrade.said(": finished"), "the upgrade finishes");
        require(sample_.awaitVersion() == "2.0-1", "version 2.0-1 answers on the bus");
        requireListed("2.0-1");
        require(!fs::exists(platform_ / "opt/app" / SampleApplication::id / "1.0-1"),
                "the old version is gone");
    }

    void refuseDamaged() {
        tell("A damaged package is refused.");
        Command command({"vendaractl", "install", sample_.damage(second_)});
        require(command.finish() == 1, "the operation fails");
        // What is noticed first, the payload or the signature, depends on where the damage is.
        require(command.said("(error 4)") || command.said("(error 7)"), "the damage is reported");
        requireListed("2.0-1");
        require(fs::is_empty(platform_ / "opt/zul/tmp"), "nothing of it is left behind");
    }

    void remove() {
        tell("The application is removed.");
        Command command({"vendaractl", "remove", SampleApplication::id});
        require(command.finish() == 0, "the operation finishes");
        Command list({"vendaractl", "list"});
        require(list.finish() == 0 && !list.said(SampleApplication::id), "it is not listed any more");
        require(!fs::exists(fs::symlink_status(program())) && fs::is_empty(platform_ / "opt/app"),
                "all its files are gone");
    }

    static void requireListed(const std::string& version) {
        Command list({"vendaractl", "list"});
        require(list.finish() == 0 && list.said(SampleApplication::id + "\t" + version),
                "version " + version + " is listed");
    }

    [[nodiscard]] fs::path program() const { return platform_ / "root/usr/bin" / SampleApplication::id; }

    fs::path platform_;
    SampleApplication sample_;
    fs::path first_;
    fs::path second_;
};

} // namespace

int main() {
    const char* platform = std::getenv("VENDARA_DEVKIT_DIRECTORY");
    const char* keys = std::getenv("VENDARA_DEVKIT_KEYS");
    if (platform == nullptr || keys == nullptr) {
        std::cerr << "vendara-tour: runs in a platform only: vendara-devkit -- vendara-tour\n";
        return EXIT_FAILURE;
    }
    const auto begin = std::chrono::steady_clock::now();
    try {
        Tour(platform, keys).run();
    } catch (const std::exception& error) {
        std::cout << std::flush;
        std::cerr << "vendara-tour: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    std::cout << "\nAll steps held, in " << std::chrono::round<std::chrono::milliseconds>(time).count()
              << " ms.\n";
    return EXIT_SUCCESS;
}

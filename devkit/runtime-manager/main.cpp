#include "common/Names.h"
#include "devkit/runtime-manager/RuntimeManager.h"
#include "devkit/support/Service.h"
#include "tools/CommandLine.h"

int main(int argc, char** argv) {
    CLI::App options("Runtime manager for development: starts and ends applications on the session bus.");
    std::string systemRoot = "/";
    options.add_option("--system-root", systemRoot, "Directory of the desktop entries and programs")
        ->capture_default_str()
        ->check(CLI::ExistingDirectory);
    int patience = 3000;
    options.add_option("--patience", patience, "Milliseconds between SIGTERM and SIGKILL")
        ->capture_default_str()
        ->check(CLI::Range(0, 600000));
    if (const auto status = Tools::parse(options, argc, argv)) {
        return *status;
    }
    return Devkit::serve(
        [] { return sdbus::createSessionBusConnection(); }, Common::Names::RuntimeManager::service,
        [&](Common::BusConnection& bus) {
            return std::make_unique<Devkit::RuntimeManager>(
                bus, Devkit::RuntimeManager::Settings{systemRoot, std::chrono::milliseconds(patience)});
        });
}

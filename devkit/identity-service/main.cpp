#include "common/Names.h"
#include "devkit/identity-service/IdentityService.h"
#include "devkit/support/Service.h"
#include "tools/CommandLine.h"

int main(int argc, char** argv) {
    CLI::App options(
        "Application identification for development: finds the owner of a name on the session bus.");
    std::string packageRoot = "/opt/app";
    options.add_option("--package-root", packageRoot, "Root directory of the package database")
        ->capture_default_str();
    if (const auto status = Tools::parse(options, argc, argv)) {
        return *status;
    }
    return Devkit::serve([] { return sdbus::createSessionBusConnection(); },
                         Common::Names::Identification::service,
                         [&](Common::BusConnection& bus) {
                             return std::make_unique<Devkit::IdentityService>(bus.bus(), packageRoot);
                         });
}

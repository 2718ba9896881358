#include "common/Names.h"
#include "common/PlatformFacts.h"
#include "devkit/support/Service.h"
#include "devkit/zul-service/PackageManager.h"
#include "devkit/zul-service/ZulService.h"
#include "tools/CommandLine.h"

#include <filesystem>
#include <memory>
#include <string>

namespace {

struct Options {
    std::string configuration = Core::ZUL::DatabaseLocation::configurationFile;
    std::string systemRoot = "/";
    std::string keys = Core::ZUL::Authorities().certificates.parent_path();
    std::string architecture;
    int retryDelay = 10000;
    bool withoutSecurityAttributes = false;
};

int attachOrdinaryAttribute(int file, const std::string& name, const std::string& value) {
    return name.starts_with("security.") ? 0 : Core::ZUL::attachAttribute(file, name, value);
}

Devkit::PackageManager makeManager(const Options& options) {
    const Core::ZUL::DatabaseLocation configured(options.configuration);
    const std::filesystem::path keys = options.keys;
    const Core::ZUL::Authorities ofSystem;
    Devkit::PackageManager::Settings settings{
        {keys / ofSystem.certificates.filename(), keys / ofSystem.systemDeveloperKeyId.filename()},
        Core::ZUL::attachAttribute,
        options.architecture};
    if (settings.architecture.empty()) {
        settings.architecture = Common::getPlatformArchitecture();
    }
    if (options.withoutSecurityAttributes) {
        Common::logWarning() << "files are installed without their security attributes";
        settings.attributes = attachOrdinaryAttribute;
    }
    return {Core::ZUL::Database(configured.rootDirectory(), configured.tempDirectory(), options.systemRoot),
            std::move(settings)};
}

} // namespace

int main(int argc, char** argv) {
    CLI::App parser(
        "Package manager for development: installs, upgrades and removes signed packages for the clients "
        "on the system bus.");
    Options options;
    parser.add_option("--configuration", options.configuration, "File that names the database's directories")
        ->capture_default_str()
        ->check(CLI::ExistingFile);
    parser.add_option("--system-root", options.systemRoot, "Root directory of the mappings")
        ->capture_default_str()
        ->check(CLI::ExistingDirectory);
    parser.add_option("--keys", options.keys, "Directory of the authority's certificate")
        ->capture_default_str();
    parser.add_option("--architecture", options.architecture,
                      "Architecture of the packages, in addition to noarch [the platform's]");
    parser
        .add_option("--retry-delay", options.retryDelay,
                    "Milliseconds from a failure to complete an upgrade to the next attempt")
        ->capture_default_str()
        ->check(CLI::Range(0, 600000));
    parser.add_flag("--without-security-attributes", options.withoutSecurityAttributes,
                    "Do not set security attributes, which only root may set");
    if (const auto status = Tools::parse(parser, argc, argv)) {
        return *status;
    }
    return Devkit::serve([] { return sdbus::createSystemBusConnection(); }, Common::Names::Zul::service,
                         [&](Common::BusConnection& bus) {
                             return std::make_unique<Devkit::ZulService>(
                                 bus, makeManager(options), std::chrono::milliseconds(options.retryDelay));
                         });
}

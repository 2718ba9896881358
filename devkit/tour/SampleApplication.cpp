#include "devkit/tour/SampleApplication.h"

#include "common/LogLine.h"
#include "common/Names.h"
#include "devkit/support/Program.h"
#include "devkit/support/Programs.h"

#include <chrono>
#include <fstream>
#include <poll.h>
#include <stdexcept>

namespace Devkit {

namespace Names = Common::Names::Identification;

namespace {

// Runs a program that has nothing to say when all is well.
void runQuietly(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    Program program(arguments, environment);
    while (program.readLine(std::chrono::seconds(30))) {
    }
    if (program.wait() != 0) {
        throw std::runtime_error(arguments.front() + " failed:\n" + program.output());
    }
}

std::string definition(const std::string& name, const std::string& value) {
    return "--define=" + name + " " + value;
}

} // namespace

SampleApplication::SampleApplication(std::filesystem::path directory, std::filesystem::path keys)
    : directory_(std::move(directory))
    , keys_(std::move(keys))
    , names_(Common::Bus::Session)
    , application_({Common::Bus::Session, id, "/org/example/sample", id})
    , identification_({Common::Bus::Session, Names::service, Names::objectPath, Names::interface}) {
    application_.start();
    identification_.start();
}

std::filesystem::path SampleApplication::package(const std::string& version) const {
    const auto program = findProgram("vendara-sample");
    const auto folder = program.parent_path() / "sample";
    const auto packages = directory_ / "packages";
    // librpm keeps a database in the home directory.
    const std::vector<std::string> home{"HOME=" + (directory_ / "home").native()};
    runQuietly({"rpmbuild", "-bb", definition("_topdir", directory_ / "rpmbuild"),
                definition("_rpmdir", packages),
                definition("_rpmfilename", "%%{name}-%%{version}-%%{release}.%%{arch}.rpm"),
                definition("sample_version", version), definition("sample_program", program),
                definition("sample_folder", folder), folder / "sample.spec"},
               home);
    const auto prefix = id + "-" + version + "-";
    for (const auto& entry : std::filesystem::directory_iterator(packages)) {
        if (entry.path().filename().native().starts_with(prefix)) {
            runQuietly({"vendara-sign", "--developer-key", keys_ / "developer.key", "--developer-cert",
                        keys_ / "developer.pem", "--client-key", keys_ / "client.key", "--client-cert",
                        keys_ / "client.pem", entry.path()},
                       home);
            return entry.path();
        }
    }
    throw std::runtime_error("rpmbuild made no package of version " + version);
}

std::filesystem::path SampleApplication::damage(const std::filesystem::path& package) const {
    auto damaged = directory_ / "packages/damaged.rpm";
    std::filesystem::copy_file(package, damaged);
    std::fstream file(damaged, std::ios::in | std::ios::out | std::ios::binary);
    // The header comes first; the middle of the file is payload.
    const auto middle = static_cast<std::streamoff>(std::filesystem::file_size(damaged) / 2);
    file.seekg(middle);
    const auto byte = static_cast<char>(static_cast<unsigned>(file.get()) ^ 1U);
    file.seekp(middle);
    file.put(byte);
    file.close();
    if (!file) {
        throw std::runtime_error("couldn't write " + Common::quoted(damaged));
    }
    return damaged;
}

std::string SampleApplication::awaitVersion() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!names_.isOwned(id)) {
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd change{names_.descriptor(), POLLIN, 0};
        if (rest.count() <= 0 || poll(&change, 1, static_cast<int>(rest.count())) == 0) {
            throw std::runtime_error("timed out waiting for the application to appear on the bus");
        }
    }
    std::string version;
    application_.call("Version", std::chrono::seconds(10)) >> version;
    return version;
}

std::string SampleApplication::identity() {
    std::string application;
    identification_.call(Names::identifyByBusName, std::chrono::seconds(10), id) >> application;
    return application;
}

} // namespace Devkit

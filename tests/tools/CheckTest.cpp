#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace {

using namespace Testbed;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using Json = nlohmann::json;

/// vendaractl check for a system of its own, with an authority and signed packages.
class Check : public testing::Test {
protected:
    Check() {
        setenv("HOME", scratch.path().c_str(), 1);
        std::filesystem::create_directories(system / "usr/bin");
        writeFile(scratch.path() / "zul.conf",
                  "[database]\nroot_directory=" + (scratch.path() / "opt").native() + "\n");
        makeAuthority("keys", "2091-01-01");
    }

    void makeAuthority(const std::string& name, const std::string& end) const {
        const auto made =
            runHere({VENDARA_SIGN, "--make-test-ca", name, "--not-before", "2001-01-01", "--not-after", end});
        EXPECT_EQ(made.status, 0) << made.output;
    }

    /// Builds a package and signs it with the key that an authority made for someone.
    void makePackage(const std::string& file, const PackageSpec& spec,
                     const std::string& signer = "keys/developer") const {
        std::filesystem::rename(buildPackage(scratch.path() / "build", spec), scratch.path() / file);
        sign(file, "developer", signer);
    }

    void sign(const std::string& file, const std::string& role, const std::string& signer) const {
        const auto made = runHere({VENDARA_SIGN, "--" + role + "-key", signer + ".key", "--" + role + "-cert",
                                   signer + ".pem", "--allow-expired", file});
        EXPECT_EQ(made.status, 0) << made.output;
    }

    ProcessResult check(const std::vector<std::string>& arguments) const {
        std::vector<std::string> command{VENDARACTL,        "check",    "--authority",   "keys/ca.pem",
                                         "--configuration", "zul.conf", "--system-root", system};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return runHere(command);
    }

    ProcessResult runHere(const std::vector<std::string>& command) const {
        return run(command, {.directory = scratch.path()});
    }

    const ScratchDirectory scratch;
    const std::filesystem::path system = scratch.path() / "system";
};

/// What is on standard output with --json, without the log on standard error.
std::vector<Json> objectsOf(const std::string& output) {
    std::vector<Json> objects;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('{')) {
            objects.push_back(Json::parse(line));
        }
    }
    return objects;
}

// Every member at every depth.
void expectDocumented(const Json& value) {
    static const auto manual = readFile(VENDARACTL_MANUAL);
    if (!value.is_structured()) {
        return;
    }
    for (const auto& [key, member] : value.items()) {
        if (value.is_object()) {
            EXPECT_THAT(manual, testing::ContainsRegex("\n\\.Ql " + key + "[ \n]"));
        }
        expectDocumented(member);
    }
}

TEST_F(Check, ShowsTheSignersAndWhenTheirCertificatesExpire) {
    makePackage("app.rpm", {.files = {{"/usr/bin/tool", "12345"}}}, "keys/system-developer");
    EXPECT_THAT(check({"app.rpm"}).output,
                HasSubstr("  developer: CN=Test system developer, valid until 2091-01-01\n  source: none\n"));
    EXPECT_EQ(objectsOf(check({"app.rpm", "--json"}).output).at(0)["source"]["validUntil"], Json());
    sign("app.rpm", "client", "keys/client");
    const auto words = check({"app.rpm"});
    EXPECT_EQ(words.status, 0);
    EXPECT_THAT(words.output, HasSubstr("  source: CN=Test client, valid until 2091-01-01\n"));
    const auto json = objectsOf(check({"app.rpm", "--json"}).output).at(0);
    EXPECT_EQ(json["developer"]["validUntil"], "2091-01-01T00:00:00Z");
    EXPECT_EQ(json["source"]["validUntil"], "2091-01-01T00:00:00Z");
    expectDocumented(json);
}

TEST_F(Check, ShowsItsProgressOnATerminalAlone) {
    const PackageSpec spec{.files = {{"/usr/bin/tool", "12345"}}};
    makePackage("app.rpm", spec);
    EXPECT_THAT(check({"app.rpm"}).output, testing::Not(HasSubstr(" %")));
    const auto onTerminal = [&](const std::string& command) {
        return run({"script", "-qec", command, "/dev/null"},
                   {.environment = {{"TERM", "xterm"}}, .directory = scratch.path()})
            .output;
    };
    EXPECT_THAT(onTerminal(VENDARACTL " check --authority keys/ca.pem app.rpm app.rpm"),
                AllOf(HasSubstr("checking 1 of 2: 0 %\x1b[K\r"), HasSubstr("checking 2 of 2: 100 %\x1b[K\r"),
                      HasSubstr("\x1b[Kcom.example.app 1.0-1")));
    EXPECT_THAT(onTerminal(VENDARA_SIGN " --verify --authority keys/ca.pem app.rpm"),
                HasSubstr("verifying: 100 %\x1b[K\r\x1b[Kdeveloper\r\n"));
    EXPECT_THAT(
        onTerminal(VENDARA_SIGN " --client-key keys/client.key --client-cert keys/client.pem app.rpm"),
        AllOf(HasSubstr("signing: 50 %"), EndsWith("signing: 100 %\x1b[K\r\x1b[K")));
}

} // namespace

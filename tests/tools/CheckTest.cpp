#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "tests/tools/JsonOutput.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

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
        makeAuthority("old", "2002-01-01");
        writeFile(scratch.path() / "trusted.pem",
                  readFile(scratch.path() / "keys/ca.pem") + readFile(scratch.path() / "old/ca.pem"));
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

    /// An installed version, a file of the system, and packages that are accepted or refused.
    void makeCandidates() const {
        const auto& here = scratch.path();
        const auto installed = here / "opt/com.example.app/1.0-1";
        writeFile(installed / "quenra.pkg",
                  "[general]\nid=com.example.app\nversion=1.0-1\n[certificate]\nid=a\nsubgroup=b\n");
        std::filesystem::create_directory_symlink(installed, installed.parent_path() / "current");
        writeFile(system / "usr/bin/taken", "the system's");
        makePackage("upgrade.rpm", {.version = "2.0", .files = {{"/usr/bin/tool", "1"}}});
        makePackage("taken.rpm",
                    {.version = "3.0", .files = {{"/usr/bin/free", "1"}, {"/usr/bin/taken", "1"}}});
        const auto plain = readFile(buildPackage(here / "build", {.name = "com.example.first"}));
        writeFile(here / "cut.rpm", plain.substr(0, plain.size() - 4));
        for (const std::string signer : {"keys", "old"}) {
            writeFile(here / (signer + ".rpm"), plain);
            sign(signer + ".rpm", "developer", signer + "/developer");
        }
    }

    ProcessResult check(const std::vector<std::string>& arguments) const {
        std::vector<std::string> command{VENDARACTL,        "check",    "--authority",   "trusted.pem",
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

TEST_F(Check, ShowsTheSignersAndWhenTheirCertificatesExpire) {
    makePackage("app.rpm", {.files = {{"/usr/bin/tool", "12345"}}}, "keys/system-developer");
    EXPECT_THAT(check({"app.rpm"}).output,
                HasSubstr("  developer: CN=Test system developer, valid until 2091-01-01\n  source: none\n"));
    EXPECT_EQ(objectsOf(check({"app.rpm", "--json"}).output).at(0)["source"]["validUntil"], Json());
    sign("app.rpm", "client", "keys/client");
    const auto text = check({"app.rpm"});
    EXPECT_EQ(text.status, 0);
    EXPECT_THAT(text.output, HasSubstr("  source: CN=Test client, valid until 2091-01-01\n"));
    const auto json = objectsOf(check({"app.rpm", "--json"}).output).at(0);
    EXPECT_EQ(json["developer"]["validUntil"], "2091-01-01T00:00:00Z");
    EXPECT_EQ(json["source"]["validUntil"], "2091-01-01T00:00:00Z");
    expectDocumented(json);
}

std::string sentenceOf(const std::string& path, int code, const std::string& error) {
    const auto refusal = "refused: " + error + " (error " + std::to_string(code) + ")";
    return path + ": would be " + (code == 0 ? "installed" : refusal) + "\n";
}

struct Answer {
    const char* file;
    int code;
    const char* error;
    const char* text;
};
const Answer answers[] = {
    {"keys.rpm", 0, "", "com.example.first 1.0-1, noarch, first installation\n"},
    {"upgrade.rpm", 0, "", "com.example.app 2.0-1, noarch, upgrade of 1.0-1\n"},
    {"taken.rpm", 1, "override system file with package mapping: /usr/bin/taken",
     "  /usr/bin/free\n  /usr/bin/taken, TAKEN by another file\n"},
    {"old.rpm", 7, "package is signed with a non-legal key",
     "com.example.first 1.0-1, noarch, UNVERIFIED\n  unverified signer: CN=Test developer, valid until "
     "2002-01-01\n  reason: certificate: certificate has expired\n"},
    {"cut.rpm", 4, "the rpm package is truncated", ""}};

TEST_F(Check, ReportsForEachFileTheResultOfTheInstallation) {
    makeCandidates();
    const auto& here = scratch.path();
    std::vector<std::string> files;
    for (const auto& answer : answers) {
        files.emplace_back(answer.file);
    }
    const auto before = digestOfTree(here);
    const auto text = check(files);
    files.emplace_back("--json");
    const auto json = check(files);
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(json.status, 1);
    const auto objects = objectsOf(json.output);
    ASSERT_EQ(objects.size(), std::size(answers));
    for (std::size_t index = 0; index < objects.size(); ++index) {
        const auto& answer = answers[index];
        SCOPED_TRACE(answer.file);
        const auto& object = objects[index];
        const auto path = (here / answer.file).native();
        EXPECT_EQ(object["file"], path);
        EXPECT_EQ(object["accepted"], answer.code == 0);
        EXPECT_EQ(object.value("errorCode", 0), answer.code);
        const auto error = object.value("error", "");
        EXPECT_THAT(error, HasSubstr(answer.error));
        EXPECT_THAT(text.output,
                    AllOf(HasSubstr(answer.text), HasSubstr(sentenceOf(path, answer.code, error))));
        EXPECT_EQ(object.contains("unverified"), answer.code == 7);
        EXPECT_TRUE(!object.contains("package") || object["available"].is_number());
        expectDocumented(object);
    }
    EXPECT_EQ(objects[1]["existingVersion"], "1.0-1");
    EXPECT_EQ(objects[2]["files"],
              Json::parse(R"([{"path": "/usr/bin/free", "place": "/usr/bin/free", "taken": false},
                                                   {"path": "/usr/bin/taken", "place": "/usr/bin/taken", "taken": true}])"));
    EXPECT_EQ(objects[3]["reason"], "certificate: certificate has expired");
    EXPECT_EQ(check({"keys.rpm", "upgrade.rpm"}).status, 0);
    // Nothing is checked.
    const auto absent = check({"keys.rpm", "absent.rpm", "--json"});
    EXPECT_EQ(absent.status, 2);
    EXPECT_EQ(absent.output,
              "{\"error\":{\"message\":\"No such file or directory\",\"subject\":\"absent.rpm\"}}\n");
    EXPECT_EQ(digestOfTree(here), before);
}

TEST_F(Check, ShowsItsProgressOnlyOnATerminal) {
    const PackageSpec spec{.files = {{"/usr/bin/tool", "12345"}}};
    makePackage("app.rpm", spec);
    EXPECT_THAT(check({"app.rpm"}).output, testing::Not(HasSubstr(" %")));
    const auto onTerminal = [&](const std::string& command) {
        return run({"script", "-qec", command, "/dev/null"},
                   {.environment = {{"TERM", "xterm"}}, .directory = scratch.path()})
            .output;
    };
    EXPECT_THAT(onTerminal(VENDARACTL
                           " check --authority keys/ca.pem --configuration zul.conf --system-root system "
                           "app.rpm app.rpm"),
                AllOf(HasSubstr("checking 1 of 2: 0 %\x1b[K\r"), HasSubstr("checking 2 of 2: 100 %\x1b[K\r"),
                      HasSubstr("\x1b[Kcom.example.app 1.0-1")));
    EXPECT_THAT(onTerminal(VENDARA_SIGN " --verify --authority keys/ca.pem app.rpm"),
                HasSubstr("verifying: 100 %\x1b[K\r\x1b[Kapp.rpm: "));
    EXPECT_THAT(
        onTerminal(VENDARA_SIGN " --client-key keys/client.key --client-cert keys/client.pem app.rpm"),
        AllOf(HasSubstr("signing: 66 %"), EndsWith("signing: 100 %\x1b[K\r\x1b[K")));
}

} // namespace

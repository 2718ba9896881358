#include "core/zul/Inspection.h"

#include "core/zul/DatabaseInspection.h"
#include "tests/core/zul/DatabaseTest.h"
#include "tests/core/zul/package/SignedPackage.h"

#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace Testbed {

using Core::ZUL::inspect;
using Core::ZUL::InspectedDatabase;

class AnInspection : public SignedPackage {
protected:
    AnInspection() {
        for (const auto& directory : {root / "usr/bin", scratch.path() / "opt", scratch.path() / "tmp"}) {
            fs::create_directories(directory);
        }
    }

    ErrorCode codeFor(const fs::path& file) const {
        const auto refusal = inspect(file, system).refusal;
        return refusal ? refusal->code() : ErrorCode::None;
    }

    const fs::path root = scratch.path() / "root";
    Core::ZUL::InspectedSystem system{
        {scratch.path() / "opt", scratch.path() / "tmp"}, root, "armv7hl", authorities};
    std::stop_source stop;
    const fs::path package =
        signedPackage({.files = {{"/usr/bin/tool", "12345"}, {"/opt/own", "678"}, {manifestPath, manifest}}});
};

TEST_F(AnInspection, FindsPlacesConflictsAndSpaceAndChangesNothing) {
    auto found = inspect(package, system);
    ASSERT_FALSE(found.refusal) << found.refusal->what();
    EXPECT_EQ(found.package->appName(), "tool");
    EXPECT_EQ(found.size, 8 + manifest.size());
    ASSERT_EQ(found.files.size(), 3U);
    EXPECT_EQ(found.files[0].place + found.files[1].place + found.files[2].place,
              "/usr/bin/tool" + manifestPath);

    writeFile(root / "usr/bin/tool", "the system's");
    writeFile(root / "usr/bin/.zul-mapping", "of an installation that is running");
    found = inspect(package, system);
    ASSERT_TRUE(found.refusal);
    EXPECT_STREQ(found.refusal->what(),
                 "attempt to override system file with package mapping: /usr/bin/tool");
    EXPECT_TRUE(found.files[1].isPlaceTaken);
    EXPECT_TRUE(fs::exists(root / "usr/bin/.zul-mapping"));
    EXPECT_TRUE(fs::is_empty(scratch.path() / "opt"));
    EXPECT_TRUE(fs::is_empty(scratch.path() / "tmp"));
}

TEST_F(AnInspection, RefusesWhatAnInstallationRefuses) {
    Core::ZUL::Database database(scratch.path() / "opt", scratch.path() / "tmp", root);
    const auto noAttributes = [](int, const std::string&, const std::string&) { return 0; };
    EXPECT_FALSE(database.installFile(Package::fromFile(package, authorities), package, noAttributes));
    EXPECT_EQ(codeFor(package), ErrorCode::DowngradeAttempt);
    const auto newer = signedPackage({.version = "2.0", .files = {{"/usr/bin/tool", "new"}}});
    EXPECT_EQ(codeFor(newer), ErrorCode::None) << "its own mapping is in the place";
    EXPECT_EQ(inspect(newer, system).existingVersion, "1.0-1");
    EXPECT_TRUE(database.installFile(Package::fromFile(newer, authorities), newer, noAttributes));
    EXPECT_EQ(codeFor(newer), ErrorCode::UpgradeAlreadyPrepared);
    EXPECT_EQ(codeFor(signedPackage({.version = "3.0", .architecture = "s390x"})),
              ErrorCode::BadPackageArchitecture);
    const auto unsignedPackage = buildPackage(scratch.path(), {.version = "4.0"});
    EXPECT_EQ(codeFor(unsignedPackage), ErrorCode::BadPackageSignature);
    EXPECT_EQ(codeFor(scratch.path() / "absent"), ErrorCode::FileNotFound);
}

TEST_F(AnInspection, AllowsThePlaceOfADirectoryThatOnlyThePackageHas) {
    Core::ZUL::Database database(scratch.path() / "opt", scratch.path() / "tmp", root);
    const auto noAttributes = [](int, const std::string&, const std::string&) { return 0; };
    const std::string share = "/usr/share/com.example.app";
    const auto one = signedPackage({.version = "1.5", .files = {{share + "/a/b/c", "x"}}});
    const auto two = signedPackage({.version = "2.0", .files = {{share + "/a", "x"}}});
    EXPECT_FALSE(database.installFile(Package::fromFile(one, authorities), one, noAttributes));
    fs::create_directory(root / share.substr(1) / "a/empty");
    EXPECT_TRUE(inspect(two, system).refusal) << "an empty directory of others stays";
    fs::remove(root / share.substr(1) / "a/empty");
    const auto refusal = inspect(two, system).refusal;
    EXPECT_FALSE(refusal) << refusal->what();
    const auto newer = Package::fromFile(two, authorities);
    EXPECT_TRUE(database.installFile(newer, two, noAttributes));
    database.completeUpgrade(newer);
    EXPECT_TRUE(fs::is_symlink(root / share.substr(1) / "a"));
}

TEST_F(AnInspection, ReportsItsProgressAndCanBeStopped) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> steps;
    std::size_t limit = 0;
    const auto progress = [&](std::uint64_t done, std::uint64_t total) {
        steps.emplace_back(done, total);
        steps.size() != limit || stop.request_stop();
    };
    EXPECT_FALSE(inspect(package, system, {progress, stop.get_token()}).refusal);
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
    ASSERT_GE(steps.size(), 3U) << "of files before the manifest, then of the payload";
    EXPECT_GT(steps[steps.size() - 2].first, steps.front().first);
    EXPECT_EQ(steps.back().first, steps.back().second);
    limit = std::exchange(steps, {}).size() - 1;
    const auto refusal = inspect(package, system, {progress, stop.get_token()}).refusal;
    ASSERT_TRUE(refusal);
    EXPECT_STREQ(refusal->what(), "the validation was stopped");
}

TEST_F(AnInspection, ListsTheFilesOfThePackageThatItValidated) {
    for (const std::string version : {"2.0", "3.0"}) {
        const auto directory = scratch.path() / version;
        fs::create_directory(directory);
        fs::rename(signedPackage({.version = version, .files = {{"/usr/bin/" + version, "x"}}}),
                   directory / "a.rpm");
    }
    const auto link = scratch.path() / "link";
    fs::create_directory_symlink("2.0", link);
    system.authorities.systemDeveloperKeyId = scratch.path() / "fifo";
    ASSERT_EQ(mkfifo(system.authorities.systemDeveloperKeyId.c_str(), 0600), 0);
    Common::UniqueFd reader;
    // The inspection waits here for the first line, its package validated.
    const std::jthread replacement([&] {
        std::ofstream fifo(system.authorities.systemDeveloperKeyId);
        fs::remove(link);
        fs::create_directory_symlink("3.0", link);
        fifo << "none\n";
    });
    const auto found = inspect(link / "a.rpm", system);
    reader = Common::UniqueFd(open(system.authorities.systemDeveloperKeyId.c_str(), O_RDONLY | O_NONBLOCK));
    ASSERT_FALSE(found.refusal) << found.refusal->what();
    EXPECT_EQ(found.package->version(), "2.0-1");
    ASSERT_EQ(found.files.size(), 1U);
    EXPECT_EQ(found.files[0].path, "/usr/bin/2.0");
}

struct InspectedOnDisk : DatabaseOnDisk {
    InspectedOnDisk() {
        install(app, {{"bin/tool", "#!"}, {"data/a/b.txt", "text"}, {"opt/own", "1"}});
        install({"com.example.vpn", "1"}, {{"bin/vpn", "123"}, {"connman/plugin/vpn.so", "45"}});
    }

    void startManager() {
        static_cast<void>(database.recoverDatabase());
        for (const auto& [directory, data] : database.packages()) {
            database.refreshMappings(data.at("general.id"));
        }
    }

    const PackageIdentity app{"com.example.app", "1-1"};
    const fs::path version = root / "com.example.app/1-1";
    const InspectedDatabase inspected{.directory = root, .systemRoot = system};
};

TEST(Verification, FindsNothingInAHealthyDatabaseAndChangesNothing) {
    InspectedOnDisk disk;
    disk.prepare({"com.example.app", "2-1"}, {{"bin/tool", "12345"}});
    const auto before = digestOfTree(disk.scratch.path());
    const auto result = verify(disk.inspected);
    EXPECT_TRUE(result.findings.empty()) << result.findings[0].path << ": " << result.findings[0].problem;
    EXPECT_TRUE(result.unread.empty());
    ASSERT_EQ(result.packages.size(), 2U);
    EXPECT_EQ(result.packages[0].version + " " + result.packages[0].prepared, "1-1 2-1");

    const auto files = filesOf("com.example.app", disk.inspected);
    ASSERT_EQ(files.size(), 3U);
    EXPECT_EQ(files[0].path + files[1].place + files[2].place,
              (disk.version / "bin/tool").native() + "/usr/share/com.example.app/a/b.txt");
    const auto ownerOfPath = [&](const std::string& path) {
        const auto owner = ownerOf(path, disk.inspected);
        return owner ? owner->package + " " + owner->version : "none";
    };
    fs::create_symlink("usr/bin", disk.system / "bin");
    EXPECT_EQ(ownerOfPath("/bin/vpn"), "com.example.vpn 1");
    EXPECT_EQ(ownerOfPath(disk.root / "com.example.app/next/bin/tool"), "com.example.app 2-1");
    EXPECT_EQ(ownerOfPath(disk.root / "com.example.app/current"), "com.example.app 1-1");
    EXPECT_EQ(ownerOfPath(disk.root), "none");
    EXPECT_ERROR(ownerOf("/usr/bin/absent", disk.inspected), FileNotFound, HasSubstr("/usr/bin/absent"));
    const auto sizes = sizesOf(disk.inspected).sizes;
    EXPECT_THAT((std::array{sizes[0].installed, sizes[0].others, sizes[0].copies}), ElementsAre(7, 5, 0));
    EXPECT_EQ(sizes[1].copies, 5U);
    EXPECT_ERROR(sizeOf("absent", disk.inspected), PackageNotExist, HasSubstr("absent"));
    fs::remove(disk.system / "bin");
    EXPECT_EQ(digestOfTree(disk.scratch.path()), before);
}

// Following each repair removes the finding.
TEST(Verification, ReportsEachDamageAndItsRepair) {
    struct Damage {
        const char* problem;
        const char* repair;
        std::function<void(InspectedOnDisk&)> make;
    };
    const auto replace = [](const fs::path& path, const fs::path& target) {
        fs::remove_all(path);
        fs::create_symlink(target, path);
    };
    const Damage damages[] = {
        {"the mapping is missing", "start", [](auto& disk) { fs::remove(disk.system / "usr/bin/tool"); }},
        {"the copy differs from", "start", [](auto& disk) { writeFile(disk.system / "usr/bin/vpn", "12"); }},
        {"it is a mapping of ", "start",
         [&](auto& disk) { replace(disk.system / "usr/bin/tool", disk.version / "opt/own"); }},
        {"it is a link instead of a copy", "start",
         [&](auto& disk) {
             replace(disk.system / "usr/bin/vpn", disk.root / "com.example.vpn/current/bin/vpn");
         }},
        {"a file that is not a mapping has the mapping's place", "delete it and start",
         [](auto& disk) {
             fs::remove(disk.system / "usr/bin/tool");
             writeFile(disk.system / "usr/bin/tool", "another's");
         }},
        {"a link to /usr/lib/tool has", "delete it and start",
         [&](auto& disk) { replace(disk.system / "usr/bin/tool", "/usr/lib/tool"); }},
        {"the mapping list is missing", "start",
         [](auto& disk) { fs::remove(disk.version / "symlink.list"); }},
        {"the mapping list does not contain /usr/bin/tool", "start",
         [](auto& disk) {
             writeFile(disk.version / "symlink.list", "/usr/share/com.example.app/a/b.txt\n");
         }},
        {"the package has no file for this mapping: bin/tool", "remove com.example.app",
         [](auto& disk) { fs::remove(disk.version / "bin/tool"); }},
        {"the record is damaged: quenra.pkg doesn't exist", "install com.example.app again",
         [](auto& disk) { fs::remove(disk.version / "quenra.pkg"); }},
        {"it points to /elsewhere, which is not a version", "install com.example.app again",
         [&](auto& disk) { replace(disk.root / "com.example.app/current", "/elsewhere"); }},
        {"the link to the installed version is missing", "start the package manager: recovery completes",
         [](auto& disk) {
             disk.prepare({"com.example.app", "2-1"});
             fs::remove(disk.root / "com.example.app/current");
         }},
        {"it does not point to a prepared version", "start",
         [&](auto& disk) { replace(disk.root / "com.example.app/next", "/elsewhere"); }},
        {"it is neither installed nor prepared", "start",
         [](auto& disk) { fs::create_directory(disk.root / "com.example.app/0-1"); }},
        {"it is not a package's directory", "start", [](auto& disk) { writeFile(disk.root / "stray", ""); }},
        {"it is a mapping of a package that is not installed", "delete it",
         [&](auto& disk) { replace(disk.system / "usr/share/x", disk.root / "gone/current/data/x"); }},
        {"it is a mapping of the package, which does not list it", "delete it",
         [&](auto& disk) { replace(disk.system / "usr/bin/x", disk.version / "bin/tool"); }},
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.problem);
        const LogCapture log;
        InspectedOnDisk disk;
        damage.make(disk);
        const auto result = verify(disk.inspected);
        EXPECT_TRUE(result.unread.empty());
        ASSERT_EQ(result.findings.size(), 1U);
        const auto& found = result.findings[0];
        EXPECT_THAT(found.problem, testing::StartsWith(damage.problem));
        EXPECT_THAT(found.repair, testing::StartsWith(damage.repair));
        if (found.repair.starts_with("delete it")) {
            fs::remove(disk.system / fs::path(found.path).relative_path());
        }
        disk.startManager();
        EXPECT_TRUE(verify(disk.inspected).findings.empty());
    }
}

TEST(Verification, ReportsUnreadableFilesAsErrors) {
    for (const char* name :
         {"com.example.app", "com.example.app/1-1/bin", "com.example.app/1-1/quenra.pkg"}) {
        const InspectedOnDisk disk;
        fs::permissions(disk.root / name, fs::perms::none);
        const DroppedCapabilities dropped;
        const auto result = verify(disk.inspected);
        EXPECT_TRUE(result.findings.empty()) << name << ": " << result.findings[0].problem;
        ASSERT_FALSE(result.unread.empty()) << name;
        EXPECT_EQ(result.unread[0].package, "com.example.app");
        EXPECT_THAT(result.unread[0].message, HasSubstr("Permission denied"));
        EXPECT_TRUE(verify(disk.inspected, "com.example.vpn").unread.empty());
    }
    const InspectedOnDisk disk;
    fs::permissions(disk.version / "bin", fs::perms::none);
    const DroppedCapabilities dropped;
    const auto [sizes, unread] = sizesOf(disk.inspected);
    ASSERT_EQ(sizes.size(), 1U);
    EXPECT_EQ(sizes[0].package, "com.example.vpn");
    ASSERT_EQ(unread.size(), 1U);
    EXPECT_EQ(unread[0].package, "com.example.app");
}

TEST(Inspection, CountsACopyOnceAndNamesNoVersionAfterALink) {
    const InspectedOnDisk disk;
    writeFile(disk.root / "com.example.vpn/1/symlink.list", "/usr/bin/vpn\n/usr//bin/vpn\n/usr/./bin/vpn\n");
    EXPECT_EQ(sizeOf("com.example.vpn", disk.inspected).copies, 3U);
    writeFile(disk.root / "com.example.app/next/file", "in a directory where a link should be");
    const auto owner = ownerOf(disk.root / "com.example.app/next/file", disk.inspected);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->package + " " + owner->version, "com.example.app ");
}

TEST(Verification, FindsSecurityAttributesThatAreGone) {
    const InspectedOnDisk disk;
    const auto set = [](const fs::path& file, const char* name, const std::string& value) {
        return setxattr(file.c_str(), name, value.data(), value.size(), 0) == 0;
    };
    const auto vpn = disk.root / "com.example.vpn/1";
    for (const char* name : {"bin/vpn", "connman/plugin/vpn.so"}) {
        fs::permissions(vpn / name, fs::perms::all);
        if (!set(vpn / name, "security.appid", "com.example.vpn")) {
            GTEST_SKIP() << "only root may set attributes in the namespace \"security\"";
        }
    }
    Database(disk.root, disk.temp, disk.system).refreshMappings("com.example.vpn");
    EXPECT_TRUE(verify(disk.inspected).findings.empty());
    removexattr((disk.system / "usr/bin/vpn").c_str(), "security.appid");
    removexattr((vpn / "connman/plugin/vpn.so").c_str(), "security.appid");
    const auto result = verify(disk.inspected);
    ASSERT_EQ(result.findings.size(), 2U);
    EXPECT_THAT(result.findings[0].problem,
                testing::StartsWith("the copy does not have the attribute security.appid"));
    EXPECT_EQ(result.findings[1].path, vpn / "connman/plugin/vpn.so");
    removexattr((vpn / "bin/vpn").c_str(), "security.appid");
    EXPECT_EQ(verify(disk.inspected).findings[0].problem, "no file has the attribute security.appid");
    EXPECT_TRUE(verify(disk.inspected, {}, Core::ZUL::SecurityAttributes::Ignored).findings.empty());
}

} // namespace Testbed

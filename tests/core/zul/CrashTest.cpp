#include "common/Files.h"
#include "core/zul/mapping/MappingList.h"
#include "testbed/InterruptedProcess.h"
#include "tests/core/zul/DatabaseTest.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <regex>
#include <sys/stat.h>

namespace Testbed {

namespace {

const std::string id = "com.example.app";
const Files neighbour{{"bin/neighbour", "7"}};

/// The files of a version, besides record and list; in copy mode one of them makes all mappings copies.
Files filesOf(const std::string& version, bool isCopying) {
    // The sizes differ per version, because files unpacked at the same time have equal times.
    Files files{{"bin/tool", std::string(static_cast<std::size_t>(version[0]), 'x')},
                {"data/sub/file", version},
                {"unmapped", version}};
    files["bin/only-in-" + version] = version;
    files[version == "2" ? "data/kind/in" : "data/kind"] = version; // a directory in place of a file
    if (isCopying) {
        files["connman/plugin/vpn.so"] = version;
    }
    return files;
}

Files mappingsOf(const fs::path& directory, const Files& files) {
    const Files rules{{"bin/", "/usr/bin/"},
                      {"data/", "/usr/share/" + directory.filename().native() + "/"},
                      {"connman/plugin/", "/usr/lib/connman/plugins-vpn/"}};
    Files result;
    for (const auto& [file, content] : files) {
        for (const auto& [source, target] : rules) {
            if (file.starts_with(source)) {
                result[target + file.substr(source.size())] = (directory / "current" / file).native();
            }
        }
    }
    return result;
}

/// The files of a version except its record and list, which must exist.
Files payloadOf(const fs::path& directory) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            files[entry.path().lexically_relative(directory)] = readFile(entry.path());
        }
    }
    EXPECT_EQ(files.erase("quenra.pkg") + files.erase("symlink.list"), 2U);
    return files;
}

/// A directory in the place of a mapping, so that an installation fails after others have been made.
fs::path obstacleIn(const DatabaseOnDisk& disk) { return disk.system / "usr/share" / id / "sub/file"; }

void install(DatabaseOnDisk& disk, const PackageIdentity& package) {
    disk.database.install(package, disk.entries, disk.temp / "next");
}
void prepareUpgrade(DatabaseOnDisk& disk, const PackageIdentity& package) {
    disk.database.prepareUpgrade(package, disk.entries, disk.temp / "next");
}
void completeUpgrade(DatabaseOnDisk& disk, const PackageIdentity& package) {
    disk.database.completeUpgrade(package);
}
void removeIt(DatabaseOnDisk& disk, const PackageIdentity& /*package*/) { disk.database.remove(id); }
void recover(DatabaseOnDisk& disk, const PackageIdentity& /*package*/) { disk.database.recoverDatabase(); }
void refuseInstall(DatabaseOnDisk& disk, const PackageIdentity& package) {
    try {
        install(disk, package);
    } catch (const Error&) {
        return;
    }
    throw std::logic_error("installed");
}

/// What a service does when it starts.
void restart(DatabaseOnDisk& disk, const PackageIdentity& /*package*/) {
    disk.database.recoverDatabase();
    for (const auto& [directory, data] : disk.database.packages()) {
        disk.database.refreshMappings(directory.filename());
    }
}

struct Operation {
    std::string name;
    std::string before;   ///< installed version, then prepared versions, a character each
    std::string unpacked; ///< version ready in the temporary directory
    std::string after;    ///< versions that recovery may find, "-" for none; the last one after a success
    void (*run)(DatabaseOnDisk&, const PackageIdentity&);
};

void PrintTo(const Operation& operation, std::ostream* stream) { *stream << operation.name; }

const std::vector<Operation> operations{
    {"Install", "", "1", "-1", install},
    {"InstallThatFails", "", "1", "1-", refuseInstall},
    {"InstallOverWhatARemovalLeft", "1", "1", "-1", install},
    {"PrepareUpgrade", "1", "2", "12", prepareUpgrade},
    {"PrepareHigherUpgrade", "12", "3", "23", prepareUpgrade},
    {"CompleteUpgrade", "12", "", "2", completeUpgrade},
    {"Remove", "1", "", "1-", removeIt},
    {"RemoveWithPreparedUpgrade", "12", "", "12-", removeIt},
    {"RecoverDatabase", "12", "3", "2", recover},
    {"RefreshMappings", "12", "", "2", restart},
};

/// Whether a removal left the installed version without "current".
bool isOverRemains(const Operation& operation) {
    return !operation.before.empty() && operation.before == operation.unpacked;
}

void makeStateBefore(DatabaseOnDisk& disk, const Operation& operation, bool isCopying) {
    disk.install(PackageIdentity("neighbour", "7"), neighbour);
    for (const char version : operation.before) {
        const PackageIdentity package(id, {version});
        const auto files = filesOf(isOverRemains(operation) ? "2" : std::string{version}, isCopying);
        version == '1' ? disk.install(package, files) : disk.prepare(package, files);
    }
    if (isOverRemains(operation)) {
        // As when no mapping could be removed.
        fs::remove(disk.root / id / "current");
    }
    if (operation.run == refuseInstall) {
        fs::create_directories(obstacleIn(disk));
    }
    if (!operation.unpacked.empty()) {
        disk.extract(filesOf(operation.unpacked, isCopying), "next");
    }
}

/// Runs an operation with the umask 077.
void runStrictly(const Operation& operation, DatabaseOnDisk& disk, const PackageIdentity& package) {
    umask(077);
    operation.run(disk, package);
}

/// Restarts the service and checks that its state is complete.
/// @param allowed  versions, "-" for none
void checkAfterRestart(DatabaseOnDisk& disk, const std::string& allowed, bool isCopying) {
    if (fs::is_directory(fs::symlink_status(obstacleIn(disk)))) {
        fs::remove(obstacleIn(disk));
    }
    ASSERT_EQ(runInChild([&] { restart(disk, PackageIdentity(id, "1")); }), End::Finished);
    auto expected = mappingsOf(disk.root / "neighbour", neighbour);
    EXPECT_EQ(payloadOf(disk.root / "neighbour/7"), neighbour);
    std::string found = "-";
    if (fs::exists(fs::symlink_status(disk.root / id))) {
        found = disk.installedVersion(id);
        EXPECT_THAT(DatabaseOnDisk::entriesIn(disk.root / id), UnorderedElementsAre("current", found));
        const auto files = payloadOf(disk.root / id / found);
        EXPECT_EQ(files, filesOf(found, isCopying));
        expected.merge(mappingsOf(disk.root / id, files));
    }
    EXPECT_THAT(allowed, HasSubstr(found));
    EXPECT_EQ(DatabaseOnDisk::entriesIn(disk.root).size(), found == "-" ? 1U : 2U);
    EXPECT_FALSE(fs::exists(disk.temp));
    EXPECT_EQ(disk.mappings(), expected);
    for (const auto& entry : fs::recursive_directory_iterator(disk.system)) {
        EXPECT_TRUE(!entry.is_directory() || entry.path().filename() == ".zul-mapping" ||
                    entry.status().permissions() == fs::perms(0755))
            << entry.path();
    }
    for (const auto& [target, file] : expected) {
        EXPECT_EQ(readFile(disk.system / target.substr(1)), readFile(file));
    }
}

} // namespace

class DatabaseOperations : public testing::TestWithParam<std::tuple<Operation, bool>> {
protected:
    const Operation& operation = std::get<0>(GetParam());
    const bool isCopying = std::get<1>(GetParam());
    const PackageIdentity package{id, operation.unpacked.empty() ? "2" : operation.unpacked};
};

TEST_P(DatabaseOperations, LeaveNothingHalfDoneWhenTheProcessIsKilled) {
    unsigned point = 0;
    for (auto end = End::Killed; end == End::Killed && !HasFailure(); ++point) {
        SCOPED_TRACE("killed before change " + std::to_string(point));
        DatabaseOnDisk disk;
        ASSERT_EQ(runInChild([&] { makeStateBefore(disk, operation, isCopying); }), End::Finished);
        end = runInterrupted(point, [&] { runStrictly(operation, disk, package); });
        ASSERT_NE(end, End::Failed);
        checkAfterRestart(disk, operation.after, isCopying);
    }
    EXPECT_GT(point, 5U);
    std::cout << "killed at " << point - 1 << " points\n";
}

/// @param prepare  called in a child process before the operation
void loseNothing(const Operation& operation, bool isCopying,
                 const std::function<void(DatabaseOnDisk&)>& prepare) {
    const PackageIdentity package(id, operation.unpacked.empty() ? "2" : operation.unpacked);
    forEachFault(17, [&](const Fault& fault, unsigned point) {
        DatabaseOnDisk disk;
        EXPECT_EQ(runInChild([&] { prepare(disk); }), End::Finished);
        const auto [end, wasMet] = runWithFault(point, fault, [&] { runStrictly(operation, disk, package); });
        if (end == End::Failed && !fault.isPersistent && operation.run == prepareUpgrade) {
            EXPECT_NE(Common::linkTarget(disk.root / id / "next").value_or("").filename(), package.version());
        }
        const bool isDone = end == End::Finished && operation.run != refuseInstall;
        checkAfterRestart(disk, isDone ? operation.after.substr(operation.after.size() - 1) : operation.after,
                          isCopying);
        return wasMet;
    });
}

TEST_P(DatabaseOperations, LoseNothingWhenACallFails) {
    loseNothing(operation, isCopying,
                [&](DatabaseOnDisk& disk) { makeStateBefore(disk, operation, isCopying); });
}

TEST(ReplacingAnAbandonedVersion, LeavesWhatWasExtractedForAnotherAttemptWhenACallFails) {
    const auto operation = *std::find_if(operations.begin(), operations.end(), isOverRemains);
    forEachFault(1, [&](const Fault& fault, unsigned point) {
        DatabaseOnDisk disk;
        EXPECT_EQ(runInChild([&] { makeStateBefore(disk, operation, false); }), End::Finished);
        const auto move = [&] {
            disk.database.moveToVersionedDirectory(PackageIdentity(id, "1"), disk.temp / "next");
        };
        const auto [end, wasMet] = runWithFault(point, fault, move);
        if (end == End::Failed && !fault.isPersistent) {
            EXPECT_EQ(readFile(disk.temp / "next/unmapped"), "1");
        }
        return wasMet;
    });
}

/// What a package and its neighbour have in the system directories.
Files mappingsWithNeighbour(const DatabaseOnDisk& disk, const std::string& version, bool isCopying) {
    auto expected = mappingsOf(disk.root / id, filesOf(version, isCopying));
    expected.merge(mappingsOf(disk.root / "neighbour", neighbour));
    return expected;
}

class ACompletion : public testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(ACompletion, KeepsAVersionInstalledAndNeedsNoRestartWhenACallFails) {
    const auto operation = *std::find_if(operations.begin(), operations.end(),
                                         [](const auto& one) { return one.run == completeUpgrade; });
    const auto [isCopying, isObstructed] = GetParam();
    forEachFault(
        17, [&, isCopying = isCopying, isObstructed = isObstructed](const Fault& fault, unsigned point) {
            DatabaseOnDisk disk;
            EXPECT_EQ(runInChild([&] { makeStateBefore(disk, operation, isCopying); }), End::Finished);
            const PackageIdentity package(id, "2");
            const auto obstacle = disk.system / "usr/bin/only-in-2";
            if (isObstructed) {
                // The failing call may then belong to the rollback.
                fs::create_directory(obstacle);
            }
            const auto [end, wasMet] = runWithFault(point, fault, [&] { completeUpgrade(disk, package); });
            EXPECT_EQ(disk.database.packages().size(), 2U);
            const auto installed = disk.installedVersion(id);
            const bool isPrepared = Common::linkTarget(disk.root / id / "next").has_value();
            const bool isGivenUp = installed == "1" && !isPrepared;
            EXPECT_TRUE(!isGivenUp || (isObstructed && fault.isPersistent));
            // After a single failure the rollback succeeded.
            if (end == End::Failed && !fault.isPersistent && !isObstructed) {
                EXPECT_EQ(installed, "1");
                EXPECT_EQ(disk.mappings(), mappingsWithNeighbour(disk, "1", isCopying));
            }
            if (isObstructed) {
                EXPECT_EQ(end, End::Failed);
                fs::remove(obstacle);
            }
            // Mappings that could not be removed are left to the next refresh.
            EXPECT_EQ(runInChild([&] {
                          isPrepared ? completeUpgrade(disk, package) : disk.database.refreshMappings(id);
                      }),
                      End::Finished);
            const auto* last = isGivenUp ? "1" : "2";
            EXPECT_EQ(disk.installedVersion(id), last);
            EXPECT_EQ(disk.mappings(), mappingsWithNeighbour(disk, last, isCopying));
            return wasMet;
        });
}

INSTANTIATE_TEST_SUITE_P(With, ACompletion, testing::Combine(testing::Bool(), testing::Bool()),
                         [](const auto& parameter) {
                             return std::string(std::get<0>(parameter.param) ? "Copies" : "Links") +
                                    (std::get<1>(parameter.param) ? "AndAnObstacle" : "");
                         });

TEST(LookingAtPackagesAndRecovery, LoseNothingWhenACallFails) {
    const auto look = [](DatabaseOnDisk& disk, const PackageIdentity& /*package*/) {
        static_cast<void>(disk.database.packages());
        static_cast<void>(disk.database.packageData(id));
        disk.database.checkUpgrade(PackageIdentity(id, "3"));
    };
    for (const auto& operation :
         {Operation{"look", "12", "", "2", look}, Operation{"look at a damaged upgrade", "12", "", "1", look},
          Operation{"recover from a damaged upgrade", "12", "", "1", recover}}) {
        SCOPED_TRACE(operation.name);
        loseNothing(operation, false, [&](DatabaseOnDisk& disk) {
            makeStateBefore(disk, operation, false);
            if (operation.after == "1") {
                writeFile(disk.root / id / "2/quenra.pkg", "damaged");
            }
        });
    }
}

TEST(RecordsAndMappingLists, AreReadWholeOrNotAtAllWhenACallFails) {
    const ScratchDirectory version;
    const std::string text(300, 'x');
    const Core::ZUL::MappingList list{"/usr/bin/a", "/usr/bin/" + text};
    Core::ZUL::writeMappingList(version.path(), list, Common::Durability::Later);
    Core::ZUL::writeRecord({id, "1"}, {{"certificate.id", text}, {"certificate.subgroup", "apps"}},
                           version.path());
    forEachFault(1, [&](const Fault& fault, unsigned point) {
        const auto read = [&] {
            try {
                static_cast<void>(Core::ZUL::readRecord(version.path() / Core::ZUL::recordName));
            } catch (const Error& error) {
                EXPECT_NE(error.code(), ErrorCode::CorruptedInstalledPackage);
            }
            if (Core::ZUL::readMappingList(version.path()) != list || testing::Test::HasFailure()) {
                throw std::logic_error("not whole");
            }
        };
        return runWithFault(point, fault, read).second;
    });
}

TEST(TemporaryDirectories, EndWithoutAnExceptionWhenACallFails) {
    forEachFault(1, [](const Fault& fault, unsigned point) {
        std::optional<ScratchDirectory> directory(std::in_place);
        writeFile(directory->path() / "closed/inner/file", "x");
        fs::permissions(directory->path() / "closed/inner", fs::perms(0));
        fs::permissions(directory->path() / "closed", fs::perms(0));
        const auto end = [&directory] {
            const DroppedCapabilities dropped;
            directory.reset();
        };
        return runWithFault(point, fault, end).second;
    });
}

/// The place of the first of these calls from a place on.
std::size_t find(const std::vector<std::string>& calls, const std::string& pattern, std::size_t from = 0) {
    const auto isIt = [&](const auto& call) { return std::regex_search(call, std::regex(pattern)); };
    return static_cast<std::size_t>(
        std::find_if(calls.begin() + static_cast<std::ptrdiff_t>(from), calls.end(), isIt) - calls.begin());
}

TEST_P(DatabaseOperations, FlushInTheRequiredOrder) {
    DatabaseOnDisk disk;
    makeStateBefore(disk, operation, isCopying);
    const auto calls = recordCalls([&] { operation.run(disk, package); });
    // A removal takes effect when "current" is removed.
    const bool isReplacing = isOverRemains(operation);
    const auto published = find(calls, operation.run == removeIt ? "^remove .*/current$"
                                       : isReplacing             ? "^link .*/1$"
                                                                 : "^link .*/(current|next)$");
    ASSERT_LT(published, calls.size());
    const auto flushed = find(calls, "^(fsync|syncfs)$", published);
    ASSERT_LT(flushed, calls.size());
    if (operation.run == install || operation.run == prepareUpgrade || operation.run == removeIt) {
        // The unpacked files, or the removed mappings, are on disk before publication.
        EXPECT_LT(find(calls, "^syncfs$"), published);
    }
    // Files in a version are removed by name alone.
    const auto deleted = find(calls, "^remove (quenra.pkg|symlink.list)$");
    EXPECT_EQ(deleted < calls.size(), operation.name != "Install" && operation.run != prepareUpgrade);
    EXPECT_LT(flushed, deleted);
    // Mappings are on disk before the call returns and before the version whose list has old ones is deleted.
    if (operation.run != prepareUpgrade && operation.run != recover && operation.run != restart) {
        const auto mapped = find(calls, operation.run == removeIt ? "^remove tool$" : "^link only-in-.$");
        EXPECT_LT(find(calls, "^syncfs$", mapped),
                  isReplacing ? calls.size() : std::min(deleted, calls.size()));
    }
    if (operation.run == prepareUpgrade) {
        // So is the list, which names the old version's mappings: the old list goes later without a write.
        EXPECT_EQ(find(calls, "/symlink.list$", find(calls, "^syncfs$")), calls.size());
    } else if (isReplacing) {
        // The new version's list names the old one's mappings on disk before the old one's goes.
        const auto kept = find(calls, "/symlink.list$", find(calls, "^syncfs$"));
        ASSERT_LT(kept, deleted);
        EXPECT_EQ(calls.at(kept - 1), "fsync");
        EXPECT_EQ(calls.at(kept + 1), "fsync");
    }
    if (operation.run == completeUpgrade || operation.run == restart || isReplacing) {
        // Mappings are removed on disk before the list omits them.
        const auto stale = find(calls, "^remove only-in-.$", find(calls, "^link .*/current$"));
        ASSERT_LT(stale, calls.size());
        EXPECT_LT(find(calls, "^syncfs$", stale), find(calls, "/symlink.list$", stale));
    }
    // A copy is complete before it is renamed.
    for (auto copy = find(calls, "^link (tool|file|vpn.so|only-in-.)$"); isCopying && copy < calls.size();
         copy = find(calls, "^link (tool|file|vpn.so|only-in-.)$", copy + 1)) {
        EXPECT_EQ(calls.at(copy - 1), "fsync");
    }
}

TEST(AnInstallation, FlushesTheParentOfEachDirectoryItMakes) {
    const DatabaseOnDisk disk;
    Database database(disk.root / "further/below", disk.temp, disk.system);
    const auto extracted = disk.extract({{"unmapped", "x"}});
    const auto calls =
        recordCalls([&] { database.install(PackageIdentity(id, "1"), disk.entries, extracted); });
    for (std::size_t place = 0;
         const auto* made : {"^make .*/further$", "^make .*/below$", "^make .*/com.example.app$"}) {
        place = find(calls, made, place);
        EXPECT_EQ(calls.at(place + 2), "fsync") << "after the mode";
    }
}

TEST(MappingsOnAnotherFileSystem, AreOnDiskWhenAnOperationEnds) {
    DatabaseOnDisk disk;
    const auto countFlushes = [&] {
        const auto calls = recordCalls([&] {
            disk.install(PackageIdentity(id, "1"));
            disk.database.remove(id);
        });
        return std::count(calls.begin(), calls.end(), "syncfs");
    };
    const auto before = countFlushes();
    const SmallFileSystem usr(disk.system / "usr");
    if (!usr.isThere()) {
        GTEST_SKIP() << "mount namespaces are root's here";
    }
    EXPECT_EQ(countFlushes(), before + 2);
}

INSTANTIATE_TEST_SUITE_P(In, DatabaseOperations,
                         testing::Combine(testing::ValuesIn(operations), testing::Bool()),
                         [](const auto& parameter) {
                             return std::get<0>(parameter.param).name +
                                    (std::get<1>(parameter.param) ? "WithCopies" : "WithLinks");
                         });

} // namespace Testbed

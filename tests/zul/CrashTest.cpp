#include "tests/zul/DatabaseTest.h"
#include "tests/zul/InterruptedProcess.h"

#include <iostream>
#include <set>

namespace Testbed {

namespace {

const std::string id = "com.example.app";
const std::string neighbour = "org.example.neighbour";

/// The files of a version, besides record and list; in copy mode one of them makes all mappings copies.
Files filesOf(const std::string& version, bool isCopying) {
    Files files{{"bin/tool", "tool of " + version}, {"data/sub/file", version}, {"unmapped", version}};
    files["bin/only-in-" + version] = version;
    if (isCopying) {
        files["connman/plugin/vpn.so"] = version;
    }
    return files;
}

Files mappingsOf(const fs::path& directory, const std::string& package, const Files& files) {
    const Files rules{{"bin/", "/usr/bin/"},
                      {"data/", "/usr/share/" + package + "/"},
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

Files contentOf(const fs::path& directory) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            files[entry.path().lexically_relative(directory)] = readFile(entry.path());
        }
    }
    return files;
}

struct Operation {
    std::string name;
    std::vector<std::string> before; ///< installed, then prepared versions
    std::string unpacked;            ///< version that lies ready in the temporary directory
    std::set<std::string> after;     ///< versions that recovery may find, "" for none
    std::function<void(DatabaseOnDisk&, const Package&)> run;
};

void PrintTo(const Operation& operation, std::ostream* stream) { *stream << operation.name; }

void installUnpacked(DatabaseOnDisk& disk, const Package& package) {
    disk.database.install(package, disk.entries, disk.temp / "next");
}
void prepareUnpacked(DatabaseOnDisk& disk, const Package& package) {
    disk.database.prepareUpgrade(package, disk.entries, disk.temp / "next");
}

/// A directory in the place of a mapping, so that the installation fails after others have been made.
fs::path obstacleIn(const DatabaseOnDisk& disk) { return disk.system / "usr/share" / id / "sub/file"; }

const std::vector<Operation> operations{
    {"Install", {}, "1", {"", "1"}, installUnpacked},
    {"PrepareUpgrade", {"1"}, "2", {"1", "2"}, prepareUnpacked},
    {"PrepareHigherUpgrade", {"1", "2"}, "3", {"2", "3"}, prepareUnpacked},
    {"CompleteUpgrade",
     {"1", "2"},
     "",
     {"2"},
     [](auto& disk, const auto&) { disk.database.completeUpgrade(Package(id, "2")); }},
    {"Remove", {"1"}, "", {"", "1"}, [](auto& disk, const auto&) { disk.database.remove(id); }},
    {"RemoveWithPreparedUpgrade",
     {"1", "2"},
     "",
     {"", "1", "2"},
     [](auto& disk, const auto&) { disk.database.remove(id); }},
    {"RefuseInstall", {}, "1", {"", "1"},
     [](auto& disk, const auto& package) {
         fs::create_directories(obstacleIn(disk));
         EXPECT_THROW(installUnpacked(disk, package), Error);
     }},
    {"Recover", {"1", "2"}, "3", {"2"}, [](auto& disk, const auto&) { disk.database.recoverDatabase(); }},
    {"Refresh",
     {"1", "2"},
     "",
     {"2"},
     [](auto& disk, const auto&) {
         disk.database.recoverDatabase();
         disk.database.refreshMappings(id);
     }},
};

} // namespace

class AKilledProcess : public testing::TestWithParam<std::tuple<Operation, bool>> {
protected:
    void SetUp() override { std::tie(operation_, isCopying_) = GetParam(); }

    /// The state before the operation, in a new directory.
    void prepare(DatabaseOnDisk& disk) const {
        disk.install(Package(neighbour, "7"), {{"bin/neighbour", "7"}});
        for (std::size_t index = 0; index < operation_.before.size(); ++index) {
            const auto& version = operation_.before[index];
            const auto files = filesOf(version, isCopying_);
            index == 0 ? disk.install(Package(id, version), files)
                       : disk.prepare(Package(id, version), files);
        }
        if (!operation_.unpacked.empty()) {
            disk.extract(filesOf(operation_.unpacked, isCopying_), "next");
        }
    }

    /// What a service does when it starts.
    static void restart(DatabaseOnDisk& disk) {
        if (!fs::is_symlink(obstacleIn(disk)) && fs::is_directory(obstacleIn(disk))) {
            fs::remove(obstacleIn(disk));
        }
        disk.database.recoverDatabase();
        for (const auto& [directory, data] : disk.database.packages()) {
            disk.database.refreshMappings(directory.filename());
        }
    }

    void check(const DatabaseOnDisk& disk) const {
        auto expected = mappingsOf(disk.root / neighbour, neighbour, {{"bin/neighbour", "7"}});
        std::vector<std::string> packages{neighbour};
        if (fs::exists(fs::symlink_status(disk.root / id))) {
            packages.push_back(id);
            const auto version = disk.installedVersion(id);
            EXPECT_THAT(operation_.after, testing::Contains(version));
            EXPECT_THAT(disk.entriesIn(disk.root / id), UnorderedElementsAre("current", version));
            auto files = contentOf(disk.root / id / version);
            EXPECT_EQ(files.erase("quenra.pkg") + files.erase("symlink.list"), 2U);
            EXPECT_EQ(files, filesOf(version, isCopying_));
            expected.merge(mappingsOf(disk.root / id, id, files));
        } else {
            EXPECT_THAT(operation_.after, testing::Contains(""));
        }
        EXPECT_THAT(disk.entriesIn(disk.root), testing::UnorderedElementsAreArray(packages));
        EXPECT_FALSE(fs::exists(disk.temp));
        EXPECT_EQ(disk.mappings(), expected);
        for (const auto& [target, file] : disk.mappings()) {
            EXPECT_EQ(readFile(disk.system / target.substr(1)), readFile(file));
        }
    }

    Operation operation_;
    bool isCopying_ = false;
};

TEST_P(AKilledProcess, LeavesNothingHalfDone) {
    unsigned point = 0;
    for (auto end = End::Killed; end == End::Killed; ++point) {
        const ScratchDirectory scratch;
        DatabaseOnDisk disk(scratch.path());
        ASSERT_EQ(runInChild([&] { prepare(disk); }), End::Finished);
        end = runInterrupted(point, [&] { operation_.run(disk, Package(id, operation_.unpacked)); });
        ASSERT_NE(end, End::Failed);
        ASSERT_EQ(runInChild([&] { restart(disk); }), End::Finished) << "killed before change " << point;
        check(disk);
        if (HasFailure()) {
            FAIL() << "killed before change " << point;
        }
    }
    EXPECT_GT(point, 5U);
    std::cout << operation_.name << (isCopying_ ? " with copies" : " with links") << ": killed at "
              << point - 1 << " points\n";
}

INSTANTIATE_TEST_SUITE_P(At, AKilledProcess, testing::Combine(testing::ValuesIn(operations), testing::Bool()),
                         [](const auto& parameter) {
                             return std::get<0>(parameter.param).name +
                                    (std::get<1>(parameter.param) ? "WithCopies" : "WithLinks");
                         });

} // namespace Testbed

#include "tests/core/zul/DatabaseTest.h"

namespace Testbed {

using ReadingADatabase = DatabaseTest;

TEST_F(ReadingADatabase, FindsPackagesByIdentifier) {
    install(app);
    EXPECT_EQ(database.packageDirectory("com.example.app"), dir());
    EXPECT_EQ(database.packageDirectory("/com.example.app"), dir());
    EXPECT_EQ(database.versionedDirectory(PackageIdentity("/x", "1-1")), root / "x/1-1");
    EXPECT_EQ(database.packageData("com.example.app").at("general.version"), "1.0-1");
    EXPECT_TRUE(database.isInstalled("com.example.app"));
    EXPECT_FALSE(database.isInstalled("other"));
    EXPECT_ERROR(database.packageDirectory("other"), PackageNotExist,
                 "couldn't find package directory: other");
}

TEST_F(ReadingADatabase, RemovesAPackageWithoutInstalledVersion) {
    install(app);
    fs::remove_all(dir() / "1.0-1");
    EXPECT_FALSE(database.isInstalled("com.example.app"));
    EXPECT_TRUE(fs::exists(dir()));
    const LogCapture log;
    EXPECT_ERROR(database.packageDirectory("/com.example.app"), CorruptedInstalledPackage,
                 "couldn't find current directory of /com.example.app package");
    EXPECT_FALSE(fs::exists(dir()));
    EXPECT_THAT(log.lines(),
                ElementsAre("INFO: cleaning up corrupted package directory: \"" + dir().native() + "\""));
}

TEST_F(ReadingADatabase, PrefersAPreparedUpgradeAsLongAsItsRecordCanBeRead) {
    install(app);
    prepare(newer);
    EXPECT_EQ(database.readPackageData(dir()).at("general.version"), "2.0-1");
    EXPECT_TRUE(database.hasPreparedNextVersion("com.example.app"));

    fs::remove(dir() / "2.0-1/quenra.pkg");
    const LogCapture log;
    EXPECT_EQ(database.readPackageData(dir()).at("general.version"), "1.0-1");
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN: couldn't read package data from the next directory: quenra.pkg doesn't exist: " +
                        path("next/quenra.pkg"),
                    "INFO: trying to read data from the current directory",
                    "INFO: cleaning up corrupted next directory: \"" + path("next") + "\""));
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));
}

TEST_F(ReadingADatabase, RemovesAPackageWhoseInstalledRecordIsDamaged) {
    install(app);
    writeFile(dir() / "1.0-1/quenra.pkg", "[general]\nid=com.example.app\nversion=1.0-1\n");
    const std::string reason = "package doesn't contains required key: certificate.subgroup";
    const LogCapture log;
    EXPECT_ERROR(database.packageData("com.example.app"), CorruptedInstalledPackage, reason);
    EXPECT_THAT(log.lines(),
                ElementsAre("ERROR: couldn't read package data from the current directory: " + reason,
                            "INFO: cleaning up corrupted package mapping: \"" + path("current") + "\"",
                            "INFO: cleaning up corrupted package directory: \"" + dir().native() + "\""));
    EXPECT_THAT(entriesIn(root), IsEmpty());
    EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ReadingADatabase, ListsPackagesAndDeletesOtherEntries) {
    install(app);
    fs::create_symlink(root / "nowhere", root / "dangling");
    fs::create_directories(root / "empty");
    fs::create_directory_symlink(dir(), root / "linked");
    EXPECT_EQ(database.packageDirectories().size(), 3U);
    writeFile(root / "a\"b", "x");
    const LogCapture log;
    std::map<std::string, std::string> versions;
    for (const auto& [directory, data] : database.packages()) {
        versions[directory.filename()] = data.at("general.version");
    }
    EXPECT_THAT(versions, ElementsAre(Pair("com.example.app", "1.0-1"), Pair("linked", "1.0-1")));
    EXPECT_THAT(entriesIn(root), UnorderedElementsAre("com.example.app", "linked"));
    EXPECT_THAT(log.text(), HasSubstr("WARN: unexpected entry found in database root directory: \"" +
                                      root.native() + "/a\\\"b\"\nINFO: cleaning up unexpected entry\n"));
    EXPECT_THAT(log.text(),
                HasSubstr("WARN: corrupted package directory found: \"" + (root / "empty").native()));
    fs::remove_all(root);
    EXPECT_THAT(database.packages(), IsEmpty());
}

} // namespace Testbed

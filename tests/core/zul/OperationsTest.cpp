#include "tests/core/zul/DatabaseTest.h"

#include <sys/stat.h>

namespace Testbed {

using ADatabase = DatabaseTest;

TEST_F(ADatabase, InstallsUpgradesInTwoStepsAndRemoves) {
    install(app, {{"bin/tool", "1"}, {"bin/old", "1"}});
    EXPECT_EQ(fs::read_symlink(dir() / "current"), dir() / "1.0-1");
    EXPECT_THAT(entriesIn(temp), IsEmpty());

    prepare(newer, {{"bin/tool", "2"}, {"data/new", "2"}});
    EXPECT_EQ(fs::read_symlink(dir() / "next"), dir() / "2.0-1");
    EXPECT_EQ(readFile(system / "usr/bin/tool"), "1");
    writeFile(dir() / "stray", "x");

    database.completeUpgrade(newer);
    EXPECT_EQ(readFile(system / "usr/bin/tool"), "2");
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "2.0-1"));
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool")),
                                        Pair("/usr/share/com.example.app/new", path("current/data/new"))));

    prepare(PackageIdentity(app.id(), "3.0-1"));
    database.remove("/com.example.app");
    EXPECT_THAT(entriesIn(root), IsEmpty());
    EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ADatabase, LeavesNothingOfAnInstallationThatFails) {
    writeFile(system / "usr/bin/tool", "system");
    const LogCapture log;
    EXPECT_ERROR(install(app, {{"bin/tool", "x"}}), Filesystem, "couldn't create mappings");
    EXPECT_THAT(
        log.lines(),
        ElementsAre("ERROR: couldn't create mapping \"" + path("current/bin/tool") +
                        "\" -> \"/usr/bin/tool\"attempt to override system file with package mapping: "
                        "/usr/bin/tool",
                    "INFO: cleaning up created mappings",
                    "INFO: cleaning up corrupted package mapping: \"" + path("current") + "\"",
                    "WARN: couldn't clean up corrupted package mapping: couldn't find package symlink list",
                    "INFO: cleaning up corrupted package directory: \"" + dir().native() + "\""));
    EXPECT_THAT(entriesIn(root), IsEmpty());
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", "")));
}

TEST_F(ADatabase, RefusesAMissingSourceAndAnExistingVersion) {
    const auto absent = temp / "absent";
    EXPECT_ERROR(database.moveToVersionedDirectory(app, absent), Internal,
                 "extracted package directory doesn't exist: " + absent.native());
    install(app);
    EXPECT_ERROR(install(app), Filesystem, "couldn't create versioned directory: " + path("1.0-1"));
    EXPECT_EQ(database.packageData("com.example.app").at("general.version"), "1.0-1");
    // Another version gets as far as the link, and then nothing is left of either.
    EXPECT_ERROR(install(newer), Filesystem, "couldn't create current directory: " + path("current"));
    EXPECT_THAT(entriesIn(root), IsEmpty());
    EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ADatabase, PreparesOnlyHigherVersions) {
    EXPECT_ERROR(database.checkUpgrade(app), PackageNotExist,
                 "couldn't find package directory: com.example.app");
    install(newer);
    EXPECT_ERROR(prepare(app), DowngradeAttempt, "attempt to downgrade package from 2.0-1 to 1.0-1 version");
    EXPECT_ERROR(prepare(newer), DowngradeAttempt,
                 "attempt to downgrade package from 2.0-1 to 2.0-1 version");
    const PackageIdentity tenth(app.id(), "2.10-1");
    prepare(tenth);
    EXPECT_ERROR(prepare(tenth), UpgradeAlreadyPrepared,
                 "package upgrade to version 2.10-1 already prepared");
    EXPECT_ERROR(prepare(PackageIdentity(app.id(), "2.9-1")), DowngradeAttempt,
                 "attempt to downgrade package from 2.10-1 to 2.9-1 version");
    prepare(PackageIdentity(app.id(), "1:1.0-1"));
    EXPECT_EQ(fs::read_symlink(dir() / "next").filename(), "1:1.0-1");
    EXPECT_TRUE(fs::exists(dir() / "2.10-1"));
    EXPECT_EQ(installedVersion(app.id()), "2.0-1");
}

TEST_F(ADatabase, CompletesOnlyPreparedUpgradesAndReplacesAnEmptyNext) {
    const std::string message = "attempt to complete non-existent update for com.example.app package";
    install(app);
    const auto before = digestOfTree(dir());
    EXPECT_ERROR(database.completeUpgrade(newer), Internal, message);
    writeFile(dir() / "next/file", "x");
    EXPECT_ERROR(database.completeUpgrade(newer), Internal, message);
    fs::create_symlink(dir() / "gone", dir() / "next");
    EXPECT_ERROR(database.completeUpgrade(newer), Internal, message);
    EXPECT_EQ(digestOfTree(dir()), before);

    fs::create_directory(dir() / "next");
    prepare(newer);
    EXPECT_EQ(fs::read_symlink(dir() / "next"), dir() / "2.0-1");
    fs::remove(dir() / "next");
    writeFile(dir() / "next/file", "x");
    EXPECT_ERROR(prepare(PackageIdentity(app.id(), "3.0-1")), Filesystem,
                 "couldn't create next directory: " + path("next"));
    EXPECT_EQ(installedVersion(app.id()), "1.0-1");
}

TEST_F(ADatabase, AcceptsLinksThatEndWithASlash) {
    install(app);
    prepare(newer);
    for (const auto& [link, version] : {std::pair("current", "1.0-1//"), std::pair("next", "2.0-1/")}) {
        fs::remove(dir() / link);
        fs::create_directory_symlink(path(version), dir() / link);
    }
    EXPECT_ERROR(database.checkUpgrade(newer), UpgradeAlreadyPrepared, HasSubstr("2.0-1"));
    fs::remove(dir() / "next");
    EXPECT_ERROR(database.checkUpgrade(app), DowngradeAttempt, HasSubstr("1.0-1"));
    database.checkUpgrade(newer);
    EXPECT_EQ(database.packages().size(), 1U);
}

TEST_F(ADatabase, DiscardsAnUpgradeWhoseVersionCannotBeParsed) {
    install(app);
    fs::create_directory_symlink("/", dir() / "next");
    const LogCapture log;
    database.checkUpgrade(PackageIdentity(app.id(), "1.5-1"));
    EXPECT_THAT(log.lines(), ElementsAre("WARN: corrupted package upgrade found: \"" + path("next") + "\"",
                                         "INFO: cleaning up corrupted package upgrade"));
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));

    for (const bool isPrepared : {false, true}) {
        fs::create_directories(dir());
        fs::remove(dir() / "current");
        fs::create_directory_symlink("/", dir() / "current");
        fs::create_directories(dir() / "1.0-1");
        if (isPrepared) {
            fs::create_directory_symlink("/", dir() / "next");
        }
        EXPECT_ERROR(database.checkUpgrade(newer), CorruptedInstalledPackage,
                     "couldn't parse actual package version: ");
        EXPECT_THAT(entriesIn(root), IsEmpty());
    }
}

TEST_F(ADatabase, GoesBackWhenAnUpgradeCannotBeMapped) {
    for (const bool isCopying : {false, true}) {
        SCOPED_TRACE(isCopying);
        const std::string extra = isCopying ? "connman/plugin/a" : "data/a";
        install(app, {{"bin/old", "1"}, {"bin/tool", "1"}, {extra, "1"}});
        prepare(newer, {{"bin/other", "22"}, {"bin/tool", "22"}, {extra, "22"}, {"manifest/z", "22"}});
        writeFile(system / "usr/share/applications/z", "system");
        const auto before = mappings();
        EXPECT_ERROR(database.completeUpgrade(newer), Filesystem, "couldn't create mappings");
        EXPECT_EQ(installedVersion(app.id()), "1.0-1");
        EXPECT_EQ(fs::read_symlink(dir() / "next"), dir() / "2.0-1");
        EXPECT_EQ(mappings(), before);
        EXPECT_EQ(readFile(system / "usr/bin/tool"), "1");

        fs::remove(system / "usr/share/applications/z");
        database.completeUpgrade(newer);
        EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "2.0-1"));
        EXPECT_EQ(readFile(system / "usr/bin/tool"), "22");
        EXPECT_FALSE(mappings().contains("/usr/bin/old"));
        database.remove(app.id());
        EXPECT_THAT(mappings(), IsEmpty());
    }
}

TEST_F(ADatabase, CompletesAnUpgradeOnAFullDisk) {
    const SmallFileSystem disk(scratch.path());
    if (!disk.isThere()) {
        GTEST_SKIP() << "mount namespaces are root's here";
    }
    // With a path that is too long for the link's inode.
    const std::string id(200, 'x');
    const PackageIdentity prepared(id, "2.0-1");
    for (const bool isRecovering : {false, true}) {
        fs::create_directories(system);
        install(PackageIdentity(id, "1.0-1"), {{"bin/tool", "1"}, {"bin/old", "1"}});
        prepare(prepared, {{"bin/tool", "2"}});
        fs::remove(system / "usr/bin/old"); // its removal would make room for the shorter list
        disk.fill();
        isRecovering ? static_cast<void>(database.recoverDatabase()) : database.completeUpgrade(prepared);
        EXPECT_THAT(entriesIn(root / id), UnorderedElementsAre("current", "2.0-1"));
        database.refreshMappings(id);
        EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", root / id / "current/bin/tool")));
        disk.clear();
        database.remove(id);
        EXPECT_THAT(mappings(), IsEmpty());
    }
}

TEST_F(ADatabase, IsReadableByEveryUserWithAnyUmask) {
    fs::permissions(extract({{"data/sub/file", "x"}}), fs::perms(0700));
    fs::remove(root);
    umask(077);
    install(app, {{"data/sub/file", "x"}});
    for (const auto& directory :
         {root, dir(), dir() / "1.0-1", system / "usr", system / "usr/share/com.example.app/sub"}) {
        EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0755)) << directory;
    }
    for (const auto& file : {"quenra.pkg", "symlink.list"}) {
        EXPECT_EQ(fs::status(dir() / "current" / file).permissions(), fs::perms(0644)) << file;
    }
    fs::permissions(dir(), fs::perms(0700)); // as a process leaves it that is killed when it made it
    prepare(newer);
    umask(0);
    const Common::TemporaryDirectory unpacked(scratch.path() / "missing/temp", "package");
    for (const auto& directory : {dir(), scratch.path() / "missing", scratch.path() / "missing/temp"}) {
        EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0755)) << directory;
    }
}

TEST_F(ADatabase, RemovesAPackageWhoseMappingListIsLost) {
    install(app);
    fs::remove(dir() / "1.0-1/symlink.list");
    const LogCapture log;
    database.remove(app.id());
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN: couldn't remove package symlinks: com.example.appcouldn't find "
                            "package symlink list"));
    EXPECT_THAT(entriesIn(root), IsEmpty());
    EXPECT_ERROR(database.remove(app.id()), PackageNotExist,
                 "couldn't find package directory: com.example.app");
}

TEST_F(ADatabase, RemovesLaterWhatARemovalCouldNot) {
    for (const std::string operation : {"remove", "complete", "recover", "reinstall", "prepare"}) {
        SCOPED_TRACE(operation);
        install(app, {{"bin/tool", "1"}});
        fs::permissions(system / "usr/bin", fs::perms(0555));
        {
            const DroppedCapabilities dropped;
            database.remove(app.id());
        }
        EXPECT_THAT(entriesIn(dir()), ElementsAre("1.0-1"));
        fs::permissions(system / "usr/bin", fs::perms(0755));
        const bool isSameVersion = operation == "reinstall" || operation == "prepare";
        install(operation == "reinstall"
                    ? app
                    : PackageIdentity(app.id(), operation == "prepare" ? "0.9-1" : "2.0-1"),
                {{"data/x", "2"}});
        if (operation == "prepare") {
            prepare(app, {{"data/x", "3"}});
            database.completeUpgrade(app);
        }
        if (isSameVersion) {
            EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));
            EXPECT_THAT(entriesIn(temp), IsEmpty());
            EXPECT_THAT(mappings(),
                        ElementsAre(Pair("/usr/share/com.example.app/x", path("current/data/x"))));
        } else if (operation != "remove") {
            const PackageIdentity newest(app.id(), "3.0-1");
            prepare(newest, {{"data/x", "3"}});
            operation == "complete" ? database.completeUpgrade(newest)
                                    : static_cast<void>(database.recoverDatabase());
            EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "3.0-1"));
            database.refreshMappings(app.id());
            EXPECT_THAT(mappings(),
                        ElementsAre(Pair("/usr/share/com.example.app/x", path("current/data/x"))));
        }
        const LogCapture log;
        database.remove(app.id());
        EXPECT_THAT(mappings(), IsEmpty());
        EXPECT_THAT(entriesIn(root), IsEmpty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(ADatabase, KeepsTheMappingListOfAnUpgradeThatItDiscards) {
    install(app);
    prepare(newer, {{"bin/left", "2"}});
    // As when the completion failed and then the removal of what it had made.
    fs::create_symlink(dir() / "current/bin/left", system / "usr/bin/left");
    writeFile(dir() / "2.0-1/quenra.pkg", "damaged");
    database.recoverDatabase();
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));
    database.refreshMappings(app.id());
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool"))));
}

} // namespace Testbed

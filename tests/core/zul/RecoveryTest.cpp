#include "tests/core/zul/DatabaseTest.h"

namespace Testbed {

using Recovery = DatabaseTest;

TEST_F(Recovery, CompletesAPreparedUpgradeAndSweeps) {
    install(app, {{"bin/tool", "1"}, {"bin/old", "1"}});
    prepare(newer, {{"bin/tool", "2"}, {"bin/new", "2"}});
    writeFile(dir() / "stray", "x");
    extract({{"left/over", "x"}});
    install(PackageIdentity("com.example.other", "1-1"), {});
    const LogCapture log;
    EXPECT_THAT(database.recoverDatabase(), ElementsAre("com.example.app"));
    EXPECT_THAT(log.lines(), ElementsAre("INFO: package com.example.app successfully upgraded"));
    EXPECT_FALSE(fs::exists(temp));
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "2.0-1"));
    EXPECT_EQ(readFile(system / "usr/bin/tool"), "2");
    // Mappings are as they were until they are refreshed.
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/old", path("current/bin/old")),
                                        Pair("/usr/bin/tool", path("current/bin/tool"))));
    database.refreshMappings(app.id());
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/new", path("current/bin/new")),
                                        Pair("/usr/bin/tool", path("current/bin/tool"))));
    EXPECT_EQ(readFile(dir() / "current/symlink.list").size(),
              std::string("/usr/bin/new\n/usr/bin/tool\n").size());
}

TEST_F(Recovery, NeverPutsADamagedUpgradeIntoService) {
    install(app);
    prepare(newer);
    writeFile(dir() / "2.0-1/quenra.pkg", "damaged");
    install(PackageIdentity("org.example.dangling", "1-1"), {});
    fs::create_symlink(root / "org.example.dangling/gone", root / "org.example.dangling/next");
    database.recoverDatabase();
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));
    EXPECT_THAT(entriesIn(root / "org.example.dangling"), UnorderedElementsAre("current", "1-1"));
    prepare(newer);
    writeFile(dir() / "2.0-1/quenra.pkg", "damaged");
    EXPECT_ERROR(database.completeUpgrade(newer), Internal,
                 "attempt to complete non-existent update for com.example.app package");
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));
}

TEST_F(Recovery, RemovesDamagedPackagesAndContinues) {
    install(PackageIdentity("a", "1-1"), {{"bin/a", "x"}});
    install(PackageIdentity("b", "1-1"), {{"bin/b", "x"}});
    install(PackageIdentity("c", "1-1"), {{"bin/c", "x"}});
    writeFile(root / "a/1-1/quenra.pkg", "damaged");
    writeFile(root / "b/current-is-missing", "x");
    fs::remove(root / "b/current");
    writeFile(root / "stray", "x");
    const LogCapture log;
    database.recoverDatabase();
    EXPECT_THAT(entriesIn(root), UnorderedElementsAre("c"));
    EXPECT_THAT(log.text(), HasSubstr("WARN: quenra.pkg doesn't exist: " + (root / "b/current").native()));
    // The lists of its versions tell what a package had when nothing else does.
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/c", (root / "c/current/bin/c").native())));
}

TEST_F(Recovery, FindsTheMappingsOfAPackageWhoseRemovalCouldNotReadTheirList) {
    for (const bool isInstalledAgain : {false, true}) {
        install(app, {{"bin/tool", "x"}});
        {
            const DroppedCapabilities dropped;
            fs::permissions(dir() / "1.0-1/symlink.list", fs::perms::none);
            database.remove(app.id());
            EXPECT_FALSE(mappings().empty());
            if (isInstalledAgain) {
                install(app, {{"bin/new", "x"}});
            }
        }
        if (isInstalledAgain) {
            database.recoverDatabase();
            database.refreshMappings(app.id());
            EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "1.0-1"));
            EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/new", path("current/bin/new"))));
            database.remove(app.id());
        }
        EXPECT_THAT(database.packages(), IsEmpty());
        EXPECT_THAT(mappings(), IsEmpty());
    }
}

TEST_F(Recovery, FindsTheMappingsOfAnUpgradeThatCouldNotReadTheOldList) {
    install(app, {{"bin/tool", "1"}, {"bin/old", "1"}});
    {
        const DroppedCapabilities dropped;
        fs::permissions(dir() / "1.0-1/symlink.list", fs::perms::none);
        prepare(newer, {{"bin/tool", "2"}});
        database.completeUpgrade(newer);
    }
    EXPECT_EQ(installedVersion(app.id()), "2.0-1");
    database.recoverDatabase();
    database.refreshMappings(app.id());
    EXPECT_THAT(entriesIn(dir()), UnorderedElementsAre("current", "2.0-1"));
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool"))));
}

TEST_F(Recovery, FindsTheMappingsOfARemovalThatAnInstallationCouldNotTakeOver) {
    const Files files{{"bin/tool", "x"}, {"verityd/c", "x"}};
    const fs::path program = system / "usr/bin/tool";
    const fs::path plugin = system / "etc/verityd/config.d/c";
    for (const auto& [stays, taken] : {std::pair(program, plugin), std::pair(plugin, program)}) {
        install(app, files);
        {
            const DroppedCapabilities dropped;
            fs::permissions(stays.parent_path(), fs::perms(0555));
            database.remove(app.id());
            writeFile(taken, "the system's");
            EXPECT_ANY_THROW(install(app, files));
            fs::permissions(stays.parent_path(), fs::perms(0755));
        }
        EXPECT_THAT(database.packages(), IsEmpty());
        EXPECT_THAT(mappings(), ElementsAre(Pair("/" + taken.lexically_relative(system).native(), "")));
        fs::remove(taken);
    }
}

TEST_F(Recovery, NeedsNoRootAndNeverDeletesItWithTheTemporaryDirectory) {
    install(app);
    const LogCapture log;
    Database(root, root.parent_path(), system).recoverDatabase();
    EXPECT_EQ(database.packages().size(), 1U);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN: couldn't cleanup database temporary directorythe database root "
                            "directory lies in it"));
    Database(root / "absent", temp, system).recoverDatabase();
    EXPECT_EQ(log.lines().back(), "WARN: database root directory doesn't exist");
}

TEST_F(Recovery, RefreshesOnlyWhatBelongsToThePackage) {
    const PackageIdentity copying("copying", "1-1");
    install(copying,
            {{"connman/plugin/vpn.so", "1"}, {"bin/a", "1"}, {"bin/b", "1"}, {"bin/c", "1"}, {"bin/d", "1"}});
    const auto bin = system / "usr/bin";
    const auto expected = mappings();
    fs::remove(bin / "a");
    writeFile(bin / "b", "changed, but still marked");
    fs::remove(bin / "c");
    fs::create_symlink(root / "copying/current/bin/c", bin / "c");
    writeFile(bin / ".zul-mapping", "half a copy");
    writeFile(root / "copying/current/symlink.list", readFile(root / "copying/current/symlink.list") +
                                                         "/usr/bin/stale\n/usr/bin/foreign\n/usr/bin/real\n");
    fs::create_symlink(root / "copying/current/bin/stale", bin / "stale");
    database.refreshMappings("copying");
    EXPECT_EQ(mappings(), expected);
    EXPECT_EQ(readFile(bin / "b"), "1");

    // Others' links and files stay, in the place of a mapping as well as on the list.
    fs::remove(bin / "d");
    fs::create_symlink("/opt/foreign", bin / "d");
    fs::create_symlink("/opt/foreign", bin / "foreign");
    writeFile(bin / "real", "x");
    const auto before = digestOfTree(system);
    database.refreshMappings("copying");
    EXPECT_EQ(digestOfTree(system), before);
}

} // namespace Testbed

#include "core/zul/mapping/MappingPlan.h"
#include "core/zul/mapping/Mappings.h"
#include "tests/core/zul/DatabaseTest.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Testbed {

class AMapping : public DatabaseTest {
protected:
    Core::ZUL::Mappings of{system};
};

TEST_F(AMapping, FollowsTheRulesWithItsRelativePath) {
    const auto unpacked = extract({{"data/a/b.txt", "x"},
                                   {"common/c", "x"},
                                   {"manifest/m.desktop", "x"},
                                   {"icons/hicolor/86x86/apps/i.png", "x"},
                                   {"libexec/d", "x"},
                                   {"icons/other", "x"}});
    fs::create_directories(unpacked / "data/empty");
    fs::create_directory_symlink("a", unpacked / "data/linked");
    fs::create_symlink("nowhere", unpacked / "data/dangling");
    database.install(PackageIdentity("com.example.app", "1.0-1", "Org", "App"), entries, unpacked);
    EXPECT_THAT(mappings(),
                ElementsAre(Pair("/usr/libexec/com.example.app/d", path("current/libexec/d")),
                            Pair("/usr/share/applications/m.desktop", path("current/manifest/m.desktop")),
                            Pair("/usr/share/com.example.app/a/b.txt", path("current/data/a/b.txt")),
                            Pair("/usr/share/com.example.app/dangling", path("current/data/dangling")),
                            Pair("/usr/share/common/Org/App/c", path("current/common/c")),
                            Pair("/usr/share/icons/hicolor/86x86/apps/i.png",
                                 path("current/icons/hicolor/86x86/apps/i.png"))));
}

TEST_F(AMapping, OfAPackageWithADirectoryToCopyIsACopyWithEverythingTheFileHas) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may give files away and set security attributes";
    }
    const auto unpacked = extract({{"bin/tool", "#!"}, {"connman/plugin/vpn.so", std::string(600000, 'v')}});
    const auto tool = unpacked / "bin/tool";
    ASSERT_EQ(lsetxattr(tool.c_str(), "security.ima", "signature", 9, 0), 0);
    ASSERT_EQ(lsetxattr(tool.c_str(), "user.TA.shdr", "\0\1", 2, 0), 0);
    static_cast<void>(lsetxattr(tool.c_str(), "security.evm", "of one inode", 12, 0)); // some kernels refuse
    ASSERT_EQ(chown(tool.c_str(), 12, 34), 0);
    ASSERT_EQ(chmod(tool.c_str(), 04755), 0);
    fs::last_write_time(tool, fs::file_time_type(std::chrono::seconds(1)));
    database.install(app, entries, unpacked);

    const auto copy = system / "usr/bin/tool";
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool")),
                                        Pair("/usr/lib/connman/plugins-vpn/vpn.so",
                                             path("current/connman/plugin/vpn.so"))));
    struct stat status {};
    ASSERT_EQ(lstat(copy.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 04755U);
    EXPECT_EQ(status.st_uid, 12U);
    EXPECT_EQ(status.st_gid, 34U);
    EXPECT_EQ(fs::last_write_time(copy), fs::file_time_type(std::chrono::seconds(1)));
    EXPECT_EQ(extendedAttribute(copy, "security.ima"), "signature");
    EXPECT_EQ(extendedAttribute(copy, "user.TA.shdr"), std::string("\0\1", 2));
    EXPECT_LT(lgetxattr(copy.c_str(), "security.evm", nullptr, 0), 0);
    EXPECT_EQ(readFile(system / "usr/lib/connman/plugins-vpn/vpn.so"), std::string(600000, 'v'));

    database.remove(app.id());
    EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(AMapping, CanBeACopyOfAFileThatItsOwnerMayNotWrite) {
    const auto unpacked = extract({{"connman/plugin/vpn.so", "v"}});
    fs::permissions(unpacked / "connman/plugin/vpn.so", fs::perms(0444));
    const DroppedCapabilities dropped;
    database.install(app, entries, unpacked);
    const auto copy = system / "usr/lib/connman/plugins-vpn/vpn.so";
    EXPECT_EQ(fs::status(copy).permissions(), fs::perms(0444));
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/lib/connman/plugins-vpn/vpn.so",
                                             path("current/connman/plugin/vpn.so"))));
    database.remove(app.id());
    EXPECT_FALSE(fs::exists(copy));
}

TEST_F(AMapping, ReplacesAnotherPackagesButRollsBackAtASystemFile) {
    install(PackageIdentity("other", "1-1"), {{"bin/tool", "other"}});
    install(app, {{"bin/tool", "x"}});
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool"))));
    // A mapping that another package has taken over is not removed with its former owner.
    database.remove("other");
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool"))));

    writeFile(system / "usr/share/third/real", "system");
    EXPECT_ERROR(install(PackageIdentity("third", "1-1"), {{"bin/first", "x"}, {"data/real", "x"}}),
                 Filesystem, "couldn't create mappings");
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool")),
                                        Pair("/usr/share/third/real", "")));
}

TEST_F(AMapping, IsSkippedByRemovalOnceARealFileHasItsPlace) {
    install(app, {{"bin/a", "x"}, {"bin/b", "x"}});
    fs::remove(system / "usr/bin/a");
    writeFile(system / "usr/bin/a", "from a system package");
    const LogCapture log;
    database.remove(app.id());
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN: skip removing the generated package symlink, since it was most likely "
                            "overwritten via rpm: \"/usr/bin/a\""));
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/a", "")));
}

TEST_F(AMapping, ThatCannotBeMadeIsAnErrorWithItsCause) {
    writeFile(system / "usr/bin", "in the way");
    const LogCapture log;
    const auto version = extract({{"bin/tool", "x"}});
    const auto plan = Core::ZUL::planMappings(app, version);
    EXPECT_ERROR(of.createMappings(plan, version), Filesystem, "couldn't create mappings");
    EXPECT_THAT(log.text(), HasSubstr("couldn't create symlink " + (version / "bin/tool").native() +
                                      " -> /usr/bin/tool\n"));
    EXPECT_FALSE(of.removeMappings(version));
    fs::create_directory(version / "symlink.list");
    fs::create_directory(version / "symlink.list/x");
    EXPECT_ERROR(of.createMappings(plan, version), Filesystem, "couldn't write lines to mapping list");
}

TEST_F(AMapping, ThatCouldNotBeRemovedStaysOnTheListUntilItCan) {
    install(app, {{"bin/tool", "1"}, {"data/old", "1"}});
    prepare(newer, {{"bin/tool", "2"}});
    const DroppedCapabilities dropped;
    const auto share = system / "usr/share/com.example.app";
    const auto list = dir() / "current/symlink.list";
    fs::permissions(share, fs::perms(0));
    database.completeUpgrade(newer);
    for (const auto mode : {fs::perms(0), fs::perms(0555)}) {
        EXPECT_EQ(readFile(list), "/usr/bin/tool\n/usr/share/com.example.app/old\n");
        fs::permissions(share, mode);
        database.refreshMappings(app.id());
    }
    EXPECT_EQ(readFile(list), "/usr/bin/tool\n/usr/share/com.example.app/old\n");

    // Of mappings that are rolled back as well.
    const auto next = extract({{"data/a", "x"}, {"symlink.list", "/usr/share/com.example.app/old\n"}});
    EXPECT_THROW(of.createMappings(Core::ZUL::planMappings(newer, next), next), Error);
    EXPECT_EQ(readFile(next / "symlink.list"),
              "/usr/share/com.example.app/a\n/usr/share/com.example.app/old\n");
    fs::permissions(share, fs::perms(0755));
    database.refreshMappings(app.id());
    EXPECT_EQ(readFile(list), "/usr/bin/tool\n");
    EXPECT_THAT(mappings(), ElementsAre(Pair("/usr/bin/tool", path("current/bin/tool"))));
}

TEST_F(AMapping, ThatCouldNotBeRemovedIsRemovedWithTheNextLookAtThePackage) {
    install(app, {{"data/file", "x"}});
    const DroppedCapabilities dropped;
    const auto share = system / "usr/share/com.example.app";
    fs::permissions(share, fs::perms(0555));
    database.remove(app.id());
    EXPECT_EQ(mappings().size(), 1U);
    EXPECT_THAT(database.packages(), IsEmpty());
    fs::permissions(share, fs::perms(0755));
    EXPECT_ERROR(database.packageDirectory(app.id()), CorruptedInstalledPackage, testing::_);
    EXPECT_THAT(entriesIn(root), IsEmpty());
    EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(AMapping, TakesThePlaceOfADirectoryThatOnlyThePackageHas) {
    const auto place = system / "usr/share/com.example.app/a";
    install(app, {{"data/a/b/c", "1"}});
    prepare(newer, {{"data/a", "2"}});
    writeFile(place / "other", "system");
    EXPECT_ERROR(database.completeUpgrade(newer), Filesystem, "couldn't create mappings");
    EXPECT_EQ(readFile(place / "other") + readFile(place / "b/c"), "system1");
    fs::remove(place / "other");
    database.completeUpgrade(newer);
    EXPECT_EQ(readFile(place), "2");
}

TEST_F(AMapping, BelongsToThePackageOfItsTarget) {
    for (const bool isGone : {false, true}) {
        SCOPED_TRACE(isGone);
        const auto alias = scratch.path() / "alias";
        fs::create_directory_symlink(root, alias);
        Database other(alias, temp, system);
        other.install(app, entries, extract({{"bin/old", "1"}, {"bin/tool", "1"}}));
        EXPECT_THAT(mappings(),
                    testing::Contains(Pair("/usr/bin/tool", alias / app.id() / "current/bin/tool")));
        if (isGone) {
            // "current" is dangling then, and the package is damaged.
            fs::remove(alias);
            EXPECT_THAT(database.packages(), IsEmpty());
            EXPECT_THAT(mappings(), IsEmpty());
            continue;
        }
        prepare(newer, {{"bin/kept", "2"}, {"bin/tool", "2"}});
        database.completeUpgrade(newer);
        const auto kept = Pair("/usr/bin/kept", path("current/bin/kept"));
        EXPECT_THAT(mappings(), ElementsAre(kept, Pair("/usr/bin/tool", path("current/bin/tool"))));
        // As another package's it is replaced.
        other.install(PackageIdentity("com.example.other", "1"), entries, extract({{"bin/tool", "3"}}));
        EXPECT_EQ(readFile(system / "usr/bin/tool"), "3");
        other.remove("com.example.other");
        EXPECT_THAT(mappings(), ElementsAre(kept));
        other.remove(app.id());
        EXPECT_THAT(mappings(), IsEmpty());
        fs::remove(alias);
    }
}

TEST_F(AMapping, NeverTakesThePlaceOfALinkOfTheSystem) {
    for (const auto& target : {fs::path("dash"), fs::path("/bin/dash"), scratch.path() / "absent"}) {
        fs::create_directories(system / "usr/bin");
        fs::create_symlink(target, system / "usr/bin/sh");
        EXPECT_ERROR(install(app, {{"bin/sh", "x"}}), Filesystem, "couldn't create mappings");
        EXPECT_EQ(fs::read_symlink(system / "usr/bin/sh"), target);
        fs::remove(system / "usr/bin/sh");
    }
}

TEST_F(AMapping, StaysBelowTheSystemRootWhoseLinksAreItsOwn) {
    fs::create_directories(system / "real/share");
    fs::create_directories(system / "usr");
    fs::create_directory_symlink("/real/share", system / "usr/share");
    install(app, {{"data/file", "x"}});
    EXPECT_TRUE(fs::is_symlink(system / "real/share/com.example.app/file"));
    database.remove(app.id());
    EXPECT_THAT(entriesIn(system / "real/share/com.example.app"), IsEmpty());
}

TEST(TheGuideForPackageAuthors, HasARowForEachPlace) {
    const auto guide = readFile(PACKAGING_GUIDE);
    std::string table;
    for (const auto& rule :
         Core::ZUL::mappingRules(PackageIdentity("ID", "1.0-1", "ORGANIZATION", "APPLICATION"))) {
        table += "| `" + rule.target + "` | `" + rule.source + "` | " +
                 (rule.kind == Core::ZUL::MappingKind::Copy ? "copy" : "link") + " |\n";
    }
    EXPECT_THAT(guide, HasSubstr("|---|---|---|\n" + table + "\n"));
}

} // namespace Testbed

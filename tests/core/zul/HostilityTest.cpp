#include "common/Files.h"
#include "common/PrintableText.h"
#include "tests/core/zul/DatabaseTest.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace Testbed {

/// The files around the database that hostile names, links and lists point to must not change.
class ADatabaseUnderAttack : public DatabaseTest {
protected:
    ADatabaseUnderAttack() {
        for (const auto* name : {"victim", "app/bystander/1-1", "system/victim"}) {
            writeFile(outside() / name / "file", "precious");
        }
        fs::remove_all(root / "bystander");
        install(PackageIdentity("bystander", "1-1"), {{"bin/bystander", "x"}});
        fs::create_symlink("/somewhere", system / "usr/bin/foreign");
    }

    [[nodiscard]] fs::path outside() const { return root.parent_path(); }
};

TEST_F(ADatabaseUnderAttack, RefusesHostileNamesWithoutChanges) {
    const auto before = digestOfTree(outside());
    for (const std::string id :
         {"", "/", ".", "..", "/..", "//x", "a/b", "../victim", "a\nb", "a\x7f", "caf\xe9"}) {
        const auto message =
            "not a package identifier: " + Common::printable(id.starts_with('/') ? id.substr(1) : id);
        EXPECT_ERROR(database.packageDirectory(id), BadPackageID, message);
        EXPECT_ERROR(database.packageData(id), BadPackageID, message);
        EXPECT_ERROR(database.remove(id), BadPackageID, message);
        EXPECT_ERROR(database.refreshMappings(id), BadPackageID, message);
        EXPECT_ERROR(PackageIdentity(id, "1-1"), BadPackageID, message);
    }
    for (const std::string version :
         {"", ".", "..", "1/2", "../../victim", "current", "next", "1\t2", "1\xe9", " 1", "1 "}) {
        EXPECT_ERROR(PackageIdentity("bystander", version), BadPackage,
                     "couldn't parse package version: " + version);
    }
    // A record does not keep the space.
    EXPECT_ERROR(PackageIdentity("x ", "1-1"), BadPackageID,
                 "package identifier begins or ends with a space: x ");
    for (const std::string name : {"", "..", "../../../etc", "a\nb", "caf\xe9", " Org", "Org "}) {
        EXPECT_ERROR(PackageIdentity("x", "1-1", name, "App"), BadPackage,
                     "application name can't be a directory's name: " + name);
        EXPECT_ERROR(PackageIdentity("x", "1-1", "Org", name), BadPackage,
                     "application name can't be a directory's name: " + name);
    }
    EXPECT_EQ(digestOfTree(outside()), before);
}

TEST_F(ADatabaseUnderAttack, NeverDeletesThroughLinks) {
    const auto before = digestOfTree(outside());
    const auto victims = {
        outside() / "victim",     root / "bystander",           root / "bystander/1-1", root,
        fs::path("../../victim"), fs::path("../bystander/1-1"), fs::path(".."),         fs::path("."),
        fs::path("../x")};
    for (const auto& victim : victims) {
        for (const std::string operation :
             {"read", "complete", "check", "recover", "damaged", "swept", "remove"}) {
            install(app, {{"bin/tool", "x"}});
            fs::create_directory_symlink(outside() / "victim", dir() / "1.0-1/bin/deep");
            fs::create_symlink(victim, dir() / "next");
            try {
                if (operation == "read") {
                    static_cast<void>(database.packages());
                } else if (operation == "complete") {
                    database.completeUpgrade(newer);
                } else if (operation == "check") {
                    database.checkUpgrade(newer);
                } else if (operation == "recover") {
                    database.recoverDatabase();
                } else if (operation == "damaged" || operation == "swept") {
                    fs::remove(dir() / "current");
                    fs::rename(dir() / "next", dir() / "current");
                    operation == "swept" ? static_cast<void>(database.recoverDatabase())
                                         : static_cast<void>(database.packages());
                }
                database.remove(app.id());
            } catch (const Error&) {
                // A refusal is accepted too; the next operation removes the rest.
            }
            database.cleanupCorruptedPackage(dir());
            database.recoverDatabase();
            fs::create_directories(temp);
            EXPECT_EQ(digestOfTree(outside()), before) << victim << ' ' << operation;
        }
    }
}

TEST_F(ADatabaseUnderAttack, ChangesNothingBehindALinkedPackageDirectory) {
    const auto record = readFile(root / "bystander/1-1/quenra.pkg");
    const auto victim = outside() / "victim";
    fs::create_directories(victim / "1-1");
    fs::create_symlink(victim / "1-1", victim / "current");
    fs::create_symlink(victim / "2-1", victim / "next");
    for (const bool isSound : {true, false}) {
        writeFile(victim / "2-1/quenra.pkg", isSound ? record : "damaged");
        writeFile(victim / "1-1/quenra.pkg", isSound ? record : "damaged");
        const auto before = digestOfTree(outside());
        const std::string refusal = "package directory is a link: " + (root / "linked").native();
        for (const std::string operation : {"read", "recover", "remove", "complete", "refresh", "prepare"}) {
            fs::create_directory_symlink(victim, root / "linked");
            if (operation == "read") {
                static_cast<void>(database.packages());
            } else if (operation == "recover") {
                database.recoverDatabase();
            } else if (operation == "remove") {
                database.remove("linked");
            } else if (operation == "complete") {
                EXPECT_ERROR(database.completeUpgrade(PackageIdentity("linked", "2-1")), Filesystem, refusal);
            } else if (operation == "refresh") {
                EXPECT_ERROR(database.refreshMappings("linked"), Filesystem, refusal);
            } else {
                EXPECT_ERROR(prepare(PackageIdentity("linked", "3-1")), Filesystem, refusal);
            }
            fs::remove(root / "linked");
            fs::remove_all(temp);
            fs::create_directories(temp);
            EXPECT_EQ(digestOfTree(outside()), before) << operation << isSound;
        }
    }
    const auto before = digestOfTree(outside());
    fs::create_directory_symlink(outside() / "victim", temp / "unpacked");
    EXPECT_ERROR(database.install(app, entries, temp / "unpacked"), Internal,
                 "extracted package directory doesn't exist: " + (temp / "unpacked").native());
    fs::remove(temp / "unpacked");
    EXPECT_EQ(digestOfTree(outside()), before);
}

TEST_F(ADatabaseUnderAttack, RemovesOnlyItsOwnMappings) {
    const auto before = digestOfTree(outside());
    install(app, {});
    writeFile(dir() / "current/symlink.list",
              "/usr/bin/bystander\n/usr/bin/foreign\n/victim/file\n/../victim/file\n"
              "relative\n\n/\n/usr/bin/..\n/usr/bin/.\n" +
                  (outside() / "victim/file").native() + "\n" + std::string(5000, 'x') + "/y");
    database.remove(app.id());
    EXPECT_EQ(digestOfTree(outside()), before);
}

TEST_F(ADatabaseUnderAttack, IgnoresRecordsAndListsInPayloadsAndRefusesOutwardLinks) {
    auto unpacked =
        extract({{"bin/tool", "x"}, {"symlink.list", "/usr/bin/foreign\n"}, {"quenra.pkg", "damaged"}});
    database.install(app, entries, unpacked);
    EXPECT_EQ(readFile(dir() / "current/symlink.list"), "/usr/bin/tool\n");
    database.remove(app.id());
    const auto before = digestOfTree(outside());

    unpacked = extract({{"data/x", "x"}});
    fs::create_directory_symlink(outside() / "victim", unpacked / "bin");
    fs::create_symlink(outside() / "victim/file", unpacked / "symlink.list");
    EXPECT_THROW(database.install(app, entries, unpacked), Error);
    fs::remove_all(unpacked);

    EXPECT_ERROR(install(app, {{"bin/a\n", "x"}}), BadPackage,
                 "file name can't be mapped: " + (temp / "unpacked/bin/a\n").native());
    fs::remove_all(temp / "unpacked"); // What a mapping is called while it is made:
    EXPECT_ERROR(install(app, {{"bin/.zul-mapping", "x"}}), BadPackage,
                 "file name can't be mapped: " + (temp / "unpacked/bin/.zul-mapping").native());
    fs::remove_all(temp / "unpacked");
    // A file installed before such names were refused does not prevent the other mappings.
    install(app, {{"bin/tool", "x"}});
    writeFile(dir() / "current/bin/.zul-mapping", "x");
    fs::remove(system / "usr/bin/tool");
    database.refreshMappings(app.id());
    EXPECT_EQ(mappings().at("/usr/bin/tool"), path("current/bin/tool"));
    database.remove(app.id());

    // A copy follows no link out of the package and waits for no FIFO.
    for (const bool isFifo : {false, true}) {
        unpacked = extract({{"connman/plugin/vpn.so", "x"}});
        if (isFifo) {
            ASSERT_EQ(mkfifo((unpacked / "connman/plugin/fifo").c_str(), 0600), 0);
        } else {
            fs::create_symlink(outside() / "victim/file", unpacked / "connman/plugin/link");
        }
        EXPECT_ERROR(database.install(app, entries, unpacked), Filesystem, "couldn't create mappings");
    }
    fs::remove(system / "usr/lib/connman/plugins-vpn");
    fs::remove(system / "usr/lib/connman");
    fs::remove(system / "usr/lib");
    EXPECT_EQ(digestOfTree(outside()), before);
}

TEST_F(ADatabaseUnderAttack, RemovesDeepAndProtectedTrees) {
    const auto top = temp / "deep";
    fs::create_directories(top);
    int directory = open(top.c_str(), O_PATH);
    for (int depth = 0; depth < 400; ++depth) {
        ASSERT_EQ(mkdirat(directory, "d", 0700), 0);
        const int below = openat(directory, "d", O_PATH);
        fs::permissions("/proc/self/fd/" + std::to_string(directory), fs::perms((depth % 8) << 6));
        close(directory);
        directory = below;
    }
    close(directory);
    const DroppedCapabilities dropped;
    Common::removeTree(top);
    EXPECT_FALSE(fs::exists(top));
}

} // namespace Testbed

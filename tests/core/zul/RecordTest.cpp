#include "core/zul/Record.h"

#include "tests/core/zul/DatabaseTest.h"

#include <sys/stat.h>

namespace Testbed {

using Core::ZUL::readRecord;
using Core::ZUL::writeRecord;

class ARecord : public DatabaseTest {
protected:
    PackageData written(const PackageIdentity& package, const PackageData& further) {
        writeRecord(package, further, temp);
        return readRecord(temp / "quenra.pkg");
    }

    PackageData withText(const std::string& text) {
        writeFile(file, text);
        return readRecord(file);
    }

    ARecord() { fs::create_directories(temp); }

    fs::path file = temp / "quenra.pkg";
};

TEST_F(ARecord, KeepsWhatItWasGiven) {
    auto further = entries;
    further["applicationdata.setupdata"] = " a = b ; c ";
    further["certificate.empty"] = "";
    EXPECT_THAT(written(PackageIdentity("app", "1-1", "Org", "Äpp"), further),
                ElementsAre(Pair("applicationdata.setupdata", "a = b ; c"), Pair("certificate.empty", ""),
                            Pair("certificate.id", "0a1b"), Pair("certificate.subgroup", "apps"),
                            Pair("general.appname", "Äpp"), Pair("general.id", "app"),
                            Pair("general.orgname", "Org"), Pair("general.version", "1-1")));
    EXPECT_FALSE(written(PackageIdentity("app", "1-1", "Org"), entries).contains("general.orgname"));
}

TEST_F(ARecord, ReplacesALinkAndNeverWritesThroughIt) {
    writeFile(temp / "victim", "precious");
    fs::create_symlink(temp / "victim", file);
    written(app, entries);
    EXPECT_FALSE(fs::is_symlink(file));
    EXPECT_EQ(readFile(temp / "victim"), "precious");
}

TEST_F(ARecord, RefusesEntriesThatWouldReadBackDifferently) {
    written(app, entries);
    const auto before = digestOfTree(temp);
    const PackageData bad[] = {{{"certificate.id", "x\n[general]\nid=other"}},
                               {{"certificate.id", "x\nextra=1"}},
                               {{"too.deep.key", "x"}},
                               {{"nosection", "x"}},
                               {{"a.;key", "x"}},
                               {{"a.k=y", "x"}},
                               {{"a]\n[b.key", "x"}},
                               {{"a.key", std::string(2 << 20, 'x')}}};
    for (const auto& entry : bad) {
        EXPECT_ERROR(writeRecord(app, entry, temp), Filesystem,
                     "couldn't create quenra.pkg file " + file.native());
    }
    EXPECT_EQ(digestOfTree(temp), before);
    EXPECT_ERROR(writeRecord(app, entries, temp / "absent"), Filesystem,
                 "couldn't create quenra.pkg file " + (temp / "absent/quenra.pkg").native());
}

TEST_F(ARecord, ThatIsDamagedIsRefusedWithTheReason) {
    EXPECT_ERROR(readRecord(file), CorruptedInstalledPackage, "quenra.pkg doesn't exist: " + file.native());
    fs::create_symlink("nowhere", file);
    EXPECT_ERROR(readRecord(file), CorruptedInstalledPackage, "quenra.pkg doesn't exist: " + file.native());
    fs::remove(file);
    EXPECT_ERROR(withText("[general]\nid=a\nversion=1\n"), CorruptedInstalledPackage,
                 "package doesn't contains required key: certificate.subgroup");
    EXPECT_ERROR(withText("[general]\nid=a\n[certificate]\nid=x\n"), CorruptedInstalledPackage,
                 "package doesn't contains required key: general.version");
    EXPECT_ERROR(withText("[general]\nid=a\nversion=1\n[certificate]\nsubgroup=x\n"),
                 CorruptedInstalledPackage, "package doesn't contains required key: certificate.id");
    for (const auto* text :
         {"no equals sign", "[general", "[a]\nk=1\nk=2\n", "[a]\nk=1\n[a]\nl=2\n", "\xff\x01"}) {
        EXPECT_ERROR(withText(text), CorruptedInstalledPackage,
                     testing::StartsWith("couldn't parse quenra.pkg file: " + file.native() + "("));
    }
}

TEST_F(ARecord, IsNeverWaitedForNorReadWithoutBound) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_ERROR(readRecord(file), CorruptedInstalledPackage, HasSubstr("not a regular file of at most"));
    fs::remove(file);
    writeFile(file, "");
    fs::resize_file(file, 1ULL << 40);
    EXPECT_ERROR(readRecord(file), CorruptedInstalledPackage, HasSubstr("not a regular file of at most"));
}

} // namespace Testbed

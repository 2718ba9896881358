#include "tests/core/zul/package/SignedPackage.h"

#include <rpm/header.h>

#include <malloc.h>

namespace Testbed {

class APackage : public SignedPackage {
protected:
    const fs::path file = scratch.path() / "package.rpm";
};

TEST_F(APackage, HasAnIdentityADeveloperAndASource) {
    const auto built = signedPackage({.files = {{"/usr/bin/tool", "x", "0755"}, {manifestPath, manifest}}});
    const auto package = Package::fromFile(built, authorities);
    EXPECT_EQ(package.id(), "com.example.app");
    EXPECT_EQ(package.version(), "1.0-1");
    EXPECT_EQ(package.architecture(), "noarch");
    EXPECT_EQ(package.orgName(), "org.example");
    EXPECT_EQ(package.appName(), "tool");
    EXPECT_EQ(package.sourceKeyId(), ".no.source.apps");
    EXPECT_EQ(package.sourceSubject(), "");
    EXPECT_FALSE(package.isSystemDeveloper());

    sign(built, "client", "client");
    const auto fromClient = Package::fromFile(built, authorities);
    EXPECT_NE(fromClient.sourceKeyId(), ".no.source.apps");
    EXPECT_THAT(fromClient.sourceSubject(), HasSubstr("Test client"));
    EXPECT_EQ(fromClient.developerCms().certificate().keyId(), package.developerCms().certificate().keyId());
}

TEST_F(APackage, WithoutManifestOrSystemDeveloperKeyIsAcceptedWithAWarning) {
    const auto built = buildPackage(scratch.path(), {.files = {{"/usr/bin/tool", "x", "0755"}}});
    sign(built, "developer", "system-developer");
    const LogCapture log;
    const auto package = Package::fromFile(built, authorities);
    EXPECT_TRUE(package.isSystemDeveloper());
    EXPECT_FALSE(package.orgName() || package.appName());
    EXPECT_EQ(log.text(), "WARN: the package does not contain a manifest: " + manifestPath + "\n");
    writeFile(authorities.systemDeveloperKeyId, "other\n" + readFile(authorities.systemDeveloperKeyId));
    EXPECT_FALSE(Package::fromFile(built, authorities).isSystemDeveloper());
    fs::remove(authorities.systemDeveloperKeyId);
    EXPECT_FALSE(Package::fromFile(built, authorities).isSystemDeveloper());
    EXPECT_EQ(log.lines().back(), "WARN: couldn't retrieve system developer key id");
}

// Each package has all the faults that are looked for later.
TEST_F(APackage, IsRefusedForTheFirstOfItsFaults) {
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::FileNotFound, "couldn't open rpm package"));
    writeFile(file, "text");
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::BadPackage, "couldn't read rpm package"));
    const CraftedEntry badManifest{"/usr/share/applications/", "com.example.app.desktop", S_IFREG | 0644U,
                                   "Name"};
    craftPackage(file, {badManifest}, {"..", "1/2"});
    EXPECT_EQ(refusalOf(file).first, ErrorCode::BadPackageID);
    craftPackage(file, {badManifest}, {"caf\xe9", "1/2"});
    EXPECT_EQ(refusalOf(file).first, ErrorCode::BadPackageID);
    craftPackage(file, {badManifest}, {.version = "1/2"});
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::BadPackage, HasSubstr("version: 1/2")));
    craftPackage(file, {badManifest});
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::BadPackage, HasSubstr("manifest: ")));

    const std::vector<CraftedEntry> good{{"/usr/bin/", "tool"}};
    craftPackage(file, good);
    EXPECT_THAT(refusalOf(file),
                Pair(ErrorCode::BadPackageSignature, "couldn't retrieve cmses from package"));
    craftPackage(file, {{"/usr/bin/", "huge", S_IFREG | 0644U, "x", 0, 0xffffffffU}, badManifest});
    EXPECT_EQ(refusalOf(file).first, ErrorCode::BadPackageSignature); // not worth unpacking that much
    sign(file, "developer", "developer");
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::BadPackage, HasSubstr("payload")));
    craftPackage(file, good);
    sign(file, "client", "client");
    const auto byClient = readFile(file);
    writeFile(file, byClient.substr(0, byClient.size() - 1));
    EXPECT_EQ(refusalOf(file).first, ErrorCode::BadPackageSignature); // no trailer is no signature
    fs::copy_file(keys / "developer.pem", keys / "ca.pem", fs::copy_options::overwrite_existing);
    writeFile(file, byClient);
    const std::pair wrongKey(ErrorCode::BadPackageSignature,
                             std::string("package is signed with a non-legal key"));
    EXPECT_EQ(refusalOf(file), wrongKey);
}

TEST_F(APackage, NeedsADeveloper) {
    craftPackage(file, {{"/usr/bin/", "tool"}});
    sign(file, "client", "client");
    EXPECT_THAT(refusalOf(file),
                Pair(ErrorCode::BadPackageSignature, "package doesn't have developer signature"));
    const auto bytes = readFile(file);
    for (std::size_t place = 96; place < bytes.size(); place += bytes.size() / 50) {
        auto changed = bytes;
        changed[place] = static_cast<char>(changed[place] ^ 1);
        writeFile(file, changed);
        EXPECT_NE(refusalOf(file).second, "package doesn't have developer signature") << place;
    }
}

TEST_F(APackage, WithAnInvalidManifestIsRefused) {
    const auto refusalWith = [&](CraftedEntry entry) {
        entry.directory = "/usr/share/applications/";
        entry.name = "com.example.app.desktop";
        craftPackage(file, {entry});
        return refusalOf(file);
    };
    auto evil = manifest;
    evil.replace(evil.find("org.example"), 11, "../../../..");
    EXPECT_THAT(refusalWith({.content = evil}), Pair(ErrorCode::BadPackage, HasSubstr("../../../..")));
    EXPECT_THAT(refusalWith({.mode = S_IFLNK | 0777U, .content = "/etc/passwd"}).second,
                HasSubstr("not a regular file"));
    EXPECT_THAT(refusalWith({.content = std::string(1024 * 1024 + 1, '#')}).second, HasSubstr("too large"));
    EXPECT_THAT(refusalWith({.declaredSize = 0xffffffffU}).second, HasSubstr("too large"));
    EXPECT_THAT(refusalWith({.mode = S_IFLNK | 0777U, .declaredSize = 0xffffffffU}).second,
                HasSubstr("too long"));
    EXPECT_THAT(refusalWith({.content = manifest, .archived = evil}).second, HasSubstr("couldn't read"));
}

TEST_F(APackage, IsABinaryPackageFromItsFirstByteToItsSignatures) {
    const std::vector<CraftedEntry> entries{{"/usr/bin/", "tool", S_IFREG | 0755U, "content"}};
    const auto refusalWith = [&](const std::string& bytes) {
        writeFile(file, bytes);
        sign(file, "developer", "developer");
        return refusalOf(file);
    };
    const auto whole = craftedPackage(entries);
    EXPECT_EQ(refusalWith(whole).first, ErrorCode::None);
    const auto signedOnce = readFile(file);
    writeFile(file, whole.substr(0, whole.size() - 4));
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::BadPackage, "the rpm package is truncated"));
    EXPECT_EQ(refusalWith(whole.substr(0, whole.size() - 4)).first, ErrorCode::BadPackage);
    for (const auto& bytes : {whole + "garbage", signedOnce + "x"}) {
        const LogCapture log;
        EXPECT_EQ(refusalWith(bytes).second, "couldn't open file for reading cmses");
        EXPECT_THAT(log.text(), HasSubstr("WARN: couldn't read the signatures of \"" + file.native() +
                                          "\": package's signatures do not begin where its payload ends\n"));
    }
    const std::string skipped("\x51\x2a\x4d\x18\x01\0\0\0x", 9);
    for (const std::string more : {"\x1f\x8b", "\x22\xb5\x2f\xfd", "\x28\xb5\x2f\xfd"}) {
        const std::pair refusal(ErrorCode::BadPackage,
                                std::string("the payload of the rpm package continues after its end"));
        EXPECT_EQ(refusalWith(whole + more), refusal);
        EXPECT_EQ(refusalWith(whole + skipped + more), refusal);
    }
    const auto place = whole.rfind("content");
    EXPECT_THAT(refusalWith(std::string(whole).replace(place, 7, "CONTENT")),
                Pair(ErrorCode::BadPackage, HasSubstr("does not match its digest")));
    const auto refusalIf = [&](const std::function<void(Header)>& adjust) {
        return refusalWith(craftedPackage(entries, {.adjust = adjust}));
    };
    EXPECT_EQ(refusalIf([](Header header) { headerDel(header, RPMTAG_PAYLOADDIGEST); }).first,
              ErrorCode::None); // rpm had none for twenty years
    EXPECT_EQ(refusalIf([](Header header) { headerDel(header, RPMTAG_PAYLOADDIGESTALGO); }).first,
              ErrorCode::BadPackage);
    const std::uint32_t yes = 1;
    EXPECT_THAT(refusalIf([&](Header header) { headerPutUint32(header, RPMTAG_SOURCEPACKAGE, &yes, 1); }),
                Pair(ErrorCode::BadPackage, "the package is a source package"));
}

// 200,000 entries, each to be found in a list of as many: name by name that takes eight minutes.
TEST_F(APackage, WithManyUnsortedFilesIsReadInTime) {
    std::vector<CraftedEntry> entries;
    for (int number = 999'999; number >= 800'000; --number) {
        entries.push_back({"/usr/share/" + std::to_string(number) + "/", "d", S_IFDIR | 0755U});
    }
    entries.push_back({"/usr/share/applications/", "com.example.app.desktop", S_IFREG | 0644U, manifest});
    craftPackage(file, entries);
    sign(file, "developer", "developer");
    EXPECT_EQ(Package::fromFile(file, authorities).appName(), "tool");
    entries.back().archived = "another manifest of some other length";
    craftPackage(file, entries);
    EXPECT_EQ(refusalOf(file).first, ErrorCode::BadPackageSignature); // the manifest is not looked for so far
}

TEST_F(APackage, WithInconsistentArraysLeaksNoMemory) {
    constexpr rpm_count_t count = 1'000'000;
    const std::vector<std::uint32_t> million(count);
    const LogCapture librpmsOwnLines;
    for (const auto tag : {RPMTAG_FILEFLAGS, RPMTAG_DIRINDEXES, RPMTAG_FILEINODES}) {
        craftPackage(file, {{"/usr/bin/", "tool"}}, {.adjust = [&](Header header) {
                         headerDel(header, tag);
                         headerPutUint32(header, tag, million.data(), count);
                     }});
        sign(file, "client", "client");
        const std::pair refusal(ErrorCode::BadPackage,
                                std::string("couldn't open rpm package for extraction"));
        EXPECT_EQ(refusalOf(file), refusal);
        const auto before = mallinfo2();
        for (int time = 0; time < 5; ++time) {
            EXPECT_EQ(refusalOf(file), refusal);
        }
        const auto after = mallinfo2();
        EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 1'000'000) << tag;
    }
    for (const std::uint32_t directory : {1U, 0xffffffffU}) {
        craftPackage(file, {{"/usr/bin/", "tool"}}, {.adjust = [&](Header header) {
                         headerDel(header, RPMTAG_DIRINDEXES);
                         headerPutUint32(header, RPMTAG_DIRINDEXES, &directory, 1);
                     }});
        EXPECT_THAT(refusalOf(file).second, HasSubstr("for extraction"));
    }
    craftPackage(file, {{"/" + std::string(4096, 'd') + "/", "tool"}});
    EXPECT_THAT(refusalOf(file).second, HasSubstr("name that is too long"));
    craftPackage(file, {{"/", "b", S_IFREG | 0644U, "x", 7}, {"/", "a", S_IFREG | 0644U, "x", 7}});
    EXPECT_THAT(refusalOf(file).second, HasSubstr("hard links in order"));
}

TEST_F(APackage, IsUnpackedNoFurtherThanItsManifest) {
    craftPackage(file, {{"/usr/bin/", "first"},
                        {"/usr/share/applications/", "another.desktop", S_IFREG | 0644U, manifest, 7},
                        {"/usr/share/applications/", "com.example.app.desktop", S_IFREG | 0644U, manifest, 7},
                        {"/usr/share/x/", "damaged", S_IFREG | 0644U, "right", 0, {}, "", true, "wrong"},
                        {"/usr/share/x/", "missing", S_IFREG | 0644U, "", 0, {}, "", false}});
    sign(file, "developer", "developer");
    const auto package = Package::fromFile(file, authorities);
    EXPECT_EQ(package.appName(), "tool");
    EXPECT_ERROR(package.extract(file, destination), BadPackage, HasSubstr("/usr/share/x/damaged"));
}

} // namespace Testbed

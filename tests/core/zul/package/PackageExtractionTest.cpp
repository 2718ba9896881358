#include "core/zul/package/DestinationTree.h"
#include "core/zul/package/PackagePath.h"
#include "tests/core/zul/package/SignedPackage.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Testbed {

namespace {

using Core::ZUL::PackagePath;

/// Every file and link below a directory: its path, translated, with all that unpacking decides about it.
std::map<std::string, std::string> filesOf(const fs::path& directory, const PackagePath& paths) {
    std::map<std::string, std::string> files;
    std::map<ino_t, std::string> firstNames;
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (!entry.is_directory() || entry.is_symlink()) {
            found.push_back(entry.path().lexically_relative(directory));
        }
    }
    std::sort(found.begin(), found.end());
    for (const auto& path : found) {
        struct stat status {};
        EXPECT_EQ(lstat((directory / path).c_str(), &status), 0);
        const auto place = paths.toPackagePath("/" + path.string()).string();
        const auto first = firstNames.emplace(status.st_ino, place).first->second;
        files[place] = std::to_string(status.st_mode & (S_IFMT | 0777U)) + " " + first + " " +
                       (S_ISLNK(status.st_mode) ? fs::read_symlink(directory / path).string()
                                                : readFile(directory / path));
    }
    return files;
}

/// Unpacks a package below its folder with the tools that everybody uses.
fs::path unpackedByTheUsualTools(const fs::path& package) {
    auto reference = package.parent_path() / "reference";
    fs::create_directory(reference);
    EXPECT_EQ(
        run({"sh", "-c", "rpm2cpio " + package.string() + " | cpio -idm --quiet"}, {.directory = reference})
            .status,
        0);
    return reference;
}

} // namespace

class Payloads : public SignedPackage, public testing::WithParamInterface<const char*> {};

TEST_P(Payloads, AreUnpackedAsTheUsualToolsDo) {
    const std::string data = "%{buildroot}/usr/share/com.example.app";
    const std::string longName(200, 'n');
    std::string large;
    for (int line = 0; line < 200000; ++line) {
        large += std::to_string(line * 7919) + "\n";
    }
    const auto file = signedPackage(
        {.files = {{"/usr/bin/tool", "x", "4755"},
                   {"/etc/com.example.app.conf", "c", "0600", "%config"},
                   {"/usr/share/com.example.app/" + longName + "/" + longName, large},
                   {"/usr/share/com.example.app/gr\xC3\xB6\xC3\x9F"
                    "e \xE6\x97\xA5",
                    "text", "0400"},
                   {"/usr/share/com.example.app/empty", ""},
                   {"/opt/x/y", "under no rule"}},
         .payload = GetParam(),
         .installScript = "cd " + data +
                          "; ln -s tool.so.1 tool.so; mkdir -p a shut/inner; echo 1 > b; ln b a/c; "
                          "ln b d; touch shut/inner/f; : > e1; ln e1 e2",
         .fileList =
             "/usr/share/com.example.app/tool.so\n/usr/share/com.example.app/[a-e]*\n"
             "%dir %attr(0500,-,-) /usr/share/com.example.app/shut\n/usr/share/com.example.app/shut/inner"});
    const auto reference = unpackedByTheUsualTools(file);
    const auto package = Package::fromFile(file, authorities);
    umask(077);
    package.extract(file, destination);
    EXPECT_EQ(fs::status(destination / "opt/x").permissions(), fs::perms(0755));
    EXPECT_EQ(filesOf(destination, PackagePath({"none", "1"})), filesOf(reference, PackagePath(package)));
    EXPECT_EQ(fs::status(destination / "data/shut").permissions(), fs::perms(0500));
    EXPECT_EQ(fs::hard_link_count(destination / "data/d"), 3U);
}

INSTANTIATE_TEST_SUITE_P(OfEveryCompressor, Payloads,
                         testing::Values("w3.gzdio", "w1.xzdio", "w1.lzdio", "w3.zstdio", "w1.bzdio"));

TEST(APackagePath, InvertsTheMappingRules) {
    const PackagePath paths({"com.example.app", "1", "org.example", "tool"});
    const std::map<std::string, std::string> places{
        {"/usr/bin/tool", "bin/tool"},
        {"/usr/share/applications/tool.desktop", "manifest/tool.desktop"},
        {"/usr/bin", "bin"},
        {"/usr/binary", "usr/binary"},
        {"/opt/x/y", "opt/x/y"},
        {"/usr/share/com.example.app/a/b", "data/a/b"},
        {"/etc/connman/vpn-plugin/v", "connman/config/v"},
        {"/usr/share/common/org.example/tool/f", "common/f"}};
    for (const auto& [system, place] : places) {
        EXPECT_EQ(paths.toPackagePath(system), place);
    }
    const std::string link = "/usr/share/com.example.app/sub/link";
    const std::map<std::string, std::string> targets{{"libfoo.so.1", "libfoo.so.1"},
                                                     {"/usr/bin/tool", "../../bin/tool"},
                                                     {"../../../bin/tool", "../../bin/tool"},
                                                     {"./near", "near"},
                                                     {"/etc/passwd", "../../etc/passwd"},
                                                     {"/usr/share/com.example.app/", ".."},
                                                     {"deep/../../up", "../up"},
                                                     {"../../../../../../usr/bin/tool", "../../bin/tool"},
                                                     {"/usr/../../etc", "../../etc"},
                                                     {"a/../../../../../../../out", "../../out"},
                                                     {"/..", "../.."},
                                                     {"..", ".."}};
    for (const auto& [target, written] : targets) {
        EXPECT_EQ(paths.linkTarget(link, target), written) << target;
    }
    EXPECT_EQ(paths.linkTarget(link + "/.", "/etc"), "../../etc");
    EXPECT_EQ(paths.linkTarget(link + "//", "./near"), "near");
    EXPECT_THROW(static_cast<void>(paths.linkTarget(link, "")), Common::Error);
}

class AnExtraction : public SignedPackage {};

TEST_F(AnExtraction, AttachesTheSignaturesThatEachFileShouldHave) {
    const auto file = signedPackage({.files = {{"/usr/bin/tool", "x", "0755"},
                                               {"/etc/plain", "c", "0644", "%config"},
                                               {"/etc/run", "c", "0755", "%config"}}});
    const auto package = Package::fromFile(file, authorities);
    std::map<std::string, int> count;
    const auto counting = [&](int, const std::string& name, const std::string&) { return ++count[name], 0; };
    package.extract(file, destination, counting);
    EXPECT_EQ(count, (std::map<std::string, int>{{"security.ima", 2}, {"security.appid", 2}}));
    writeFile(scratch.path() / ".rpmmacros", "%_ima_sign_config_files 1\n");
    package.extract(file, destination, counting);
    EXPECT_EQ(count["security.ima"], 5);
    std::stop_source stop;
    const auto stopAtPlain = [&](std::uint64_t done, std::uint64_t total) {
        EXPECT_EQ(total, 3);
        done < 2 || stop.request_stop();
    };
    fs::remove_all(destination);
    EXPECT_THAT(failureOf([&] {
                    package.extract(file, destination, counting, {stopAtPlain, stop.get_token()});
                }),
                Pair(ErrorCode::Internal, "the extraction was stopped"));
    EXPECT_FALSE(fs::exists(destination / "bin/tool"));
    const auto refusing = [](int, const std::string&, const std::string&) { return EPERM; };
    EXPECT_EQ(failureOf([&] { package.extract(file, destination, refusing); }),
              std::pair(ErrorCode::Filesystem, "couldn't attach security.ima extended attribute to " +
                                                   (destination / "etc/plain").string() +
                                                   ": Operation not permitted"));
    EXPECT_ERROR(unpack(file, destination), BadPackageSignature, "package doesn't have developer signature");
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may set attributes of the name space \"security\"";
    }
    package.extract(file, destination);
    EXPECT_EQ(extendedAttribute(destination / "bin/tool", "security.appid"), "com.example.app");
    EXPECT_EQ(extendedAttribute(destination / "bin/tool", "security.ima"),
              package.developerCms().fileSignature(2));
}

TEST_F(AnExtraction, ThrowsNothingButErrors) {
    const auto file = signedPackage({.files = {{"/usr/bin/tool", "x", "0755"}}});
    const auto package = Package::fromFile(file, authorities);
    const auto failureWith = [&](const auto& exception) {
        return failureOf(
            [&] { package.extract(file, destination, [&](auto&&...) -> int { throw exception; }); });
    };
    EXPECT_THAT(failureWith(std::out_of_range("no such file")), Pair(ErrorCode::Internal, "no such file"));
    EXPECT_THAT(failureWith(std::system_error(EIO, std::generic_category(), "writer")),
                Pair(ErrorCode::Filesystem, HasSubstr("writer")));
}

TEST_F(AnExtraction, WorksOnTheFileThatWasValidatedAndNoOther) {
    const auto file = signedPackage({.files = {{"/usr/bin/tool", "x", "0755"}}});
    const auto package = Package::fromFile(file, authorities);
    fs::copy_file(file, file.string() + ".new");
    fs::rename(file.string() + ".new", file);
    EXPECT_ERROR(package.extract(file, destination), BadPackage, HasSubstr("not the one that was validated"));
    const auto again = Package::fromFile(file, authorities);
    // A writer is refused or has to wait while the lease is held, and is enough to spoil what was validated.
    const Common::UniqueFd writer(open(file.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK));
    EXPECT_TRUE(!writer || write(writer.get(), "more", 4) == 4);
    EXPECT_EQ(failureOf([&] { again.extract(file, destination); }).first, ErrorCode::BadPackage);
    fs::remove(file);
    EXPECT_EQ(failureOf([&] { again.extract(file, destination); }).first, ErrorCode::FileNotFound);
    EXPECT_FALSE(fs::exists(destination));
}

TEST_F(AnExtraction, TrustsNoFileThatSomebodyCanWriteTo) {
    const auto file = signedPackage({.files = {{"/usr/bin/tool", "x", "0755"}}});
    {
        const Common::UniqueFd reader(open(file.c_str(), O_RDONLY));
        if (fcntl(reader.get(), F_SETLEASE, F_RDLCK) != 0) {
            GTEST_SKIP() << "the file system has no leases";
        }
    }
    const auto size = fs::file_size(file);
    void* pages = nullptr;
    {
        const Common::UniqueFd writer(open(file.c_str(), O_RDWR));
        pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, writer.get(), 0);
    }
    ASSERT_NE(pages, MAP_FAILED);
    EXPECT_THAT(refusalOf(file), Pair(ErrorCode::BadPackage, "the package file is open for writing"));
    ASSERT_EQ(munmap(pages, size), 0);
    const auto package = Package::fromFile(file, authorities);
    const auto opening = [&](int, const std::string&, const std::string&) {
        const Common::UniqueFd writer(open(file.c_str(), O_WRONLY | O_NONBLOCK));
        return writer ? EIO : 0;
    };
    EXPECT_ERROR(package.extract(file, destination, opening), BadPackage, HasSubstr("opened for writing"));
}

TEST_F(AnExtraction, ReachesNothingOutsideItsDestination) {
    const auto dir = S_IFDIR | 0755U;
    const auto link = S_IFLNK | 0777U;
    const auto reg = S_IFREG | 04666U;
    struct Case {
        std::vector<CraftedEntry> entries;
        std::string expected;
    };
    const std::string data = "/usr/share/com.example.app/";
    const std::vector<Case> cases{
        {{{"/../", "victim", reg, "evil"}}, "outside its own directory: ../victim"},
        {{{"/usr/bin/", "../../victim", reg, "evil"}}, "outside its own directory: bin/../../victim"},
        {{{"/../", "made", dir}}, "outside its own directory"},
        {{{"/x/", "l", link, "/.."}, {"/x/l/", "victim", reg, "evil"}}, "below a symbolic link: /x/l"},
        {{{"/", "l", link, "../victim"}}, ""},
        {{{"/", "l", link, "a/../../victim"}}, ""},
        {{{"/", "l", link, ""}}, "a link that leads out of it: /l -> "},
        {{{data, "up", link, "/usr/"}, {data + "up/", "f", reg, "evil"}}, "below a symbolic link: /data/up"},
        {{{data, "up", link, "/"}, {data, "out", link, "up/../../victim"}}, ""},
        {{{data, "up", reg, "x"}, {data + "up/", "f", reg, "x"}}, "below a file: /data/up"},
        {{{"/usr/bin/", "tool", reg, "a"}, {"/bin/", "tool", reg, "b"}},
         "two entries for one place: /bin/tool"},
        {{{"/usr/bin/", "tool", dir}, {"/bin/", "tool", link, "b"}}, "two entries for one place"},
        {{{"/", "a", reg, "same", 5, {}, "", false}, {"/", "b", reg, "same", 5}}, "Missing file"},
        {{{"/", "a", reg, "x", 5}, {"/", "d", dir, "", 5}, {"/", "c", reg, "x", 5}},
         "lacks an entry: \"/d\""},
        {{{"/", "a", reg, "long", 0, {}, "", true, "longer"}}, "Bad magic"},
        {{{"/", "a", reg, "short", 0, 0xffffffffU}}, "couldn't read content"},
        {{{"/", "a", reg, "right", 0, {}, "", true, "wrong"}},
         "does not match the rpm package's header: \"/a\""},
        {{{"/", "a", reg, "", 0, {}, std::string(62, '0')}}, "file digest"},
        {{{"/", std::string(300, 'n'), reg, "x"}}, "couldn't open file for writing rpm content: /"},
        {{{"/x/", "fifo", S_IFIFO | 0644U}, {"/dev/", "tty", S_IFCHR | 0666U}}, ""},
    };
    const auto outside = scratch.path() / "outside";
    writeFile(outside / "victim", "whole");
    fs::create_directory(outside / "into");
    const auto file = scratch.path() / "package.rpm";
    for (const auto& [entries, expected] : cases) {
        const LogCapture log;
        craftPackage(file, entries);
        fs::create_directory(outside / "into");
        const auto [code, text] = failureOf([&] {
            if (!entries[0].declaredDigest.empty()) {
                return unpack(file, outside / "into");
            }
            sign(file, "developer", "developer");
            Package::fromFile(file, authorities).extract(file, outside / "into");
        });
        EXPECT_THAT(text, HasSubstr(expected));
        EXPECT_EQ(text.empty(), expected.empty()) << text;
        const bool isFilesystem = expected.starts_with("couldn't open");
        EXPECT_EQ(code, expected.empty() ? ErrorCode::None
                        : isFilesystem   ? ErrorCode::Filesystem
                                         : ErrorCode::BadPackage);
        const std::string warning = "WARN: unexpected entry type in rpm package\n";
        EXPECT_EQ(log.text().find(warning + warning) != std::string::npos, entries[0].name == "fifo");
        fs::remove_all(outside / "into");
        EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1);
        EXPECT_EQ(readFile(outside / "victim"), "whole");
    }
}

TEST_F(AnExtraction, CreatesNoLinkOutOfThePackage) {
    Core::ZUL::DestinationTree tree(destination);
    tree.makeSymbolicLink("a/./b/.", "../x");
    EXPECT_EQ(fs::read_symlink(destination / "a/b"), "../x");
    for (const char* target : {"../..", "../../x", "x/../../..", "/etc"}) {
        EXPECT_EQ(failureOf([&] { tree.makeSymbolicLink("a/c/.", target); }).first, ErrorCode::BadPackage)
            << target;
    }
}

TEST_F(AnExtraction, WritesIntoNothingThatWasThereBefore) {
    const auto file =
        signedPackage({.files = {{"/usr/bin/tool", "new", "0755"}, {"/usr/libexec/com.example.app/x", "x"}}});
    const auto victim = scratch.path() / "victim";
    writeFile(victim, "whole");
    fs::create_directories(destination / "bin");
    fs::create_hard_link(victim, destination / "bin/tool");
    const auto package = Package::fromFile(file, authorities);
    package.extract(file, destination);
    EXPECT_EQ(readFile(destination / "bin/tool"), "new");
    fs::remove_all(destination / "libexec");
    fs::create_directory_symlink(scratch.path(), destination / "libexec");
    EXPECT_EQ(failureOf([&] { package.extract(file, destination); }).first, ErrorCode::BadPackage);
    EXPECT_FALSE(fs::exists(scratch.path() / "x"));
    EXPECT_EQ(readFile(victim), "whole");
    fs::remove_all(destination);
    writeFile(destination / "libexec", "no directory");
    const LogCapture log;
    EXPECT_ERROR(package.extract(file, destination), Filesystem, "couldn't extract regular file");
    EXPECT_THAT(log.text(), HasSubstr("libexec"));
}

TEST_F(AnExtraction, UnpacksALargeFileAndManyFiles) {
    const std::string data = "/usr/share/com.example.app";
    const auto file = buildPackage(
        scratch.path(), {.payload = "w1.zstdio",
                         .installScript = "mkdir -p %{buildroot}" + data + "; cd %{buildroot}" + data +
                                          "; seq 99999999 | head -c 67108864 > large; "
                                          "seq 5000 | split -l 1 -a 4 - small.",
                         .fileList = "%config " + data});
    const auto reference = unpackedByTheUsualTools(file);
    unpack(file, destination);
    EXPECT_TRUE(digestOfTree(destination / "data") == digestOfTree(reference / data.substr(1)));
}

TEST_F(AnExtraction, DetectsDamagedPayloads) {
    std::string text;
    for (int line = 0; line < 3000; ++line) {
        text += std::to_string(line * 7919) + "\n";
    }
    const auto file = buildPackage(scratch.path(), {.files = {{"/etc/a", text, "0644", "%config"},
                                                              {"/etc/b", text + "b", "0644", "%config"}}});
    const auto whole = readFile(file);
    const auto payload = whole.find("\x1f\x8b\x08");
    ASSERT_NE(payload, std::string::npos);
    const auto tryOut = [&](const std::string& bytes) {
        writeFile(file, bytes);
        fs::remove_all(destination);
        return failureOf([&] { unpack(file, destination); });
    };
    for (std::size_t place = payload; place < whole.size() - 8; place += (whole.size() - payload) / 60) {
        EXPECT_EQ(tryOut(whole.substr(0, place)).first, ErrorCode::BadPackage) << place;
        auto changed = whole;
        changed[place] = static_cast<char>(changed[place] ^ 0x10);
        if (tryOut(changed).first !=
            ErrorCode::BadPackage) { // a byte that means nothing, such as the file's age
            EXPECT_EQ(readFile(destination / "etc/a") + "b", readFile(destination / "etc/b")) << place;
        }
    }
}

} // namespace Testbed

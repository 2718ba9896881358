#include "common/Error.h"
#include "common/rpm/Configuration.h"
#include "common/rpm/FileList.h"
#include "common/rpm/Reader.h"
#include "testbed/CraftedPackage.h"
#include "testbed/FailureOf.h"
#include "testbed/LogCapture.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>
#include <rpm/header.h>
#include <rpm/rpmmacro.h>
#include <rpm/rpmtag.h>

#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

using Common::Rpm::Reader;
namespace fs = std::filesystem;

class PackageReader : public testing::Test {
protected:
    PackageReader() { setenv("HOME", scratch_.path().c_str(), 1); } // librpm's key database is there

    [[nodiscard]] fs::path in(const std::string& name) const { return scratch_.path() / name; }

    static void expectRefusal(const fs::path& path, Common::ErrorCode code, const std::string& message) {
        EXPECT_EQ(Testbed::failureOf([&] { const Reader reader(path.string()); }), std::pair(code, message))
            << path;
    }
    static void expectNotOpened(const fs::path& path) {
        expectRefusal(path, Common::ErrorCode::FileNotFound, "couldn't open rpm package");
    }
    static void expectNotRead(const fs::path& path) {
        expectRefusal(path, Common::ErrorCode::BadPackage, "couldn't read rpm package");
    }

    /// How often the processes that this one started and waited for met a missing page: each does, at once.
    static long faultsOfChildren() {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process was left behind";
        rusage usage{};
        EXPECT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
        return usage.ru_minflt;
    }

private:
    Testbed::ScratchDirectory scratch_;
};

TEST_F(PackageReader, OutlivesTheOneItWasCopiedFromAndNamesTheTagItMisses) {
    const auto file = Testbed::buildPackage(in("p"), {.files = {{"/usr/bin/tool", "x"}}});
    auto first = std::make_unique<Reader>(file.string());
    const Reader copy(*first);
    first.reset();
    EXPECT_EQ(copy.getStringTag(RPMTAG_VERSION), "1.0");
    EXPECT_NE(copy.file(), nullptr);
    EXPECT_THAT([&] { return copy.getStringTag(RPMTAG_URL); },
                testing::ThrowsMessage<Common::Error>("couldn't retrieve rpm tag from package (type=1020)"));
    EXPECT_THAT([&] { return copy.getStringTag(RPMTAG_SIZE); },
                testing::ThrowsMessage<Common::Error>("couldn't retrieve rpm tag from package (type=1009)"));
    const Reader wrapped(headerLink(copy.header()));
    EXPECT_EQ(wrapped.getStringTag(RPMTAG_NAME), "com.example.app");
}

TEST_F(PackageReader, RefusesAFileThatIsNotRegularAtOnce) {
    fs::create_directory(in("directory"));
    ASSERT_EQ(mkfifo(in("fifo").c_str(), 0600), 0);
    const Common::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{AF_UNIX, {}};
    in("socket").string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    fs::create_symlink(in("fifo"), in("link"));
    for (const auto* name : {"directory", "fifo", "socket", "link", "missing"}) {
        expectNotOpened(in(name));
    }
    expectNotOpened("/dev/zero");
    expectNotOpened("");
    expectNotOpened(std::string(5000, 'x'));
    Testbed::writeFile(in("file"), "x");
    expectNotOpened(in("file").string() + std::string("\0.rpm", 5));
    if (geteuid() != 0) {
        fs::permissions(in("file"), fs::perms::none);
        expectNotOpened(in("file"));
    }
}

TEST_F(PackageReader, RefusesAFileThatIsNotOneCompletePackage) {
    const Testbed::LogCapture librpmsOwnLines;
    const auto file = Testbed::buildPackage(in("p"), {.files = {{"/usr/bin/tool", std::string(5000, 'x')}}});
    const auto package = Testbed::readFile(file);
    for (const std::size_t length : {0U, 1U, 95U, 96U, 200U, 1000U}) {
        Testbed::writeFile(in("short"), package.substr(0, length));
        expectNotRead(in("short"));
    }
    std::mt19937 random(1);
    std::string noise(4096, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
    Testbed::writeFile(in("noise.rpm"), noise);
    expectNotRead(in("noise.rpm"));
    Testbed::writeFile(in("sparse.rpm"), "");
    fs::resize_file(in("sparse.rpm"), 4ULL << 30U);
    expectNotRead(in("sparse.rpm"));
    for (std::size_t offset = 96; offset < 1500; offset += 31) {
        auto damaged = package;
        damaged[offset] = static_cast<char>(damaged[offset] ^ 0x55);
        Testbed::writeFile(in("damaged"), damaged);
        try {
            EXPECT_FALSE(Reader(in("damaged").string()).getStringTag(RPMTAG_NAME).empty());
        } catch (const Common::Error&) {
        }
    }
}

TEST_F(PackageReader, LimitsTheSizeOfHeaders) {
    const auto craft = [&](std::size_t size) {
        Testbed::craftPackage(in("package.rpm"), {}, {.adjust = [size](Header header) {
                                  const std::string text(size, 'x');
                                  headerPutString(header, RPMTAG_DESCRIPTION, text.c_str());
                              }});
        return in("package.rpm");
    };
    const auto small = static_cast<std::size_t>(fs::file_size(craft(0)));
    EXPECT_EQ(Reader(craft(Reader::maximumHeaderSize - small).string()).getStringTag(RPMTAG_NAME),
              "com.example.app");
    const std::string refusal = "the headers of the rpm package are too large";
    const auto large = craft(Reader::maximumHeaderSize);
    expectRefusal(large, Common::ErrorCode::BadPackage, refusal);
    // Sizes alone decide, in either header, before any of it is read.
    auto bytes = Testbed::readFile(large).substr(0, 4096);
    Testbed::writeFile(in("cut.rpm"), bytes);
    expectRefusal(in("cut.rpm"), Common::ErrorCode::BadPackage, refusal);
    bytes.replace(104, 8, "\xff\xff\xff\xff\xff\xff\xff\xff", 8);
    Testbed::writeFile(in("cut.rpm"), bytes);
    expectRefusal(in("cut.rpm"), Common::ErrorCode::BadPackage, refusal);
}

TEST_F(PackageReader, ListsFilesInTheOrderOfTheirFullNames) {
    std::vector<Testbed::CraftedEntry> entries;
    for (const auto* directory : {"/", "/a/", "/a", "/a/b/", "/a-b/", "/ab/", "", "/a/b/c/", "/\xff/"}) {
        for (const auto* name : {"", "b", "b/c", "b/c/d", "-b/x", "/b", "\xff", "ab/b"}) {
            entries.push_back({directory, name});
        }
    }
    std::shuffle(entries.begin(), entries.end(), std::mt19937(1));
    Testbed::craftPackage(in("package.rpm"), entries);
    const Reader reader(in("package.rpm").string());
    const Common::Rpm::FileList list(reader.header());
    ASSERT_EQ(list.size(), static_cast<int>(entries.size()));
    std::vector<std::string> names;
    for (int file = 0; file < list.size(); ++file) {
        const auto& entry = entries[static_cast<std::size_t>(list.headerIndex(file))];
        names.push_back(list.name(file));
        EXPECT_EQ(names.back(), entry.directory + entry.name);
        EXPECT_GE(list.find(names.back()), 0);
    }
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(list.find("/nowhere"), -1);
}

// All of these pairs have the same hash in librpm, which then compares each with each.
TEST_F(PackageReader, ReplacesThePackagesDeviceAndInodeNumbers) {
    constexpr std::uint32_t count = 2000;
    std::vector<Testbed::CraftedEntry> entries;
    std::vector<std::uint32_t> inodes;
    std::vector<std::uint32_t> devices;
    for (std::uint32_t number = 0; number < count; ++number) {
        entries.push_back({"/a/", std::to_string(10000 + number)});
        devices.push_back(number);
        inodes.push_back(0x7fffffffU - (number << 16U) - (number >> 16U));
    }
    inodes[11] = inodes[10]; // with devices of their own
    inodes[20] = inodes[21] = 0;
    devices[20] = devices[21];
    inodes[31] = inodes[30];
    devices[31] = devices[30];
    Testbed::craftPackage(in("package.rpm"), entries, {.adjust = [&](Header header) {
                              headerDel(header, RPMTAG_FILEINODES);
                              headerDel(header, RPMTAG_FILEDEVICES);
                              headerPutUint32(header, RPMTAG_FILEINODES, inodes.data(), count);
                              headerPutUint32(header, RPMTAG_FILEDEVICES, devices.data(), count);
                          }});
    const Reader reader(in("package.rpm").string());
    const Common::Rpm::FileList list(reader.header());
    std::set<unsigned> numbers;
    for (int file = 0; file < list.size(); ++file) {
        numbers.insert(static_cast<unsigned>(rpmfilesFInode(list.get(), file)));
        EXPECT_EQ(list.firstLink(file), file == 31 ? 30 : file);
    }
    EXPECT_EQ(numbers.size(), count - 2);
    EXPECT_LE(*numbers.rbegin(), count);
}

TEST_F(PackageReader, LimitsTheHardLinksOfAFile) {
    std::vector<Testbed::CraftedEntry> entries(Common::Rpm::FileList::mostLinks);
    for (auto& entry : entries) {
        entry = {.directory = "/a/", .name = std::to_string(10000 + (&entry - entries.data())), .inode = 7};
    }
    const auto list = [&] {
        Testbed::craftPackage(in("package.rpm"), entries);
        return Common::Rpm::FileList(Reader(in("package.rpm").string()).header());
    };
    EXPECT_EQ(list().firstLink(999), 0);
    entries.push_back({.directory = "/b/", .name = "b"});
    EXPECT_EQ(list().size(), 1001);
    entries.back().inode = 7;
    EXPECT_THAT(list,
                testing::ThrowsMessage<Common::Error>("the rpm package has a file with too many hard links"));
}

TEST_F(PackageReader, StartsNoProcessAccessesNoHomeDirectoryAndLeavesNoDescriptorOpen) {
    const Testbed::LogCapture librpmsOwnLines;
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto file = Testbed::buildPackage(in("p"), {.files = {{"/usr/bin/tool", "x"}}});
    Testbed::writeFile(in("text.rpm"), "no package");
    auto damaged = Testbed::readFile(file);
    damaged[damaged.find("com.example.app", 200)] = 'C';
    Testbed::writeFile(in("damaged.rpm"), damaged);
    fs::create_directory(in("home"));
    setenv("HOME", in("home").c_str(), 1);
    const auto faults = faultsOfChildren();
    static_cast<void>(Reader(file.string()));
    const auto before = descriptors();
    EXPECT_EQ(Reader(file.string()).getStringTag(RPMTAG_NAME), "com.example.app");
    expectNotRead(in("text.rpm"));
    expectNotRead(in("damaged.rpm"));
    expectNotOpened(in("."));
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(faultsOfChildren(), faults);
    EXPECT_TRUE(fs::is_empty(in("home")));
}

TEST_F(PackageReader, AcceptsAnRpmSignatureOnlyIfItsKeyIsInTheDatabase) {
    const auto file = Testbed::buildPackage(in("p"), {.files = {{"/usr/bin/tool", "x"}}});
    const auto home = "HOME=" + in(".").string() + " GNUPGHOME=" + in("gnupg").string();
    const auto shell = [&](const std::string& command) {
        const auto result = Testbed::run({"sh", "-ec", "export " + home + "; " + command});
        ASSERT_EQ(result.status, 0) << result.output;
    };
    shell("mkdir -m 700 $GNUPGHOME; gpg --batch --quiet --passphrase '' --quick-gen-key maker rsa2048 sign; "
          "gpg --armor --export maker > $HOME/key; rpmsign --define '_gpg_name maker' --define \"__gpg "
          "$(command -v gpg)\" --addsign " +
          file.string() + "; gpgconf --kill all");
    const Testbed::LogCapture librpmsOwnLines;
    expectNotRead(file);
    shell("rpmkeys --import $HOME/key");
    EXPECT_EQ(Reader(file.string()).getStringTag(RPMTAG_NAME), "com.example.app");
    auto damaged = Testbed::readFile(file);
    damaged[damaged.find("com.example.app", 200)] = 'C';
    Testbed::writeFile(file, damaged);
    expectNotRead(file);
}

TEST_F(PackageReader, ReloadsChangedMacrosAndLoadsUnchangedOnesOnce) {
    const auto value = [] {
        Common::Rpm::readRpmConfiguration();
        const std::unique_ptr<char, decltype(&std::free)> text(rpmExpand("%vendara_test", nullptr),
                                                               std::free);
        return std::string(text.get());
    };
    for (const auto* expected : {"1", "22", "333"}) {
        Testbed::writeFile(in(".rpmmacros"), std::string("%vendara_test ") + expected + "\n");
        for (int times = 0; times < 4; ++times) {
            EXPECT_EQ(value(), expected);
        }
    }
    // What others have defined stays while nothing is loaded.
    rpmPushMacro(nullptr, "vendara_test", nullptr, "pushed", RMIL_CMDLINE);
    EXPECT_EQ(value(), "pushed");
}

} // namespace

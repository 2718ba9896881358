#include "testbed/Process.h"
#include "tests/core/zul/DatabaseTest.h"
#include "tests/tools/JsonOutput.h"

#include <nlohmann/json.hpp>

#include <climits>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Testbed {

using Json = nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

/// What is sent to the journal of this process and its children, in the place of the system's.
class JournalSocket {
public:
    explicit JournalSocket(const fs::path& directory) {
        fs::create_directories(directory / "systemd/journal");
        const int names = CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER);
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        if (unshare(names) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(directory.c_str(), "/run", nullptr, MS_BIND, nullptr) == 0) {
            socket_ = Common::UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        }
    }

    [[nodiscard]] bool isThere() const { return bool{socket_}; }

    /// Takes what has arrived. The socket holds few entries; a sender waits until it has room.
    void receive() {
        std::string entry(65536, '\0');
        for (ssize_t size = 0; (size = recv(socket_.get(), entry.data(), entry.size(), MSG_DONTWAIT)) >= 0;) {
            sent.push_back(entry.substr(0, static_cast<std::size_t>(size)));
        }
    }

    std::vector<std::string> sent; ///< entries, in their order

private:
    Common::UniqueFd socket_;
};

/// Writes a journal file with an entry per second, from 2026-11-22T06:00:00 UTC.
/// @param entries  in the journal export format, which the socket has too
void writeJournal(const fs::path& file, const std::vector<std::string>& entries) {
    std::ostringstream text;
    for (std::uint64_t time = 1795327200000000; const auto& entry : entries) {
        text << "__REALTIME_TIMESTAMP=" << time << "\n__MONOTONIC_TIMESTAMP=" << time - 1795327000000000
             << "\n_BOOT_ID=3d1219c7c4c5404aaa1f6d2a48adfda4\n_UID=0\n"
             << entry << "\n";
        time += 1000000;
    }
    fs::create_directories(file.parent_path());
    const auto made =
        run({"/lib/systemd/systemd-journal-remote", "--output", file, "-"}, {.input = text.str()});
    ASSERT_EQ(made.status, 0) << made.output;
}

ProcessResult history(std::vector<std::string> arguments, std::vector<std::string> prefix = {}) {
    prefix.insert(prefix.end(), {VENDARACTL, "history"});
    prefix.insert(prefix.end(), arguments.begin(), arguments.end());
    return run(prefix, {.environment = {{"TZ", "IST-5:30"}}});
}

std::string upgrade(const std::string& package, const std::string& message) {
    return "MESSAGE_ID=2d6939f88bc947608cb972fb44d288c3\nVENDARA_PACKAGE=" + package + "\n" + message;
}

} // namespace

class History : public DatabaseTest {
protected:
    fs::path journal = scratch.path() / "journal";
};

TEST_F(History, ShowsWhatTheDatabaseDidWithEachPackage) {
    JournalSocket socket(scratch.path() / "run");
    if (!socket.isThere()) {
        GTEST_SKIP() << "this user may not put a journal of the test's own in the place of the system's";
    }
    install(app);
    prepare(newer);
    database.completeUpgrade(newer);
    socket.receive();
    fs::create_directory(dir() / "next"); // a damaged upgrade that stays
    EXPECT_EQ(database.packageData(app.id()).at("general.version"), "2.0-1");
    fs::remove(dir() / "next");
    prepare(PackageIdentity(app.id(), "3.0-1"));
    fs::remove(dir() / "3.0-1/quenra.pkg");
    EXPECT_EQ(database.packageData(app.id()).at("general.version"), "2.0-1");
    prepare(PackageIdentity(app.id(), "4.0-1"));
    EXPECT_THAT(database.recoverDatabase(), ElementsAre(app.id()));
    database.remove("/" + app.id());
    socket.receive();
    install(PackageIdentity("other", "5-1"), {{"data/file", "x"}});
    fs::remove(root / "other/current/quenra.pkg");
    socket.receive();
    {
        // It stays for its mapping, and is removed when that can be.
        const DroppedCapabilities dropped;
        fs::permissions(system / "usr/share/other", fs::perms(0555));
        EXPECT_THAT(database.packages(), IsEmpty());
        EXPECT_TRUE(fs::exists(root / "other"));
        fs::permissions(system / "usr/share/other", fs::perms(0755));
    }
    socket.receive();
    EXPECT_THAT(database.packages(), IsEmpty());
    socket.receive();
    // The platform's event log has some of them, without the package.
    EXPECT_THAT(socket.sent, testing::Contains(HasSubstr("\nEVENT_KIND=2\nEVENT_VALUE=11\n")));
    writeJournal(journal / "system.journal", socket.sent);

    const auto table = history({"--directory", journal});
    EXPECT_EQ(table.status, 0);
    const std::string times = "2026-11-22T11:30:[0-9][0-9].05:30\t";
    std::string expected;
    for (const std::string line :
         {"PackageInstalled\tcom.example.app\t1.0-1\t0\tpackage com.example.app installed: 1.0-1",
          "PackageUpgraded\tcom.example.app\t2.0-1\t0\tpackage com.example.app upgraded to 2.0-1",
          "CorruptedUpgradeRemoved\tcom.example.app\t3.0-1\t0\tdamaged upgrade given up: [^\n]*",
          "PackageUpgraded\tcom.example.app\t4.0-1\t0\tpackage com.example.app upgraded to 4.0-1",
          "PackageRemoved\tcom.example.app\t4.0-1\t0\tpackage com.example.app removed",
          "PackageInstalled\tother\t5-1\t0\tpackage other installed: 5-1",
          "CorruptedPackageRemoved\tother\t\t0\tdamaged package removed: [^\n]*/other"}) {
        expected += times + line + "\n";
    }
    EXPECT_THAT(table.output, MatchesRegex(expected));
    const auto objects = objectsOf(history({"other", "--json", "--directory", journal}).output);
    ASSERT_EQ(objects.size(), 2);
    const auto& first = objects[0];
    EXPECT_THAT(first["time"].get<std::string>(), MatchesRegex("2026-11-22T11:30:[0-9][0-9].05:30"));
    EXPECT_EQ(first["event"], "PackageInstalled");
    expectDocumented(first);
    EXPECT_EQ(first["version"], "5-1");
}

TEST_F(History, EscapesControlCharactersOfEntries) {
    const std::string message("MESSAGE\n\x05\0\0\0\0\0\0\0a\nb\x1b\t\n", 22);
    const std::string longest(NAME_MAX, 'l');
    writeJournal(journal / "a.journal",
                 {upgrade("evil\u202e", message), "MESSAGE=another's\nVENDARA_PACKAGE=evil\n",
                  upgrade(longest + "another", ""), upgrade("..", "MESSAGE=another's\n"),
                  upgrade("long", "VENDARA_VERSION=" + longest + "another\n"), upgrade(longest, ""),
                  upgrade("bare", "")});
    const auto table = history({"--directory", journal});
    EXPECT_EQ(table.status, 0);
    EXPECT_THAT(table.output, AllOf(HasSubstr("\tPackageUpgraded\tevil\\u{202e}\t\t0\ta\\x0ab\\x1b\\x09\n"),
                                    HasSubstr("\t" + longest + "\t"),
                                    EndsWith("\tPackageUpgraded\tbare\t\t0\t\n"), Not(HasSubstr("another"))));
    const auto onTerminal =
        run({"script", "-qec", VENDARACTL " history --directory " + journal.native(), "/dev/null"},
            {.environment = {{"TERM", "xterm"}}});
    EXPECT_THAT(onTerminal.output,
                AllOf(HasSubstr("  bare "), Not(HasSubstr("bare" + std::string(99, ' ')))));
    const auto bare = Json::parse(history({"bare", "--json", "--directory", journal}).output);
    EXPECT_TRUE(bare["version"].is_null() && bare["message"].is_null());
    EXPECT_EQ(history({"absent", "--directory", journal}).output, "");
}

TEST_F(History, ReportsFilesThatCannotBeReadAndShowsTheRest) {
    const std::vector<std::string> withoutOverride{"setpriv",
                                                   "--bounding-set=-dac_override,-dac_read_search"};
    const auto expect = [&](int status, const std::string& begin, const std::string& end) {
        const auto result = history({"--directory", journal}, withoutOverride);
        EXPECT_EQ(result.status, status);
        EXPECT_THAT(result.output, AllOf(StartsWith(begin), EndsWith(end)));
    };
    fs::create_directories(journal);
    expect(1, "vendaractl: no journal in " + journal.native() + "\n", "");
    writeFile(journal / "created.journal", "");
    expect(0, "", "");
    fs::permissions(journal, fs::perms::none);
    const std::string hint = "vendaractl: entries of the system and of other users are not shown: ";
    expect(1, hint, " may read them\n");
    fs::permissions(journal, fs::perms::owner_all);
    writeJournal(journal / "a.journal", {upgrade("app", "MESSAGE=done\n")});
    fs::permissions(journal / "a.journal", fs::perms::none);
    expect(1, hint, " may read them\n");
    writeJournal(journal / "b.journal", {upgrade("other", "MESSAGE=done\n")});
    expect(0, hint, "\tother\t\t0\tdone\n");
    writeFile(journal / "c.journal", "text");
    expect(1, "vendaractl: " + (journal / "c.journal").native() + ": damaged, or not a journal\n", "done\n");
}

TEST_F(History, OfAnImageFollowsNoLinkOutOfIt) {
    const auto image = scratch.path() / "image";
    writeJournal(image / "var/log/journal/0123/system.journal", {upgrade("inside", "")});
    writeJournal(journal / "a.journal", {upgrade("outside", "")});
    fs::create_directories(image / "run/log");
    fs::create_directory_symlink(journal, image / "run/log/journal");
    EXPECT_EQ(history({"--root", journal}).output,
              "vendaractl: " + journal.native() + ": no journal in /run/log/journal/ or /var/log/journal/\n");
    const auto result = history({"--root", image});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, MatchesRegex("[^\n]*\tPackageUpgraded\tinside\t\t0\t\n"));
}

} // namespace Testbed

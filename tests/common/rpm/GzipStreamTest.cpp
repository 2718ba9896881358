#include "common/rpm/GzipStream.h"

#include "common/rpm/FileIterator.h"
#include "testbed/FailureOf.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>

namespace {

using Common::UniqueFd;
using Common::Rpm::GzipStream;

class AGzipStream : public testing::Test {
protected:
    AGzipStream() {
        for (std::int64_t line = 0; line < 500000; ++line) {
            text += std::to_string(line * 7919) + "\n";
        }
    }

    std::string compressed(const std::string& content, const char* level = "-6") const {
        Testbed::writeFile(scratch.path() / "content", content);
        const auto result = Testbed::run({"sh", "-c", std::string("gzip ") + level + " <content >compressed"},
                                         {.directory = scratch.path()});
        EXPECT_EQ(result.status, 0);
        return Testbed::readFile(scratch.path() / "compressed");
    }

    UniqueFd fileOf(const std::string& bytes) const {
        Testbed::writeFile(scratch.path() / "stream", bytes);
        return UniqueFd(open((scratch.path() / "stream").c_str(), O_RDONLY | O_CLOEXEC));
    }

    static std::string contentOf(const GzipStream& stream) {
        std::string content;
        std::string piece(300001, '\0');
        ssize_t count = 0;
        while ((count = read(stream.descriptor(), piece.data(), piece.size())) > 0) {
            content.append(piece, 0, static_cast<std::size_t>(count));
        }
        return content;
    }

    std::string contentOf(const std::string& bytes) const {
        const auto file = fileOf(bytes);
        return contentOf(GzipStream(file.get()));
    }

    Testbed::ScratchDirectory scratch;
    std::string text;
};

TEST_F(AGzipStream, ReturnsTheContentOfAllMembersAndIgnoresTrailingBytes) {
    for (const auto* level : {"-1", "-9"}) {
        EXPECT_TRUE(contentOf(compressed(text, level) + "signature") == text) << level;
    }
    EXPECT_TRUE(contentOf(compressed(text)) == text);
    for (const std::size_t size : {4U << 20U, 8U << 20U, 100000000U}) {
        EXPECT_EQ(contentOf(compressed(std::string(size, 'x'))).size(), size);
    }
    EXPECT_EQ(contentOf(compressed("x")), "x");
    EXPECT_EQ(contentOf(compressed("")), "");
    const auto two = compressed(text) + compressed("") + compressed("second");
    EXPECT_TRUE(contentOf(two + "signature") == text + "second");
    EXPECT_TRUE(contentOf(two) == text + "second");
    EXPECT_EQ(contentOf(compressed("text") + "\x1fno member"), "text");
}

TEST_F(AGzipStream, EndsBeforeDamagedBytes) {
    const auto whole = compressed(text);
    auto wrongSum = whole;
    wrongSum[whole.size() - 5] ^= 1;
    for (const auto& bytes : {wrongSum, whole.substr(0, whole.size() - 1), whole.substr(0, whole.size() / 2),
                              whole.substr(0, 5), std::string("no compression at all"), std::string()}) {
        const auto content = contentOf(bytes);
        EXPECT_LT(content.size(), text.size()) << bytes.size();
        EXPECT_TRUE(content == text.substr(0, content.size())) << bytes.size();
    }
}

// The reader at the other end would decompress such a content again, without a limit.
TEST_F(AGzipStream, RefusesContentThatIsItselfGzipData) {
    EXPECT_EQ(contentOf(compressed(compressed(text))), "");
}

TEST_F(AGzipStream, CanBeAbandonedWhileAnotherProcessHasInheritedItsEnds) {
    const auto file = fileOf(compressed(text));
    pid_t heir = -1;
    {
        const GzipStream stream(file.get());
        char first = 0;
        ASSERT_EQ(read(stream.descriptor(), &first, 1), 1);
        heir = fork();
        if (heir == 0) {
            pause();
            _exit(0);
        }
    } // would wait for ever for a thread whose writing nothing ends
    kill(heir, SIGKILL);
    EXPECT_EQ(waitpid(heir, nullptr, 0), heir);
}

/// Interrupts this process all the time with a signal that it handles.
class Disturbance {
public:
    Disturbance() {
        struct sigaction action {};
        action.sa_handler = [](int) { ++interruptions; };
        EXPECT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        setTimer(200);
    }
    ~Disturbance() { setTimer(0); }
    Disturbance(const Disturbance&) = delete;
    Disturbance& operator=(const Disturbance&) = delete;

    static std::atomic<int> interruptions; // the handler runs on any thread

private:
    static void setTimer(suseconds_t interval) {
        const itimerval timer{{0, interval}, {0, interval}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    }
};

std::atomic<int> Disturbance::interruptions = 0;

std::string packageOf(const std::filesystem::path& directory, const std::string& payload,
                      const std::string& script) {
    return Testbed::buildPackage(directory,
                                 {.version = payload,
                                  .payload = payload,
                                  .installScript = "mkdir -p %{buildroot}/d; cd %{buildroot}/d; " + script,
                                  .fileList = "/d"});
}

int countOfEntries(const Common::Rpm::Reader& reader) {
    Common::Rpm::FileIterator files(reader);
    int count = 0;
    while (files.next()) {
        ++count;
    }
    return count;
}

// A read that is cut short is not the end of the payload.
TEST(APayload, IsReadWholeByAProcessThatIsDisturbed) {
    const Testbed::ScratchDirectory scratch;
    setenv("HOME", scratch.path().c_str(), 1);
    for (const std::string payload : {"w1.gzdio", "w1.bzdio"}) {
        const auto package = packageOf(scratch.path(), payload, "seq 5000 | xargs touch");
        const Disturbance disturbance;
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(countOfEntries(Common::Rpm::Reader(package)), 5001);
        }
    }
    EXPECT_GT(Disturbance::interruptions, 20);
}

// A file in memory that ends in a page without memory: the read there fails with EIO.
TEST(APayload, ThatCannotBeReadIsNotReportedAsDamaged) {
    const Testbed::ScratchDirectory scratch;
    setenv("HOME", scratch.path().c_str(), 1);
    for (const std::string payload : {"w1.gzdio", "w1.bzdio", "w0.xzdio", "w1.zstdio"}) {
        SCOPED_TRACE(payload);
        const auto bytes =
            Testbed::readFile(packageOf(scratch.path(), payload, "head -c 200000 /dev/urandom >file"));
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const auto readable = (bytes.size() - 1) / page * page;
        auto* memory = static_cast<char*>(
            mmap(nullptr, readable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(memory, MAP_FAILED);
        ASSERT_EQ(munmap(memory + readable, page), 0);
        std::copy_n(bytes.begin(), readable, memory);
        const UniqueFd file(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
        ASSERT_NE(lseek(file.get(), static_cast<off_t>(reinterpret_cast<std::uintptr_t>(memory)), SEEK_SET),
                  -1);
        EXPECT_EQ(Testbed::failureOf([&] { countOfEntries(Common::Rpm::Reader(file, "package")); }).first,
                  Common::ErrorCode::Filesystem);
        munmap(memory, readable);
    }
}

} // namespace

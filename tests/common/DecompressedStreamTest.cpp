#include "common/rpm/DecompressedStream.h"

#include "common/Error.h"
#include "common/rpm/FileIterator.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/wait.h>

namespace {

using Common::ErrorCode;
using Common::UniqueFd;
using Common::Rpm::DecompressedStream;

struct Kind {
    const char* program;
    std::unique_ptr<Common::Rpm::Decompressor> (*decompressor)(UniqueFd file);
};

void PrintTo(const Kind& kind, std::ostream* stream) { *stream << kind.program; }

class ADecompressedStream : public testing::TestWithParam<Kind> {
protected:
    ADecompressedStream() {
        setenv("HOME", scratch.path().c_str(), 1);
        for (std::int64_t line = 0; line < 500000; ++line) {
            text += std::to_string(line * 7919) + "\n";
        }
    }

    std::string compressed(const std::string& content, const char* level = "-6") const {
        const auto file = scratch.path() / "content";
        Testbed::writeFile(file, content);
        const auto result = Testbed::run(
            {"sh", "-c", std::string(GetParam().program) + " " + level + " <content >compressed"},
            {.directory = scratch.path()});
        EXPECT_EQ(result.status, 0);
        return Testbed::readFile(scratch.path() / "compressed");
    }

    DecompressedStream streamOf(const std::string& bytes) const {
        Testbed::writeFile(scratch.path() / "stream", bytes);
        return DecompressedStream(GetParam().decompressor(
            UniqueFd(open((scratch.path() / "stream").c_str(), O_RDONLY | O_CLOEXEC))));
    }

    static ErrorCode codeOfFailure(DecompressedStream& stream) {
        try {
            stream.stop();
            return ErrorCode::None;
        } catch (const Common::Error& error) {
            return error.code();
        }
    }

    static std::string contentOf(const DecompressedStream& stream) {
        std::string content;
        std::string piece(300001, '\0');
        ssize_t count = 0;
        while ((count = read(stream.descriptor(), piece.data(), piece.size())) > 0) {
            content.append(piece, 0, static_cast<std::size_t>(count));
        }
        return content;
    }

    Testbed::ScratchDirectory scratch;
    std::string text;
};

class AGzipStream : public ADecompressedStream {};

constexpr Kind gzip{"gzip", Common::Rpm::gzipDecompressor};
INSTANTIATE_TEST_SUITE_P(Every, ADecompressedStream, testing::Values(gzip));
INSTANTIATE_TEST_SUITE_P(The, AGzipStream, testing::Values(gzip));

TEST_P(ADecompressedStream, GivesWhatIsInItAndNothingOfWhatFollows) {
    for (const auto* level : {"-1", "-9"}) {
        EXPECT_TRUE(contentOf(streamOf(compressed(text, level) + "signature")) == text) << level;
    }
    EXPECT_TRUE(contentOf(streamOf(compressed(text))) == text);
    for (const std::size_t size : {4U << 20U, 8U << 20U, 100000000U}) {
        EXPECT_EQ(contentOf(streamOf(compressed(std::string(size, 'x')))).size(), size);
    }
    EXPECT_EQ(contentOf(streamOf(compressed("x"))), "x");
    EXPECT_EQ(contentOf(streamOf(compressed(""))), "");
}

TEST_P(ADecompressedStream, EndsBeforeTheBytesThatAreDamaged) {
    const auto whole = compressed(text);
    auto wrongSum = whole;
    wrongSum[whole.size() - 5] ^= 1;
    for (const auto& bytes : {wrongSum, whole.substr(0, whole.size() - 1), whole.substr(0, whole.size() / 2),
                              whole.substr(0, 5), std::string("no compression at all"), std::string()}) {
        auto stream = streamOf(bytes);
        const auto content = contentOf(stream);
        EXPECT_LT(content.size(), text.size()) << bytes.size();
        EXPECT_TRUE(content == text.substr(0, content.size())) << bytes.size();
        EXPECT_EQ(codeOfFailure(stream), ErrorCode::BadPackage) << bytes.size();
    }
    DecompressedStream unreadable(GetParam().decompressor(UniqueFd(open("/", O_RDONLY | O_CLOEXEC))));
    EXPECT_EQ(contentOf(unreadable), "");
    EXPECT_EQ(codeOfFailure(unreadable), ErrorCode::Filesystem);
}

// Such a content could be decompressed again, without end, by whoever reads it.
TEST_P(ADecompressedStream, GivesNothingThatIsCompressedOnceMore) {
    Testbed::writeFile(scratch.path() / "twice", text);
    ASSERT_EQ(Testbed::run({"gzip", scratch.path() / "twice"}).status, 0);
    auto stream = streamOf(compressed(Testbed::readFile(scratch.path() / "twice.gz")));
    EXPECT_EQ(contentOf(stream), "");
    EXPECT_EQ(codeOfFailure(stream), ErrorCode::BadPackage);
}

TEST_P(ADecompressedStream, CanBeAbandonedWhileAnotherProcessHasItsEndsToo) {
    const auto bytes = compressed(text);
    pid_t heir = -1;
    {
        const auto stream = streamOf(bytes);
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

TEST_P(AGzipStream, GivesAllMembers) {
    const auto two = compressed(text) + compressed("") + compressed("second");
    EXPECT_TRUE(contentOf(streamOf(two + "signature")) == text + "second");
    EXPECT_TRUE(contentOf(streamOf(two)) == text + "second");
    EXPECT_EQ(contentOf(streamOf(compressed("text") + "\x1fno member")), "text");
}

/// Interrupts this process all the time: with signals that it handles, and by stopping it.
class Disturbance {
public:
    Disturbance() {
        struct sigaction action {};
        action.sa_handler = [](int) { ++interruptions; };
        EXPECT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        UniqueFd reading(ends[0]);
        writing_ = UniqueFd(ends[1]);
        stopper_ = fork();
        if (stopper_ == 0) {
            writing_ = UniqueFd();
            pollfd end{reading.get(), POLLIN, 0};
            while (poll(&end, 1, 1) == 0) {
                kill(getppid(), SIGSTOP);
                kill(getppid(), SIGCONT);
            }
            _exit(0);
        }
        setTimer(200);
    }
    ~Disturbance() {
        setTimer(0);
        writing_ = UniqueFd(); // a signal could end the stopper between its own two
        EXPECT_EQ(waitpid(stopper_, nullptr, 0), stopper_);
    }
    Disturbance(const Disturbance&) = delete;
    Disturbance& operator=(const Disturbance&) = delete;

    static std::atomic<int> interruptions; // the handler runs on any thread

private:
    static void setTimer(suseconds_t interval) {
        const itimerval timer{{0, interval}, {0, interval}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    }

    UniqueFd writing_;
    pid_t stopper_ = -1;
};

std::atomic<int> Disturbance::interruptions = 0;

// A read that is cut short is not the end of the payload.
TEST(APayload, IsReadWholeByAProcessThatIsDisturbed) {
    const Testbed::ScratchDirectory scratch;
    setenv("HOME", scratch.path().c_str(), 1);
    const auto package = Testbed::buildPackage(
        scratch.path(),
        {.payload = "w1.bzdio",
         .installScript = "mkdir -p %{buildroot}/d; cd %{buildroot}/d; seq 20000 | xargs touch",
         .fileList = "/d"});
    const Disturbance disturbance;
    for (int round = 0; round < 5; ++round) {
        Common::Rpm::FileIterator files(Common::Rpm::Reader(package.string()));
        int count = 0;
        while (files.next()) {
            ++count;
        }
        EXPECT_EQ(count, 20001);
    }
    EXPECT_GT(Disturbance::interruptions, 20);
}

} // namespace

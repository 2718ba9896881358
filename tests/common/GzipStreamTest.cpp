#include "common/rpm/GzipStream.h"

#include "common/rpm/FileIterator.h"
#include "testbed/LogCapture.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>

namespace {

using Common::UniqueFd;
using Common::Rpm::GzipStream;

class AGzipStream : public testing::Test {
protected:
    AGzipStream() {
        setenv("HOME", scratch.path().c_str(), 1);
        for (std::int64_t line = 0; line < 500000; ++line) {
            text += std::to_string(line * 7919) + "\n";
        }
    }

    std::string compressed(const std::string& content) const {
        const auto file = scratch.path() / "content";
        Testbed::writeFile(file, content);
        EXPECT_EQ(Testbed::run({"gzip", "-kf", file}).status, 0);
        return Testbed::readFile(file.native() + ".gz");
    }

    UniqueFd fileOf(const std::string& bytes) const {
        Testbed::writeFile(scratch.path() / "stream.gz", bytes);
        return UniqueFd(open((scratch.path() / "stream.gz").c_str(), O_RDONLY | O_CLOEXEC));
    }

    static std::string contentOf(const GzipStream& stream) {
        std::string content;
        std::string piece(300001, '\0');
        ssize_t count = 0;
        while ((count = read(stream.descriptor(), piece.data(), piece.size())) > 0) {
            content.append(piece, 0, static_cast<std::size_t>(count));
            if (count < static_cast<ssize_t>(piece.size())) {
                EXPECT_EQ(read(stream.descriptor(), piece.data(), 1), 0) << "a short read before the end";
            }
        }
        return content;
    }

    Testbed::ScratchDirectory scratch;
    std::string text;
};

TEST_F(AGzipStream, GivesAllMembersAndNothingOfWhatFollows) {
    EXPECT_EQ(contentOf(GzipStream(fileOf(compressed(text)))), text);
    const auto two = compressed(text) + compressed("") + compressed("second");
    EXPECT_EQ(contentOf(GzipStream(fileOf(two + "signature"))), text + "second");
    EXPECT_EQ(contentOf(GzipStream(fileOf(two))), text + "second");
}

TEST_F(AGzipStream, EndsBeforeTheBytesThatAreDamaged) {
    const Testbed::LogCapture log;
    const auto whole = compressed(text);
    auto wrongSum = whole;
    wrongSum[whole.size() - 6] ^= 1;
    for (const auto& bytes : {wrongSum, whole.substr(0, whole.size() - 1), whole.substr(0, whole.size() / 2),
                              whole.substr(0, 5), std::string("no gzip at all"), std::string()}) {
        const auto content = contentOf(GzipStream(fileOf(bytes)));
        EXPECT_LT(content.size(), text.size()) << bytes.size();
        EXPECT_EQ(content, text.substr(0, content.size()));
    }
    EXPECT_EQ(log.lines().size(), 6U);
}

TEST_F(AGzipStream, CanBeAbandonedWhileAnotherProcessHasItsEndsToo) {
    std::optional<GzipStream> stream(fileOf(compressed(text)));
    char first = 0;
    ASSERT_EQ(read(stream->descriptor(), &first, 1), 1);
    const pid_t heir = fork();
    if (heir == 0) {
        pause();
        _exit(0);
    }
    stream.reset(); // would wait for ever for a thread whose writing nothing ends
    kill(heir, SIGKILL);
    EXPECT_EQ(waitpid(heir, nullptr, 0), heir);
}

TEST_F(AGzipStream, IsReadWholeByAThreadThatSignalsInterrupt) {
    const auto package = Testbed::buildPackage(
        scratch.path(), {.files = {{"/usr/share/a", text}, {"/usr/share/b", text}}, .payload = "w9.gzdio"});
    static std::atomic<int> interruptions = 0; // the handler runs on any thread
    struct sigaction action {};
    action.sa_handler = [](int) { ++interruptions; };
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval often{{0, 200}, {0, 200}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    for (int round = 0; round < 20; ++round) {
        Common::Rpm::FileIterator files(Common::Rpm::Reader(package.string()));
        for (int file = 0; file < 2; ++file) {
            ASSERT_TRUE(files.next());
            std::string content(text.size(), '\0');
            EXPECT_EQ(files.read(content), text.size());
            EXPECT_EQ(content, text);
        }
        EXPECT_FALSE(files.next());
    }
    const itimerval never{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    EXPECT_GT(interruptions, 20);
}

} // namespace

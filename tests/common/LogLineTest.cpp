#include "common/LogLine.h"

#include "testbed/LogCapture.h"

#include <gtest/gtest.h>

#include <iostream>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

struct WithoutText : std::exception {
    [[nodiscard]] const char* what() const noexcept override { return nullptr; }
};

TEST(ALogLine, HasItsPrefixAndOneNewline) {
    const Testbed::LogCapture log;
    Common::logInfo() << "one" << std::string(" and two");
    Common::logFailure(Common::LogLevel::Warning, "words", std::runtime_error("its text"));
    { const Common::LogLine silent(Common::LogLevel::Error); }
    Common::LogLine(static_cast<Common::LogLevel>(7)) << "bare";
    EXPECT_EQ(log.text(), "INFO: one and two\nWARN: words\nWARN: its text\n\nbare\n");

    struct stat stream {};
    fstat(STDERR_FILENO, &stream);
    setenv("JOURNAL_STREAM", (std::to_string(stream.st_dev) + ":" + std::to_string(stream.st_ino)).c_str(),
           1);
    Common::logError() << "one";
    const Testbed::LogCapture other;
    Common::logError() << "two";
    EXPECT_EQ(log.lines().back(), "<3>ERROR: one");
    EXPECT_EQ(other.text(), "ERROR: two\n");
}

TEST(ALogLine, CannotBeForgedByWhatItReports) {
    const Testbed::LogCapture log;
    Common::logError() << "couldn't find package: "
                       << "a\nERROR: b\x1b[2J\x7f"
                       << "\u202e\u009b2Jgr\u00fcn\xff";
    EXPECT_EQ(log.text(), "ERROR: couldn't find package: a\\x0aERROR: b\\x1b[2J\\x7f"
                          "\\u{202e}\\u{9b}2Jgr\u00fcn\\xff\n");
    EXPECT_EQ(Common::quoted("a \"b\\c"), R"("a \"b\\c")");
}

TEST(ALogLine, OfAnExceptionWithoutTextFailsTheStream) {
    {
        const Testbed::LogCapture log;
        Common::logError() << WithoutText();
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_TRUE(std::cerr.bad());
    std::cerr.clear();
}

TEST(LogLines, OfTwoThreadsNeverMix) {
    const Testbed::LogCapture log;
    const auto write = [](char letter) {
        for (int count = 0; count < 2000; ++count) {
            Common::logInfo() << std::string(100, letter) << std::string(100, letter);
        }
    };
    std::thread other(write, 'b');
    write('a');
    other.join();
    const auto lines = log.lines();
    EXPECT_EQ(lines.size(), 4000);
    const std::set<std::string> kinds(lines.begin(), lines.end());
    EXPECT_EQ(kinds, (std::set{"INFO: " + std::string(200, 'a'), "INFO: " + std::string(200, 'b')}));
}

} // namespace

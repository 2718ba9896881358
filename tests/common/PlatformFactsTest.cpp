#include "common/PlatformFacts.h"

#include "common/Error.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>

#include <sys/utsname.h>

namespace {

using testing::ThrowsMessage;

class PlatformFacts : public testing::Test {
protected:
    std::filesystem::path file(const std::string& content) {
        Testbed::writeFile(scratch_.path() / "facts", content);
        return scratch_.path() / "facts";
    }
    std::filesystem::path missing() { return scratch_.path() / "missing"; }

private:
    Testbed::ScratchDirectory scratch_;
};

TEST_F(PlatformFacts, ReadTheArchitectureFromThePlatformFileOrTheKernel) {
    EXPECT_EQ(Common::getPlatformArchitecture(file("aarch64-unknown-linux\n")), "aarch64");
    EXPECT_EQ(Common::getPlatformArchitecture(file("  noarch\nx86_64-unknown-linux\n")), "noarch");
    for (const auto* content : {"", " \t\n\n"}) {
        EXPECT_THAT([&] { return Common::getPlatformArchitecture(file(content)); },
                    ThrowsMessage<Common::Error>("couldn't get platform architecture"));
    }
    utsname names{};
    uname(&names);
    EXPECT_EQ(Common::getPlatformArchitecture(missing()), names.machine);
}

TEST_F(PlatformFacts, ReportTheVersionWithItsQuotesAndRefuseAFileWithoutOne) {
    EXPECT_EQ(Common::getOsVersion(file("NAME=x\nVERSION_ID=4.0.2.48\nVERSION_ID=5\n")), "4.0.2.48");
    EXPECT_EQ(Common::getOsVersion(file(" VERSION_ID=1\nversion_id=2\nVERSION_ID=\"5.0\" \r\n")),
              "\"5.0\" \r");
    EXPECT_EQ(Common::getOsVersion(file("VERSION_ID=")), "");
    for (const auto& path :
         {missing(), file(""), file("XVERSION_ID=1\nNAME=y"), std::filesystem::path("/tmp")}) {
        EXPECT_THAT([&] { return Common::getOsVersion(path); },
                    ThrowsMessage<Common::Error>("couldn't retrieve Quenra OS version"));
    }
}

} // namespace

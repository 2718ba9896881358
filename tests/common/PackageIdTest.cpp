#include "common/PackageId.h"

#include "common/BusText.h"
#include "testbed/FailureOf.h"

#include <gmock/gmock.h>

namespace {

std::string refusalOf(const std::string& id) {
    const auto [code, text] = Testbed::failureOf([&] { Common::requirePackageId(id); });
    EXPECT_EQ(code, text.empty() ? Common::ErrorCode::None : Common::ErrorCode::BadPackageID);
    return text;
}

TEST(PackageId, IsOnePathComponentAndAValidBusString) {
    for (const std::string id : {"com.example.app", "a", "...", "-x", "with space", "gr\xc3\xb6\xc3\x9f"}) {
        EXPECT_EQ(refusalOf(id), "") << id;
    }
    EXPECT_EQ(refusalOf(std::string(255, 'x')), "");
    for (const std::string id : {"", ".", "..", "/a", "a/b", "a\n", "\x7f", "caf\xe9", "a\xef\xbf\xbe"}) {
        EXPECT_THAT(refusalOf(id), testing::StartsWith("not a package identifier")) << id;
    }
    EXPECT_THAT(refusalOf(std::string("a\0b", 3)), testing::EndsWith("a\\x00b"));
}

TEST(PackageId, IsShortenedAndEscapedInTheErrorThatRefusesIt) {
    EXPECT_EQ(refusalOf("a\x1b/\xff"), "not a package identifier: a\\x1b/\\xff");
    EXPECT_EQ(refusalOf(std::string(1'000'000, 'x')),
              "not a package identifier: " + std::string(64, 'x') + "... (1000000 bytes)");
    EXPECT_TRUE(Common::isBusText(refusalOf("\xef\xb7\x90/" + std::string(63, '\xc3'))));
}

} // namespace

#include "common/BusText.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

namespace {

// The bus library itself is the reference.
TEST(ABusText, IsATextThatTheBusAccepts) {
    for (const std::string text :
         {"", "plain", "\xc3\x84", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xef\xb7\x8f"}) {
        EXPECT_TRUE(Common::isBusText(text)) << text;
        EXPECT_NO_THROW(static_cast<void>(sdbus::Variant(text))) << text;
    }
    for (const std::string text : {"\x80", "\xc0\xaf", "\xc3", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                                   "a\xef\xbf\xbe", "\xef\xb7\x90", "\xf4\x8f\xbf\xbf", "\xff"}) {
        EXPECT_FALSE(Common::isBusText(text)) << testing::PrintToString(text);
        EXPECT_THROW(static_cast<void>(sdbus::Variant(text)), sdbus::Error) << testing::PrintToString(text);
    }
}

} // namespace

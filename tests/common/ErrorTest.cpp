#include "common/Error.h"

#include <gtest/gtest.h>

namespace {

using Common::ErrorCode;

TEST(AnErrorName, IsMatchedWholeAndExactly) {
    EXPECT_EQ(Common::errorCodeOf(""), ErrorCode::None);
    EXPECT_EQ(Common::errorCodeOf("norvane.ZUL.Error.BadPackageSignature"), ErrorCode::BadPackageSignature);
    EXPECT_EQ(static_cast<int>(Common::errorCodeOf("norvane.ZUL.Error.UnauthorizedAccess")), 13);
    EXPECT_EQ(Common::errorNameOf(ErrorCode::BadPackage), "norvane.ZUL.Error.BadPackage");
    for (const auto* name : {"norvane.ZUL.Error.Internal", "norvane.ZUL.Error.",
                             "norvane.ZUL.Error.badpackage", "BadPackage", "norvane.ZUL.Error.BadPackage ",
                             "org.freedesktop.DBus.Error.Timeout", "x.norvane.ZUL.Error.BadPackage"}) {
        EXPECT_EQ(Common::errorCodeOf(name), ErrorCode::Internal) << name;
    }
}

} // namespace

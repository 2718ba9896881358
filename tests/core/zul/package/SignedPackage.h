#pragma once

#include "core/zul/package/Extraction.h"
#include "core/zul/package/Package.h"
#include "testbed/CraftedPackage.h"
#include "testbed/FailureOf.h"
#include "testbed/LogCapture.h"
#include "testbed/Process.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScratchDirectory.h"
#include "tools/vendara-sign/PackageSigner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Testbed {

namespace fs = std::filesystem;
using Common::ErrorCode;
using Core::ZUL::Package;
using testing::HasSubstr;
using testing::Pair;

/// A throw-away authority with a developer, a client and a system developer.
class SignedPackage : public testing::Test {
protected:
    SignedPackage() {
        setenv("HOME", scratch.path().c_str(), 1);
        EXPECT_EQ(run({VENDARA_SIGN, "--make-test-ca", keys.string()}).status, 0);
    }

    void sign(const fs::path& package, const std::string& as, const std::string& who) const {
        Signing::SignRequest request{.package = package, .output = package, .allowInvalid = true};
        (as == "developer" ? request.developer : request.client) =
            Signing::loadIdentity(keys / (who + ".key"), keys / (who + ".pem"));
        Signing::signPackage(request);
    }

    fs::path signedPackage(const PackageSpec& spec) const {
        auto package = buildPackage(scratch.path(), spec);
        sign(package, "developer", "developer");
        return package;
    }

    /// Unpacks a package that nobody has signed or validated.
    static void unpack(const fs::path& package, const fs::path& into) {
        Core::ZUL::unpack(Core::ZUL::PackageFile(package), {"com.example.app", "1"}, nullptr, into,
                          Core::ZUL::attachAttribute);
    }

    /// Reads a package that should be refused.
    std::pair<ErrorCode, std::string> refusalOf(const fs::path& package) const {
        return failureOf([&] { static_cast<void>(Package::fromFile(package, authorities)); });
    }

    const ScratchDirectory scratch;
    const fs::path keys = scratch.path() / "keys";
    const fs::path destination = scratch.path() / "destination";
    const Core::ZUL::Authorities authorities{keys / "ca.pem", keys / "system-developer-keyid"};
    const std::string manifestPath = "/usr/share/applications/com.example.app.desktop";
    const std::string manifest = "[Desktop Entry]\nType=Application\nName=Tool\nExec=tool\n"
                                 "[X-Application]\nOrganizationName=org.example\nApplicationName=tool\n";
};

} // namespace Testbed

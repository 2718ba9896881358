#include "core/zul/Inspection.h"

#include "core/zul/Database.h"
#include "tests/zul/SignedPackage.h"

namespace Testbed {

using Core::ZUL::inspect;

class AnInspection : public SignedPackage {
protected:
    AnInspection() {
        for (const auto& directory : {root / "usr/bin", scratch.path() / "opt", scratch.path() / "tmp"}) {
            fs::create_directories(directory);
        }
    }

    ErrorCode codeFor(const fs::path& file) const {
        const auto refusal = inspect(file, system).refusal;
        return refusal ? refusal->code() : ErrorCode::None;
    }

    const fs::path root = scratch.path() / "root";
    Core::ZUL::InspectedSystem system{
        {scratch.path() / "opt", scratch.path() / "tmp"}, root, "armv7hl", authorities};
    const fs::path package =
        signedPackage({.files = {{"/usr/bin/tool", "12345"}, {"/opt/own", "678"}, {manifestPath, manifest}}});
};

TEST_F(AnInspection, FindsPlacesConflictsAndSpaceAndChangesNothing) {
    auto found = inspect(package, system);
    ASSERT_FALSE(found.refusal) << found.refusal->what();
    EXPECT_EQ(found.package->appName(), "tool");
    EXPECT_EQ(found.size, 8 + manifest.size());
    ASSERT_EQ(found.files.size(), 3U);
    EXPECT_EQ(found.files[0].place + found.files[1].place + found.files[2].place,
              "/usr/bin/tool" + manifestPath);

    writeFile(root / "usr/bin/tool", "the system's");
    writeFile(root / "usr/bin/.zul-mapping", "of an installation that is running");
    found = inspect(package, system);
    ASSERT_TRUE(found.refusal);
    EXPECT_STREQ(found.refusal->what(),
                 "attempt to override system file with package mapping: /usr/bin/tool");
    EXPECT_TRUE(found.files[1].isPlaceTaken);
    EXPECT_TRUE(fs::exists(root / "usr/bin/.zul-mapping"));
    EXPECT_TRUE(fs::is_empty(scratch.path() / "opt"));
    EXPECT_TRUE(fs::is_empty(scratch.path() / "tmp"));
}

TEST_F(AnInspection, RefusesWhatAnInstallationRefuses) {
    Core::ZUL::Database database(scratch.path() / "opt", scratch.path() / "tmp", root);
    const auto noAttributes = [](int, const std::string&, const std::string&) { return 0; };
    EXPECT_FALSE(database.installFile(Package::fromFile(package, authorities), package, noAttributes));
    EXPECT_EQ(codeFor(package), ErrorCode::DowngradeAttempt);
    const auto newer = signedPackage({.version = "2.0", .files = {{"/usr/bin/tool", "new"}}});
    EXPECT_EQ(codeFor(newer), ErrorCode::None) << "its own mapping is in the place";
    EXPECT_EQ(inspect(newer, system).existingVersion, "1.0-1");
    EXPECT_TRUE(database.installFile(Package::fromFile(newer, authorities), newer, noAttributes));
    EXPECT_EQ(codeFor(newer), ErrorCode::UpgradeAlreadyPrepared);
    EXPECT_EQ(codeFor(signedPackage({.version = "3.0", .architecture = "s390x"})),
              ErrorCode::BadPackageArchitecture);
    const auto unsignedPackage = buildPackage(scratch.path(), {.version = "4.0"});
    EXPECT_EQ(codeFor(unsignedPackage), ErrorCode::BadPackageSignature);
    EXPECT_EQ(codeFor(scratch.path() / "absent"), ErrorCode::FileNotFound);
}

} // namespace Testbed

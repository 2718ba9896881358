#include "testbed/InterruptedProcess.h"
#include "tests/core/zul/DatabaseTest.h"
#include "tests/core/zul/package/SignedPackage.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace Testbed {

class Packages : public SignedPackage {
protected:
    /// Unpacks a package. It may fail for a fault, but not with a verdict on the package; throws something
    /// else than Common::Error for that.
    void unpackWithoutVerdict(const fs::path& file) const {
        // For failed reads whose reason the interface of a library does not give: libpkgverify's twice,
        // librpm's when the same place can be read again.
        const auto librariesOwn = {
            "couldn't open file for reading cmses", "package is signed with a non-legal key",
            "couldn't read payload of rpm package: ", "couldn't read content from rpm package"};
        try {
            Package::fromFile(file, authorities).extract(file, destination, [](auto&&...) { return 0; });
        } catch (const Common::Error& error) {
            const std::string text = error.what();
            const bool isFault = error.code() == ErrorCode::Filesystem || error.code() == ErrorCode::Internal;
            if (!isFault && std::none_of(librariesOwn.begin(), librariesOwn.end(),
                                         [&](const char* message) { return text.starts_with(message); })) {
                throw std::runtime_error("a verdict: " + text);
            }
            throw;
        }
    }
};

TEST_F(Packages, AreRefusedWithAnErrorOrUnpackedWholeWhenACallFails) {
    for (const std::string payload : {"w3.gzdio", "w3.xzdio", "w3.zstdio"}) {
        const auto file = signedPackage({.release = payload.substr(3),
                                         .files = {{manifestPath, manifest},
                                                   {"/usr/bin/tool", "x", "0755"},
                                                   {"/etc/tool.conf", std::string(100000, 'c')}},
                                         .payload = payload});
        // Also for what libraries read once: libgcrypt ends the process when it cannot.
        unpackWithoutVerdict(file);
        const auto whole = digestOfTree(destination);
        forEachFault(41, [&](const Fault& fault, unsigned point) {
            fs::remove_all(destination);
            const auto [end, wasMet] = runWithFault(point, fault, [&] { unpackWithoutVerdict(file); });
            if (end == End::Finished) {
                EXPECT_EQ(digestOfTree(destination), whole);
            }
            return wasMet;
        });
    }
}

TEST_F(Packages, AreInstalledWholeOrNotAtAllWhenACallFails) {
    const auto file = signedPackage({.files = {{manifestPath, manifest}, {"/usr/bin/tool", "x", "0755"}}});
    const auto package = Package::fromFile(file, authorities);
    unpackWithoutVerdict(file);
    forEachFault(41, [&](const Fault& fault, unsigned point) {
        DatabaseOnDisk disk;
        const auto [end, wasMet] = runWithFault(
            point, fault, [&] { disk.database.installFile(package, file, [](auto&&...) { return 0; }); });
        EXPECT_EQ(runInChild([&] {
                      disk.database.recoverDatabase();
                      for (const auto& [directory, data] : disk.database.packages()) {
                          disk.database.refreshMappings(directory.filename());
                      }
                  }),
                  End::Finished);
        const bool isInstalled = disk.database.isInstalled(package.id());
        EXPECT_TRUE(fault.isPersistent ? isInstalled || end == End::Failed
                                       : isInstalled == (end == End::Finished));
        EXPECT_EQ(disk.mappings().size(), isInstalled ? 2U : 0U);
        EXPECT_EQ(isInstalled ? DatabaseOnDisk::entriesIn(disk.root / package.id() / "current").size() : 4U,
                  4U);
        return wasMet;
    });
}

TEST_F(Packages, AreNotReportedDamagedWhenACallFails) {
    const auto file = signedPackage({.files = {{manifestPath, manifest}, {"/usr/bin/tool", "x", "0755"}}});
    unpackWithoutVerdict(file);
    for (const bool isPersistent : {false, true}) {
        bool wasMet = true;
        for (unsigned point = 0; wasMet && !HasFailure(); ++point) {
            SCOPED_TRACE(point);
            fs::remove_all(destination);
            EXPECT_NO_THROW(wasMet = runWithFault(point, {"EIO", EIO, isPersistent, false}, [&] {
                                         unpackWithoutVerdict(file);
                                     }).second);
        }
    }
}

} // namespace Testbed

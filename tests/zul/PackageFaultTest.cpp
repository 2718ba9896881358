#include "tests/zul/InterruptedProcess.h"
#include "tests/zul/SignedPackage.h"

#include <iostream>

namespace Testbed {

using Packages = SignedPackage;

TEST_F(Packages, AreRefusedWithAnErrorOrUnpackedWholeWhenACallFails) {
    for (const std::string payload : {"w3.gzdio", "w3.xzdio", "w3.zstdio"}) {
        const auto file = signedPackage({.release = payload.substr(3),
                                         .files = {{manifestPath, manifest},
                                                   {"/usr/bin/tool", "x", "0755"},
                                                   {"/etc/tool.conf", std::string(100000, 'c')}},
                                         .payload = payload});
        const auto unpack = [&] {
            Package::fromFile(file, authorities).extract(file, destination, [](auto&&...) { return 0; });
        };
        // Also for what libraries read once: libgcrypt ends the process when it cannot.
        unpack();
        const auto whole = digestOfTree(destination);
        forEachFault(41, [&](const Fault& fault, unsigned point) {
            fs::remove_all(destination);
            const auto [end, wasMet] = runWithFault(point, fault, unpack);
            if (end == End::Finished) {
                EXPECT_EQ(digestOfTree(destination), whole);
            }
            return wasMet;
        });
    }
}

} // namespace Testbed

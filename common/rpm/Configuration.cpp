#include "common/rpm/Configuration.h"

#include "common/LogLine.h"

#include <rpm/rpmlib.h>
#include <rpm/rpmmacro.h>

namespace Common::Rpm {

void readRpmConfiguration() {
    // Each load pushes the macros once more on those that stand already, some 72 kB a time.
    rpmFreeMacros(nullptr);
    rpmFreeRpmrc();
    if (rpmReadConfigFiles(nullptr, nullptr) != 0) {
        logWarning() << "cannot read RPM configuration files";
    }
}

} // namespace Common::Rpm

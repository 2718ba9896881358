#include "common/PackageId.h"

#include "common/BusText.h"
#include "common/Error.h"
#include "common/Files.h"
#include "common/PrintableText.h"

#include <string>

namespace Common {

bool isPackageId(std::string_view id) noexcept { return isOrdinaryName(id) && isBusText(id); }

void requirePackageId(std::string_view id) {
    if (isPackageId(id)) {
        return;
    }
    constexpr std::size_t shown = 64;
    std::string message = "not a package identifier";
    if (const auto text = printable(id.substr(0, shown)); isBusText(text)) {
        message += ": " + text;
    }
    if (id.size() > shown) {
        message += "... (" + std::to_string(id.size()) + " bytes)";
    }
    throw Error(ErrorCode::BadPackageID, message);
}

} // namespace Common

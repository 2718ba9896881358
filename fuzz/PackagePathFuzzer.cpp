#include "common/Error.h"
#include "core/zul/package/PackagePath.h"
#include "fuzz/Require.h"

#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <string>

namespace {

using Fuzz::require;

std::string textWithoutNul(FuzzedDataProvider& input) {
    auto text = input.ConsumeRandomLengthString(64);
    std::erase(text, '\0');
    return text;
}

} // namespace

/// Translates paths of hostile payloads: a place is relative, and a link that is not refused stays inside.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const Core::ZUL::PackagePath paths(
        Core::ZUL::PackageIdentity("com.example.app", "1", "org.example", "tool"));
    const auto link = textWithoutNul(input);
    const auto target = textWithoutNul(input);
    const auto place = paths.toPackagePath(link);
    require(place.is_relative());
    try {
        const auto written = paths.linkTarget(link, target);
        // As the tree has it: no ".", no "/" at the end.
        const auto normal = place.lexically_normal();
        const auto directory = (normal.has_filename() ? normal : normal.parent_path()).parent_path();
        const auto reached = (directory / written).lexically_normal();
        const bool placeIsInside = place.native().find("..") == std::string::npos;
        require(written.is_relative());
        require(!placeIsInside || reached.empty() || *reached.begin() != "..");
    } catch (const Common::Error& error) {
        require(error.code() == Common::ErrorCode::BadPackage);
    }
    return 0;
}

#include "fuzz/ExtractionSandbox.h"
#include "testbed/CraftedPackage.h"

#include <rpm/rpmfiles.h>

#include <array>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>

namespace {

const std::array<std::string, 12> parts{
    "usr", "bin", "share", "com.example.app",        "applications", "..", ".", "a",
    "b",   "",    "link",  "com.example.app.desktop"};

std::string component(FuzzedDataProvider& input) {
    const auto choice = input.ConsumeIntegralInRange<std::size_t>(0, parts.size());
    auto text = choice < parts.size() ? parts[choice] : input.ConsumeRandomLengthString(12);
    std::erase(text, '\0');
    return text;
}

std::string path(FuzzedDataProvider& input) {
    std::string text;
    for (auto count = input.ConsumeIntegralInRange<int>(0, 5); count > 0; --count) {
        text += component(input) + "/";
    }
    return text;
}

Testbed::CraftedEntry entry(FuzzedDataProvider& input) {
    constexpr std::array<std::uint32_t, 5> kinds{S_IFREG, S_IFREG, S_IFDIR, S_IFLNK, S_IFIFO};
    Testbed::CraftedEntry entry;
    entry.directory = "/" + path(input);
    entry.name = component(input);
    // Without execute bits a configuration file needs no signature.
    entry.mode = input.PickValueInArray(kinds) | (input.ConsumeIntegral<std::uint32_t>() & 07666U);
    entry.flags = RPMFILE_CONFIG;
    entry.content = (S_ISLNK(entry.mode) && input.ConsumeBool() ? "/" : "") + path(input) + component(input);
    entry.inode = input.ConsumeIntegralInRange<std::uint32_t>(0, 3);
    if (input.ConsumeIntegralInRange(0, 15) == 0) {
        entry.promisedSize = input.ConsumeIntegral<std::uint32_t>();
    }
    entry.isArchived = input.ConsumeIntegralInRange(0, 15) != 0;
    return entry;
}

} // namespace

/// Reads and unpacks packages whose headers are in order as such and say anything.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Fuzz::ExtractionSandbox sandbox;
    FuzzedDataProvider input(data, size);
    std::vector<Testbed::CraftedEntry> entries;
    while (entries.size() < 8 && input.remaining_bytes() > 0) {
        entries.push_back(entry(input));
    }
    Testbed::craftPackage(sandbox.package(), entries);
    sandbox.tryOut();
    return 0;
}

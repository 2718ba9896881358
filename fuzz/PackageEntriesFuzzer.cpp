#include "common/rpm/Configuration.h"
#include "fuzz/ExtractionSandbox.h"
#include "platform/reference/pkgverify/Container.h"
#include "platform/reference/signcms/SignedBlob.h"
#include "testbed/CraftedPackage.h"
#include "tools/vendara-sign/TestAuthority.h"

#include <rpm/header.h>
#include <rpm/rpmfiles.h>

#include <algorithm>
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
    entry.mode = input.PickValueInArray(kinds) | (input.ConsumeIntegral<std::uint32_t>() & 07777U);
    entry.flags = input.ConsumeBool() ? RPMFILE_CONFIG : RPMFILE_NONE;
    entry.content = (S_ISLNK(entry.mode) && input.ConsumeBool() ? "/" : "") + path(input) + component(input);
    entry.inode = input.ConsumeIntegralInRange<std::uint32_t>(0, 3);
    if (input.ConsumeIntegralInRange(0, 15) == 0) {
        entry.declaredSize = input.ConsumeIntegral<std::uint32_t>();
    }
    entry.isArchived = input.ConsumeIntegralInRange(0, 15) != 0;
    return entry;
}

/// Gives one of the list's arrays another length.
void distort(Header header, FuzzedDataProvider& input) {
    constexpr std::array tags{RPMTAG_DIRINDEXES, RPMTAG_FILESIZES,   RPMTAG_FILEFLAGS,
                              RPMTAG_FILEINODES, RPMTAG_FILEDEVICES, RPMTAG_FILEDIGESTALGO};
    const auto tag = input.PickValueInArray(tags);
    const std::vector<std::uint32_t> numbers(input.ConsumeIntegralInRange<std::size_t>(1, 12),
                                             input.ConsumeIntegralInRange<std::uint32_t>(0, 12));
    headerDel(header, tag);
    headerPutUint32(header, tag, numbers.data(), static_cast<rpm_count_t>(numbers.size()));
}

/// A developer that the sandbox trusts.
class Developer {
public:
    explicit Developer(const Fuzz::ExtractionSandbox& sandbox) {
        sandbox.trust(Signing::certificatePem(authority_.identity()));
    }

    /// The package with valid signatures of itself and its files.
    [[nodiscard]] std::string sign(const std::string& package, std::size_t files) const {
        PackageSignatures::SignedContent content;
        content.package = {package.size(), PackageSignatures::OpenSsl::sha256(package)};
        for (std::size_t index = 0; index < files; ++index) {
            content.files.push_back({static_cast<std::uint32_t>(index), "integrity", "trustlet"});
        }
        const auto cms = PackageSignatures::makeCms(*identity_.certificate, *identity_.key, content);
        return package + PackageSignatures::Container::encodedTail(package.size(), {cms});
    }

private:
    Signing::TestAuthority authority_;
    Signing::Identity identity_ = authority_.issue({.extendedKeyUsage = PackageSignatures::developerUsage});
};

std::string fullName(const Testbed::CraftedEntry& entry) { return entry.directory + entry.name; }

} // namespace

/// Unpacks packages with well-formed headers and arbitrary entries. One input in sixteen is signed and
/// validated first, which is slow; a hash chooses it, so that such inputs do not dominate the corpus.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Fuzz::ExtractionSandbox sandbox;
    static const Developer developer(sandbox);
    static const bool isConfigured = (Common::Rpm::readRpmConfiguration(), true);
    static_cast<void>(isConfigured);
    FuzzedDataProvider input(data, size);
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const bool isSigned = std::hash<std::string_view>()(bytes) % 16 == 0;
    const bool isSorted = input.ConsumeBool();
    const bool isDistorted = input.ConsumeIntegralInRange(0, 15) == 0;
    Testbed::CraftedHeader about;
    if (isDistorted) {
        about.adjust = [&input](Header header) { distort(header, input); };
    }
    std::vector<Testbed::CraftedEntry> entries;
    while (entries.size() < 8 && input.remaining_bytes() > 0) {
        entries.push_back(entry(input));
    }
    if (isSorted) {
        std::stable_sort(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
            return fullName(left) < fullName(right);
        });
    }
    const auto package = Testbed::craftedPackage(entries, about);
    if (isSigned) {
        sandbox.install(developer.sign(package, entries.size()));
    } else {
        sandbox.unpack(package);
    }
    return 0;
}

#include "common/rpm/Version.h"

#include <cstdlib>

namespace Common::Rpm {

std::optional<Version> Version::parse(const std::string& text) {
    const rpmver version = rpmverParse(text.c_str());
    return version == nullptr ? std::nullopt : std::optional(Version(version));
}

std::string Version::text() const {
    const std::unique_ptr<char, void (*)(void*)> text(rpmverEVR(version_.get()), std::free);
    return text == nullptr ? "" : text.get();
}

std::weak_ordering operator<=>(const Version& first, const Version& second) {
    return rpmverCmp(first.version_.get(), second.version_.get()) <=> 0;
}

} // namespace Common::Rpm

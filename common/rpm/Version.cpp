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

int Version::compare(const Version& other) const { return rpmverCmp(version_.get(), other.version_.get()); }

} // namespace Common::Rpm

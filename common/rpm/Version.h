#pragma once

#include <rpm/rpmver.h>

#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace Common::Rpm {

/// A package version, compared by librpm's rules. Copies share their data. Any thread.
class Version {
public:
    /// @param text  [epoch ":"] version ["-" release]
    /// @return nothing when librpm cannot parse it
    [[nodiscard]] static std::optional<Version> parse(const std::string& text);

    /// The version as text: [epoch ":"] version ["-" release].
    [[nodiscard]] std::string text() const;

    /// @return less than, equal to or greater than 0 if this version is lower than, the same as or higher
    /// than the other
    [[nodiscard]] int compare(const Version& other) const;

private:
    explicit Version(rpmver version)
        : version_(version, rpmverFree) {}

    std::shared_ptr<std::remove_pointer_t<rpmver>> version_;
};

} // namespace Common::Rpm

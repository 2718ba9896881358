#pragma once

#include <rpm/rpmver.h>

#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace Common::Rpm {

/// A package version as librpm orders them. Copies share it. Any thread.
class Version {
public:
    /// @param text  [epoch ":"] version ["-" release]
    /// @return nothing when librpm cannot parse it
    [[nodiscard]] static std::optional<Version> parse(const std::string& text);

    /// The version as librpm writes it: [epoch ":"] version ["-" release].
    [[nodiscard]] std::string text() const;

    friend std::weak_ordering operator<=>(const Version& first, const Version& second);

private:
    explicit Version(rpmver version)
        : version_(version, rpmverFree) {}

    std::shared_ptr<std::remove_pointer_t<rpmver>> version_;
};

} // namespace Common::Rpm

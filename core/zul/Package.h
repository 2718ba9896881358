#pragma once

#include <optional>
#include <string>
#include <utility>

namespace Core::ZUL {

/// One version of a package. A plain value.
class Package {
public:
    Package(std::string id, std::string version, std::optional<std::string> orgName = {},
            std::optional<std::string> appName = {})
        : id_(std::move(id))
        , version_(std::move(version))
        , orgName_(std::move(orgName))
        , appName_(std::move(appName)) {}

    /// The rpm name; also the name of the package's directory in the database.
    [[nodiscard]] const std::string& id() const { return id_; }
    /// version "-" release, as the package carries them.
    [[nodiscard]] const std::string& version() const { return version_; }
    [[nodiscard]] const std::optional<std::string>& orgName() const { return orgName_; }
    [[nodiscard]] const std::optional<std::string>& appName() const { return appName_; }

private:
    std::string id_;
    std::string version_;
    std::optional<std::string> orgName_;
    std::optional<std::string> appName_;
};

} // namespace Core::ZUL

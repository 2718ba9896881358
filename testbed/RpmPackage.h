#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Testbed {

struct PackageFile {
    std::string path; ///< absolute
    std::string content = {};
    std::string mode = "0644";
    std::string directive = {}; ///< for example "%config"
};

struct PackageSpec {
    std::string name = "com.example.app";
    std::string version = "1.0";
    std::string release = "1";
    std::string architecture = "noarch";
    std::vector<PackageFile> files = {};
    std::string payload = "w3.gzdio"; ///< rpm's %_binary_payload
    std::string installScript = {};   ///< further commands of %install
    std::string fileList = {};        ///< further lines of %files
};

/// Makes a real package with rpmbuild.
/// @param directory  where to build; packages of one directory must differ in name, version or release
/// @return path of the package file
[[nodiscard]] std::filesystem::path buildPackage(const std::filesystem::path& directory,
                                                 const PackageSpec& spec);

} // namespace Testbed

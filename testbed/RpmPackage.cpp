#include "testbed/RpmPackage.h"

#include "testbed/Process.h"
#include "testbed/ScratchDirectory.h"

#include <sstream>
#include <stdexcept>

namespace Testbed {

namespace fs = std::filesystem;

std::filesystem::path buildPackage(const fs::path& directory, const PackageSpec& spec) {
    const auto nevra = spec.name + "-" + spec.version + "-" + spec.release + "." + spec.architecture;
    const auto work = directory / ("build-" + nevra);
    std::ostringstream text;
    text << "Name: " << spec.name << "\nVersion: " << spec.version << "\nRelease: " << spec.release
         << "\nSummary: A test package\nLicense: none\n"
         << (spec.architecture == "noarch" ? "BuildArch: noarch\n" : "")
         << "\n%description\nA test package.\n%install\n";
    std::ostringstream list;
    for (std::size_t index = 0; index < spec.files.size(); ++index) {
        const auto& file = spec.files[index];
        const auto source = work / "source" / std::to_string(index);
        writeFile(source, file.content);
        text << "install -D -m 0644 '" << source.native() << "' \"%{buildroot}" << file.path << "\"\n";
        list << "%attr(" << file.mode << ", -, -) " << file.directive << " \"" << file.path << "\"\n";
    }
    text << spec.installScript << "\n%files\n" << list.str() << spec.fileList << "\n";
    writeFile(work / "package.spec", text.str());
    fs::create_directories(work / "home");
    std::vector<std::string> command{"rpmbuild",       "-bb", "--nodeps", work / "package.spec", "--target",
                                     spec.architecture};
    for (const auto& macro : {"_topdir " + (work / "top").string(), "_tmppath " + work.string(),
                              "_rpmdir " + directory.string(), "_rpmfilename " + nevra + ".rpm",
                              "_binary_payload " + spec.payload, std::string("_build_id_links none"),
                              std::string("debug_package %{nil}"), std::string("__os_install_post %{nil}")}) {
        command.insert(command.end(), {"--define", macro});
    }
    const auto result = run(command, {.environment = {{"HOME", work / "home"}}});
    fs::remove_all(work);
    if (result.status != 0) {
        throw std::runtime_error("rpmbuild failed: " + result.output);
    }
    return directory / (nevra + ".rpm");
}

} // namespace Testbed

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
         << (spec.architecture == "noarch" ? "BuildArch: noarch\n" : "") << spec.preamble
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
    auto result = run({"rpmbuild",
                       "-bb",
                       "--nodeps",
                       "--define",
                       "_topdir " + (work / "top").string(),
                       "--define",
                       "_tmppath " + work.string(),
                       "--define",
                       "_rpmdir " + directory.string(),
                       "--define",
                       "_rpmfilename " + nevra + ".rpm",
                       "--define",
                       "_binary_payload " + spec.payload,
                       "--define",
                       "_build_id_links none",
                       "--define",
                       "debug_package %{nil}",
                       "--target",
                       spec.architecture,
                       "--define",
                       "__os_install_post %{nil}",
                       (work / "package.spec").string()},
                      {.environment = {{"HOME", (work / "home").string()}}, .directory = {}, .input = {}});
    fs::remove_all(work);
    if (result.status != 0) {
        throw std::runtime_error("rpmbuild failed: " + result.output);
    }
    return directory / (nevra + ".rpm");
}

} // namespace Testbed

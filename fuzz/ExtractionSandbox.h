#pragma once

#include "common/Error.h"
#include "common/TemporaryDirectory.h"
#include "core/zul/package/Extraction.h"
#include "core/zul/package/Package.h"
#include "fuzz/Require.h"

#include <rpm/rpmlog.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <string_view>
#include <unistd.h>

namespace Fuzz {

namespace fs = std::filesystem;

/// Reads and unpacks packages in memory and then checks that nothing outside the destination changed.
class ExtractionSandbox {
public:
    ExtractionSandbox() {
        setenv("HOME", root_.c_str(), 1);
        // By default rpm starts a shell for this path each time.
        std::ofstream(root_ / ".rpmmacros") << "%_dbpath " << root_.native() << "/.rpmdb\n";
        // Each read checks rpm's configuration files for changes; here there are two empty ones.
        setenv("RPM_CONFIGDIR", (root_ / ".rpm").c_str(), 1);
        fs::create_directory(root_ / ".rpm");
        write(root_ / ".rpm/macros", "");
        write(root_ / ".rpm/rpmrc", "");
        std::cerr.setstate(std::ios::failbit); // thousands of irrelevant warnings
        rpmSetVerbosity(RPMLOG_EMERG);
    }
    ExtractionSandbox(const ExtractionSandbox&) = delete;
    ExtractionSandbox& operator=(const ExtractionSandbox&) = delete;

    void trust(const std::string& certificate) const { write(authorities_.certificates, certificate); }

    // Both abort on any error but a refusal, and on any change outside the destination.

    /// Reads and validates a package, and unpacks it if it is valid.
    void install(std::string_view bytes) const {
        write(package_, bytes);
        expectRefusalOrSuccess([&] {
            Core::ZUL::Package::fromFile(package_, authorities_)
                .extract(package_, destination_, noAttributes);
        });
        checkSurroundings();
    }

    /// Unpacks a package without a check of its signatures.
    void unpack(std::string_view bytes) const {
        write(package_, bytes);
        expectRefusalOrSuccess([&] {
            Core::ZUL::unpack(Core::ZUL::PackageFile(package_), {"com.example.app", "1"}, nullptr,
                              destination_, noAttributes);
        });
        checkSurroundings();
    }

private:
    static int noAttributes(int /*file*/, const std::string& /*name*/, const std::string& /*value*/) {
        return 0;
    }

    void checkSurroundings() const {
        for (const auto& entry : fs::directory_iterator(root_)) {
            require(allowed().contains(entry.path().filename().string()));
        }
        if (fs::exists(destination_)) {
            for (const auto& entry : fs::recursive_directory_iterator(destination_)) {
                require(!entry.is_symlink() || staysInside(entry.path(), destination_));
            }
        }
        fs::remove_all(destination_);
    }

    static void write(const fs::path& file, std::string_view bytes) {
        std::ofstream stream(file, std::ios::binary);
        stream << bytes;
        require(stream.flush().good());
    }

    template<typename Action>
    static void expectRefusalOrSuccess(const Action& action) {
        try {
            action();
        } catch (const Common::Error& error) {
            require(error.code() != Common::ErrorCode::Internal);
        }
    }

    static const std::set<std::string>& allowed() {
        static const std::set<std::string> names{"package.rpm", "into",   "ca.pem",
                                                 ".rpm",        ".rpmdb", ".rpmmacros"};
        return names;
    }

    static bool staysInside(const fs::path& link, const fs::path& destination) {
        std::error_code error; // a link in a circle leads nowhere
        const auto reached = fs::weakly_canonical(link, error);
        const auto relative = reached.lexically_relative(destination);
        return error || (!relative.empty() && *relative.begin() != "..");
    }

    Common::TemporaryDirectory directory_{"/dev/shm", "vendara-fuzz"};
    const fs::path& root_ = directory_.path();
    fs::path package_ = root_ / "package.rpm";
    fs::path destination_ = root_ / "into";
    Core::ZUL::Authorities authorities_{root_ / "ca.pem", "/dev/null"};
};

} // namespace Fuzz

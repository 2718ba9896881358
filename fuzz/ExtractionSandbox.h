#pragma once

#include "common/Error.h"
#include "common/TemporaryDirectory.h"
#include "core/zul/Package.h"

#include <rpm/rpmlog.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <unistd.h>

namespace Fuzz {

namespace fs = std::filesystem;

/// A place in memory where packages of any kind are read and unpacked, and a look around afterwards.
class ExtractionSandbox {
public:
    ExtractionSandbox() {
        setenv("HOME", root_.c_str(), 1);
        // As rpm comes, it asks a shell for this path every time.
        std::ofstream(root_ / ".rpmmacros") << "%_dbpath " << root_.native() << "/.rpmdb\n";
        std::cerr.setstate(std::ios::failbit); // thousands of warnings tell nothing
        rpmSetVerbosity(RPMLOG_EMERG);
    }
    ExtractionSandbox(const ExtractionSandbox&) = delete;
    ExtractionSandbox& operator=(const ExtractionSandbox&) = delete;

    [[nodiscard]] fs::path package() const { return root_ / "package.rpm"; }

    /// Reads and unpacks the package; aborts if anything but a refusal comes of it, or anything outside the
    /// destination.
    void tryOut() const {
        const auto destination = root_ / "into";
        tolerant([&] {
            static_cast<void>(Core::ZUL::Package::fromFile(package(), {"/dev/null", "/dev/null"}));
        });
        tolerant([&] { Core::ZUL::Package("com.example.app", "1").extract(package(), destination); });
        for (const auto& entry : fs::directory_iterator(root_)) {
            require(allowed().contains(entry.path().filename().string()));
        }
        if (fs::exists(destination)) {
            for (const auto& entry : fs::recursive_directory_iterator(destination)) {
                require(!entry.is_symlink() || staysInside(entry.path(), destination));
            }
        }
        fs::remove_all(destination);
    }

private:
    static void require(bool holds) {
        if (!holds) {
            std::abort();
        }
    }

    template<typename Action>
    static void tolerant(const Action& action) {
        try {
            action();
        } catch (const Common::Error& error) {
            require(error.code() != Common::ErrorCode::Internal);
        }
    }

    static const std::set<std::string>& allowed() {
        static const std::set<std::string> names{"package.rpm", "into", ".rpmdb", ".rpmmacros"};
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
};

} // namespace Fuzz

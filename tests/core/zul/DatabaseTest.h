#pragma once

#include "common/Error.h"
#include "core/zul/Database.h"
#include "core/zul/Record.h"
#include "testbed/FailureOf.h"
#include "testbed/LogCapture.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <linux/capability.h>
#include <map>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Testbed {

using Common::Error;
using Common::ErrorCode;
using Core::ZUL::Database;
using Core::ZUL::PackageData;
using Core::ZUL::PackageIdentity;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

using Files = std::map<std::string, std::string>;

/// During its lifetime file modes apply to root too.
class DroppedCapabilities {
public:
    DroppedCapabilities() {
        EXPECT_EQ(syscall(SYS_capget, &header_, before_.data()), 0);
        auto capabilities = before_;
        capabilities[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
        EXPECT_EQ(syscall(SYS_capset, &header_, capabilities.data()), 0);
    }
    ~DroppedCapabilities() { syscall(SYS_capset, &header_, before_.data()); }
    DroppedCapabilities(const DroppedCapabilities&) = delete;
    DroppedCapabilities& operator=(const DroppedCapabilities&) = delete;

private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> before_{};
};

/// A small tmpfs on a directory, during its lifetime.
class SmallFileSystem {
public:
    explicit SmallFileSystem(fs::path directory)
        : directory_(std::move(directory)) {
        isThere_ = unshare(CLONE_NEWNS) == 0 &&
                   mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("none", directory_.c_str(), "tmpfs", 0, "size=512k") == 0;
    }
    ~SmallFileSystem() { umount2(directory_.c_str(), MNT_DETACH); }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    [[nodiscard]] bool isThere() const { return isThere_; }

    /// Takes all space with a file in it.
    void fill() const { std::ofstream(directory_ / "filler") << std::string(1 << 20, 'x') << std::flush; }
    void clear() const { fs::remove(directory_ / "filler"); }

private:
    fs::path directory_;
    bool isThere_ = false;
};

/// A database on a real file system, with a system root of its own.
struct DatabaseOnDisk {
    DatabaseOnDisk() {
        fs::create_directories(root);
        fs::create_directories(system);
    }

    /// Makes a directory as unpacking leaves it.
    fs::path extract(const Files& files, const std::string& name = "unpacked") const {
        fs::create_directories(temp / name);
        for (const auto& [path, content] : files) {
            writeFile(temp / name / path, content);
        }
        return temp / name;
    }

    void install(const PackageIdentity& package, const Files& files = {{"bin/tool", "#!"}}) {
        database.install(package, entries, extract(files));
    }

    void prepare(const PackageIdentity& package, const Files& files = {{"bin/tool", "#!"}}) {
        database.prepareUpgrade(package, entries, extract(files));
    }

    /// All files in the system root: path to the mapped package file, or "" for a file that is not a mapping.
    [[nodiscard]] Files mappings() const {
        Files found;
        for (const auto& entry : fs::recursive_directory_iterator(system)) {
            const auto path = "/" + entry.path().lexically_relative(system).native();
            if (entry.is_symlink()) {
                found[path] = fs::read_symlink(entry.path()).native();
            } else if (!entry.is_directory()) {
                found[path] = extendedAttribute(entry.path(), "user.zul.mapping.target");
            }
        }
        return found;
    }

    [[nodiscard]] static std::vector<std::string> entriesIn(const fs::path& directory) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    [[nodiscard]] std::string installedVersion(const std::string& id) const {
        return fs::read_symlink(root / id / "current").filename();
    }

    const PackageData entries{{"certificate.id", "0a1b"}, {"certificate.subgroup", "apps"}};
    const ScratchDirectory scratch;
    const fs::path root = scratch.path() / "app";
    const fs::path temp = scratch.path() / "tmp";
    const fs::path system = scratch.path() / "system";
    Database database{root, temp, system};
};

class DatabaseTest : public testing::Test, protected DatabaseOnDisk {
protected:
    [[nodiscard]] fs::path dir() const { return root / app.id(); }
    [[nodiscard]] std::string path(const std::string& below) const { return (dir() / below).native(); }

    const PackageIdentity app{"com.example.app", "1.0-1"};
    const PackageIdentity newer{"com.example.app", "2.0-1"};
};

} // namespace Testbed

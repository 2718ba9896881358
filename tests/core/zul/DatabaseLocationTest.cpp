#include "core/zul/DatabaseLocation.h"

#include "testbed/LogCapture.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>

namespace {

using Database = Core::ZUL::DatabaseLocation;
namespace fs = std::filesystem;

class ADatabasesConfiguration : public testing::Test {
protected:
    fs::path file(const std::string& content) {
        Testbed::writeFile(scratch_.path() / "zul.conf", content);
        return scratch_.path() / "zul.conf";
    }

    Testbed::ScratchDirectory scratch_;
};

TEST_F(ADatabasesConfiguration, IsReadEachTimeAndCompletedWithDefaults) {
    EXPECT_EQ(Database(file("[database]\nroot_directory = /data/apps\n")).rootDirectory(), "/data/apps");
    const Database database(file("; comment\n[other]\nx=y\n[database]\ntemp_directory=/data/tmp\n"));
    EXPECT_EQ(database.rootDirectory(), "/opt/app");
    EXPECT_EQ(database.tempDirectory(), "/data/tmp");
    EXPECT_EQ(Database(file("[database]\nroot_directory=apps\n")).rootDirectory(),
              fs::current_path() / "apps");
}

TEST_F(ADatabasesConfiguration, ThatCannotBeUsedIsAnErrorLineAndTheDefaults) {
    const auto broken = scratch_.path() / "zul.conf";
    for (const auto* content :
         {"[database]\nroot_directory=/a\nno equals sign\n", "[database\nroot_directory=/a",
          "[database]\nroot_directory=/a\nroot_directory=/b\n", "\x7f\x45\x4c\x46"}) {
        const Testbed::LogCapture log;
        const Database database(file(content));
        EXPECT_EQ(database.rootDirectory(), "/opt/app") << content;
        EXPECT_EQ(database.tempDirectory(), "/opt/zul/tmp") << content;
        EXPECT_EQ(log.text(), "ERROR: couldn't parse config file: " + broken.string() + "\n") << content;
    }
    for (const auto& path : {scratch_.path(), scratch_.path() / "missing"}) {
        const Testbed::LogCapture log;
        EXPECT_EQ(Database(path).rootDirectory(), "/opt/app") << path;
        EXPECT_EQ(log.lines().size(), 1) << path;
        EXPECT_EQ(Database::ifReadable(path).has_value(), path != scratch_.path()) << "absent is readable";
    }
}

TEST_F(ADatabasesConfiguration, LeadsToPreparedUpgrades) {
    const auto root = scratch_.path() / "root";
    const Database database(file("[database]\nroot_directory=" + root.string() + "\n"));
    EXPECT_FALSE(database.hasPreparedNextVersion("com.example.app"));
    fs::create_directories(root / "com.example.app" / "2.0-1");
    fs::create_directory_symlink(root / "com.example.app" / "2.0-1", root / "com.example.app" / "current");
    EXPECT_FALSE(database.hasPreparedNextVersion("com.example.app"));
    fs::create_directory_symlink(root / "com.example.app" / "2.0-1", root / "com.example.app" / "next");
    EXPECT_TRUE(database.hasPreparedNextVersion("com.example.app"));
    EXPECT_TRUE(database.hasPreparedNextVersion("/com.example.app"));
    fs::remove(root / "com.example.app" / "2.0-1");
    EXPECT_FALSE(database.hasPreparedNextVersion("com.example.app"));
    Testbed::writeFile(root / "file" / "next", "");
    EXPECT_FALSE(database.hasPreparedNextVersion("file"));
    EXPECT_THROW(static_cast<void>(database.hasPreparedNextVersion(std::string(300, 'x'))),
                 fs::filesystem_error);
}

} // namespace

#include "platform/manifestkit/AppManifest.h"
#include "testbed/ScratchDirectory.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <sys/stat.h>

using AppManifest::ManifestEntry;
using testing::HasSubstr;

namespace {

std::string withDesktopEntry(const std::string& rest) { return "[Desktop Entry]\nType=Application\n" + rest; }

std::string refusalOf(std::string_view bytes) {
    try {
        (void)ManifestEntry::fromBytes(bytes);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "accepted";
}

TEST(AManifest, ReturnsTheNamesInItsApplicationGroup) {
    const auto manifest = ManifestEntry::fromBytes(
        "# a comment\n\n[Desktop Entry]\nName = Werkzeug\nName[pt_BR.UTF-8@latin]=Ferramenta\n"
        "# OrganizationName=org.comment\n \t\nOrganizationName=org.elsewhere\n"
        "[X-Application] \nOrganizationName \t=\t org.ex\xC3\xA4mple\n"
        "ApplicationName=Gr\xC3\xBC\xC3\x9F \xE5\xB7\xA5\xE5\x85\xB7 \xF0\x9F\x94\xA7 = [x] # y");
    EXPECT_EQ(manifest.appOrgname(), "org.ex\xC3\xA4mple");
    EXPECT_EQ(manifest.appName(), "Gr\xC3\xBC\xC3\x9F \xE5\xB7\xA5\xE5\x85\xB7 \xF0\x9F\x94\xA7 = [x] # y");
    EXPECT_EQ(manifest.value("Desktop Entry", "Name"), "Werkzeug");
    EXPECT_EQ(manifest.value("Desktop Entry", "Name[pt_BR.UTF-8@latin]"), "Ferramenta");
    EXPECT_EQ(manifest.value("Desktop Entry", "name"), std::nullopt);
    EXPECT_EQ(manifest.value("No such group", "Name"), std::nullopt);
}

TEST(AManifest, WithoutOrWithEmptyNamesReturnsNone) {
    for (const auto* rest :
         {"", "[X-Application]\n", "[X-Application]\nOrganizationName=\nApplicationName = \n",
          "[x-application]\nOrganizationName=a\nApplicationName=b\n"}) {
        const auto manifest = ManifestEntry::fromBytes(withDesktopEntry(rest));
        EXPECT_EQ(manifest.appOrgname(), std::nullopt) << rest;
        EXPECT_EQ(manifest.appName(), std::nullopt) << rest;
    }
}

TEST(AManifest, ResolvesTheEscapesOfItsFormatAndNoOthers) {
    const auto manifest = ManifestEntry::fromBytes(
        withDesktopEntry("A=\\sa\\tb\\nc\\rd\\\\n\nList=one\\;1;two;\nBad=\\q\nCut=x\\\n"));
    EXPECT_EQ(manifest.value("Desktop Entry", "A"), " a\tb\nc\rd\\n");
    EXPECT_EQ(manifest.value("Desktop Entry", "List"), "one\\;1;two;");
    EXPECT_THROW((void)manifest.value("Desktop Entry", "Bad"), std::runtime_error);
    EXPECT_THROW((void)manifest.value("Desktop Entry", "Cut"), std::runtime_error);
}

TEST(AManifest, ThatBreaksTheFormatIsRefusedWithItsLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"A=1\nB=2\nA=3\n", "line 5: a second key \"A\""},
        {"[G]\n[Desktop Entry]\n", "line 4: a second group \"Desktop Entry\""},
        {"no equals sign\n", "line 3: neither"},
        {"=value\n", "line 3: not a valid key"},
        {" Name=indented\n", "line 3: not a valid key"},
        {"Na_me=x\n", "line 3: not a valid key"},
        {"Name[de=x\n", "line 3: not a valid key"},
        {"Name[]=x\n", "line 3: not a valid key"},
        {"Name[de]x=x\n", "line 3: not a valid key"},
        {"[Group\n", "line 3: not a valid group"},
        {"[]\n", "line 3: not a valid group"},
        {"[\n", "line 3: not a valid group"},
        {"[A]B]\n", "line 3: not a valid group"},
        {"[Gr\xC3\xBCn]\n", "line 3: not a valid group"},
        {"Name=x\r\n", "line 3: a control character"},
    };
    for (const auto& [rest, refusal] : cases) {
        EXPECT_THAT(refusalOf(withDesktopEntry(rest)), HasSubstr(refusal)) << rest;
    }
    EXPECT_THAT(refusalOf("Name=x\n[Desktop Entry]\n"), HasSubstr("line 1: a key outside a group"));
    EXPECT_THAT(refusalOf("[X-Application]\n[Desktop Entry]\n"), HasSubstr("line 1: the first group"));
    EXPECT_THAT(refusalOf(""), HasSubstr("no group"));
    EXPECT_THAT(refusalOf("# only a comment"), HasSubstr("no group"));
}

TEST(AManifest, ThatIsNotTextOrTooLargeIsRefused) {
    using namespace std::string_literals;
    for (const auto& bytes :
         {"\0"s, "\x80"s, "\xC0\xAF"s, "\xC3"s, "\xE0\x80\xAF"s, "\xED\xA0\x80"s, "\xE2\x82"s,
          "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s, "\xF5\x80\x80\x80"s, "\xFF\xFE"s}) {
        EXPECT_EQ(refusalOf(withDesktopEntry("Name=" + bytes)), "manifest is not UTF-8 text");
    }
    const auto start = withDesktopEntry("A=");
    const auto largest = start + std::string(ManifestEntry::maximumSize - start.size(), 'x');
    EXPECT_EQ(refusalOf(largest), "accepted");
    EXPECT_THAT(refusalOf(largest + "x"), HasSubstr("larger than"));
}

TEST(AManifestFile, IsReadOnlyFromARegularFile) {
    const Testbed::ScratchDirectory scratch;
    const auto file = scratch.path() / "tool.desktop";
    Testbed::writeFile(file, withDesktopEntry("[X-Application]\nApplicationName=tool\n"));
    EXPECT_EQ(ManifestEntry::fromFile(file).appName(), "tool");
    ASSERT_EQ(mkfifo((scratch.path() / "fifo").c_str(), 0600), 0);
    for (const auto* name : {"fifo", "missing", "."}) {
        EXPECT_THROW((void)ManifestEntry::fromFile(scratch.path() / name), std::runtime_error) << name;
    }
}

} // namespace

#include "platform/manifestkit/AppManifest.h"

#include "common/Files.h"
#include "common/Utf8.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace AppManifest {

namespace {

constexpr std::string_view mainGroup = "Desktop Entry";
constexpr std::string_view applicationGroup = "X-Application";

[[noreturn]] void refuse(std::size_t line, const std::string& why) {
    throw std::runtime_error("manifest line " + std::to_string(line) + ": " + why);
}

constexpr std::string_view blanks = " \t";

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// std::isalnum() depends on the locale.
bool isAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

std::string_view withoutTrailingBlanks(std::string_view text) {
    return text.substr(0, text.find_last_not_of(blanks) + 1); // 0 where there is nothing else
}

bool isGroupName(std::string_view name) {
    return !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
        return isControl(c) || c == '[' || c == ']' || static_cast<unsigned char>(c) > 0x7F;
    });
}

bool consistsOf(std::string_view text, std::string_view punctuation) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [punctuation](char c) {
        return isAlphanumeric(c) || punctuation.find(c) != std::string_view::npos;
    });
}

// NAME or NAME[LOCALE], where LOCALE is lang_COUNTRY.ENCODING@MODIFIER or a part of it.
bool isKey(std::string_view key) {
    const auto bracket = key.find('[');
    if (bracket == std::string_view::npos) {
        return consistsOf(key, "-");
    }
    return consistsOf(key.substr(0, bracket), "-") && key.back() == ']' &&
           consistsOf(key.substr(bracket + 1, key.size() - bracket - 2), "_.@-");
}

using Keys = std::map<std::string, std::string, std::less<>>;
using Groups = std::map<std::string, Keys, std::less<>>;

/// Reads a desktop entry line by line.
class Parser {
public:
    Groups parse(std::string_view bytes) {
        while (!bytes.empty()) {
            ++lineNumber_;
            const auto end = std::min(bytes.find('\n'), bytes.size());
            takeLine(bytes.substr(0, end));
            bytes.remove_prefix(std::min(end + 1, bytes.size()));
        }
        if (groups_.empty()) {
            throw std::runtime_error("manifest has no group \"Desktop Entry\"");
        }
        return std::move(groups_);
    }

private:
    void takeLine(std::string_view line) {
        if (withoutTrailingBlanks(line).empty() || line.front() == '#') {
            return;
        }
        if (line.front() == '[') {
            takeGroup(line);
        } else {
            takeKey(line);
        }
    }

    void takeGroup(std::string_view line) {
        line = withoutTrailingBlanks(line);
        const auto name = line.substr(1, line.size() - 2);
        if (line.size() < 2 || line.back() != ']' || !isGroupName(name)) {
            refuse(lineNumber_, "not a valid group header");
        }
        if (groups_.empty() && name != mainGroup) {
            refuse(lineNumber_, "the first group is not \"Desktop Entry\"");
        }
        const auto [position, isNew] = groups_.try_emplace(std::string(name));
        if (!isNew) {
            refuse(lineNumber_, "a second group \"" + std::string(name) + "\"");
        }
        group_ = &position->second;
    }

    void takeKey(std::string_view line) {
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) {
            refuse(lineNumber_, "neither a group, nor a comment, nor a key with a value");
        }
        const auto key = withoutTrailingBlanks(line.substr(0, equals));
        auto value = line.substr(equals + 1);
        value.remove_prefix(std::min(value.find_first_not_of(blanks), value.size()));
        if (group_ == nullptr) {
            refuse(lineNumber_, "a key outside a group");
        }
        if (!isKey(key)) {
            refuse(lineNumber_, "not a valid key");
        }
        if (std::any_of(value.begin(), value.end(), [](char c) { return isControl(c) && c != '\t'; })) {
            refuse(lineNumber_, "a control character in a value");
        }
        if (!group_->try_emplace(std::string(key), value).second) {
            refuse(lineNumber_, "a second key \"" + std::string(key) + "\" in its group");
        }
    }

    Groups groups_;
    Keys* group_ = nullptr;
    std::size_t lineNumber_ = 0;
};

std::string unescaped(std::string_view raw, std::string_view key) {
    static const std::map<char, char> escapes{
        {'s', ' '}, {'n', '\n'}, {'t', '\t'}, {'r', '\r'}, {'\\', '\\'}};
    std::string text;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\') {
            text += raw[i];
            continue;
        }
        const char letter = ++i < raw.size() ? raw[i] : '\0';
        if (const auto escape = escapes.find(letter); escape != escapes.end()) {
            text += escape->second;
        } else if (letter == ';') {
            text += "\\;";
        } else {
            throw std::runtime_error("manifest key \"" + std::string(key) + "\": unknown escape sequence");
        }
    }
    return text;
}

std::optional<std::string> unlessEmpty(std::optional<std::string> text) {
    return text && !text->empty() ? std::move(text) : std::nullopt;
}

} // namespace

ManifestEntry::ManifestEntry(Groups groups)
    : groups_(std::move(groups)) {}

ManifestEntry ManifestEntry::fromBytes(std::string_view bytes) {
    if (bytes.size() > maximumSize) {
        throw std::runtime_error("manifest is larger than " + std::to_string(maximumSize) + " bytes");
    }
    if (bytes.find('\0') != std::string_view::npos || !Common::isUtf8(bytes)) {
        throw std::runtime_error("manifest is not UTF-8 text");
    }
    return ManifestEntry(Parser().parse(bytes));
}

ManifestEntry ManifestEntry::fromFile(const std::filesystem::path& path) {
    try {
        return fromBytes(Common::readExistingFile(path, maximumSize));
    } catch (const std::exception& error) {
        throw std::runtime_error("couldn't read manifest " + path.string() + ": " + error.what());
    }
}

std::optional<std::string> ManifestEntry::value(std::string_view group, std::string_view key) const {
    const auto keys = groups_.find(group);
    if (keys == groups_.end()) {
        return {};
    }
    const auto found = keys->second.find(key);
    if (found == keys->second.end()) {
        return {};
    }
    return unescaped(found->second, key);
}

std::optional<std::string> ManifestEntry::appOrgname() const {
    return unlessEmpty(value(applicationGroup, "OrganizationName"));
}

std::optional<std::string> ManifestEntry::appName() const {
    return unlessEmpty(value(applicationGroup, "ApplicationName"));
}

} // namespace AppManifest

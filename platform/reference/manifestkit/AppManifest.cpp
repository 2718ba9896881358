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

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// std::isalnum() would ask the locale.
bool isAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool isGroupName(std::string_view name) {
    for (const char c : name) {
        if (isControl(c) || c == '[' || c == ']' || static_cast<unsigned char>(c) > 0x7F) {
            return false;
        }
    }
    return !name.empty();
}

bool consistsOf(std::string_view text, std::string_view punctuation) {
    for (const char c : text) {
        if (!isAlphanumeric(c) && punctuation.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return !text.empty();
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
        if (trimmed(line).empty() || line.front() == '#') {
            return;
        }
        if (line.front() == '[') {
            takeGroup(line);
        } else {
            takeKey(line);
        }
    }

    void takeGroup(std::string_view line) {
        line = trimmed(line);
        const auto name = line.substr(1, line.size() - 2);
        if (line.size() < 2 || line.back() != ']' || !isGroupName(name)) {
            refuse(lineNumber_, "no valid group header");
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
        auto key = line.substr(0, equals);
        while (!key.empty() && isBlank(key.back())) {
            key.remove_suffix(1);
        }
        auto value = line.substr(equals + 1);
        while (!value.empty() && isBlank(value.front())) {
            value.remove_prefix(1);
        }
        if (group_ == nullptr) {
            refuse(lineNumber_, "a key outside a group");
        }
        if (!isKey(key)) {
            refuse(lineNumber_, "no valid key");
        }
        for (const char c : value) {
            if (isControl(c) && c != '\t') {
                refuse(lineNumber_, "a control character in a value");
            }
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
    static constexpr std::pair<char, char> escapes[] = {
        {'s', ' '}, {'n', '\n'}, {'t', '\t'}, {'r', '\r'}, {'\\', '\\'}};
    std::string text;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\') {
            text += raw[i];
            continue;
        }
        const char letter = ++i < raw.size() ? raw[i] : '\0';
        const auto* escape = std::begin(escapes);
        while (escape != std::end(escapes) && escape->first != letter) {
            ++escape;
        }
        if (escape != std::end(escapes)) {
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

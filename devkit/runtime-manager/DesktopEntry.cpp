#include "devkit/runtime-manager/DesktopEntry.h"

#include "common/LogLine.h"
#include "platform/manifestkit/AppManifest.h"

#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace Devkit {

namespace {

[[noreturn]] void fail(const DesktopEntry& entry, const std::string& what) {
    throw std::runtime_error("desktop entry " + Common::quoted(entry.file) + " has an Exec line " + what);
}

// Expands field codes for a start without files.
std::string expanded(const std::string& word, const DesktopEntry& entry) {
    std::string argument;
    for (std::size_t at = 0; at < word.size(); ++at) {
        if (word[at] != '%') {
            argument += word[at];
            continue;
        }
        const char code = ++at < word.size() ? word[at] : '\0';
        if (code == '%') {
            argument += code;
        } else if (code == 'c') {
            argument += entry.name;
        } else if (code == 'k') {
            argument += entry.file.native();
        } else if (std::string_view("fFuUdDnNvm").find(code) == std::string_view::npos) {
            // A byte of a multi-byte character is not printed.
            fail(entry, code > ' ' && code <= '~' ? std::string("with the unknown field code %") + code
                                                  : "with an unknown field code");
        }
    }
    return argument;
}

} // namespace

DesktopEntry readDesktopEntry(const std::filesystem::path& file) {
    const auto entry = AppManifest::ManifestEntry::fromFile(file);
    const auto valueOf = [&entry](const char* key) { return entry.value("Desktop Entry", key).value_or(""); };
    if (valueOf("Type") != "Application" || valueOf("Hidden") == "true") {
        throw std::runtime_error("desktop entry " + Common::quoted(file) + " describes no application");
    }
    return {file, valueOf("Name"), valueOf("Icon"), valueOf("Exec")};
}

std::vector<std::string> commandOf(const DesktopEntry& entry) {
    std::vector<std::string> arguments;
    std::istringstream words(entry.exec);
    while (!(words >> std::ws).eof()) {
        const bool isQuoted = words.peek() == '"';
        std::string word;
        if (!(words >> std::quoted(word))) {
            fail(entry, "with an unterminated quote");
        }
        if (isQuoted) {
            arguments.push_back(word);
        } else if (word.find('"') != std::string::npos) {
            fail(entry, "with a quote in a word");
        } else if (word != "%i") {
            const auto argument = expanded(word, entry);
            arguments.insert(arguments.end(), argument.empty() ? 0 : 1, argument);
        } else if (!entry.icon.empty()) {
            arguments.insert(arguments.end(), {"--icon", entry.icon});
        }
    }
    if (arguments.empty()) {
        fail(entry, "without a command");
    }
    return arguments;
}

} // namespace Devkit

#include "devkit/runtime-manager/DesktopEntry.h"

#include "common/LogLine.h"
#include "platform/manifestkit/AppManifest.h"

#include <stdexcept>

namespace Devkit {

namespace {

class CommandParser {
public:
    explicit CommandParser(const DesktopEntry& entry)
        : entry_(entry)
        , text_(entry.exec) {}

    std::vector<std::string> parse() {
        while (at_ < text_.size()) {
            const char character = text_[at_++];
            if (character == ' ' || character == '\t') {
                endArgument();
            } else if (character == '"') {
                inArgument_ = true;
                parseQuoted();
            } else if (character == '%') {
                parseFieldCode();
            } else {
                inArgument_ = true;
                argument_ += character;
            }
        }
        endArgument();
        if (arguments_.empty()) {
            fail("without a command");
        }
        return arguments_;
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error("desktop entry " + Common::quoted(entry_.file) + " has an Exec line " +
                                 what);
    }

    void endArgument() {
        if (inArgument_) {
            arguments_.push_back(argument_);
        }
        argument_.clear();
        inArgument_ = false;
    }

    void parseQuoted() {
        for (; at_ < text_.size() && text_[at_] != '"'; ++at_) {
            if (text_[at_] == '\\' && at_ + 1 < text_.size()) {
                ++at_;
            }
            argument_ += text_[at_];
        }
        if (at_ == text_.size()) {
            fail("with an unterminated quote");
        }
        ++at_;
    }

    void parseFieldCode() {
        const char code = at_ < text_.size() ? text_[at_++] : '\0';
        constexpr std::string_view withoutFiles = "fFuUdDnNvm";
        if (withoutFiles.find(code) != std::string_view::npos && code != '\0') {
            return;
        }
        switch (code) {
        case '%':
            append("%");
            return;
        case 'c':
            append(entry_.name);
            return;
        case 'k':
            append(entry_.file.native());
            return;
        case 'i':
            if (!entry_.icon.empty()) {
                endArgument();
                arguments_.insert(arguments_.end(), {"--icon", entry_.icon});
            }
            return;
        default:
            // Not a byte out of the middle of a character.
            fail(code > ' ' && code <= '~' ? std::string("with the unknown field code %") + code
                                           : "with an unknown field code");
        }
    }

    void append(const std::string& text) {
        inArgument_ = true;
        argument_ += text;
    }

    const DesktopEntry& entry_;
    const std::string& text_;
    std::size_t at_ = 0;
    bool inArgument_ = false;
    std::string argument_;
    std::vector<std::string> arguments_;
};

} // namespace

DesktopEntry readDesktopEntry(const std::filesystem::path& file) {
    const auto entry = AppManifest::ManifestEntry::fromFile(file);
    const auto valueOf = [&entry](const char* key) { return entry.value("Desktop Entry", key).value_or(""); };
    if (valueOf("Type") != "Application" || valueOf("Hidden") == "true") {
        throw std::runtime_error("desktop entry " + Common::quoted(file) + " describes no application");
    }
    return {file, valueOf("Name"), valueOf("Icon"), valueOf("Exec")};
}

std::vector<std::string> commandOf(const DesktopEntry& entry) { return CommandParser(entry).parse(); }

} // namespace Devkit

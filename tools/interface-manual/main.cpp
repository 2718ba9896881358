// Renders the manual of a bus interface from its D-Bus introspection XML. The comment before an element
// describes it. What comes before the first line "name: text" is about the element itself; each such line,
// with the lines up to the next one, is about the argument of that name. The comment before <node> opens the
// manual.

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Tree = boost::property_tree::ptree;

const std::string commentKey = "<xmlcomment>";

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const auto begin = line.find_first_not_of(" \t");
        const auto end = line.find_last_not_of(" \t");
        lines.push_back(begin == std::string::npos ? "" : line.substr(begin, end - begin + 1));
    }
    return lines;
}

/// What the comment before an element says, taken apart.
struct Description {
    std::string text;
    std::map<std::string, std::string> arguments;
};

Description describe(const std::string& comment, const std::set<std::string>& arguments) {
    Description result;
    std::string* current = &result.text;
    for (auto line : linesOf(comment)) {
        const auto colon = line.find(": ");
        if (colon != std::string::npos && arguments.count(line.substr(0, colon)) != 0) {
            current = &result.arguments[line.substr(0, colon)];
            line.erase(0, colon + 2);
        }
        *current += (current->empty() || line.empty() ? "" : " ") + line;
    }
    return result;
}

std::string inCell(const std::string& text) {
    std::string result;
    for (const char character : text) {
        result += character == '|' ? "\\|" : std::string(1, character);
    }
    return result;
}

const std::string& meaningOf(const std::string& argument, const Description& description,
                             const std::string& member) {
    const auto meaning = description.arguments.find(argument);
    if (meaning == description.arguments.end()) {
        throw std::runtime_error("argument " + argument + " of " + member + " has no description");
    }
    return meaning->second;
}

void renderMember(std::ostream& out, const std::string& kind, const Tree& member,
                  const std::string& comment) {
    const auto name = member.get<std::string>("<xmlattr>.name");
    std::set<std::string> names;
    for (const auto& [key, argument] : member) {
        if (key == "arg") {
            names.insert(argument.get<std::string>("<xmlattr>.name"));
        }
    }
    const auto description = describe(comment, names);
    if (description.text.empty()) {
        throw std::runtime_error(kind + " " + name + " has no description");
    }
    out << "\n### " << name << "\n\n" << description.text << '\n';
    if (names.empty()) {
        return;
    }
    out << "\n| Argument | | Type | Meaning |\n|---|---|---|---|\n";
    for (const auto& [key, argument] : member) {
        if (key != "arg") {
            continue;
        }
        const auto argumentName = argument.get<std::string>("<xmlattr>.name");
        out << "| `" << argumentName << "` | " << argument.get("<xmlattr>.direction", "out") << " | `"
            << argument.get<std::string>("<xmlattr>.type") << "` | "
            << inCell(meaningOf(argumentName, description, name)) << " |\n";
    }
}

void renderMembers(std::ostream& out, const Tree& interface, const std::string& kind,
                   const std::string& heading) {
    std::string comment;
    bool first = true;
    for (const auto& [key, element] : interface) {
        if (key == commentKey) {
            comment = element.data();
            continue;
        }
        if (key == kind) {
            out << (first ? "\n## " + heading + "\n" : "");
            first = false;
            renderMember(out, kind, element, comment);
        }
        comment.clear();
    }
}

void renderManual(std::ostream& out, const Tree& document) {
    const auto& node = document.get_child("node");
    const auto& interface = node.get_child("interface");
    out << "# The bus interface " << interface.get<std::string>("<xmlattr>.name") << "\n\nObject path: `"
        << node.get<std::string>("<xmlattr>.name")
        << "`. Rendered from the interface's XML at build time; change it there.\n";
    std::string paragraph;
    auto opening = linesOf(document.get(commentKey, ""));
    opening.emplace_back();
    for (const auto& line : opening) {
        if (!line.empty()) {
            paragraph += (paragraph.empty() ? "" : "\n") + line;
        } else if (!paragraph.empty()) {
            out << '\n' << paragraph << '\n';
            paragraph.clear();
        }
    }
    renderMembers(out, interface, "method", "Methods");
    renderMembers(out, interface, "signal", "Signals");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: vendara-interface-manual INTERFACE.xml MANUAL.md\n";
        return 2;
    }
    try {
        Tree document;
        boost::property_tree::read_xml(argv[1], document);
        std::ostringstream manual;
        renderManual(manual, document);
        std::ofstream file(argv[2], std::ios::binary);
        if (!(file << manual.str() << std::flush)) {
            throw std::runtime_error(std::string("cannot write ") + argv[2]);
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "vendara-interface-manual: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}

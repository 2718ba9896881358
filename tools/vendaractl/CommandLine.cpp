#include "tools/vendaractl/CommandLine.h"

#include "common/BusText.h"
#include "tools/CommandLine.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <unistd.h>

namespace Vendaractl {

namespace {

using Problem = std::optional<std::string>;

Problem problemOfText(const std::string& text) {
    if (text.empty()) {
        return "an argument is empty";
    }
    return Common::isBusText(text) ? Problem()
                                   : "not valid UTF-8, or with a character that D-Bus does not allow";
}

// The service runs as the same user: what this program cannot read, it cannot either.
Problem problemOfFile(const std::string& path) {
    if (auto problem = problemOfText(path)) {
        return problem;
    }
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error) {
        return error.message();
    }
    if (!std::filesystem::is_regular_file(status)) {
        return "not a regular file";
    }
    if (access(path.c_str(), R_OK) != 0) {
        return std::generic_category().message(errno);
    }
    return problemOfText(std::filesystem::absolute(path));
}

class Parser {
public:
    Parser() {
        app_.set_version_flag("--version", "vendaractl " VENDARA_VERSION);
        app_.add_flag("--json", json_, "Show results as JSON, one text a line");
        app_.require_subcommand(1);
        app_.fallthrough();
        auto* const install = add(Command::Install, "install", "Install or upgrade packages from files");
        arguments(install, "FILE", "Package files");
        auto* const remove = add(Command::Remove, "remove", "Remove installed packages");
        arguments(remove, "ID", "Package identifiers");
        for (auto* const command : {install, remove}) {
            command->add_flag("--no-wait", noWait_, "Return as soon as the operations are queued");
        }
        add(Command::List, "list", "List the installed packages");
        add(Command::Operations, "operations", "List the operations that this program requested");
        add(Command::Info, "info", "Show the platform's architecture and version");
        for (const auto& [command, name, help] :
             {std::tuple{Command::Start, "start", "Start an application"},
              std::tuple{Command::Restart, "restart", "End an application and start it again"}}) {
            arguments(add(command, name, help), "ID", "Package identifier")->expected(1, 1);
        }
        add(Command::Monitor, "monitor", "Show installations, upgrades and removals until interrupted");
    }

    std::optional<Request> parse(int argc, const char* const* argv, ExitStatus& status) {
        // The option is known as it was read, wherever the parser gave up.
        const auto tell = [this](const std::string& problem) {
            if (app_.count("--json") > 0) {
                printFailure(Format::Json, {}, problem);
            } else {
                Tools::tellWrongUsage(problem);
            }
        };
        if (const auto ended = Tools::parse(app_, argc, argv, tell)) {
            status = *ended == 0 ? Success : BadUsage;
            return std::nullopt;
        }
        request_.format = json_ ? Format::Json : Format::Words;
        request_.wait = !noWait_;
        const bool takesFiles = request_.command == Command::Install;
        for (auto& argument : request_.arguments) {
            if (const auto problem = takesFiles ? problemOfFile(argument) : problemOfText(argument)) {
                printFailure(request_.format, argument, *problem);
                status = BadUsage;
                return std::nullopt;
            }
            if (takesFiles) {
                argument = std::filesystem::absolute(argument);
            }
        }
        return request_;
    }

private:
    CLI::App* add(Command command, const std::string& name, const std::string& help) {
        auto* const subcommand = app_.add_subcommand(name, help);
        subcommand->callback([this, command] { request_.command = command; });
        return subcommand;
    }

    // Where any number of arguments may come, the parser takes "[a,b]" for a list of two, and no "--" after
    // the first. So it is told to wait for more than ever come, which it does not mind.
    CLI::Option* arguments(CLI::App* command, const std::string& name, const std::string& help) {
        constexpr int many = CLI::detail::expected_max_vector_size;
        auto* const option = command->add_option(name, request_.arguments, help)->required();
        return option->take_all()->expected(many, many)->allow_extra_args(false)->option_text(" ");
    }

    CLI::App app_{"Installs, upgrades, removes and starts applications through the norvane.Vendara service.",
                  "vendaractl"};
    Request request_{};
    bool json_ = false;
    bool noWait_ = false;
};

} // namespace

std::optional<Request> parseCommandLine(int argc, const char* const* argv, ExitStatus& status) {
    return Parser().parse(argc, argv, status);
}

} // namespace Vendaractl

#include "client/Client.h"
#include "common/BusText.h"
#include "common/Error.h"
#include "common/Files.h"
#include "common/PackageId.h"
#include "tools/CommandLine.h"
#include "tools/vendaractl/Commands.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

using namespace Vendaractl;
using Problem = std::optional<std::string>;

Problem problemOfId(const std::string& id) {
    return Common::isPackageId(id) ? Problem() : "not a valid identifier";
}

// The service runs as the same user, so it cannot read a file that this program cannot read.
Problem problemOfFile(const std::string& path) {
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
    return Common::isBusText(std::filesystem::absolute(path).native())
               ? Problem()
               : "not valid UTF-8, or with a character that D-Bus does not allow";
}

Problem problemOfPlace(const std::string& path, bool isInImage) {
    if (path.empty()) {
        return "not a path";
    }
    return isInImage && !path.starts_with('/') ? Problem("not an absolute path") : Problem();
}

std::string fromEnvironment(const char* name, std::string otherwise = {}) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : std::move(otherwise);
}

// The database takes the defaults for what it cannot parse. A person who names a file means it.
std::string problemOfConfiguration(const std::string& path) try {
    constexpr std::size_t sizeLimit = std::size_t{1024} * 1024;
    std::istringstream text(Common::readExistingFile(path, sizeLimit));
    boost::property_tree::ptree tree;
    boost::property_tree::read_ini(text, tree);
    return tree.count("database") == 0 ? path + ": has no section [database]" : "";
} catch (const boost::property_tree::ini_parser_error& error) {
    return path + ": line " + std::to_string(error.line()) + ": " + error.message();
} catch (const Common::Error& error) {
    return error.what();
}

class Program {
public:
    Program() {
        request_.authority = fromEnvironment("VENDARA_AUTHORITY");
        request_.configuration = fromEnvironment("VENDARA_CONFIGURATION", request_.configuration);
        request_.systemRoot = fromEnvironment("VENDARA_SYSTEM_ROOT", request_.systemRoot);
        app_.set_version_flag("--version", "vendaractl " VENDARA_VERSION);
        app_.add_flag("--json", isJson_, "Print results as JSON, one object a line");
        app_.require_subcommand(1);
        app_.fallthrough();
        auto* const installation = add("install", "Install or upgrade packages from files", install);
        arguments(installation, "FILE", "Package files");
        auto* const removal = add("remove", "Remove installed packages", remove);
        arguments(removal, "ID", "Package identifiers");
        for (auto* const command : {installation, removal}) {
            command->add_flag("--no-wait", request_.isDetached,
                              "Return as soon as the operations are queued");
        }
        auto* const inspection = add("check", "Show what an installation of package files would do", check);
        arguments(inspection, "FILE", "Package files");
        inspection
            ->add_option("--authority", request_.authority,
                         "Certificates of the authorities, PEM [those of the device]")
            ->check(CLI::ExistingFile);
        addDatabase(inspection);
        add("list", "List the installed packages", list);
        add("operations", "List the operations that this program requested", operations)
            ->add_flag("--follow", request_.follow, "Follow them until all have ended");
        arguments(add("wait", "Wait until operations that were requested earlier have ended", wait), "ID",
                  "Identifier of an operation or a package [all operations]")
            ->required(false)
            ->expected(1, 1);
        add("info", "Show the platform's architecture and version", info);
        for (auto* const command : {add("start", "Start an application", start),
                                    add("restart", "Terminate an application and start it again", restart)}) {
            arguments(command, "ID", "Package identifier")->expected(1, 1);
        }
        add("monitor", "Show installations, upgrades and removals until interrupted", monitor);
        addDatabaseCommands();
    }

    int run(int argc, const char* const* argv) {
        if (const auto ended = Tools::parse(app_, argc, argv)) {
            return *ended;
        }
        request_.format = isJson_ ? Format::Json : Format::Text;
        if (request_.image.empty() && !fromEnvironment("VENDARA_NO_ATTRIBUTES").empty()) {
            request_.ignoresAttributes = true;
        }
        return execute();
    }

private:
    // The checks of the options do not see values from the environment.
    [[nodiscard]] std::string problemOfEnvironment() const {
        const auto problemOf = [](const char* name, const std::string& used, const auto& validator) {
            auto value = fromEnvironment(name);
            const auto problem = value.empty() || value != used ? std::string() : validator(value);
            return problem.empty() ? problem : name + (": " + problem);
        };
        auto problem = problemOf("VENDARA_CONFIGURATION", request_.configuration, problemOfConfiguration);
        if (problem.empty()) {
            problem = problemOf("VENDARA_SYSTEM_ROOT", request_.systemRoot, CLI::ExistingDirectory);
        }
        if (problem.empty() && command_ == check) {
            problem = problemOf("VENDARA_AUTHORITY", request_.authority, CLI::ExistingFile);
        }
        return problem;
    }

    [[nodiscard]] bool hasGoodArguments() {
        const bool readsDatabase =
            app_.get_subcommands().front()->get_option_no_throw("--configuration") != nullptr;
        if (readsDatabase && request_.image.empty()) {
            if (const auto problem = problemOfEnvironment(); !problem.empty()) {
                printFailure(request_.format, {}, problem);
                return false;
            }
        }
        const bool takesFiles = command_ == install || command_ == check;
        const bool takesPlace = command_ == owner;
        for (auto& argument : request_.arguments) {
            if (const auto problem = takesFiles   ? problemOfFile(argument)
                                     : takesPlace ? problemOfPlace(argument, !request_.image.empty())
                                                  : problemOfId(argument)) {
                printFailure(request_.format, argument, *problem);
                return false;
            }
            if (takesFiles || takesPlace) {
                argument = std::filesystem::absolute(argument);
            }
        }
        return true;
    }

    void addDatabaseCommands() {
        auto* const listing = add("files", "List the files of an installed package", files);
        arguments(listing, "ID", "Package identifier")->expected(1, 1);
        auto* const search = add("owner", "Show the package that a file belongs to", owner);
        arguments(search, "PATH", "File in a system directory or in the database")->expected(1, 1);
        auto* const measurement = add("size", "Show the bytes that packages take", size);
        auto* const verification = add("verify", "Compare the database and the system directories", verify);
        auto* const past =
            add("history", "List installations, upgrades and removals from the journal", history);
        for (auto* const command : {measurement, verification, past}) {
            arguments(command, "ID", "Package identifier [all packages]")->required(false)->expected(1, 1);
        }
        verification->add_flag("--no-attributes", request_.ignoresAttributes,
                               "Do not check security attributes, which only root may set");
        for (auto* const command : {listing, search, measurement, verification}) {
            auto* const image = addImage(command);
            for (auto* const option : addDatabase(command)) {
                image->excludes(option);
            }
        }
        addImage(past)->excludes(
            past->add_option("--directory", request_.journal, "Directory of journal files")
                ->check(CLI::ExistingDirectory));
    }

    CLI::Option* addImage(CLI::App* command) {
        return command->add_option("--root", request_.image, "Root directory of a system image to read")
            ->check(CLI::ExistingDirectory);
    }

    std::array<CLI::Option*, 2> addDatabase(CLI::App* command) {
        return {
            command
                ->add_option("--configuration", request_.configuration,
                             "The database's configuration [/etc/zul/zul.conf]")
                ->check(problemOfConfiguration),
            command
                ->add_option("--system-root", request_.systemRoot, "Directory that takes the place of / [/]")
                ->check(CLI::ExistingDirectory)};
    }

    using Command = ExitStatus (*)(const Request&);

    CLI::App* add(const std::string& name, const std::string& help, Command command) {
        return app_.add_subcommand(name, help)->callback([this, command] { command_ = command; });
    }

    // For an unlimited number of arguments the parser splits "[a,b]" and does not accept "--" after the first
    // one. With a very large number it does neither, and accepts fewer arguments.
    CLI::Option* arguments(CLI::App* command, const std::string& name, const std::string& help) {
        constexpr int many = CLI::detail::expected_max_vector_size;
        auto* const option = command->add_option(name, request_.arguments, help)->required();
        return option->take_all()->expected(many, many)->allow_extra_args(false)->option_text(" ");
    }

    [[nodiscard]] ExitStatus execute() {
        try {
            return hasGoodArguments() ? command_(request_) : BadUsage;
        } catch (const Vendara::ServiceAbsent& error) {
            printFailure(request_.format, {}, error.what());
            return NoService;
        } catch (const Vendara::CallRefused& error) {
            printFailure(request_.format, {}, error.what());
        } catch (const Vendara::Interrupted&) {
            throw;
        } catch (const OutputLost&) {
            throw;
        } catch (const Common::Error& error) {
            printFailure(request_.format, subjectOf(error), error.what());
        } catch (const std::exception& error) {
            printFailure(request_.format, {}, error.what());
        }
        return OperationFailed;
    }

    /// The one package or path of the command, where the failure is about it. In text output the message
    /// names it.
    [[nodiscard]] std::string subjectOf(const Common::Error& error) const {
        using enum Common::ErrorCode;
        const bool isAboutIt = error.code() == PackageNotExist || error.code() == BadPackageID ||
                               error.code() == FileNotFound || error.code() == CorruptedInstalledPackage;
        const bool hasOne = request_.format == Format::Json && request_.arguments.size() == 1;
        return isAboutIt && hasOne ? request_.arguments.front() : std::string();
    }

    CLI::App app_{"Installs, upgrades, removes and starts applications through the norvane.Vendara service.",
                  "vendaractl"};
    Request request_;
    Command command_ = nullptr;
    bool isJson_ = false;
};

// Ends the process by the signal, so that a shell reports it as the cause.
[[noreturn]] void endBy(int signal) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    std::_Exit(128 + signal);
}

} // namespace

int main(int argc, char** argv) {
    // Texts on the bus are UTF-8, whatever the user's locale.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        return Program().run(argc, argv);
    } catch (const Vendara::Interrupted& interruption) {
        endBy(interruption.signal());
    } catch (const std::exception& error) {
        std::cerr << "vendaractl: " << Common::printable(error.what()) << std::endl;
        return OperationFailed;
    }
}

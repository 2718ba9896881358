#include "common/PrintableText.h"
#include "tools/vendaractl/CommandLine.h"
#include "tools/vendaractl/Commands.h"
#include "tools/vendaractl/ServiceClient.h"
#include "tools/vendaractl/SignalWatch.h"

#include <clocale>
#include <csignal>
#include <iostream>

namespace {

using namespace Vendaractl;

ExitStatus runGuarded(const Request& request) {
    try {
        return run(request);
    } catch (const ServiceAbsent& error) {
        printFailure(request.format, {}, error.what());
        return NoService;
    } catch (const CallRefused& error) {
        printFailure(request.format, {}, error.what());
        return OperationFailed;
    }
}

// Ends as a program without a handler would, so that a shell sees what ended it.
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
        ExitStatus status = Success;
        const auto request = parseCommandLine(argc, argv, status);
        return request ? runGuarded(*request) : status;
    } catch (const Interrupted& interruption) {
        endBy(interruption.signal());
    } catch (const std::exception& error) {
        std::cerr << "vendaractl: " << Common::printable(error.what()) << std::endl;
        return OperationFailed;
    }
}

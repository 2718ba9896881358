// How the daemon's memory and times grow: with the number of installations it has carried out, of operations
// that are queued, and of packages that are installed. Prints figures; ends with 1 when memory grows where it
// must not.
//
// bench-daemon [INSTALLATIONS]: 10,000 unless told otherwise.

#include "testbed/PrivateBus.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/WaitUntil.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class Bench {
public:
    Bench() {
        Testbed::PackageSpec spec;
        spec.files = {{"/opt/app/com.example.app/data", "data", "0644", ""}};
        file_ = Testbed::buildPackage(scratch_.path(), spec);
        awaitDaemon();
        client_.emplace();
    }

    // Resident memory of the daemon in kB.
    [[nodiscard]] long residentMemory() const {
        std::ifstream status("/proc/" + std::to_string(daemon_.pid()) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:")) {
                return std::strtol(line.c_str() + 6, nullptr, 10);
            }
        }
        return 0;
    }

    void install(int count) {
        for (; count > 0; --count) {
            client_->waitForStatus(client_->install(file_), 100);
            client_->forget();
        }
    }

    // Memory after the first hundred installations and after all; whether it has stayed.
    bool soak(int installations) {
        install(100);
        const auto first = residentMemory();
        std::printf("%8s %12s\n%8d %9ld kB\n", "installs", "resident", 100, first);
        const auto start = Clock::now();
        auto last = first;
        for (int done = 100; done < installations; done += installations / 10) {
            install(installations / 10);
            last = residentMemory();
            std::printf("%8d %9ld kB\n", done + installations / 10, last);
        }
        std::printf("%.2f ms each\n", millisecondsSince(start) / installations);
        return last - first <= 1024;
    }

    void queue(int operations) {
        manager_.hold("Install");
        const auto start = Clock::now();
        for (int count = 0; count < operations; ++count) {
            client_->install(file_);
        }
        const auto queued = millisecondsSince(start);
        const auto read = timeOfRead();
        std::printf("%6d queued operations: %.2f ms each, read in %.1f ms, resident %ld kB\n", operations,
                    queued / operations, read, residentMemory());
        manager_.hold("Install", false);
        manager_.answer("Install");
        Testbed::waitUntil([&] { return client_->operations().empty(); }, std::chrono::minutes(5));
    }

    void list(int packages) {
        std::vector<Common::PackageProperties> list;
        for (int count = 0; count < packages; ++count) {
            list.push_back(Testbed::PackageManager::package("com.example.package" + std::to_string(count)));
        }
        manager_.setPackages(list);
        timeOfRead();
        std::printf("%6d installed packages: read in %.1f ms, resident %ld kB\n", packages, timeOfRead(),
                    residentMemory());
    }

private:
    double timeOfRead() {
        const auto start = Clock::now();
        client_->operations();
        return millisecondsSince(start);
    }

    void awaitDaemon() {
        const auto ping = [] {
            return Testbed::run({"busctl", "--user", "call", "norvane.Vendara", "/norvane/Vendara",
                                 "org.freedesktop.DBus.Peer", "Ping"})
                       .status == 0;
        };
        if (!Testbed::waitUntil(ping)) {
            throw std::runtime_error("the daemon does not start: " + daemon_.output());
        }
    }

    Testbed::ScratchDirectory scratch_;
    Testbed::PrivateBuses buses_;
    Testbed::PackageManager manager_;
    Testbed::RuntimeManager runtime_;
    Testbed::Identification identification_;
    Testbed::Process daemon_{{VENDARA_DAEMON}, {{{"HOME", scratch_.path()}}, {}, {}}};
    std::optional<Testbed::Client> client_;
    std::string file_;
};

} // namespace

int main(int argc, char** argv) {
    Bench bench;
    const bool stayed = bench.soak(argc > 1 ? std::atoi(argv[1]) : 10000);
    for (const int operations : {100, 1000, 10000}) {
        bench.queue(operations);
    }
    for (const int packages : {50, 500, 5000}) {
        bench.list(packages);
    }
    return stayed ? EXIT_SUCCESS : EXIT_FAILURE;
}

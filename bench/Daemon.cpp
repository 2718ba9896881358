// Compares the time of requests with that of their round trips alone, and measures the daemon's memory and
// times by the number of completed installations, queued operations and installed packages. Exits with 1 if
// memory grows with completed installations.
//
// bench-daemon [INSTALLATIONS]     10,000 by default
// bench-daemon soak SECONDS [calm] 64 clients at once; the peers are stopped and killed, or left alone

#include "common/Names.h"
#include "common/bus/WireTypes.h"
#include "testbed/PrivateBus.h"
#include "testbed/RpmPackage.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/Soak.h"
#include "testbed/WaitUntil.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

namespace Names = Common::Names;
using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A call and its reply on a connection that nothing else uses.
class Peer {
public:
    Peer(std::unique_ptr<sdbus::IConnection> connection, const std::string& service, const std::string& path)
        : connection_(std::move(connection))
        , proxy_(sdbus::createProxy(*connection_, service, path)) {}

    template<typename... Results, typename... Arguments>
    std::tuple<Results...> call(const std::string& interface, const std::string& method,
                                const Arguments&... arguments) {
        std::tuple<Results...> results;
        auto message = proxy_->createMethodCall(interface, method);
        static_cast<void>((message << ... << arguments));
        auto reply = proxy_->callMethod(message);
        std::apply([&](auto&... each) { static_cast<void>((reply >> ... >> each)); }, results);
        return results;
    }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

// The minimal work for a request: the same round trips to the same peers, one after another, and the reply.
// "norvane.Vendara.Chain" on the session bus has "Install", "GetAllProperties" and "Start".
class Chain {
public:
    Chain() {
        const auto add = [this](const char* method, const char* in, const char* out, auto body) {
            object_->registerMethod("norvane.Vendara", method, in, out, [body](sdbus::MethodCall call) {
                auto reply = call.createReply();
                body(call, reply);
                reply.send();
            });
        };
        add("Install", "s", "(ssiii)", [this](sdbus::MethodCall& call, sdbus::MethodReply& reply) {
            identify(call);
            list();
            identify(call);
            reply << Common::OperationRecord();
        });
        add("GetAllProperties", "", "a(ssssa{sv})",
            [this](sdbus::MethodCall& call, sdbus::MethodReply& reply) {
                identify(call);
                std::vector<Common::PackageRecord> packages;
                for (const auto& package : list()) {
                    packages.push_back({package.at(Names::PackageKeys::id),
                                        package.at(Names::PackageKeys::version),
                                        package.at(Names::PackageKeys::certificateSubgroup),
                                        package.at(Names::PackageKeys::certificateId)});
                }
                reply << packages;
            });
        add("Start", "s", "", [this](sdbus::MethodCall& call, sdbus::MethodReply& /*reply*/) {
            std::string id;
            call >> id;
            using Dictionary = std::map<std::string, sdbus::Variant>;
            runtime_.call<>(Names::RuntimeManager::intentsInterface, Names::RuntimeManager::invokeIntent,
                            Names::RuntimeManager::startIntent,
                            Dictionary{{Names::RuntimeManager::preferredHandler, sdbus::Variant(id)}},
                            Dictionary());
        });
        object_->finishRegistration();
        connection_->requestName("norvane.Vendara.Chain");
    }

    [[noreturn]] void serve() {
        connection_->enterEventLoop();
        std::abort(); // killed before that
    }

private:
    void identify(const sdbus::MethodCall& call) {
        identification_.call<std::string, std::string>(
            Names::Identification::interface, Names::Identification::identifyByBusName, call.getSender());
    }
    std::vector<Common::PackageProperties> list() {
        return std::get<0>(manager_.call<std::vector<Common::PackageProperties>>(Names::Zul::interface,
                                                                                 Names::Zul::getPackageList));
    }

    std::unique_ptr<sdbus::IConnection> connection_ = sdbus::createSessionBusConnection();
    std::unique_ptr<sdbus::IObject> object_ = sdbus::createObject(*connection_, Names::Vendara::objectPath);
    Peer identification_{sdbus::createSessionBusConnection(), Names::Identification::service,
                         Names::Identification::objectPath};
    Peer runtime_{sdbus::createSessionBusConnection(), Names::RuntimeManager::service,
                  Names::RuntimeManager::intentsPath};
    Peer manager_{sdbus::createSystemBusConnection(), Names::Zul::service, Names::Zul::objectPath};
};

class Measurement {
public:
    Measurement() {
        file_ =
            Testbed::buildPackage(scratch_.path(), {.files = {{"/opt/app/com.example.app/data", "data"}}});
        if (!Testbed::waitForService()) {
            throw std::runtime_error("the daemon does not start: " + daemon_.output());
        }
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

    // Each request beside the bare chain, in turn.
    void compare(int packages, int rounds) {
        setPackages(packages);
        const Testbed::Process chain({"/proc/self/exe", "chain"});
        const auto connection = sdbus::createSessionBusConnection();
        const auto daemon = sdbus::createProxy(*connection, "norvane.Vendara", "/norvane/Vendara");
        const auto bare = sdbus::createProxy(*connection, "norvane.Vendara.Chain", "/norvane/Vendara");
        if (!Testbed::waitForService("norvane.Vendara.Chain")) {
            throw std::runtime_error("the chain does not start: " + chain.output());
        }
        for (const auto* method : {"Install", "GetAllProperties", "Start"}) {
            std::vector<double> ours;
            std::vector<double> rivals;
            for (int round = 0; round < rounds; ++round) {
                rivals.push_back(timeOf(*bare, method));
                ours.push_back(timeOf(*daemon, method));
                if (std::string(method) == "Install") {
                    Testbed::waitUntil([&] { return client_->operations().empty(); });
                }
            }
            std::sort(ours.begin(), ours.end());
            std::sort(rivals.begin(), rivals.end());
            const auto print = [&](const char* what, std::size_t at) {
                std::printf("  %s %.2f ms, chain %.2f ms, ratio %.2f", what, ours[at], rivals[at],
                            ours[at] / rivals[at]);
            };
            std::printf("%16s, %4d packages:", method, packages);
            print("median", ours.size() / 2);
            print("99%", ours.size() * 99 / 100);
            std::printf("\n");
        }
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
        setPackages(packages);
        timeOfRead();
        std::printf("%6d installed packages: read in %.1f ms, resident %ld kB\n", packages, timeOfRead(),
                    residentMemory());
    }

    [[nodiscard]] std::ptrdiff_t threads() const {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(daemon_.pid()) + "/task");
        return std::distance(begin(tasks), end(tasks));
    }

private:
    void setPackages(int packages) {
        std::vector<Common::PackageProperties> list;
        list.reserve(static_cast<std::size_t>(packages));
        for (int count = 0; count < packages; ++count) {
            list.push_back(Testbed::PackageManager::package("com.example.package" + std::to_string(count)));
        }
        manager_.setPackages(list);
    }

    double timeOf(sdbus::IProxy& service, const std::string& method) const {
        auto call = service.createMethodCall("norvane.Vendara", method);
        if (method == "Install") {
            call << file_;
        } else if (method == "Start") {
            call << "com.example.app";
        }
        const auto start = Clock::now();
        service.callMethod(call);
        return millisecondsSince(start);
    }

    double timeOfRead() {
        const auto start = Clock::now();
        client_->operations();
        return millisecondsSince(start);
    }

    Testbed::ScratchDirectory scratch_;
    Testbed::PrivateBuses buses_;
    Testbed::PackageManager manager_;
    Testbed::RuntimeManager runtime_;
    Testbed::Identification identification_;
    Testbed::Process daemon_{{VENDARA_DAEMON}, {.environment = {{"HOME", scratch_.path()}}}};
    std::optional<Testbed::Client> client_;
    std::string file_;
};

int soak(int argc, char** argv) {
    const Testbed::ScratchDirectory scratch;
    const Testbed::PrivateBuses buses;
    const auto package = Testbed::buildPackage(scratch.path(), {});
    Testbed::Process daemon({VENDARA_DAEMON}, {.environment = {{"HOME", scratch.path()}}});
    const bool isCalm = argc > 3 && std::string(argv[3]) == "calm";
    const auto failures = Testbed::soak({std::chrono::seconds(std::atoi(argv[2])), 64, !isCalm}, package);
    std::printf("%s", failures.c_str());
    daemon.signal(SIGTERM);
    const int status = daemon.wait();
    std::printf("the daemon ended with %d\n", status);
    if (status != 0) {
        std::printf("%s\n", daemon.output().c_str());
    }
    return failures.empty() && status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "chain") {
        Chain().serve();
    }
    if (mode == "soak" && argc > 2) {
        return soak(argc, argv);
    }
    Measurement bench;
    std::printf("idle: %td threads, resident %ld kB\n", bench.threads(), bench.residentMemory());
    for (const int packages : {5, 500}) {
        bench.compare(packages, 2000);
    }
    const bool stayed = bench.soak(argc > 1 ? std::atoi(argv[1]) : 10000);
    for (const int operations : {100, 1000, 10000}) {
        bench.queue(operations);
    }
    for (const int packages : {50, 500, 5000}) {
        bench.list(packages);
    }
    return stayed ? EXIT_SUCCESS : EXIT_FAILURE;
}

#include "testbed/Soak.h"

#include "testbed/Process.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/WaitUntil.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <utility>

namespace Testbed {

namespace {

using Clock = std::chrono::steady_clock;
using Operation = Client::Operation;

constexpr std::chrono::minutes patience{3};

// What one client did and found.
class Worker {
public:
    /// @param areAllExpected  whether every status must arrive: the peers are not disturbed
    Worker(std::size_t number, std::string package, bool areAllExpected)
        : random_(static_cast<unsigned>(number))
        , package_(std::move(package))
        , areAllExpected_(areAllExpected) {}

    void work(Clock::time_point end) {
        while (Clock::now() < end) {
            const auto start = Clock::now();
            try {
                request();
            } catch (const sdbus::Error& error) {
                // A dead or stopped peer makes requests fail, but only with the service's own error.
                if (error.getName() != "norvane.Vendara.Error") {
                    fail("a request failed with " + error.getName() + ": " + error.getMessage());
                }
            }
            latencies_.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
            if (asked_.size() >= 50) { // a client that does not wait for ends makes the service list them all
                account();
            }
        }
    }

    void account() {
        operations_ += asked_.size();
        for (const auto& operation : std::exchange(asked_, {})) {
            const auto hasEnded = [&] {
                const auto statuses = client_.statusesOf(operation);
                const bool isReported = !statuses.empty() && statuses.back() >= 100;
                return isReported || (!areAllExpected_ && isStored(operation));
            };
            if (!waitUntil(hasEnded, patience)) {
                fail("an operation was lost: " + describe(operation));
                return; // the others would take as long
            }
            const auto statuses = client_.statusesOf(operation);
            if (std::adjacent_find(statuses.begin(), statuses.end(), std::greater_equal<>()) !=
                statuses.end()) {
                fail("statuses out of order, or twice: " + describe(operation));
            }
            if (areAllExpected_ && (statuses.size() < 3 || statuses.front() != 0)) {
                fail("statuses were lost: " + describe(operation));
            }
        }
    }

    [[nodiscard]] const std::vector<double>& latencies() const { return latencies_; }
    [[nodiscard]] const std::string& failures() const { return failures_; }
    [[nodiscard]] std::size_t operations() const { return operations_; }

private:
    void request() {
        switch (std::uniform_int_distribution(0, 9)(random_)) {
        case 0:
        case 1:
            asked_.push_back(client_.install(package_));
            break;
        case 2:
            asked_.push_back(client_.remove("com.example.app"));
            break;
        case 3:
            launch("Restart");
            break;
        case 4:
        case 5:
            readStore();
            break;
        default:
            launch("Start");
        }
    }

    void launch(const std::string& method) {
        const auto error = client_.errorOf(method, "com.example.app");
        if (!error.empty() && error != "Failed to start application" &&
            error != "Failed to terminate application") {
            fail(method + " failed with " + error);
        }
    }

    std::string describe(const Operation& operation) {
        auto text =
            operation.id + ", type " + std::to_string(static_cast<int>(operation.type)) + ", received";
        for (const auto status : client_.statusesOf(operation)) {
            text += " " + std::to_string(status);
        }
        for (const auto& listed : client_.operations()) {
            if (listed.id == operation.id) {
                text += ", listed with " + std::to_string(static_cast<int>(listed.status));
            }
        }
        return text;
    }

    bool isStored(const Operation& operation) {
        try {
            readStore();
        } catch (const sdbus::Error&) {
            // Asked again.
        }
        return stored_.contains(operation.id);
    }

    // Completed operations are gone from the service's store when they have been read.
    void readStore() {
        std::map<std::string, int> received;
        for (const auto& operation : asked_) {
            const auto statuses = client_.statusesOf(operation);
            received[operation.id] = statuses.empty() ? 0 : statuses.back();
        }
        const auto properties = client_.call<Client::Properties>("GetAllProperties");
        std::set<std::string> listed;
        for (const auto& each : properties.at("Operations").get<std::vector<Operation>>()) {
            if (!listed.insert(each.id).second) {
                fail("an operation is listed twice: " + each.id);
            }
            if (static_cast<int>(each.status) < received[each.id]) {
                fail("an operation is listed with an earlier status than its signal had: " + each.id);
            }
        }
        for (const auto& each : properties.at("CompletedOperations").get<std::vector<Operation>>()) {
            stored_.insert(each.id);
        }
    }

    void fail(const std::string& text) { failures_ += text + "\n"; }

    Client client_;
    std::mt19937 random_;
    std::string package_;
    bool areAllExpected_;
    std::vector<Operation> asked_; // not accounted for
    std::size_t operations_ = 0;
    std::set<std::string> stored_;
    std::vector<double> latencies_;
    std::string failures_;
};

// Runs the peers' program; stops, continues and kills it.
class Peers {
public:
    Peers() { start(); }

    void start() {
        process_ = std::make_unique<Process>(std::vector<std::string>{SOAK_PEERS});
        if (!process_->shows("ready")) {
            throw std::runtime_error("the peers do not start: " + process_->output());
        }
    }

    void disturb(std::mt19937& random) {
        if (std::uniform_int_distribution(0, 3)(random) == 0) {
            process_.reset();
            start();
        } else {
            process_->signal(SIGSTOP);
            std::this_thread::sleep_for(
                std::chrono::milliseconds(std::uniform_int_distribution(50, 800)(random)));
            process_->signal(SIGCONT);
        }
    }

private:
    std::unique_ptr<Process> process_;
};

void printLatencies(std::vector<double> latencies, std::size_t operations) {
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](std::size_t part) { return latencies[(latencies.size() - 1) * part / 1000]; };
    std::printf("%zu calls, %zu operations; latency median %.2f ms, 99%% %.2f ms, longest %.0f ms\n",
                latencies.size(), operations, at(500), at(990), latencies.back());
}

} // namespace

std::string soak(const SoakOptions& options, const std::filesystem::path& package) {
    Peers peers;
    std::vector<std::unique_ptr<Worker>> workers;
    for (std::size_t number = 0; number < options.clients; ++number) {
        workers.push_back(std::make_unique<Worker>(number, package, !options.withChaos));
    }
    const auto forAll = [&](const auto& run) {
        std::vector<std::jthread> threads;
        threads.reserve(workers.size());
        for (auto& worker : workers) {
            threads.emplace_back([run, &worker = *worker] { run(worker); });
        }
        return threads;
    };
    const auto end = Clock::now() + options.duration;
    auto threads = forAll([end](Worker& worker) { worker.work(end); });
    for (std::mt19937 random(1); options.withChaos && Clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        peers.disturb(random);
    }
    threads.clear();
    forAll([](Worker& worker) { worker.account(); });

    std::vector<double> latencies;
    std::string failures;
    std::size_t operations = 0;
    for (const auto& worker : workers) {
        latencies.insert(latencies.end(), worker->latencies().begin(), worker->latencies().end());
        failures += worker->failures();
        operations += worker->operations();
    }
    printLatencies(std::move(latencies), operations);
    return failures;
}

void servePeers() {
    PackageManager manager;
    const RuntimeManager runtime;
    const Identification identification;
    manager.setPackages({PackageManager::package("com.example.app")});
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        manager.emit("PackageUpgraded", PackageManager::package("com.example.app"));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

} // namespace Testbed

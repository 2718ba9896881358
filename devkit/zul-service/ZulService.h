#pragma once

#include "common/bus/BusConnection.h"
#include "devkit/zul-service/PackageManager.h"

#include <sdbus-c++/sdbus-c++.h>

#include <asio/thread_pool.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace Devkit {

/// The package manager on the bus. The main thread receives the requests, stores the list of packages and
/// sends all replies and signals. One worker thread uses the database, in the order of the requests. So the
/// list is returned at once even during an installation; it is then the list before the installation.
///
/// The main thread waits for the worker only in finish(), after the loop has ended; the worker never waits
/// for the main thread.
class ZulService {
public:
    /// @param retryDelay  from a failure to complete an upgrade to the next attempt
    ZulService(Common::BusConnection& bus, PackageManager manager, std::chrono::milliseconds retryDelay);
    ~ZulService();
    ZulService(const ZulService&) = delete;
    ZulService& operator=(const ZulService&) = delete;

    /// Accepts no further requests, stops the running extraction, and returns when all accepted requests have
    /// ended; later extractions fail. Main thread only.
    void finish();

private:
    using Reply = sdbus::Result<>;
    using Work = std::function<void()>;
    using Request = std::function<Work()>; ///< returns the work that follows the reply

    void registerInterface();
    void announceRecovered();
    [[nodiscard]] PackageManager::PackageList presentPackages() const;
    Work install(const std::string& path);
    void answerWhenDone(Reply reply, Request request);
    void haveDone(Work work);
    void completeWhenUnused(const std::string& id);
    void updateList();
    void rememberIds(const PackageManager::PackageList& list);
    void announceRemoved();
    template<typename Argument>
    void announce(const std::string& signal, const Argument& argument);

    Common::BusConnection& bus_;
    std::chrono::milliseconds retryDelay_;
    PackageManager::PackageList packages_; // main thread's
    std::unique_ptr<sdbus::IObject> object_;
    PackageManager manager_;      // worker's, except isOnDisk() and stop()
    std::set<std::string> known_; // identifiers of installed packages; worker's
    asio::thread_pool worker_{1};
};

} // namespace Devkit

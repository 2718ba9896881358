#pragma once

#include "common/bus/BusConnection.h"
#include "devkit/support/Watcher.h"
#include "devkit/zul-service/PackageManager.h"

#include <sdbus-c++/sdbus-c++.h>

#include <asio/thread_pool.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace Devkit {

/// The package manager on the bus. The main thread takes the requests, keeps the list of packages and sends
/// all replies and signals; one worker thread does the work on the database, in the order of the requests. So
/// the list is told at once also during an installation, as it was before it.
///
/// Who waits for whom: the main thread waits for nobody but in finish(), after the loop has ended; the worker
/// waits for nobody; the watcher's thread for nobody.
class ZulService {
public:
    ZulService(Common::BusConnection& bus, PackageManager manager);
    ~ZulService();
    ZulService(const ZulService&) = delete;
    ZulService& operator=(const ZulService&) = delete;

    /// Takes no further requests and returns when those that were taken are done. Main thread only.
    void finish();

private:
    using Reply = sdbus::Result<>;
    using Work = std::function<void()>;
    using Request = std::function<Work()>; ///< returns what is to be done after the reply

    void registerInterface();
    void announceRecovered();
    [[nodiscard]] PackageManager::PackageList presentPackages() const;
    Work install(const std::string& path);
    void answerWhenDone(Reply reply, Request request);
    void haveDone(Work work);
    void completeWhenUnused(const std::string& id);
    void completeNow(const std::string& id);
    void tellList();
    void tellPackage(const std::string& signal, const Core::ZUL::PackageData& package);
    void tellRemoved(const std::string& id);

    Common::BusConnection& bus_;
    PackageManager::PackageList packages_; // main thread's
    std::unique_ptr<sdbus::IObject> object_;
    PackageManager manager_; // worker's, but for what any thread may ask
    asio::thread_pool worker_{1};
    // Last: its thread hands work to the worker.
    Watcher watcher_;
};

} // namespace Devkit

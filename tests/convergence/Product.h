#pragma once

#include <atomic>
#include <chrono>
#include <expected>
#include <memory>
#include <set>
#include <shared_mutex>
#include <string>

#include "host/documents/DocumentService.h"
#include "host/session/Following.h"
#include "platform/fileprovider/Platform.h"
#include "tests/convergence/ScriptedKernel.h"
#include "tests/host/Served.h"
#include "tidewell/applibraries/AppLibraries.h"

namespace tests {

/// The whole product on a storage, as one process would run it; it can end and begin again.
class Product {
  public:
    /// `base` holds the storage "s"; the stores go to `stores`. One that `isManual` does nothing
    /// but in step(), and its clock goes by advance() alone.
    Product(std::string base, std::string stores, std::shared_ptr<KernelScript> script,
            bool isManual, bool isServed);
    ~Product() { stop(); }
    Product(const Product&) = delete;
    Product& operator=(const Product&) = delete;

    /// Empty, or why it could not.
    [[nodiscard]] std::string start();
    void stop();
    /// Ends it so that the stores are as they would be had it been killed before. REQUIRES: manual.
    void kill();
    [[nodiscard]] bool isRunning() const { return service_ != nullptr; }

    /// REQUIRES: it runs, for all that follow.
    [[nodiscard]] host::DocumentService& service() { return *service_; }
    void step();
    /// Whether clients were signalled; a manual one is not waited for.
    [[nodiscard]] bool isSignalled();
    void advance(std::chrono::milliseconds time) { clock_ += time.count(); }
    /// Until all that has happened is known. Empty, or why not.
    [[nodiscard]] std::string waitUntilSettled();
    [[nodiscard]] platform::VolumeService::Statistics statistics() const {
        return platform_->volume().statistics();
    }

    /// Applications that are installed; the documents of "x" are in "l/x/Documents" in the base
    /// folder. Runs or not.
    [[nodiscard]] const std::set<std::string>& applications() const { return applications_; }
    void install(const std::string& application);
    void uninstall(const std::string& application);

    /// Makes, moves, trashes or deletes by one of the product's own verbs. Returns where the object
    /// is then (absolute; empty if nowhere), or an errno. Any thread, running or not.
    [[nodiscard]] std::expected<std::string, int> perform(const std::string& verb,
                                                          const std::string& at,
                                                          const std::string& to);

    [[nodiscard]] KernelScript& script() { return *script_; }

    /// The extended attribute that carries tags, and one that carries a tag.
    [[nodiscard]] static std::string tagAttribute();
    [[nodiscard]] static std::string tagValue();

  private:
    /// Not among the stores, which are copied; a socket cannot be.
    [[nodiscard]] std::string serviceFolder() const { return stores_ + ".service"; }
    [[nodiscard]] std::string entryOf(const std::string& application) const;
    void refreshApplications();

    const std::string base_, stores_;
    const std::shared_ptr<KernelScript> script_;
    const bool isManual_;
    const bool isServed_;
    std::shared_mutex life_;  // shared while it performs, alone where it begins or ends
    std::atomic<std::int64_t> clock_ = 1'000'000;  // ms
    std::set<std::string> applications_;
    std::unique_ptr<platform::Platform> platform_;
    std::shared_ptr<tidewell::AppLibraries> libraries_;
    std::unique_ptr<Served> served_;  ///< null: in this process
    std::unique_ptr<host::DocumentService> service_;
    std::unique_ptr<host::Following> following_;
};

}  // namespace tests

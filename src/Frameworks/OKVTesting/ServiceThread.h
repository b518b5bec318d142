#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Publication.h>

#include <functional>
#include <future>
#include <string>
#include <thread>

namespace okv::testing {

/// Publishes a root object from a thread of its own, whose run loop serves it until `stop` or the
/// end.
class OKV_EXPORT ServiceThread {
public:
    using Task = std::function<void(Publication&)>;

    /// Returns once the name can be looked up, or `failure()` says why it cannot. `published`,
    /// where given, runs on the service's thread before anything is served.
    ServiceThread(std::string name, RootObject root, PublicationOptions options = {},
                  const Task& published = {});
    ServiceThread(const ServiceThread&) = delete;
    ServiceThread& operator=(const ServiceThread&) = delete;
    ~ServiceThread() { stop(); }

    /// Runs the task on the service's thread and waits for it.
    void on(const Task& task);
    /// Withdraws the name and closes every connection.
    void stop();
    /// Why the name could not be had; empty when it was.
    const std::string& failure() const noexcept { return failure_; }

private:
    void serve(const std::string& name, RootObject root, PublicationOptions options,
               const Task& published, std::promise<void>& ready);

    Ref<RunLoop> loop_;
    Ref<Publication> publication_;
    std::string failure_;
    std::thread thread_;
};

}  // namespace okv::testing

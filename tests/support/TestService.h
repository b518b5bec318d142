#pragma once

#include <OKVPlatform/ipc/Publication.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

namespace okv::test {

/// A private runtime folder for the registered names of one test; it goes with the test.
class RuntimeFolder {
public:
    RuntimeFolder() {
        char pattern[] = "/tmp/okv-test-XXXXXX";
        path_ = mkdtemp(pattern);
        std::filesystem::permissions(path_, std::filesystem::perms(0755));
        setenv("OKV_RUNTIME_DIR", path_.c_str(), 1);
    }
    RuntimeFolder(const RuntimeFolder&) = delete;
    RuntimeFolder& operator=(const RuntimeFolder&) = delete;
    ~RuntimeFolder() { std::filesystem::remove_all(path_); }

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// Publishes a root object from a thread of its own, whose run loop serves it until the test ends.
class ThreadService {
public:
    ThreadService(const std::string& name, const RootObject& root,
                  PublicationOptions options = {}) {
        std::promise<void> ready;
        thread_ = std::thread([&, name, root, options] { serve(name, root, options, ready); });
        ready.get_future().get();
    }
    ThreadService(const ThreadService&) = delete;
    ThreadService& operator=(const ThreadService&) = delete;
    ~ThreadService() { stop(); }

    /// Runs something on the service's thread and waits for it.
    void on(const std::function<void(Publication&)>& task) {
        std::promise<void> done;
        loop_->perform([&] {
            task(*publication_);
            done.set_value();
        });
        done.get_future().get();
    }
    void stop() {
        if (!thread_.joinable()) return;
        loop_->stop();
        thread_.join();
    }
    const std::string& failure() const { return failure_; }

private:
    void serve(const std::string& name, const RootObject& root, const PublicationOptions& options,
               std::promise<void>& ready) {
        loop_ = RunLoop::current();
        publication_ = Publication::publish(name, root, options, failure_);
        ready.set_value();
        loop_->run();
        publication_ = nullptr;
    }

    Ref<RunLoop> loop_;
    Ref<Publication> publication_;
    std::string failure_;
    std::thread thread_;
};

}  // namespace okv::test

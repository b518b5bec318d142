#include <OKVTesting/ServiceThread.h>

namespace okv::testing {

ServiceThread::ServiceThread(std::string name, RootObject root, PublicationOptions options,
                             const Task& published) {
    std::promise<void> ready;
    thread_ =
        std::thread([&] { serve(name, std::move(root), std::move(options), published, ready); });
    ready.get_future().get();
}

void ServiceThread::serve(const std::string& name, RootObject root, PublicationOptions options,
                          const Task& published, std::promise<void>& ready) {
    loop_ = RunLoop::current();
    publication_ = Publication::publish(name, std::move(root), std::move(options), failure_);
    if (publication_ && published) published(*publication_);
    ready.set_value();
    loop_->run();
    publication_ = nullptr;
}

void ServiceThread::on(const Task& task) {
    std::promise<void> done;
    loop_->perform([&] {
        task(*publication_);
        done.set_value();
    });
    done.get_future().get();
}

void ServiceThread::stop() {
    if (!thread_.joinable()) return;
    loop_->stop();
    thread_.join();
}

}  // namespace okv::testing

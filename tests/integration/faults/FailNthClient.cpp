// A client of which one call fails: connects, reads, writes, posts notices and hears them. The
// first time through anything may fail with an error, the second time nothing may any more.
//
//   fail_nth_client NUMBER     writes NUMBER; prints the key of each acknowledged write
//
// Exit code 1: something was wrong, and what is on standard error.
#include "MappedPlan.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/system/NSLog.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using okv::Value;
using Center = okv::DistributedNotificationCenter;

constexpr char kNotice[] = "test.fail-nth";

/// What is no error but a wrong answer.
class Wrong : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

void require(bool holds, const char* otherwise) {
    if (!holds) throw Wrong(otherwise);
}

/// Hears the notices of this process.
class Listener final : public okv::Object {
public:
    Listener() { heard.reserve(8); }  // its own lack of memory is not what is looked at
    void hear(const okv::Notification& notice) {
        if (notice.name == kNotice) heard.push_back(notice.userInfo.longLongValue());
    }
    std::vector<std::int64_t> heard;

protected:
    void dealloc() override { Center::defaultCenter().removeObserver(*this); }
};

class Scenario {
public:
    explicit Scenario(std::int64_t number) : number_(number) { posted_.reserve(8); }

    /// Each step by itself: what one could not do must not keep the next from working.
    void tryOnce() {
        tolerate([this] { connect(); });
        tolerate([this] { read(); });
        tolerate([this] { write("first"); });
        tolerate([this] { observe(); });
        tolerate([this] { post(); });
        tolerate([this] { hear(std::chrono::milliseconds(20)); });
        tolerate([this] { manager_ = nullptr; });
    }
    void doAll() {
        connect();
        require(static_cast<bool>(manager_), "no connection to a healthy server");
        read();
        require(write("second"), "a healthy write was refused");
        observe();
        post();
        // One that could not look may look a second later.
        require(hear(std::chrono::seconds(30)), "a notice was not heard");
        require(listener_->heard == posted_, "other notices than were posted");
        manager_->disConnectSrv();
    }

private:
    template <class Step>
    static void tolerate(Step step) {
        try {
            step();
        } catch (const Wrong&) {
            throw;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "tolerated: %s\n", error.what());
        }
    }
    void connect() { manager_ = okvDataManager::sharedDataManager(); }
    void read() const {
        if (!manager_) return;
        const auto value = manager_->okvData("old");
        require(value == Value(1) || (value.isNil() && !manager_->isConnect()),
                "a wrong value was read");
    }
    bool write(const std::string& name) const {
        if (!manager_) return false;
        const auto key = name + std::to_string(number_);
        if (!manager_->setOKVData_value(key, number_)) return false;
        std::puts(key.c_str());
        const auto value = manager_->okvData(key);
        require(value == Value(number_) || (value.isNil() && !manager_->isConnect()),
                "another value was read than was written");
        return true;
    }
    void observe() {
        if (!listener_) listener_ = okv::make<Listener>();
        if (observing_) return;
        Center::defaultCenter().addObserver(*listener_, &Listener::hear, kNotice);
        observing_ = true;
    }
    void post() {
        const auto next = posted_.empty() ? 1 : posted_.back() + 1;
        Center::defaultCenter().post(kNotice, {}, next);
        if (observing_) posted_.push_back(next);
    }
    bool hear(okv::RunLoop::Clock::duration within) const {
        if (!listener_) return posted_.empty();
        const auto deadline = okv::RunLoop::Clock::now() + within;
        while (listener_->heard.size() < posted_.size()) {
            if (okv::RunLoop::Clock::now() >= deadline) return false;
            okv::RunLoop::current()->runUntil(
                std::min(deadline, okv::RunLoop::Clock::now() + std::chrono::milliseconds(5)));
        }
        return true;
    }

    const std::int64_t number_;
    okv::Ref<okvDataManager> manager_;
    okv::Ref<Listener> listener_;
    bool observing_ = false;
    std::vector<std::int64_t> posted_;
};

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount != 2) return 2;
    static char line[256];
    std::setvbuf(stdout, line, _IOLBF, sizeof line);  // whole lines, and no memory needed for them
    okv::setNSLogSink([](std::string_view) {});
    faults::MappedPlan plan(std::getenv(kFailPlanVariable));
    try {
        Scenario scenario(std::atoll(arguments[1]));
        plan->armed = true;
        scenario.tryOnce();
        plan->armed = false;
        scenario.doAll();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        plan->armed = false;
        std::fprintf(stderr, "fail_nth_client: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

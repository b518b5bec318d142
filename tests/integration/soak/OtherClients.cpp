#include "Client.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <fcntl.h>
#include <unistd.h>

#include <thread>

namespace soak {

using okv::RunLoop;

namespace {

constexpr char kNotice[] = "soak.notice";

void serveFor(std::chrono::milliseconds time) {
    RunLoop::current()->runUntil(RunLoop::Clock::now() + time);
}

/// Follows the session user, as every client of the data manager does.
class SettingObserver final : public OKVSettingObserver {
public:
    void settingChanged(const okv::Notification& notice) override {
        ++heard;
        try {
            if (const auto manager = okvDataManager::sharedDataManager())
                manager->updateSessionUserId(notice.userInfo);
        } catch (const okv::ConnectionError&) {
            // The next step finds out, and tells.
        }
    }
    long heard = 0;

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }
};

/// A process that has its settings from the shared data manager.
class Manager final : public Client {
public:
    // Its lines about every connection would hide the others.
    Manager(Board& board, Slot& slot, Fault) : Client(board, slot) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }

protected:
    void step() override {
        const auto manager = okvDataManager::sharedDataManager();
        if (!manager) throw std::runtime_error("no data manager");
        if (!observed_) manager->registerAsSettingNotifi_object(*observer_);
        observed_ = true;
        auto& place = own();
        raise(place, [&](std::int64_t number) {
            return manager->setOKVData_value_appUid(place.key, valueHolding(number), 1);
        });
        if (manager->okvDataAll(Value(okv::Array{place.key})).isNil() && manager->isValid())
            throw WrongAnswer("a read without an answer");
        lastSuccess_ = now();
    }
    void rest() override { serveFor(std::chrono::milliseconds(10)); }
    // It only learns at the next call that the server has gone, and answers so once.
    double blamedFrom(double begun) const override {
        return lastSuccess_ > 0 ? lastSuccess_ : begun;
    }

private:
    const okv::Ref<SettingObserver> observer_ = okv::make<SettingObserver>();
    bool observed_ = false;
    double lastSuccess_ = 0;
};

/// Hears the posters: of each every notice, in order.
class Ear final : public okv::Object {
public:
    Ear() {
        okv::DistributedNotificationCenter::defaultCenter().addObserver(*this, &Ear::hear, kNotice,
                                                                        {}, &Ear::miss);
    }
    long heard = 0;
    std::string wrong;

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }

private:
    // A poster that is new here is heard from whichever notice on.
    void hear(const okv::Notification& notice) {
        const auto& entries = notice.userInfo.as<Dictionary>();
        const auto number = entries["number"].longLongValue();
        if (lasts_.size() > kPostersKept) lasts_.clear();
        const auto [last, isNew] =
            lasts_.try_emplace(entries["poster"].longLongValue(), number - 1);
        if (number != last->second + 1)
            wrong = "notice " + std::to_string(number) + " after " + std::to_string(last->second);
        last->second = number;
    }
    void miss(std::uint64_t count) { wrong = std::to_string(count) + " notices missed"; }

    static constexpr std::size_t kPostersKept = 64;
    std::map<std::int64_t, std::int64_t> lasts_;
};

class Observer final : public Client {
public:
    Observer(Board& board, Slot& slot, Fault) : Client(board, slot) {}

protected:
    void step() override {
        serveFor(std::chrono::milliseconds(50));
        if (!ear_->wrong.empty()) throw WrongAnswer(std::exchange(ear_->wrong, {}));
    }
    void rest() override {}

private:
    const okv::Ref<Ear> ear_ = okv::make<Ear>();
};

class Poster final : public Client {
public:
    Poster(Board& board, Slot& slot, Fault) : Client(board, slot) {}

protected:
    void step() override {
        okv::DistributedNotificationCenter::defaultCenter().post(
            kNotice, {},
            Dictionary{
                {"poster", name_}, {"number", number_ + 1}, {"text", std::string(100, 't')}});
        ++number_;
    }

private:
    const std::int64_t name_ = std::chrono::steady_clock::now().time_since_epoch().count();
    std::int64_t number_ = 0;
};

/// Runs the tool, a process for every call.
class Tool final : public Client {
public:
    Tool(Board& board, Slot& slot, Fault) : Client(board, slot) {}

protected:
    void step() override {
        auto& place = own();
        raise(place, [&](std::int64_t number) {
            return call({"set", place.key + ("=" + std::to_string(number))});
        });
        call({"get", place.key});
        call(kOthers[turn_++ % kOthers.size()]);
    }
    void rest() override { std::this_thread::sleep_for(std::chrono::milliseconds(200)); }

private:
    using Words = std::vector<std::string>;

    static bool call(const Words& words) {
        const auto code = faults::runTool(words);
        if (code != 0)
            throw std::runtime_error("okvctl " + words.front() + " ended with " +
                                     std::to_string(code));
        return true;
    }

    inline static const std::vector<Words> kOthers{
        {"--json", "status"}, {"list", "soak.tool"}, {"ping"}, {"urls"}, {"locks"}, {"users"}};
    std::size_t turn_ = 0;
};

}  // namespace

std::unique_ptr<Client> makeManager(Board& board, Slot& slot, Fault fault) {
    return std::make_unique<Manager>(board, slot, fault);
}
std::unique_ptr<Client> makeObserver(Board& board, Slot& slot, Fault fault) {
    return std::make_unique<Observer>(board, slot, fault);
}
std::unique_ptr<Client> makePoster(Board& board, Slot& slot, Fault fault) {
    return std::make_unique<Poster>(board, slot, fault);
}
std::unique_ptr<Client> makeTool(Board& board, Slot& slot, Fault fault) {
    return std::make_unique<Tool>(board, slot, fault);
}

}  // namespace soak

#include "Support.h"

#include <algorithm>
#include <future>

std::size_t okv::NotificationCenterInspector::registrationsOf(const Object& observer) {
    auto& center = NotificationCenter::defaultCenter();
    const std::lock_guard lock(center.mutex_);
    return static_cast<std::size_t>(
        std::count_if(center.registrations_.begin(), center.registrations_.end(),
                      [&](const auto& held) { return held.observer == &observer; }));
}

namespace dmtest {

LoggedLines::LoggedLines() {
    okv::setNSLogSink([this](std::string_view text) {
        {
            const std::lock_guard lock(mutex_);
            lines_.emplace_back(text);
        }
        if (watcher_) watcher_(text);
    });
}

Strings LoggedLines::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}

LoggedEntries::LoggedEntries() {
    okv::setLogSink([this](int level, std::string_view text) {
        const std::lock_guard lock(mutex_);
        entries_.emplace_back(level, text);
    });
}

std::vector<LoggedEntries::Entry> LoggedEntries::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(entries_, {});
}

Strings linesOfAFailedConnect() {
    Strings lines{kConnectLine};
    for (int i = 1; i <= 5; ++i)
        lines.push_back("-> retry connection... [" + std::to_string(i) + "]");
    lines.emplace_back(kFailLine);
    return lines;
}

const Strings& selectorsNeverSent() {
    static const Strings never{"removeAsClient:",      "connectCount",     "endServer",
                               "okvDataPT:osUid:",     "okvDataAllPT:",    "okvDataAllPT:osUid:",
                               "filterSettingsDataPT", "systemConfDataPT", "cmnSettingsDataPT",
                               "useridUpdatePT"};
    return never;
}

void serveForAWhile() {
    okv::RunLoop::current()->runUntil(okv::RunLoop::Clock::now() + std::chrono::milliseconds(50));
}

static const RuntimeFolder& sharedFolder() {
    static const RuntimeFolder folder;
    return folder;
}

ServerTest::ServerTest(std::optional<FakeDataServer::Options> options) : folder_(sharedFolder()) {
    if (options) startServer(*options);
}

void ServerTest::startServer(FakeDataServer::Options options) {
    server_ = std::make_unique<FakeDataServer>(options);
}

Messages ServerTest::sent() {
    return server_->takeMessages();
}

Strings ServerTest::sentSelectors() {
    Strings selectors;
    for (const auto& message : sent()) selectors.push_back(message.selector);
    return selectors;
}

void ServerTest::TearDown() {
    if (!server_) return;
    for (const auto& selector : selectorsNeverSent()) {
        EXPECT_FALSE(server_->everReceived(selector)) << selector;
    }
}

ConnectedTest::ConnectedTest() {
    server().answer("currentUserIdPT", 7);
    server().answer("defaultUserIdPT", 3);
    server().answer("useridAppListPT", okv::Array{3, 7});
    manager_ = okv::Ref<okvDataManager>::adopting((new okvDataManager)->init());
    if (!manager_) throw std::runtime_error("the fake data server was not reached");
    lines_.take();
    sent();
}

std::set<okvDataManager*> instancesOfTenRacers() {
    std::promise<void> go;
    const auto start = go.get_future().share();
    std::vector<std::future<okv::Ref<okvDataManager>>> racers;
    for (int i = 0; i < 10; ++i) {
        racers.push_back(std::async(std::launch::async, [start, i] {
            start.wait();
            return i % 2 == 0 ? okvDataManager::sharedDataManager()
                              : okvDataManager::sharedDataManagerInit(nullptr);
        }));
    }
    go.set_value();
    std::set<okvDataManager*> instances;
    for (auto& racer : racers) instances.insert(racer.get().get());
    return instances;
}

ReceivedMessage userListMessage() {
    return {"useridAppListPT", "", {}};
}

ReceivedMessage defaultUserMessage() {
    return {"defaultUserIdPT", "", {}};
}

}  // namespace dmtest

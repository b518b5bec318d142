// An agent: it keeps a connection, follows the user that its account is switched to, hears of every
// change, and lives through restarts of the data server.   agent [KEY]
#include <OKVDataManager/okvDataManager.h>

#include <cstdio>

class Agent final : public OKVSettingObserver {
public:
    explicit Agent(const char* key) : key_(key) {}

    void settingChanged(const okv::Notification& notice) override {
        show([&](okvDataManager& manager) { manager.updateSessionUserId(notice.userInfo); });
    }
    // A switch may be among what was missed; the server knows who the user is.
    void settingChangesMissed(std::uint64_t /*count*/) override {
        show([](okvDataManager& manager) { manager.setNowSessionUserId(manager.currentUserId()); });
    }

    template <class Follow>
    void show(Follow followUser) const try {
        // Reconnects when the server had gone; null when it cannot: then a later notice finds it.
        const auto manager = okvDataManager::sharedDataManager();
        if (!manager) return;
        followUser(*manager);
        const auto value = manager->okvData(key_);
        const auto* text = value.getIf<std::string>();
        std::printf("user %d: %s is %s\n", manager->nowSessionUserId(), key_,
                    text != nullptr ? text->c_str() : "not set");
        std::fflush(stdout);
    } catch (const okv::ConnectionError&) {
        // The server went in the middle of a call. It posts a notice when it is back.
    }

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }

private:
    const char* key_;
};

int main(int argc, char** argv) {
    const auto manager = okvDataManager::sharedDataManager();
    if (!manager) return std::fputs("agent: the data server is not running\n", stderr), 1;
    const auto agent = okv::make<Agent>(argc > 1 ? argv[1] : "dc-gui-colour");
    manager->registerAsSettingNotifi_object(*agent);
    agent->show([](okvDataManager&) {});
    okv::RunLoop::current()->run();
}

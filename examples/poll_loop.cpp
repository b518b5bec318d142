// The same inside an application's own loop: the run loop's descriptor is one among those that the
// application polls.
//   poll_loop [KEY]     one line for each change, until standard input ends
#include <OKVDataManager/okvDataManager.h>

#include <poll.h>
#include <unistd.h>

#include <cstdio>

class Watcher final : public OKVSettingObserver {
public:
    void settingChanged(const okv::Notification& notice) override {
        follow([&](okvDataManager& manager) { manager.updateSessionUserId(notice.userInfo); });
    }
    // A switch of the user may be among what was missed; the server knows who it is.
    void settingChangesMissed(std::uint64_t /*count*/) override {
        follow(
            [](okvDataManager& manager) { manager.setNowSessionUserId(manager.currentUserId()); });
    }
    bool changed = true;

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }

private:
    template <class Follow>
    void follow(Follow followUser) try {
        changed = true;
        if (const auto manager = okvDataManager::sharedDataManager()) followUser(*manager);
    } catch (const okv::ConnectionError&) {
        // The server went in the middle of a call. It posts a notice when it is back.
    }
};

static bool inputEnded() {
    char bytes[256];
    return read(STDIN_FILENO, bytes, sizeof bytes) <= 0;
}

static void show(const char* key) try {
    const auto manager = okvDataManager::sharedDataManager();
    if (!manager || !manager->isConnect()) return;
    const auto value = manager->okvData(key);
    const auto* text = value.getIf<std::string>();
    std::printf("%s is %s\n", key, text != nullptr ? text->c_str() : "not set");
    std::fflush(stdout);
} catch (const okv::ConnectionError&) {
    // As above.
}

int main(int argc, char** argv) {
    if (!okvDataManager::sharedDataManager())
        return std::fputs("poll_loop: the data server is not running\n", stderr), 1;
    const auto watcher = okv::make<Watcher>();
    okvDataManager::sharedDataManager()->registerAsSettingNotifi_object(*watcher);
    const auto loop = okv::RunLoop::current();
    pollfd entries[] = {{loop->fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    for (;;) {
        if (watcher->changed) show(argc > 1 ? argv[1] : "dc-gui-colour");
        watcher->changed = false;
        if (poll(entries, 2, -1) < 0) continue;
        if (entries[0].revents != 0) loop->dispatch();
        if (entries[1].revents != 0 && inputEnded()) return 0;
    }
}

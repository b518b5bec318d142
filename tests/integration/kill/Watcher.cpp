#include "Ground.h"

#include "../faults/Support.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

namespace killing {

namespace {

using okv::Array;
using okv::Dictionary;
using okv::Value;
using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

// How often it looks whether the last revision is known, and reached.
constexpr std::chrono::milliseconds kLookAgain{50};

/// Keeps a picture of the settings: notices say that it is time to ask, the answer which keys to
/// read anew.
class Watcher final : public okv::Object {
public:
    Watcher(int watcher, Ground& ground, const Record& record, bool isStale)
        : watcher_(watcher), ground_(ground), record_(record), isStale_(isStale) {
        okv::DistributedNotificationCenter::defaultCenter().addObserver(
            *this, &Watcher::hear, kOKVSettingNotification, {}, &Watcher::miss);
    }

    void run() {
        catchUp();
        while (ground_.last < 0 || revision_ < ground_.last)
            okv::RunLoop::current()->runUntil(faults::Clock::now() + kLookAgain);
        record_.add(pictureLine(watcher_, revision_, picture_));
    }

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }

private:
    void hear(const okv::Notification& notice) {
        const auto* entries = notice.userInfo.getIf<Dictionary>();
        if (entries == nullptr || (*entries)["revision"].longLongValue() > revision_) catchUp();
    }
    void miss(std::uint64_t) { catchUp(); }

    // The server may be killed meanwhile; the next one posts a notice when it serves.
    void catchUp() {
        try {
            if (connected()) take(okv::send<&Admin::changesPT>(*root_, Value(revision_)));
        } catch (const okv::ConnectionError&) {
        }
    }

    bool connected() {
        if (connection_ && connection_->isValid()) return true;
        root_ = nullptr;
        connection_ = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
        if (connection_) root_ = connection_->rootProxy();
        return static_cast<bool>(root_);
    }

    // Read first, then taken for known: what fails in between is asked for again.
    void take(const Value& answer) {
        const auto* changes = answer.as<Dictionary>()["changes"].getIf<Array>();
        if (changes == nullptr) return record_.add("resync " + std::to_string(watcher_));
        for (const auto& change : *changes) {
            const auto& entries = change.as<Dictionary>();
            const auto& keys = entries["keys"].as<Array>();
            readAnew(keys);
            revision_ = entries["revision"].longLongValue();
            Change seen{revision_, {}};
            for (const auto& key : keys) seen.keys.push_back(key.as<std::string>());
            record_.add(sawLine(watcher_, seen));
        }
        ground_.revisions[watcher_] = revision_;
    }

    void readAnew(const Array& keys) {
        const auto values = okv::send<&Data::okvDataAllPT_appUid>(*root_, Value(keys), kUser);
        for (const auto& [key, value] : values.as<Dictionary>()) {
            const auto tag = tagOf(value);
            const auto& name = key.as<std::string>();
            if (isStale_ && name[0] == 'o') continue;
            tag.empty() ? void(picture_.erase(name)) : void(picture_[name] = tag);
        }
    }

    const int watcher_;
    Ground& ground_;
    const Record& record_;
    const bool isStale_;
    std::int64_t revision_ = 0;
    Picture picture_;
    okv::Ref<okv::Connection> connection_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace

void runWatcher(int watcher, Ground& ground, const Record& record, bool isStale) {
    okv::make<Watcher>(watcher, ground, record, isStale)->run();
}

}  // namespace killing

#pragma once

#include "OKVDataAdmin_protocol.h"
#include "ServerProcess.h"

#include "support/DataServer.h"
#include "unit/okvDataManager/Support.h"

#include <sys/types.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

/// What the tests of the data manager beside a real server share.
namespace dmtest {

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

inline constexpr uid_t kNobody = 65534;
/// An account that exists nowhere but in the tests.
inline constexpr uid_t kAnAccount = 12345;
inline constexpr char kKey[] = "dc-gui-colour";

/// A running server, and the log lines of this process.
class RealServerTest : public testing::Test {
protected:
    RealServerTest() {
        if (!server_.start()) throw std::runtime_error("the data server did not start");
    }
    void killServer() {
        server_.signal(SIGKILL);
        EXPECT_EQ(server_.wait(), -SIGKILL);
    }
    static okv::Ref<okvDataManager> shared() { return okvDataManager::sharedDataManager(); }
    static okv::Ref<okvDataManager> connected() {
        auto manager = okv::Ref<okvDataManager>::adopting((new okvDataManager)->init());
        if (!manager) throw std::runtime_error("the data server was not reached");
        return manager;
    }

    ServerProcess server_;
    LoggedLines lines_;
};

/// Keeps every notice, and hands it on first as every client does.
class NoticeKeeper final : public OKVSettingObserver {
public:
    explicit NoticeKeeper(okv::Ref<okvDataManager> manager) : manager_(std::move(manager)) {
        manager_->registerAsSettingNotifi_object(*this);
    }
    void settingChanged(const okv::Notification& notice) override {
        manager_->updateSessionUserId(notice.userInfo);
        sessionUsers.push_back(manager_->nowSessionUserId());
        notices.push_back(notice.userInfo.as<okv::Dictionary>());
    }
    bool hears(std::size_t count) {
        return serveUntil([&] { return notices.size() >= count; });
    }
    std::vector<okv::Dictionary> notices;
    std::vector<std::int32_t> sessionUsers;  ///< after each of them

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }

private:
    okv::Ref<okvDataManager> manager_;
};

}  // namespace dmtest

#pragma once

#include "support/NotificationTesting.h"
#include "support/Serving.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace ipctest {

class DistributedCenter : public testing::Test {
protected:
    okv::Ref<notification_test::Listener> listener() {
        return okv::make<notification_test::Listener>(center_);
    }
    bool hears(const okv::Ref<notification_test::Listener>& listener, std::size_t count) {
        return support::serveUntil([&] { return listener->numbers.size() >= count; });
    }
    /// Delivers everything that has been posted so far.
    void settle() {
        const auto last = listener();
        last->observe("settled");
        center_.post("settled");
        ASSERT_TRUE(hears(last, 1));
    }
    int inotifyInstances() const {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            count += std::filesystem::read_symlink(entry, gone) == "anon_inode:inotify" ? 1 : 0;
        }
        return count;
    }

    notification_test::Folder folder_;
    okv::DistributedNotificationCenter center_{folder_.path(), {}};
};

}  // namespace ipctest

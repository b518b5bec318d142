// What a client leaves unread takes memory of the publishing process: so much, and only so long.
// Counted as the allocator counts; a sanitizer has an allocator of its own.
#include "PublicationFixture.h"

#include <malloc.h>

#include <optional>

namespace ipctest {

namespace {

constexpr std::size_t kKibibyte = 1024;
constexpr std::size_t kMebibyte = 1024 * kKibibyte;
// For what has nothing to do with the queue: the kernel's part of it, the loop's lists.
constexpr std::size_t kSlack = 512 * kKibibyte;

std::size_t allocatedBytes() {
    const auto all = mallinfo2();
    return all.uordblks + all.hblkhd;
}

class OutputMemory : public PublicationTest {
protected:
    void SetUp() override { publish(); }

    /// Sends requests for so much and serves them without reading an answer.
    void ask(std::uint32_t count, std::size_t size) {
        for (std::uint32_t i = 0; i < count; ++i) {
            const auto request = RawClient::request(i + 1, "echo", std::string(size, 'x'));
            const auto handled = root_.handled;
            std::string_view left = request;
            ASSERT_TRUE(serveUntil([&] {
                left.remove_prefix(client_->send(left));
                return root_.handled > handled;
            })) << left.size()
                << " bytes not taken, " << queued() << " wait";
        }
    }
    /// Reads until no more than so much waits in this process.
    void readUntilQueueIs(std::size_t atMost) {
        ASSERT_TRUE(serveUntil([&] {
            if (queued() > atMost) client_->drop(16 * kKibibyte);
            RunLoop::current()->dispatch();
            return queued() <= atMost;
        })) << queued()
            << " bytes wait";
    }
    std::size_t queued() const { return publication_->use().queuedOutput; }
    std::size_t taken() const {
        const auto now = allocatedBytes();
        return now > before_ ? now - before_ : 0;
    }
    void connect() {
        client_.emplace(greeted());
        ASSERT_NO_FATAL_FAILURE(ask(1, 1));
        before_ = allocatedBytes();
    }

    std::optional<RawClient> client_;
    std::size_t before_ = 0;
};

}  // namespace

TEST_F(OutputMemory, IsGivenBackOnceTheClientHasReadAll) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_NO_FATAL_FAILURE(ask(8, 500 * kKibibyte));
    ASSERT_GT(queued(), 2 * kMebibyte);
    EXPECT_GT(taken(), queued());
    ASSERT_NO_FATAL_FAILURE(readUntilQueueIs(0));
    EXPECT_LT(taken(), kSlack);
}

TEST_F(OutputMemory, IsGivenBackToAFewTimesWhatIsLeftThoughSomeStaysUnread) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_NO_FATAL_FAILURE(ask(8, 500 * kKibibyte));
    ASSERT_GT(taken(), 2 * kMebibyte);
    ASSERT_NO_FATAL_FAILURE(readUntilQueueIs(300 * kKibibyte));
    ASSERT_GT(queued(), 0U) << "nothing is left unread";
    EXPECT_LT(taken(), 8 * queued() + kSlack);
}

TEST_F(OutputMemory, DoesNotGrowWithAllThatAClientWasEverSentThoughItAlwaysLeavesSomeUnread) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_NO_FATAL_FAILURE(ask(2, 500 * kKibibyte));
    for (int round = 0; round < 40; ++round) {
        ASSERT_NO_FATAL_FAILURE(ask(1, 500 * kKibibyte));
        ASSERT_NO_FATAL_FAILURE(readUntilQueueIs(600 * kKibibyte));
        ASSERT_GT(queued(), 0U) << "nothing is left unread";
        ASSERT_LT(taken(), 6 * kMebibyte) << "after " << round << " rounds";
    }
}

}  // namespace ipctest

#include "HostileBytes.h"
#include "Support.h"

#include "support/EveryMethod.h"
#include "support/RawRequests.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <thread>

using namespace faults;
using okv::FrameKind;
using okv::Value;
using support::repeated;

namespace {

constexpr std::uint32_t kSentinel = 0x7E57;
// Seconds: who is kept waiting by another's bytes gets no answer at all; a machine that does other
// things meanwhile may take its time.
constexpr double kAnswersWithin = 10.0 * kSlowness;

/// Asks without a pause, on a connection of its own, while somebody else misbehaves; every answer
/// must be right and come in time.
class Witness {
public:
    Witness() {
        okv::send<&Admin::setOKVCommonDataAllPT>(
            *connect(), Value(okv::Dictionary{{"witness", "what was stored"}}));
        thread_ = std::thread([this] { ask(); });
        while (answers_ == 0 && failures_ == 0) std::this_thread::yield();
    }
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    ~Witness() {
        stop_ = true;
        thread_.join();
        EXPECT_EQ(failures_, 0);
        EXPECT_EQ(wrong_, 0);
        EXPECT_GT(answers_, 1);
    }
    long answers() const { return answers_; }

private:
    void ask() {
        try {
            const auto held = connection();
            held->setReplyTimeout(kAnswersWithin);
            const auto root = held->rootProxy();
            while (!stop_) {
                wrong_ += okv::send<&Data::okvDataPT>(*root, "witness") != Value("what was stored");
                ++answers_;
            }
        } catch (const std::exception& error) {
            ++failures_;
            ADD_FAILURE() << "the witness: " << error.what();
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<long> answers_{0}, wrong_{0};
    std::atomic<int> failures_{0};
    std::thread thread_;
};

/// What the server said to bytes that were followed by a hang-up of the sending direction.
struct Said {
    bool closed = false;    ///< the server ended the connection, too
    bool sentinel = false;  ///< the request behind the bytes was answered
    std::vector<FrameKind> kinds;
    std::string farewell;
};

Said readToEnd(const okv::PrivateDescriptor& socket) {
    Said said;
    okv::FrameBuffer bytes;
    for (;;) {
        const auto room = bytes.room();
        const auto count = recv(socket.get(), room.data(), room.size(), 0);
        if (count < 0 && errno == EINTR) continue;
        said.closed = count == 0 || (count < 0 && errno == ECONNRESET);
        if (count <= 0) return said;
        bytes.added(static_cast<std::size_t>(count));
        while (const auto frame = bytes.next()) {
            said.kinds.push_back(frame->kind);
            said.sentinel |= frame->kind == FrameKind::reply && frame->serial == kSentinel;
            if (frame->kind == FrameKind::farewell)
                said.farewell = okv::CborReader(frame->payload).text();
        }
    }
}

Said say(const std::string& bytes) {
    const auto socket = support::connectRaw();
    const timeval patience{20, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    for (std::string_view left = bytes; !left.empty();) {
        const auto count = send(socket.get(), left.data(), left.size(), MSG_NOSIGNAL);
        if (count < 0) break;  // it has closed already
        left.remove_prefix(static_cast<std::size_t>(count));
    }
    shutdown(socket.get(), SHUT_WR);
    return readToEnd(socket);
}

std::string sentinel() {
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "defaultUserIdPT", "");
    okv::finishRequest(frame);
    okv::setFrameSerial(frame, kSentinel);
    return frame;
}

std::string hello() {
    return okv::encodeHello();
}

// A request's payload up to its arguments.
std::string payload(std::string_view selector, std::string_view types, std::string_view arguments) {
    std::string bytes;
    okv::CborWriter writer(bytes);
    writer.integer(0);
    writer.text(selector);
    writer.text(types);
    return bytes.append(arguments);
}
std::string request(std::string_view selector, std::string_view types, std::string_view arguments) {
    return rawFrame(2, 7, payload(selector, types, arguments));
}
enum class Outcome { dropped, failed, replied };
struct Line {
    const char* name;
    std::string bytes;
    Outcome outcome;
};

std::vector<Line> linesThatEndTheConversation() {
    using namespace std::string_literals;
    return {
        {"a header cut short", hello() + "\x00\x00"s, Outcome::dropped},
        {"a payload cut short", hello() + rawFrame(100, 2, 1, "abc"), Outcome::dropped},
        {"a frame larger than any", hello() + rawFrame(0xFFFFFFFF, 2, 1, ""), Outcome::dropped},
        {"a frame larger by one", hello() + rawFrame((16U << 20) + 1, 2, 1, ""), Outcome::dropped},
        {"kind 0", hello() + rawFrame(0U, 1, ""), Outcome::dropped},
        {"kind 6", hello() + rawFrame(6U, 1, ""), Outcome::dropped},
        {"kind 255", hello() + rawFrame(255U, 1, ""), Outcome::dropped},
        {"a request before the hello", request("defaultUserIdPT", "", ""), Outcome::dropped},
        {"a reply before the hello", rawFrame(3U, 1, "\xF6"), Outcome::dropped},
        {"an empty hello", rawFrame(1U, 0, ""), Outcome::dropped},
        {"a hello of text", rawFrame(1U, 0, "\x61v"), Outcome::dropped},
        {"a hello of version 2", rawFrame(1U, 0, "\x02"), Outcome::dropped},
        {"a hello of a huge version", rawFrame(1U, 0, "\x1B\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"),
         Outcome::dropped},
        {"two hellos", hello() + hello(), Outcome::dropped},
        {"a farewell", hello() + rawFrame(5U, 0, "\x61w"), Outcome::dropped},
        {"nothing but text", "GET / HTTP/1.1\r\n\r\n", Outcome::dropped},
        {"an empty request", hello() + rawFrame(2U, 7, ""), Outcome::dropped},
        {"a request of text", hello() + rawFrame(2U, 7, "\x61x"), Outcome::dropped},
    };
}

std::vector<Line> requestsThatAreRefused() {
    using namespace std::string_literals;
    const auto get = [](std::string_view arguments) {
        return hello() + request("okvDataPT:", "@", arguments);
    };
    return {
        {"an unknown selector", hello() + request("what:", "@", "\xF6"), Outcome::failed},
        {"a selector with a NUL", hello() + request("okvDataPT:\0"s, "@", "\xF6"), Outcome::failed},
        {"other types", hello() + request("okvDataPT:", "i", "\x01"), Outcome::failed},
        {"an argument missing", get(""), Outcome::failed},
        {"an argument too many", get("\x61k\x61k"), Outcome::failed},
        {"64 arrays in one another", get(repeated("\x81", 63) + "\xF6"), Outcome::replied},
        {"65 arrays in one another", get(repeated("\x81", 65) + "\xF6"), Outcome::failed},
        {"10000 arrays in one another", get(repeated("\x81", 10000)), Outcome::failed},
        {"5000 maps in one another", get(repeated("\xA1\x01", 5000)), Outcome::failed},
        {"10000 tags", get(repeated("\xC1", 10000)), Outcome::failed},
        // More than any read holds is not taken apart, but refused as too large.
        {"a million arrays in one another", get(repeated("\x81", 1000000)), Outcome::replied},
        {"a hundred thousand maps in one another", get(repeated("\xA1\x01", 100000)),
         Outcome::replied},
        {"a hundred thousand tags", get(repeated("\xC1", 100000)), Outcome::replied},
        {"an array of 2^63", get("\x9B\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"), Outcome::failed},
        {"a map of 2^32", get("\xBB\x00\x00\x00\x01\x00\x00\x00\x00"s), Outcome::failed},
        {"a text of 2^64-1", get("\x7B\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"), Outcome::failed},
        {"an array without an end", get("\x9F\xF6"), Outcome::failed},
        {"a key twice", get("\xA2\x61k\x01\x61k\x02"), Outcome::failed},
        {"an object by reference", get("\xD9\x9E\x98\x01"), Outcome::failed},
        {"an object that is none", hello() + rawFrame(2U, 7, "\x18\x63\x61k\x60"), Outcome::failed},
        {"a negative object", hello() + rawFrame(2U, 7, "\x20\x61k\x60"), Outcome::failed},
    };
}

Outcome outcomeOf(const Said& said) {
    if (!said.sentinel) return Outcome::dropped;
    for (const auto kind : said.kinds) {
        if (kind == FrameKind::failure) return Outcome::failed;
    }
    return Outcome::replied;
}

class HostileClient : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server_.start()); }
    void TearDown() override { EXPECT_TRUE(okv::send<&Data::defaultUserIdPT>(*connect()) == 1); }
    ServerProcess server_;
};

// What clients really send: every method once, but the one that ends the server, and those that
// take collections with rich ones, too.
std::vector<std::string> goodRequests() {
    auto port = okv::make<RecordingPort>();
    const auto root = okv::make<okv::RemoteObject>(port, okv::kRootObject);
    const auto record = [](std::string_view, auto send) { failureOf(send); };
    support::forEveryMethod(*root, {5}, okv::protocol<Data>, record);
    support::forEveryMethod(*root, {5}, okv::protocol<Admin>, record);
    const Value rich(okv::Dictionary{
        {"a", okv::Array{1, -2.5, okv::Null{}, true, "text", okv::Data{1, 2, 3}}},
        {"b", okv::Dictionary{{1, okv::Date{1e9}}, {"c", okv::Array{okv::Array{}}}}},
        {"c", std::string(300, 'x')}});
    failureOf([&] { okv::send<&Data::setOKVDataAllPT_appUid>(*root, rich, 1); });
    failureOf([&] { okv::send<&Data::setOKVDataPT_value_appUid>(*root, "k", rich, 1); });
    failureOf([&] { okv::send<&Data::okvDataAllPT>(*root, Value(okv::Array{"a", "b", "c"})); });
    failureOf([&] { okv::send<&Data::setOkvHammerListPT_value>(*root, 1, rich); });
    failureOf([&] { okv::send<&Admin::lockOKVDataPT>(*root, Value(okv::Array{"a", "b"})); });
    failureOf([&] { okv::send<&Admin::setOkvFltProcBlackListPT>(*root, rich); });
    failureOf([&] {
        okv::send<&Admin::importDataPT>(
            *root, Value(okv::Dictionary{
                       {"format", 1},
                       {"users", okv::Dictionary{{"2", okv::Dictionary{{"settings", rich}}}}}}));
    });
    std::erase_if(port->frames, [](const std::string& frame) {
        return frame.find("endServer") != std::string::npos;
    });
    return port->frames;
}

}  // namespace

TEST_F(HostileClient, IsAnsweredOrDroppedAndNobodyElseNotices) {
    const Witness witness;
    for (const auto& lines : {linesThatEndTheConversation(), requestsThatAreRefused()}) {
        for (const auto& line : lines) {
            const auto said = say(line.bytes + sentinel());
            EXPECT_TRUE(said.closed) << line.name;
            EXPECT_EQ(outcomeOf(said), line.outcome) << line.name << ": " << said.farewell;
        }
    }
}

TEST_F(HostileClient, IsAnsweredOrDroppedWhateverBecameOfTenThousandGoodRequests) {
    const auto good = goodRequests();
    ASSERT_GT(good.size(), 60U);
    const Witness witness;
    Mutator mutator(20260501);
    long dropped = 0, answered = 0;
    for (int left = 10000; left > 0;) {
        auto bytes = hello();
        for (auto inOne = 1 + mutator.below(4); inOne > 0; --inOne, --left)
            bytes += mutator.mutatedFrame(good[mutator.below(good.size())]);
        const auto said = say(bytes + sentinel());
        ASSERT_TRUE(said.closed) << left;
        ++(said.sentinel ? answered : dropped);
    }
    EXPECT_GT(answered, 0);
    EXPECT_GT(dropped, 0);
    RecordProperty("answered", std::to_string(answered));
    RecordProperty("dropped", std::to_string(dropped));
    RecordProperty("witnessed", std::to_string(witness.answers()));
}

TEST_F(HostileClient, MayMutateItsHelloToo) {
    const Witness witness;
    Mutator mutator(7);
    for (int left = 2000; left > 0; --left)
        ASSERT_TRUE(say(mutator.mutated(hello() + sentinel()) + sentinel()).closed);
}

#include "../faults/HostileBytes.h"
#include "../faults/Support.h"
#include "Limits.h"

#include "support/Answers.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

// Each limit of requests and of the store, met and passed by one.

using namespace faults;
using okv::Array;
using okv::Dictionary;
using okv::Value;
using support::expectRefused;
using Kind = okv::Refusal::Kind;

namespace {

const datacenter::Limits kBounds;

/// A string whose encoding takes so many bytes, of which 5 tell its length.
std::string encodedAs(std::size_t bytes) {
    return std::string(bytes - 5, 'v');
}

Value nested(std::size_t depth) {
    Value value = 1;
    for (; depth > 0; --depth) value = Array{std::move(value)};
    return value;
}

Dictionary numbered(int first, int count, const Value& value = 1) {
    Dictionary settings;
    for (int i = first; i < first + count; ++i) settings.set("k" + std::to_string(i), value);
    return settings;
}

/// A read of one object as its argument, with a payload of so many bytes.
std::string readOf(std::size_t payload) {
    const auto make = [](std::size_t key) {
        std::string frame;
        okv::beginRequest(frame, okv::kRootObject, "okvDataPT:", "@");
        okv::CborWriter(frame).text(std::string(key, 'k'));
        okv::finishRequest(frame);
        return frame;
    };
    const auto more = make(payload).size() - okv::kFrameHeaderSize - payload;
    return make(payload - more);
}

std::optional<okv::Refusal> refusalOf(okv::RemoteObject& root, std::string frame) {
    const auto reply = root.port().call(frame);
    okv::CborReader reader(reply);
    reader.value();
    return okv::readRefusal(reader);
}

class RequestLimits : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.start());
        root_ = connect();
    }
    auto set(const Value& key, const Value& value, std::int32_t user = 1) const {
        return okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*root_, key, value, user);
    }
    auto setAll(const Dictionary& settings, std::int32_t user = 1) const {
        return okv::sendForAnswer<&Data::setOKVDataAllPT_appUid>(*root_, settings, user);
    }
    std::int64_t taken(const char* name) const {
        return status(*root_)["use"].as<Dictionary>()[name].as<std::int64_t>();
    }

    ServerProcess server_;
    okv::Ref<okv::RemoteObject> root_;
};

template <class A>
void expectAccepted(const A& answer, const char* what) {
    EXPECT_TRUE(answer.value) << what;
    EXPECT_FALSE(answer.refusal) << what << ": " << answer.refusal->reason;
}

std::size_t importSizeOf(const Dictionary& whole) {
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "importDataPT:", "@");
    okv::CborWriter(frame).value(whole);
    return frame.size() - okv::kFrameHeaderSize;
}

/// Two users of about 8 MiB each, whose lists take so many bytes.
Dictionary exportWith(std::size_t first, std::size_t second) {
    Dictionary users;
    for (const auto& [user, listBytes] : {std::pair("1", first), std::pair("2", second)})
        users.set(user, Dictionary{{"settings", numbered(0, 31, encodedAs(kBounds.valueBytes))},
                                   {"hammer_list", encodedAs(listBytes)}});
    return {{"format", 1}, {"users", std::move(users)}};
}

/// An export whose import has a payload of exactly so many bytes.
Dictionary exportOf(std::size_t payload) {
    constexpr std::size_t kSome = 100000;
    const auto missing = payload - importSizeOf(exportWith(kSome, kSome));
    return exportWith(kSome + missing / 2, kSome + missing - missing / 2);
}

}  // namespace

TEST_F(RequestLimits, ARequestIsOneMebibyte) {
    EXPECT_FALSE(refusalOf(*root_, readOf(kBounds.requestBytes)));
    const auto refusal = refusalOf(*root_, readOf(kBounds.requestBytes + 1));
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->kind, Kind::tooLarge);
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*root_), 1) << "the connection lives";
}

TEST_F(RequestLimits, AFarLargerRequestEndsTheConnectionOfWhoIsNoAdministrator) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    EXPECT_EQ(asAccount(23456,
                        [] {
                            const auto root = connect();
                            if (!refusalOf(*root, readOf(2 * kBounds.requestBytes))) return 1;
                            const auto kind = failureOf(
                                [&] { refusalOf(*root, readOf(2 * kBounds.requestBytes + 1)); });
                            return kind ? 0 : 2;
                        }),
              0);
    EXPECT_TRUE(refusalOf(*root_, readOf(2 * kBounds.requestBytes + 1)));
}

TEST_F(RequestLimits, AnImportIsSixteenMebibytes) {
    auto whole = exportOf(kBounds.importBytes);
    ASSERT_EQ(importSizeOf(whole), kBounds.importBytes);
    EXPECT_TRUE(okv::send<&Admin::importDataPT>(*root_, whole));
    EXPECT_EQ(taken("users"), 2);
    whole.set("f", 1);
    EXPECT_THROW(okv::send<&Admin::importDataPT>(*root_, whole), std::length_error);
}

TEST_F(RequestLimits, AFrameThatAnnouncesMoreEndsTheConnectionWithTheReason) {
    const auto raw = okv::connectToName(kOKVDataServerName);
    const auto bytes = okv::encodeHello() +
                       rawFrame(static_cast<std::uint32_t>(okv::kMaxFramePayload + 1), 2, 1, {});
    ASSERT_EQ(send(raw.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    std::string all;
    char part[512];
    for (ssize_t count = 0; (count = recv(raw.socket.get(), part, sizeof part, 0)) > 0;)
        all.append(part, static_cast<std::size_t>(count));
    EXPECT_NE(all.find("a frame of 16777217 bytes, more than"), std::string::npos);
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*root_), 1);
}

TEST_F(RequestLimits, AValueIs256Kibibytes) {
    expectAccepted(set("k", encodedAs(kBounds.valueBytes)), "at the limit");
    expectRefused(set("k", encodedAs(kBounds.valueBytes + 1)), Kind::tooLarge, "beyond");
    EXPECT_EQ(get(*root_, "k"), Value(encodedAs(kBounds.valueBytes)));
}

TEST_F(RequestLimits, AKeyIs255Bytes) {
    expectAccepted(set(std::string(kBounds.keyBytes, 'k'), 1), "at the limit");
    expectRefused(set(std::string(kBounds.keyBytes + 1, 'k'), 1), Kind::invalid, "beyond");
}

TEST_F(RequestLimits, AValueIsNestedSixtyDeepAndAMessageSixtyFour) {
    expectAccepted(set("k", nested(kBounds.nesting)), "at the limit");
    expectRefused(set("k", nested(kBounds.nesting + 1)), Kind::invalid, "beyond");
    expectRefused(set("k", nested(okv::kMaxValueDepth)), Kind::invalid, "at the wire's");
    EXPECT_THROW(set("k", nested(okv::kMaxValueDepth + 1)), std::length_error);
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "okvDataPT:", "@");
    frame.append(okv::kMaxValueDepth + 1, '\x81').append("\x01");
    okv::finishRequest(frame);
    EXPECT_EQ(failureOf([&] { root_->port().call(frame); }),
              okv::ConnectionError::Kind::notUnderstood);
    EXPECT_EQ(get(*root_, "k"), nested(kBounds.nesting)) << "and the connection lives";
}

TEST_F(RequestLimits, AUserHasTenThousandKeys) {
    const auto count = static_cast<int>(kBounds.scopeKeys);
    expectRefused(setAll(numbered(0, count + 1)), Kind::tooLarge, "at once");
    EXPECT_EQ(taken("scope_keys"), 0) << "nothing of it was stored";
    expectAccepted(setAll(numbered(0, count)), "at the limit");
    EXPECT_EQ(taken("scope_keys"), count);
    expectRefused(set("one more", 1), Kind::tooLarge, "beyond");
    expectRefused(setAll({{"one more", 1}}), Kind::tooLarge, "beyond");
    expectAccepted(setAll({{"one more", 1}, {"k0", okv::Null{}}}), "one for another");
    expectAccepted(set("k1", 2), "another value");
}

TEST_F(RequestLimits, AUserHasSixteenMebibytes) {
    const auto whole = encodedAs(kBounds.valueBytes);
    for (int i = 10; i < 73; ++i) expectAccepted(set("k" + std::to_string(i), whole), "to fill it");
    const auto left = static_cast<std::size_t>(kBounds.scopeBytes - taken("scope_bytes"));
    ASSERT_LE(left, kBounds.valueBytes);
    expectRefused(set("last", encodedAs(left - 4 + 1)), Kind::tooLarge, "beyond");
    expectAccepted(set("last", encodedAs(left - 4)), "at the limit");
    EXPECT_EQ(taken("scope_bytes"), kBounds.scopeBytes);
    expectRefused(set("x", 1), Kind::tooLarge, "beyond");
    expectRefused(okv::sendForAnswer<&Data::setOkvHammerListPT_value>(*root_, 1, Array{}),
                  Kind::tooLarge, "a list beyond");
    expectAccepted(okv::sendForAnswer<&Admin::setOKVCommonDataAllPT>(*root_, Dictionary{{"x", 1}}),
                   "everybody's are not the user's");
}

TEST_F(RequestLimits, AChangeExchangesAllKeysOfAUserForOthersAndNamesNoMore) {
    const auto count = static_cast<int>(kBounds.scopeKeys);
    expectAccepted(setAll(numbered(0, count)), "as many as there may be");
    auto exchanged = numbered(0, count, okv::Null{});
    for (int i = count; i < 2 * count; ++i) exchanged.set("k" + std::to_string(i), 1);
    ASSERT_EQ(exchanged.size(), kBounds.writeKeys);
    expectAccepted(setAll(exchanged), "at the limit");
    EXPECT_EQ(taken("scope_keys"), count);
    EXPECT_EQ(get(*root_, "k0"), Value(okv::Null{}));
    exchanged.set("one more", okv::Null{});
    expectRefused(setAll(exchanged), Kind::tooLarge, "beyond");
}

TEST_F(RequestLimits, AReadNamesTenThousandKeys) {
    Array keys;
    for (std::size_t i = 0; i < kBounds.readKeys; ++i) keys.emplace_back("k" + std::to_string(i));
    auto beyond = keys;
    beyond.emplace_back("one more");
    const auto expectOf = [](const auto& met, const auto& passed) {
        EXPECT_FALSE(met.refusal);
        EXPECT_EQ(met.value.template as<Dictionary>().size(), kBounds.readKeys);
        expectRefused(passed, Kind::tooLarge, "one more");
    };
    expectOf(okv::sendForAnswer<&Data::okvDataAllPT>(*root_, keys),
             okv::sendForAnswer<&Data::okvDataAllPT>(*root_, beyond));
    expectOf(okv::sendForAnswer<&Data::okvDataAllPT_appUid>(*root_, keys, 1),
             okv::sendForAnswer<&Data::okvDataAllPT_appUid>(*root_, beyond, 1));
    expectOf(okv::sendForAnswer<&Data::okvDataAllPT_osUid>(*root_, keys, 501),
             okv::sendForAnswer<&Data::okvDataAllPT_osUid>(*root_, beyond, 501));
}

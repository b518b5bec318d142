#include <OKVPlatform/ipc/Protocol.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using okv::Dispatcher;
using okv::FrameKind;
using okv::Ref;
using okv::Value;
using testing::ElementsAre;

namespace {

class Counter {
public:
    virtual ~Counter() = default;
    virtual Value mix_of_with(const Value& text, std::int32_t number, bool flag) = 0;
    virtual std::int32_t count() = 0;
    virtual bool isSet(bool flag) = 0;
    virtual void forget(const Value& what) = 0;
    virtual bool take(okv::RemoteObject& object) = 0;
};

}  // namespace

template <>
inline constexpr auto okv::protocol<Counter> =
    okv::protocolTable(okv::row<&Counter::mix_of_with>("mix:of:with:"),
                       okv::row<&Counter::count>("count"), okv::row<&Counter::isSet>("isSet:"),
                       okv::row<&Counter::forget>("forget:"), okv::row<&Counter::take>("take:"));

namespace {

using Rows = Dispatcher<Counter>;

/// Notes what was called, with which arguments.
const Value kInPlace("in place");

class NotingCounter final : public Counter {
public:
    Value mix_of_with(const Value& text, std::int32_t number, bool flag) override {
        calls.push_back(text.as<std::string>() + " " + std::to_string(number) +
                        (flag ? " yes" : " no"));
        if (text == kInPlace) okv::Invocation::current()->answerWith(kept);
        return okv::Array{text, number, flag};
    }
    std::int32_t count() override {
        calls.emplace_back("count");
        return -7;
    }
    bool isSet(bool flag) override { return flag; }
    void forget(const Value& what) override {
        if (what.isNull()) throw std::runtime_error("cannot forget nothing");
        okv::Invocation::current()->refuse(okv::Refusal::Kind::invalid, "no such thing");
    }
    bool take(okv::RemoteObject& object) override {
        taken = object.number();
        return true;
    }

    Value kept{"stays where it is"};
    std::vector<std::string> calls;
    std::uint64_t taken = 0;
};

/// Keeps what would go to the peer.
class Port final : public okv::MessagePort {
public:
    void callAndRead(std::string&, okv::ReplyReader&) override {
        throw std::logic_error("not called here");
    }
    void post(std::string frame) override { frames.push_back(std::move(frame)); }
    void sendAnswer(std::string frame) override { frames.push_back(std::move(frame)); }
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t object) override { lent.push_back(object); }

    std::vector<std::string> frames;
    std::vector<std::uint64_t> lent;

private:
    okv::PeerIdentity peer_;
};

class ProtocolTest : public testing::Test {
protected:
    struct Reply {
        FrameKind kind;
        std::uint32_t serial;
        std::string payload;
    };

    /// The payload of a request: object, selector, types, then the arguments.
    template <class Write>
    static std::string payloadOf(std::string_view selector, std::string_view types, Write write) {
        std::string payload;
        okv::CborWriter writer(payload);
        writer.integer(0);
        writer.text(selector);
        writer.text(types);
        write(writer);
        return payload;
    }
    Reply dispatched(const std::string& payload) {
        port_->frames.clear();
        {
            const auto request = okv::make<okv::IncomingRequest>(port_, 42U, payload);
            okv::dispatch<Counter>(counter_, *request);
        }
        EXPECT_EQ(port_->frames.size(), 1U) << "answered once";
        return cut(port_->frames.at(0));
    }
    static Reply cut(const std::string& frame) {
        okv::FrameBuffer buffer;
        std::copy(frame.begin(), frame.end(), buffer.room().begin());
        buffer.added(frame.size());
        const auto cut = buffer.next();
        return {cut->kind, cut->serial, std::string(cut->payload)};
    }
    template <class Write>
    std::string failureTo(std::string_view selector, std::string_view types, Write write) {
        const auto reply = dispatched(payloadOf(selector, types, write));
        EXPECT_EQ(reply.kind, FrameKind::failure);
        return std::string(okv::CborReader(reply.payload).text());
    }

    NotingCounter counter_;
    const Ref<Port> port_ = okv::make<Port>();
};

const auto nothing = [](okv::CborWriter&) {};

}  // namespace

TEST_F(ProtocolTest, TypesStandForEveryArgumentAndResult) {
    const std::vector<std::tuple<std::string, std::string, char>> rows{{"count", "", 'i'},
                                                                       {"forget:", "@", 'v'},
                                                                       {"isSet:", "c", 'c'},
                                                                       {"mix:of:with:", "@ic", '@'},
                                                                       {"take:", "@", 'c'}};
    ASSERT_EQ(Rows::rowCount, rows.size());
    for (const auto& [selector, types, result] : rows) {
        const auto row = Rows::find(selector);
        ASSERT_TRUE(row) << selector;
        EXPECT_EQ(Rows::selector(*row), selector);
        EXPECT_EQ(Rows::types(*row), types);
        EXPECT_EQ(Rows::resultType(*row), result);
    }
    EXPECT_EQ(Rows::rowOf<&Counter::isSet>(), Rows::find("isSet:"));
}

TEST_F(ProtocolTest, OnlyAWholeSelectorIsFound) {
    for (const auto* selector : {"", "coun", "counts", "mix", "mix:of:with", "Count", "zzz"})
        EXPECT_FALSE(Rows::find(selector)) << selector;
}

TEST_F(ProtocolTest, ARequestReachesItsMethodWithTheArgumentsInOrder) {
    const auto reply = dispatched(payloadOf("mix:of:with:", "@ic", [](okv::CborWriter& out) {
        out.value("text");
        out.integer(-5);
        out.boolean(true);
    }));
    EXPECT_THAT(counter_.calls, ElementsAre("text -5 yes"));
    EXPECT_EQ(reply.kind, FrameKind::reply);
    EXPECT_EQ(reply.serial, 42U);
    EXPECT_EQ(okv::CborReader(reply.payload).value(), Value(okv::Array{"text", -5, true}));
}

TEST_F(ProtocolTest, AnIntAndABoolComeBackAsSuch) {
    EXPECT_EQ(okv::CborReader(dispatched(payloadOf("count", "", nothing)).payload).integer(), -7);
    const auto reply =
        dispatched(payloadOf("isSet:", "c", [](okv::CborWriter& out) { out.boolean(true); }));
    EXPECT_TRUE(okv::CborReader(reply.payload).boolean());
}

TEST_F(ProtocolTest, AnUnknownSelectorAnswersAFailure) {
    EXPECT_EQ(failureTo("unheardOf", "", nothing), "unknown selector");
}

TEST_F(ProtocolTest, OtherArgumentTypesAnswerAFailureAndReachNoMethod) {
    const auto number = [](okv::CborWriter& out) { out.integer(1); };
    for (const auto* types : {"", "i", "cc", "@"})
        EXPECT_EQ(failureTo("isSet:", types, number), "other argument types than the method takes");
    failureTo("count", "i", number);
    EXPECT_TRUE(counter_.calls.empty());
}

TEST_F(ProtocolTest, ArgumentsThatAreNotWhatTheTypesTellAnswerAFailure) {
    failureTo("isSet:", "c", [](okv::CborWriter& out) { out.integer(1); });
    failureTo("isSet:", "c", nothing);
    failureTo("count", "", [](okv::CborWriter& out) { out.integer(1); });
    failureTo("take:", "@", [](okv::CborWriter& out) { out.value("no reference"); });
    failureTo("mix:of:with:", "@ic", [](okv::CborWriter& out) {
        out.value("text");
        out.integer(std::int64_t{1} << 32);
        out.boolean(true);
    });
    EXPECT_TRUE(counter_.calls.empty());
    EXPECT_EQ(counter_.taken, 0U);
}

TEST_F(ProtocolTest, AnObjectByReferenceArrivesAsARemoteObject) {
    dispatched(payloadOf("take:", "@", [](okv::CborWriter& out) { out.reference(31); }));
    EXPECT_EQ(counter_.taken, 31U);
}

TEST_F(ProtocolTest, AnExceptionOfAMethodAnswersAFailure) {
    EXPECT_EQ(failureTo("forget:", "@", [](okv::CborWriter& out) { out.value(okv::Null{}); }),
              "cannot forget nothing");
}

TEST_F(ProtocolTest, AMethodMayAnswerWithAValueThatStaysWhereItIs) {
    const auto answerTo = [this](const Value& text) {
        const auto reply = dispatched(payloadOf("mix:of:with:", "@ic", [&](okv::CborWriter& out) {
            out.value(text);
            out.integer(1);
            out.boolean(false);
        }));
        return okv::CborReader(reply.payload).value();
    };
    EXPECT_EQ(answerTo(kInPlace), counter_.kept);
    EXPECT_EQ(answerTo("another"), Value(okv::Array{"another", 1, false})) << "for one call only";
}

TEST_F(ProtocolTest, ARefusalStandsBehindTheResult) {
    const auto reply =
        dispatched(payloadOf("forget:", "@", [](okv::CborWriter& out) { out.value("x"); }));
    okv::CborReader reader(reply.payload);
    EXPECT_EQ(reader.value(), Value());
    const auto refusal = okv::readRefusal(reader);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->kind, okv::Refusal::Kind::invalid);
    EXPECT_EQ(refusal->reason, "no such thing");
    EXPECT_EQ(okv::Invocation::current(), nullptr);
}

TEST_F(ProtocolTest, WhatStandsBehindAResultIsARefusalAsItIsToldOrNothing) {
    const auto refusalOf = [](const std::string& bytes) {
        okv::CborReader reader(bytes);
        return okv::readRefusal(reader);
    };
    EXPECT_EQ(refusalOf("\x01\x61x")->kind, okv::Refusal::Kind::notAllowed);
    EXPECT_EQ(refusalOf("\x06\x61x")->kind, okv::Refusal::Kind::failed);
    for (const std::string& bytes :
         {std::string("\x00\x61x", 3), std::string("\x07\x61x"), std::string("\x20\x61x"),
          std::string("\x19\x01\x01\x61x"), std::string("\x01"), std::string("\x01\x61x\xF6")})
        EXPECT_THROW(refusalOf(bytes), okv::CborError) << testing::PrintToString(bytes);
}

TEST_F(ProtocolTest, AReplyWithoutARefusalHasNone) {
    const auto reply = dispatched(payloadOf("count", "", nothing));
    okv::CborReader reader(reply.payload);
    reader.integer();
    EXPECT_TRUE(reader.atEnd());
    EXPECT_FALSE(okv::readRefusal(reader));
}

TEST_F(ProtocolTest, APayloadThatIsNoRequestIsToldApart) {
    for (const std::string& payload : {std::string(), std::string("\xFF"), std::string("\x00", 1)})
        EXPECT_THROW(okv::make<okv::IncomingRequest>(port_, 1U, payload), okv::CborError);
}

TEST_F(ProtocolTest, ALentObjectKeepsItsNumberUntilItIsWithdrawn) {
    class Lent final : public okv::Object, public Counter {
    public:
        Value mix_of_with(const Value&, std::int32_t, bool) override { return {}; }
        std::int32_t count() override { return 1; }
        bool isSet(bool) override { return false; }
        void forget(const Value&) override {}
        bool take(okv::RemoteObject&) override { return false; }

    protected:
        void dealloc() override { okv::ExportedObjects::withdraw(*this); }
    };
    auto lent = okv::make<Lent>();
    const auto number = okv::lend<Counter>(*lent).number;
    EXPECT_EQ(okv::lend<Counter>(*lent).number, number);
    EXPECT_NE(number, okv::kRootObject);
    EXPECT_EQ(lent->retainCount(), 1U) << "not retained";
    EXPECT_TRUE(okv::ExportedObjects::find(number));
    lent = nullptr;
    EXPECT_FALSE(okv::ExportedObjects::find(number));
}

TEST_F(ProtocolTest, ALongTextThatStaysWhereItIsIsLeftOutOfTheFrameAndPartOfTheReply) {
    using Counting = okv::Dispatcher<Counter>;
    counter_.kept = std::string(100000, 'x');
    const auto payload = payloadOf("mix:of:with:", "@ic", [](okv::CborWriter& out) {
        out.value(kInPlace);
        out.integer(1);
        out.boolean(false);
    });
    const auto request = okv::make<okv::IncomingRequest>(port_, 42U, payload);
    std::string frame;
    const auto rest =
        Counting::carryOut(counter_, *request, *Counting::find("mix:of:with:"), frame);
    EXPECT_EQ(rest.data(), counter_.kept.as<std::string>().data()) << "not a copy";
    EXPECT_LT(frame.size(), 100U);
    request->answerFrom(frame, rest);
    EXPECT_TRUE(
        okv::decodeCbor(std::string_view(port_->frames.at(0)).substr(okv::kFrameHeaderSize)) ==
        counter_.kept);
}

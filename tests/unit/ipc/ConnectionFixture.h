#pragma once

#include "support/Serving.h"

#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/NotificationCenter.h>
#include <OKVPlatform/ipc/Publication.h>

#include <OKVTesting/RuntimeFolder.h>
#include <OKVTesting/ServiceThread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>

namespace connection_test {

using okv::Connection;
using okv::ConnectionError;
using okv::Publication;
using okv::RunLoop;
using okv::Value;
using okv::testing::RuntimeFolder;
using okv::testing::ServiceThread;

class Bell {
public:
    virtual ~Bell() = default;
    virtual void ring() = 0;
};

class Desk {
public:
    virtual ~Desk() = default;
    virtual Value echo(const Value& value) = 0;
    virtual std::int32_t sum_with(std::int32_t a, std::int32_t b) = 0;
    virtual bool isTrue(bool flag) = 0;
    virtual void nothing() = 0;
    virtual bool lendBell(okv::RemoteObject& bell) = 0;
    virtual void ringBell() = 0;
    virtual void hangUp() = 0;
    virtual void ringAndHangUp() = 0;
    virtual void keepSilent() = 0;
    virtual bool refused() = 0;
};

class Stranger {
public:
    virtual ~Stranger() = default;
    virtual Value unheardOf() = 0;
    virtual Value echo(std::int32_t value) = 0;
    virtual Value tooMuch() = 0;
};

}  // namespace connection_test

template <>
inline constexpr auto okv::protocol<connection_test::Bell> =
    okv::protocolTable(okv::row<&connection_test::Bell::ring>("ring"));
template <>
inline constexpr auto okv::protocol<connection_test::Desk> =
    okv::protocolTable(okv::row<&connection_test::Desk::echo>("echo:"),
                       okv::row<&connection_test::Desk::sum_with>("sum:with:"),
                       okv::row<&connection_test::Desk::isTrue>("isTrue:"),
                       okv::row<&connection_test::Desk::nothing>("nothing"),
                       okv::row<&connection_test::Desk::lendBell>("lendBell:"),
                       okv::row<&connection_test::Desk::ringBell>("ringBell"),
                       okv::row<&connection_test::Desk::hangUp>("hangUp"),
                       okv::row<&connection_test::Desk::ringAndHangUp>("ringAndHangUp"),
                       okv::row<&connection_test::Desk::keepSilent>("keepSilent"),
                       okv::row<&connection_test::Desk::refused>("refused"));
template <>
inline constexpr auto okv::protocol<connection_test::Stranger> =
    okv::protocolTable(okv::row<&connection_test::Stranger::unheardOf>("unheardOf"),
                       okv::row<&connection_test::Stranger::echo>("echo:"),
                       okv::row<&connection_test::Stranger::tooMuch>("tooMuch"));

namespace connection_test {

inline constexpr char kName[] = "jp.nrm.test.desk";

class DeskObject final : public Desk {
public:
    Value echo(const Value& value) override { return value; }
    std::int32_t sum_with(std::int32_t a, std::int32_t b) override { return a + b; }
    bool isTrue(bool flag) override { return flag; }
    void nothing() override {}
    bool lendBell(okv::RemoteObject& bell) override {
        bell_ = okv::Ref<okv::RemoteObject>::retaining(&bell);
        return true;
    }
    void ringBell() override { okv::post<&Bell::ring>(*bell_); }
    void hangUp() override { publication->invalidate(); }
    void ringAndHangUp() override {
        ringBell();
        hangUp();
    }
    void keepSilent() override {
        kept_ = okv::Ref<okv::IncomingRequest>::retaining(&okv::Invocation::current()->request());
    }
    bool refused() override {
        okv::Invocation::current()->refuse(okv::Refusal::Kind::locked, "the drawer is locked");
        return false;
    }

    // Keeps what asks for silence, answers what asks for too much with two results, and dispatches
    // the rest.
    static void handle(void* target, okv::IncomingRequest& request) {
        auto& desk = *static_cast<DeskObject*>(target);
        if (request.selector() == "tooMuch") return answerTwice(request);
        if (request.selector() != "keepSilent") return okv::dispatch<Desk>(desk, request);
        desk.kept_ = okv::Ref<okv::IncomingRequest>::retaining(&request);
        desk.silenceKept.set_value();
    }

    Publication* publication = nullptr;
    std::promise<void> silenceKept;

private:
    static void answerTwice(okv::IncomingRequest& request) {
        std::string frame;
        okv::beginFrame(frame, okv::FrameKind::reply);
        okv::CborWriter out(frame);
        out.text("one");
        out.text("two");
        okv::finishFrame(frame, 0, 0);
        request.answer(std::move(frame));
    }

    okv::Ref<okv::RemoteObject> bell_;
    okv::Ref<okv::IncomingRequest> kept_;
};

class BellObject final : public okv::Object, public Bell {
public:
    void ring() override {
        ++rings;
        if (onRing) onRing();
    }
    int rings = 0;
    std::function<void()> onRing;

protected:
    void dealloc() override { okv::ExportedObjects::withdraw(*this); }
};

class Mourner final : public okv::Object {
public:
    Mourner() {
        okv::NotificationCenter::defaultCenter().addObserver(*this, &Mourner::note,
                                                             okv::NSConnectionDidDieNotification);
    }
    void note(const okv::LocalNotification& notice) {
        if (notice.object == watched) ++deaths;
    }
    const okv::Object* watched = nullptr;
    std::atomic<int> deaths{0};

protected:
    void dealloc() override {
        okv::NotificationCenter::defaultCenter().removeObserver(
            *this, okv::NSConnectionDidDieNotification);
    }
};

class ConnectionTest : public testing::Test {
protected:
    ConnectionTest() {
        service_.on([&](Publication& publication) { desk_.publication = &publication; });
        connection_ = Connection::connectionWithRegisteredName(kName);
        root_ = connection_->rootProxy();
        mourner_->watched = connection_.get();
    }

    template <class Call>
    static ConnectionError::Kind failureOf(Call call) {
        try {
            call();
        } catch (const ConnectionError& error) {
            return error.kind();
        }
        ADD_FAILURE() << "did not throw";
        return ConnectionError::Kind::badData;
    }
    static void serveUntil(const std::function<bool()>& done) {
        EXPECT_TRUE(support::serveUntil(done));
    }

    RuntimeFolder folder_;
    DeskObject desk_;
    ServiceThread service_{kName, {&DeskObject::handle, &desk_, nullptr}};
    okv::Ref<Connection> connection_;
    okv::Ref<okv::RemoteObject> root_;
    okv::Ref<Mourner> mourner_ = okv::make<Mourner>();
};

}  // namespace connection_test

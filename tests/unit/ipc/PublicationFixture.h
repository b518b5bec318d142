#pragma once

#include "RawClient.h"

#include "support/ForkedChild.h"
#include "support/Serving.h"

#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>

#include <OKVTesting/RuntimeFolder.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace ipctest {

using okv::Connection;
using okv::ConnectionError;
using okv::FrameKind;
using okv::Publication;
using okv::PublicationOptions;
using okv::RunLoop;
using okv::testing::RuntimeFolder;
using support::serveUntil;

inline constexpr char kName[] = "jp.nrm.test.publication";
inline constexpr uid_t kAccount = 23401;

/// Answers "echo" at once and keeps "keep".
class Root {
public:
    static void handle(void* target, okv::IncomingRequest& request) {
        static_cast<Root*>(target)->take(request);
    }
    void take(okv::IncomingRequest& request) {
        ++handled;
        deepest = std::max(deepest, ++depth_);
        if (request.selector() == "keep") {
            kept.push_back(okv::Ref<okv::IncomingRequest>::retaining(&request));
        } else if (request.selector() == "long") {
            answerLong(request);
        } else {
            answer(request);
        }
        --depth_;
    }
    static void answer(okv::IncomingRequest& request) {
        std::string frame;
        okv::beginFrame(frame, FrameKind::reply);
        okv::CborWriter(frame).value(request.arguments().value());
        okv::finishFrame(frame, 0, 0);
        request.answer(std::move(frame));
    }
    // With a text that stays where it is.
    void answerLong(okv::IncomingRequest& request) const {
        std::string frame;
        okv::beginFrame(frame, FrameKind::reply);
        okv::CborWriter(frame).textHeader(longText.size());
        okv::finishFrame(frame, 0, 0, longText.size());
        request.answerFrom(frame, longText);
    }

    std::string longText;
    int handled = 0;
    int deepest = 0;
    std::vector<okv::Ref<okv::IncomingRequest>> kept;

private:
    int depth_ = 0;
};

inline void serveFor(std::chrono::milliseconds time) {
    RunLoop::current()->runUntil(RunLoop::Clock::now() + time);
}
inline void serveForAWhile() {
    serveFor(std::chrono::milliseconds(30));
}

inline std::string textOf(const RawClient::Received& frame) {
    return std::string(okv::CborReader(frame.payload).text());
}

// The farewell's text once the server has closed.
inline std::string farewellTo(RawClient& client) {
    std::string farewell = "(none)";
    EXPECT_TRUE(serveUntil([&] {
        while (const auto frame = client.next()) {
            if (frame->kind == FrameKind::farewell) farewell = textOf(*frame);
        }
        return client.isClosed();
    }));
    return farewell;
}

// What the call's ConnectionError says; empty when there is none.
inline std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ConnectionError& error) {
        return error.what();
    }
    return {};
}

using support::succeedsInAChild;

/// The publication lives on this thread's loop, beside raw clients that never wait.
class PublicationTest : public testing::Test {
protected:
    void publish(PublicationOptions options = {}) {
        std::string why;
        publication_ = nullptr;  // whose name it takes
        publication_ =
            Publication::publish(kName, {&Root::handle, &root_, nullptr}, std::move(options), why);
        ASSERT_TRUE(publication_) << why;
    }
    RawClient greeted() {
        RawClient client(kName);
        client.greet();
        EXPECT_TRUE(serveUntil([&] { return client.next().has_value(); }));
        return client;
    }
    static bool isServed(RawClient& client) {
        client.send(RawClient::request(77, "echo", "still there"));
        return serveUntil([&] {
            const auto frame = client.next();
            return frame && frame->serial == 77;
        });
    }

    RuntimeFolder folder_;
    Root root_;
    okv::Ref<Publication> publication_;
};

}  // namespace ipctest

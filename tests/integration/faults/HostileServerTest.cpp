#include "HostileBytes.h"
#include "Support.h"

#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVTesting/RuntimeFolder.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

using namespace faults;
using okv::ConnectionError;
using okv::FrameKind;
using okv::Value;
using Kind = ConnectionError::Kind;

namespace {

std::string serverHello() {
    return rawFrame(1U, 0, "\x01\xF5");
}
std::string farewell(std::string_view why) {
    std::string payload;
    okv::CborWriter(payload).text(why);
    return rawFrame(5U, 0, payload);
}
std::string reply(std::uint32_t serial, std::string_view payload) {
    return rawFrame(3U, serial, payload);
}

/// Serves the data server's name with scripted bytes. The greeting is sent at once; the rest when
/// the client's first request has come, or at once, too, where the client will send none. Then
/// nothing more is sent.
class ScriptedServer {
public:
    struct Script {
        std::string greeting, rest;
        bool awaitsRequest = true;
    };
    using Scripts = std::function<Script()>;

    explicit ScriptedServer(Scripts scripts) : scripts_(std::move(scripts)) {
        std::string why;
        name_ = okv::PublishedName::publish(kOKVDataServerName, {}, why);
        EXPECT_TRUE(name_) << why;
        thread_ = std::thread([this] { serve(); });
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    ~ScriptedServer() {
        stop_ = true;
        // Wakes the thread up.
        const auto last = okv::connectToName(kOKVDataServerName);
        thread_.join();
    }

private:
    void serve() {
        for (;;) {
            pollfd entry{name_->listener(), POLLIN, 0};
            poll(&entry, 1, -1);
            const okv::PrivateDescriptor client(
                accept4(name_->listener(), nullptr, nullptr, SOCK_CLOEXEC));
            if (stop_) return;
            if (client.isValid()) play(client.get(), scripts_());
        }
    }
    static void play(int client, const Script& script) {
        sendAll(client, script.greeting);
        if (!script.awaitsRequest || awaitRequest(client)) sendAll(client, script.rest);
        shutdown(client, SHUT_WR);
        char ignored[4096];
        while (recv(client, ignored, sizeof ignored, 0) > 0) {
        }
    }
    static void sendAll(int client, std::string_view bytes) {
        while (!bytes.empty()) {
            const auto count = send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0) return;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    static bool awaitRequest(int client) {
        okv::FrameBuffer bytes;
        for (;;) {
            const auto room = bytes.room();
            const auto count = recv(client, room.data(), room.size(), 0);
            if (count <= 0) return false;
            bytes.added(static_cast<std::size_t>(count));
            while (const auto frame = bytes.next()) {
                if (frame->kind == FrameKind::request) return true;
            }
        }
    }

    const Scripts scripts_;
    std::unique_ptr<okv::PublishedName> name_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// What a client makes of it: an answer, or the kind of its failure.
std::optional<Kind> outcomeOfRead() {
    return failureOf([] {
        const auto root = connection()->rootProxy();
        if (!root) throw ConnectionError(Kind::notSent, "no root object");
        EXPECT_EQ(get(*root, "k"), Value("v"));
    });
}

std::string flood(std::size_t count) {
    std::string all, one;
    okv::beginRequest(one, 1, "disConnectSrv", "");
    okv::finishRequest(one);
    for (; count > 0; --count) all += one;
    return all;
}

struct Line {
    const char* name;
    ScriptedServer::Script script;
    std::optional<Kind> outcome;  ///< none: the right answer
};

std::string rightAnswer() {
    return reply(1, "\x61v");
}

// The bytes in the place of the server's greeting.
ScriptedServer::Script greeting(std::string bytes) {
    return {std::move(bytes), rightAnswer(), false};
}

// The bytes in the place of its answer.
ScriptedServer::Script rest(std::string bytes) {
    return {serverHello(), std::move(bytes), true};
}

std::vector<Line> hostileGreetings() {
    return {
        {"an empty hello", greeting(rawFrame(1U, 0, "")), Kind::badData},
        {"a hello without a word of its root", greeting(rawFrame(1U, 0, "\x01")), Kind::badData},
        {"a hello of text", greeting(rawFrame(1U, 0, "\x61v")), Kind::badData},
        {"bytes behind a hello", greeting(rawFrame(1U, 0, "\x01\xF5\xF5")), Kind::badData},
        {"bytes behind a farewell", greeting(rawFrame(5U, 0, "\x61x\x61x")), Kind::badData},
        {"another version", greeting(rawFrame(1U, 0, "\x02\xF5")), Kind::badData},
        {"garbage", greeting("220 mail.example ESMTP ready\r\n"), Kind::badData},
        {"a reply before the hello", greeting(rightAnswer()), Kind::badData},
        {"a request before the hello", greeting(flood(1)), Kind::badData},
        {"a huge frame", greeting(rawFrame(0xFFFFFFFF, 1, 0, "")), Kind::badData},
        {"nothing", {"", "", false}, Kind::notSent},
        {"half a hello", {serverHello().substr(0, 7), "", false}, Kind::notSent},
        {"a farewell", {farewell("no more today"), "", false}, Kind::notSent},
        {"a farewell that is none", greeting(rawFrame(5U, 0, "\x01")), Kind::badData},
        {"no root object", greeting(rawFrame(1U, 0, "\x01\xF4")), Kind::notSent},
    };
}

std::vector<Line> hostileAnswers() {
    const auto answer = rightAnswer();
    return {
        {"what a server says", rest(answer), {}},
        {"no answer", rest(""), Kind::outcomeUnknown},
        {"half an answer", rest(answer.substr(0, answer.size() - 1)), Kind::outcomeUnknown},
        {"garbage for an answer", rest("garbage garbage"), Kind::badData},
        {"an unknown kind", rest(rawFrame(6U, 1, "") + answer), Kind::badData},
        {"an empty answer", rest(reply(1, "")), Kind::badData},
        {"an answer that is no value", rest(reply(1, "\xFF")), Kind::badData},
        {"an answer of a million arrays", rest(reply(1, std::string(1000000, '\x81'))),
         Kind::badData},
        {"an answer of 2^63 elements", rest(reply(1, "\x9B\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF")),
         Kind::badData},
        {"bytes behind an answer", rest(reply(1, "\x61v\xFF")), Kind::badData},
        {"a refusal", rest(reply(1, "\x61v\x06\x62no")), {}},
        {"a refusal of a kind that there is not", rest(reply(1, "\x61v\x07\x62no")), Kind::badData},
        {"a refusal of a kind beyond a byte", rest(reply(1, "\x61v\x19\x01\x01\x62no")),
         Kind::badData},
        {"bytes behind a refusal", rest(reply(1, "\x61v\x06\x62no\x61x")), Kind::badData},
        {"bytes behind a failure", rest(rawFrame(4U, 1, "\x62no\xF6")), Kind::badData},
        {"a failure", rest(rawFrame(4U, 1, "\x62no")), Kind::notUnderstood},
        {"a failure that is none", rest(rawFrame(4U, 1, "\x01")), Kind::badData},
        {"answers that nobody asked for",
         rest(reply(0, "\x61x") + reply(2, "\x61x") + reply(0xFFFFFFFF, "\x61x") + answer),
         {}},
        {"another hello in between", rest(serverHello() + answer), Kind::badData},
        {"requests to objects that were not lent", rest(flood(1000) + answer), {}},
        {"a flood of requests", rest(flood(100000) + answer), Kind::badData},
        {"a flood of large requests",
         rest(rawFrame(2U, 1, std::string(3U << 20, 'x')) +
              rawFrame(2U, 1, std::string(3U << 20, 'x')) + answer),
         Kind::badData},
        {"requests that are none",
         rest(rawFrame(2U, 1, "\xFF") + rawFrame(2U, 1, "") + answer),
         {}},
    };
}

class HostileServer : public testing::Test {
protected:
    const okv::testing::RuntimeFolder folder_;
};

}  // namespace

TEST_F(HostileServer, GetsAnErrorOrAnAnswerOutOfAClientAndNothingElse) {
    for (const auto& lines : {hostileGreetings(), hostileAnswers()}) {
        for (const auto& line : lines) {
            ScriptedServer server([&] { return line.script; });
            EXPECT_EQ(outcomeOfRead(), line.outcome) << line.name;
            okv::RunLoop::current()->dispatch();
        }
    }
}

TEST_F(HostileServer, CannotCrashAClientWithTenThousandMutationsOfGoodReplies) {
    const Value rich(okv::Dictionary{{"a", okv::Array{1, -2.5, okv::Null{}, true, "text"}},
                                     {"b", okv::Dictionary{{1, okv::Date{1e9}}}}});
    const std::string payloads[] = {okv::encodeCbor(rich),
                                    "\x61v",
                                    "\x18\x2A",
                                    "\xF5",
                                    "\xF7",
                                    "\xF6\x01\x67"
                                    "because",
                                    okv::encodeCbor(std::string(5000, 'x'))};
    Mutator mutator(4711);
    ScriptedServer server([&] {
        const auto good = reply(1, payloads[mutator.below(std::size(payloads))]);
        if (mutator.below(8) != 0)
            return ScriptedServer::Script{serverHello(), mutator.mutatedFrame(good), true};
        return ScriptedServer::Script{mutator.mutated(serverHello()), good, false};
    });
    long answered = 0, failed = 0;
    for (int i = 0; i < 10000; ++i) {
        const auto failure = failureOf([&] {
            const auto root = connection()->rootProxy();
            if (!root) return;
            if (i % 3 == 0) okv::sendForAnswer<&Data::okvDataPT>(*root, "k");
            if (i % 3 == 1) okv::sendForAnswer<&Data::defaultUserIdPT>(*root);
            if (i % 3 == 2) okv::sendForAnswer<&Data::reloadDataPT>(*root);
        });
        ++(failure ? failed : answered);
        okv::RunLoop::current()->dispatch();
    }
    EXPECT_GT(answered, 0);
    EXPECT_GT(failed, 0);
}

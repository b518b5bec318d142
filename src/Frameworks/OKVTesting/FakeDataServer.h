#pragma once

#include <OKVTesting/ServiceThread.h>

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace okv::testing {

/// A message as it came: the types tell a number object ("@") from a plain int ("i").
struct OKV_EXPORT ReceivedMessage {
    std::string selector;
    std::string types;
    std::vector<Value> arguments;  ///< an object by reference stands as the text "<client>"

    friend OKV_EXPORT bool operator==(const ReceivedMessage& a, const ReceivedMessage& b) = default;
};

/// A data server for the tests of those who write clients: it stores nothing, records every
/// message, and answers what it is told to. It serves in this process, from a thread of its own,
/// under the data server's registered name; look names up in a private folder (RuntimeFolder)
/// first.
///
///     okv::testing::RuntimeFolder folder;
///     okv::testing::FakeDataServer server;
///     server.answer("defaultUserIdPT", 7);
///     auto manager = okvDataManager::sharedDataManager();
///
/// Untold, `registerAsClient:` answers YES and every other method its zero value. A connection
/// whose registration was answered YES is a registered client, once, until it sends
/// `removeAsClient:` or ends. Threads: any.
class OKV_EXPORT FakeDataServer {
public:
    using Behaviour = std::function<Value(const ReceivedMessage&)>;
    struct Options {
        bool vendsRootObject = true;
    };

    /// Serves when it returns. Throws std::runtime_error with the reason when the name cannot be
    /// had.
    FakeDataServer() : FakeDataServer(Options{}) {}
    /// As above; without a root object clients find a server that vends none.
    explicit FakeDataServer(Options options);
    FakeDataServer(const FakeDataServer&) = delete;
    FakeDataServer& operator=(const FakeDataServer&) = delete;
    ~FakeDataServer();

    /// Answers this from now on; an int stands for an int result too, a bool for a BOOL.
    void answer(const std::string& selector, Value value);
    /// Answers what the function makes of the message, called on the service's thread, from now on.
    void answerBy(const std::string& selector, Behaviour behaviour);
    /// Answers bytes that are no frame at all.
    void answerGarbage(const std::string& selector);
    /// Hangs up when this message comes, without an answer.
    void hangUpAt(const std::string& selector);
    /// Answers NO to every client that registers, from now on.
    void refuseRegistration() { answer("registerAsClient:", false); }

    /// Sends `disConnectSrv` to every registered client.
    void disconnectClients();
    /// Closes every connection but stays published.
    void closeConnections();
    /// Withdraws the name and closes every connection; `start` publishes anew.
    void stop();
    /// Publishes; throws as the constructor does.
    void start();

    /// All messages since the record was last emptied, in the order in which they came.
    std::vector<ReceivedMessage> messages() const;
    /// Their selectors alone.
    std::vector<std::string> selectors() const;
    /// How many of them had this selector.
    std::size_t count(const std::string& selector) const;
    /// Empties the record.
    void forget() { takeMessages(); }
    /// Empties the record and answers what was in it.
    std::vector<ReceivedMessage> takeMessages();
    /// Whether the message ever came; emptying the record does not change it.
    bool everReceived(const std::string& selector) const;
    /// How many connections were ever accepted.
    std::size_t acceptedConnections() const;

private:
    struct Plan;

    void handle(IncomingRequest& request);
    void carryOut(IncomingRequest& request, const ReceivedMessage& message, const Plan& plan);
    static ReceivedMessage read(IncomingRequest& request);
    static std::string payloadFor(const ReceivedMessage& message, const Plan& plan);
    void keepClient(IncomingRequest& request);
    void forgetClient(MessagePort& port);
    Plan planFor(const std::string& selector) const;
    void setPlan(const std::string& selector, Plan plan);

    const Options options_;
    Publication* publication_ = nullptr;  // for the service's thread only
    mutable std::mutex mutex_;
    std::map<std::string, Plan> plans_;
    std::vector<ReceivedMessage> messages_;
    std::set<std::string> everReceived_;
    std::map<MessagePort*, Ref<RemoteObject>> clients_;  // by the connection that registered
    std::size_t accepted_ = 0;
    std::unique_ptr<ServiceThread> service_;
};

}  // namespace okv::testing

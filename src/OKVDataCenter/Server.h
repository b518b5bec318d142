#pragma once

#include "Notices.h"
#include "ReadingSide.h"
#include "RefusalLog.h"
#include "Rights.h"
#include "View.h"
#include "Writer.h"

#include <OKVPlatform/ipc/Publication.h>

#include <functional>
#include <memory>
#include <string>

namespace datacenter {

/// The running server: takes requests on its run loop, answers reads from the view, gives changes
/// to the writer, and answers them when they are committed. Made, run and destroyed on one thread.
class Server {
public:
    /// What the server does not have of itself; the poster must outlive it.
    struct Surroundings {
        NoticePoster& poster;
        LogLine log;
        std::function<double()> now = [] { return okv::Date::now().secondsSince1970; };
        std::function<okv::Dictionary()> backups =
            {};  ///< how they stand, for the status; may be none
        /// On a reload: learns anew what is known from elsewhere than the store. On the writer's
        /// thread, for it may wait.
        std::function<void(Rights&)> lookAround = {};
        /// After a reload; `failure` is empty, or tells why the view was kept.
        std::function<void(const std::string& failure)> reloaded = {};
        std::function<void()> ending = {};  ///< once, before the last changes are carried out
    };
    Server(Store& store, Rights rights, Surroundings surroundings);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Publishes the name, or serves its socket that the service manager handed over. False when
    /// that cannot be done; `why` then tells the reason. Posts a notice of the present revision,
    /// without keys: whatever was heard of an earlier server may be out of date.
    bool publish(std::string& why);
    bool adopt(int listener, std::string& why);

    /// Serves until it was told to end and everything it had taken is committed, answered and
    /// handed to the poster.
    void run();
    /// Takes no more clients and ends when all is done. Clients find their connection closed, and
    /// connect again by themselves when there is a server again.
    void end();
    /// Reads the store again and looks around; a failure keeps the view and is logged.
    void reload() { writer_.queueReload(); }
    /// Whether changes still get on; logged when they do not.
    bool isWell();

    /// Answers a request to the root object, at once or when its change is committed.
    void handle(okv::IncomingRequest& request);
    const View& view() const noexcept { return view_; }

private:
    void answerHere(okv::IncomingRequest& request, Method method);
    void refuse(okv::IncomingRequest& request, Method method, okv::Refusal refusal);
    void noteRefusal(const okv::IncomingRequest& request);
    void take(const std::shared_ptr<Batch>& batch);
    void reloaded(const std::string& failure);
    void closeWhenFlushed();
    bool started(okv::Ref<okv::Publication> publication);
    okv::RootObject root();
    okv::PublicationOptions options();
    Writer::Handlers handlers();
    okv::Dictionary status() const;
    okv::Dictionary use() const;

    const okv::Ref<okv::RunLoop> loop_;
    const okv::RunLoop::Clock::time_point start_ = okv::RunLoop::Clock::now();
    const Limits limits_;
    Rights rights_;
    const Surroundings surroundings_;
    NoticePoster& poster_;
    const LogLine& log_;
    RefusalLog refusals_;
    ServerState state_;
    View view_;
    ReadingSide data_{view_, state_, limits_};
    AdminReadingSide admin_{view_, state_, limits_};
    std::string answer_;
    bool isAnswering_ = false;
    bool ending_ = false;
    bool stuck_ = false;
    okv::RunLoop::Clock::time_point flushUntil_;
    okv::Ref<okv::Publication> publication_;
    Writer writer_;
};

}  // namespace datacenter

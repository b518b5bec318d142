#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include "../DateText.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>

namespace okvctl {

namespace {

using okv::Dictionary;
using okv::Value;

std::string scopeOf(const Dictionary& change) {
    const auto* user = change.find("appuid");
    return user != nullptr ? "user " + cellText(*user) : std::string("everybody");
}

std::string keysIn(const Dictionary& change) {
    const auto* keys = change["keys"].getIf<okv::Array>();
    if (keys == nullptr) return " *";
    if (keys->empty()) return " -";
    std::string text;
    for (const auto& key : *keys) text.append(" ").append(cellText(key));
    return text;
}

std::string lineFor(const Dictionary& change) {
    const auto head = cellText(change["revision"]) + " " + cellText(change["time"]) + " " +
                      cellText(change["writer"]) + " ";
    const auto account = change["osuserid"].longLongValue();
    if (account >= 0)
        return head + "account " + std::to_string(account) + ": user " +
               cellText(change["session_userid"]);
    return head + scopeOf(change) + ":" + keysIn(change);
}

/// Prints what the server tells has changed. Notices only say that it is time to ask again: so
/// nothing is lost when one goes astray or the server is restarted, and nothing printed twice.
class Watcher final : public okv::Object {
public:
    explicit Watcher(Call& call) : call_(call) {}

    void observe();
    void begin();
    /// Until the output's reader is gone.
    void run();

protected:
    void dealloc() override;

private:
    void heard(const okv::Notification& notice);
    void missed(std::uint64_t) { catchUp(); }
    bool isNews(const Value& information) const;
    void catchUp();
    void askAgain();
    void take(const Dictionary& answer);
    void printResync();
    void print(Dictionary change);
    void stopWhenUnread();

    Call& call_;
    Value epoch_;
    std::int64_t revision_ = 0;
    std::exception_ptr failure_;
};

void Watcher::observe() {
    auto& center = okv::DistributedNotificationCenter::defaultCenter();
    center.addObserver(*this, &Watcher::heard, kOKVSettingNotification, {}, &Watcher::missed);
}

void Watcher::dealloc() {
    okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
}

void Watcher::begin() {
    if (call_.line.since) {
        revision_ = *call_.line.since;
        return askAgain();
    }
    const auto status = call_.server.ask<&OKVDataAdmin_protocol::serverStatusPT>("");
    epoch_ = dictionaryIn(status)["epoch"];
    revision_ = dictionaryIn(status)["revision"].longLongValue();
}

void Watcher::run() {
    stopWhenUnread();
    if (!failure_ && !call_.out.isBroken()) okv::RunLoop::current()->run();
    if (failure_) std::rethrow_exception(failure_);
}

// A pipe tells that its reader is gone; anything else is found out by writing.
void Watcher::stopWhenUnread() {
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) != 0) return;
    if (!S_ISFIFO(status.st_mode) && !S_ISSOCK(status.st_mode)) return;
    const auto loop = okv::RunLoop::current();
    loop->watch(STDOUT_FILENO, EPOLLERR, [](std::uint32_t) { okv::RunLoop::current()->stop(); });
}

bool Watcher::isNews(const Value& information) const {
    const auto* entries = information.getIf<Dictionary>();
    return entries == nullptr || (*entries)["epoch"] != epoch_ ||
           (*entries)["revision"].longLongValue() > revision_;
}

void Watcher::heard(const okv::Notification& notice) {
    if (isNews(notice.userInfo)) catchUp();
}

// A server that is gone posts a notice when it is back.
void Watcher::catchUp() {
    if (failure_) return;
    try {
        if (!call_.server.isConnected()) call_.server.disconnect();
        askAgain();
        if (call_.out.isBroken()) okv::RunLoop::current()->stop();
    } catch (...) {
        if (!call_.server.isConnected()) return;
        failure_ = std::current_exception();
        okv::RunLoop::current()->stop();
    }
}

void Watcher::askAgain() {
    const auto answer = call_.server.ask<&OKVDataAdmin_protocol::changesPT>("", Value(revision_));
    take(dictionaryIn(answer));
    call_.out.flush();
}

void Watcher::take(const Dictionary& answer) {
    const bool sameStore = epoch_.isNil() || answer["epoch"] == epoch_;
    const auto* changes = answer["changes"].getIf<okv::Array>();
    epoch_ = answer["epoch"];
    revision_ = answer["revision"].longLongValue();
    if (!sameStore || changes == nullptr) return printResync();
    for (const auto& change : *changes) print(dictionaryIn(change));
}

void Watcher::printResync() {
    if (!call_.prints(kJson)) return call_.out.line("resync " + std::to_string(revision_));
    call_.out.json(Dictionary{{"revision", revision_}, {"epoch", epoch_}, {"resync", true}});
}

void Watcher::print(Dictionary change) {
    if (!call_.prints(kJson)) return call_.out.line(lineFor(change));
    change.set("epoch", epoch_);
    call_.out.json(change);
}

ExitCode runWatch(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTable | kJson);
    const auto watcher = okv::make<Watcher>(call);
    watcher->observe();  // first, so that no change falls between
    watcher->begin();
    watcher->run();
    return ExitCode::done;
}

}  // namespace

const Verb kWatch{
    "watch",
    "[--since REVISION]",
    "print changes as they happen",
    "A line for each change: revision, time, uid of the writer, then whose values and which keys\n"
    "(* any, - none), or the account and its new user. With --since the changes after that "
    "revision\n"
    "come first. The line \"resync REVISION\" says that earlier changes are not known any more "
    "(or\n"
    "that the store was replaced) and that all must be read anew. With --json an object a line,\n"
    "with \"revision\", \"epoch\" (which store), \"time\", \"writer\", \"osuserid\", "
    "\"session_userid\",\n"
    "and where they apply \"appuid\", \"keys\", \"resync\". It goes on over a restart of the data\n"
    "server, until it is interrupted or nobody reads its output.\n",
    kTakesSince,
    runWatch,
};

}  // namespace okvctl

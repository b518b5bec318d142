// What happens to a call, and to the server, when there is more of everything: clients that are
// connected, clients that call, values, bytes in a value.
//
//     bench_growth [FILE]    prints tables; the calls' figures as JSON into FILE, beside others'
//
// Ends with 1 when a bar is not kept.

#include "Figures.h"
#include "FrameSizes.h"
#include "Memory.h"
#include "Raw.h"
#include "peers/Peer.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVTesting/RuntimeFolder.h>

#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
using Root = okv::Ref<okv::RemoteObject>;

constexpr char kKey[] = "dc-gui-window_colour";
constexpr int kManyClients = 1000;
constexpr int kCallers = 100;
constexpr int kUsers = 100;
constexpr int kKeysOfAUser = 10000;

// What is not kept is told at once, and by the exit code.
bool areAllKept = true;

void demand(bool isKept, const char* what) {
    areAllKept = areAllKept && isKept;
    if (!isKept) std::printf("BROKEN: %s\n", what);
}

// ---- Servers and clients ----

/// A data server with a folder of names of its own.
class Ground {
public:
    Ground() { start(); }

    void start() {
        setenv("OKV_RUNTIME_DIR", folder_.path().c_str(), 1);
        const auto before = Clock::now();
        server_ = std::make_unique<bench::ServerProcess>(
            std::vector<std::string>{OKV_BENCH_SERVER, "--foreground", "--connections-per-uid",
                                     "1024", "--store", (folder_.path() / "store.db").string()});
        startSeconds_ = std::chrono::duration<double>(Clock::now() - before).count();
        bench::pinTo(0, server_->pid());
    }
    void stop() { server_.reset(); }
    double startSeconds() const { return startSeconds_; }
    double memory() const { return bench::privateBytes(server_->pid()); }

    Root connect() const {
        setenv("OKV_RUNTIME_DIR", folder_.path().c_str(), 1);
        const auto connection = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
        if (!connection) std::abort();
        return connection->rootProxy();
    }

private:
    okv::testing::RuntimeFolder folder_;
    std::unique_ptr<bench::ServerProcess> server_;
    double startSeconds_ = 0;
};

void require(bool done) {
    if (!done) std::abort();
}

void set(okv::RemoteObject& root, const char* key, std::size_t size) {
    require(okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(root, key,
                                                                       std::string(size, 'v'), 1));
}

okv::Value get(okv::RemoteObject& root, const char* key) {
    return okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(root, key, 1);
}

class Client final : public okv::Object, public OKVClientMng_protocol {
public:
    void disConnectSrv() override {}

protected:
    void dealloc() override { okv::ExportedObjects::withdraw(*this); }
};

struct Registered {
    Root root;
    okv::Ref<Client> client;
};

std::vector<Registered> registeredClients(const Ground& ground, int count) {
    std::vector<Registered> clients;
    for (int i = 0; i < count; ++i) {
        clients.push_back({ground.connect(), okv::make<Client>()});
        auto& [root, client] = clients.back();
        require(okv::send<&OKVDataMng_protocol::registerAsClient>(
            *root, okv::lend<OKVClientMng_protocol>(*client)));
    }
    return clients;
}

// ---- Clients ----

struct Crowd {
    Ground ground;
    std::vector<Registered> idle;
    Root caller;

    explicit Crowd(int count) : idle(registeredClients(ground, count)), caller(ground.connect()) {
        set(*caller, kKey, 32);
    }
    bench::Contender contender() {
        return {std::to_string(idle.size()) + " others connected and idle",
                [this] { get(*caller, kKey); }};
    }
};

std::vector<bench::Result> compare(const char* title,
                                   const std::vector<bench::Contender>& contenders,
                                   const bench::Rounds& rounds) {
    std::printf("\n%s\n", title);
    auto results = bench::contest(contenders, rounds);
    bench::print(results);
    return results;
}

json measureIdleClients() {
    Crowd one(1), hundred(100), thousand(kManyClients);
    const auto results =
        compare("A read beside idle clients (bar for the ratio: 1.1)",
                {one.contender(), hundred.contender(), thousand.contender()}, {31, 1000});
    for (const auto& result : results) demand(result.ratio <= 1.1, result.name.c_str());
    return bench::figures(results);
}

void measureMemoryOfClients() {
    const Ground ground;
    const auto warm = registeredClients(ground, 10);
    const auto before = ground.memory();
    const auto idle = registeredClients(ground, kManyClients);
    const auto ofEach = (ground.memory() - before) / kManyClients;
    std::printf("\nServer's memory for an idle client: %.0f bytes (bar: 16384)\n", ofEach);
    demand(ofEach <= 16384, "the memory for an idle client");
}

// ---- Callers ----

using Connect = std::function<bench::Call()>;

/// Clients that call without a pause while they are let, each a process of its own. Stopped and
/// continued by signals: what is under way when they are stopped waits for them.
class Callers {
public:
    Callers(int count, const Connect& connect) {
        for (int i = 0; i < count; ++i) {
            processes_.push_back(std::make_unique<bench::ServerProcess>([&](const auto& ready) {
                const auto call = connect();
                ready();
                for (raise(SIGSTOP);;) call();
            }));
            awaitStop(processes_.back()->pid());
        }
    }
    void go() const { signalAll(SIGCONT); }
    void halt() const {
        signalAll(SIGSTOP);
        for (const auto& process : processes_) awaitStop(process->pid());
    }

private:
    void signalAll(int signal) const {
        for (const auto& process : processes_) require(kill(process->pid(), signal) == 0);
    }
    static void awaitStop(int pid) {
        int status = 0;
        require(waitpid(pid, &status, WUNTRACED) == pid && WIFSTOPPED(status));
    }

    std::vector<std::unique_ptr<bench::ServerProcess>> processes_;
};

/// One who measures, beside the others, who call only during its turn.
class BusyCrowd {
public:
    BusyCrowd(std::string name, const Connect& connect)
        : name_(std::move(name)), others_(kCallers, connect), call_(connect()) {}

    bench::Contender contender() {
        return {name_, call_, [this] { begin(); }, [this] { others_.halt(); }};
    }

private:
    // Until the system's scheduler treats everybody alike: who was just continued waits behind one
    // who did not stop, and the first calls are up to ten times as fast as those that follow.
    void begin() {
        constexpr auto kSettle = std::chrono::milliseconds(500);
        others_.go();
        for (const auto until = Clock::now() + kSettle; Clock::now() < until;) call_();
    }

    const std::string name_;
    const Callers others_;
    const bench::Call call_;
};

json measureBesideCallers() {
    const okv::testing::RuntimeFolder folder;
    const auto raw = bench::rawStream(folder.path());
    const Ground ground;
    set(*ground.connect(), kKey, bench::kAnswerSize);
    BusyCrowd rawCrowd("raw, beside 100 raw callers", raw.connect);
    BusyCrowd readers("a read, beside 100 that read", [&ground]() -> bench::Call {
        return [root = ground.connect()] { get(*root, kKey); };
    });
    return bench::figures(compare("A call while 100 other clients call, everything on one core",
                                  {rawCrowd.contender(), readers.contender()}, {15, 200}));
}

// ---- Bytes ----

void measureValue(okv::RemoteObject& root, std::size_t size) {
    set(root, kKey, size);
    bench::RawPeer raw({{bench::requestSize<&OKVDataMng_protocol::okvDataPT_appUid>(kKey, 1),
                         bench::replySize(std::string(size, 'v'))}});
    const int calls = size > 10000 ? 200 : 1000;
    const auto results = bench::contest(
        {{"raw", [&] { raw.call(); }}, {"a read of the value", [&] { get(root, kKey); }}},
        {21, calls});
    std::printf("%8zu %10.0f %10.0f %9.0f %9.2f\n", size, results[0].medianNs, results[1].medianNs,
                static_cast<double>(size) * 1e3 / results[1].medianNs, 1 / results[1].ratio);
    demand(1 / results[1].ratio >= 0.5, "values of many bytes");
}

void measureValues() {
    const Ground ground;
    const auto root = ground.connect();
    std::puts("\nValues of many bytes (bar for the last: 0.5)");
    std::printf("%8s %10s %10s %9s %9s\n", "bytes", "raw ns", "ours ns", "MB/s", "of raw");
    for (const std::size_t size : {32U, 1U << 10, 16U << 10, 64U << 10, (256U << 10) - 16})
        measureValue(*root, size);
}

// ---- Settings ----

okv::Dictionary settingsOfOneUser() {
    okv::Dictionary settings;
    settings.reserve(kKeysOfAUser);
    for (int key = 0; key < kKeysOfAUser; ++key)
        settings.insert("dc-gui-setting_" + std::to_string(key), std::string(32, 'v'));
    return settings;
}

void fill(okv::RemoteObject& root) {
    const okv::Value settings(settingsOfOneUser());
    for (int user = 1; user <= kUsers; ++user) {
        okv::send<&OKVDataMng_protocol::setUseridPT_applyUid>(root, user, user);
        require(okv::send<&OKVDataMng_protocol::setOKVDataAllPT_appUid>(root, settings, user));
    }
}

void measureSettings() {
    constexpr double kSettings = 1.0 * kUsers * kKeysOfAUser;
    Ground ground;
    const auto empty = ground.memory();
    fill(*ground.connect());
    ground.stop();
    ground.start();
    std::printf("\n%.0f settings of 32 bytes: start %.2f s (bar: 2), %.0f bytes of memory each\n",
                kSettings, ground.startSeconds(), (ground.memory() - empty) / kSettings);
    demand(ground.startSeconds() <= 2, "the start");
}

void allowManyDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int count, char** arguments) {
    std::setbuf(stdout, nullptr);
    allowManyDescriptors();
    bench::pinTo(0);
    json calls;
    calls["beside idle clients"] = measureIdleClients();
    calls["beside clients that call"] = measureBesideCallers();
    if (count > 1) bench::addTo(arguments[1], "growth", calls);
    measureMemoryOfClients();
    measureValues();
    measureSettings();
    return areAllKept ? EXIT_SUCCESS : EXIT_FAILURE;
}

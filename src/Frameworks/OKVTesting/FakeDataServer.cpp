#include <OKVTesting/FakeDataServer.h>

#include <OKVDataManager/okvDataManager.h>

#include <algorithm>
#include <utility>

namespace okv::testing {

namespace {

using Rows = Dispatcher<OKVDataMng_protocol>;

Value zeroOf(char type) {
    switch (type) {
        case 'c':
            return false;
        case 'i':
            return 0;
        default:
            return {};
    }
}

constexpr char kRegister[] = "registerAsClient:";
constexpr char kRemove[] = "removeAsClient:";

bool takesClient(std::string_view selector) {
    return selector == kRegister || selector == kRemove;
}

std::string replyWith(std::string_view payload) {
    std::string frame;
    beginFrame(frame, FrameKind::reply);
    frame.append(payload);
    finishFrame(frame, 0, 0);
    return frame;
}

}  // namespace

struct FakeDataServer::Plan {
    Behaviour behaviour;
    bool isGarbage = false;
    bool hangsUp = false;
};

FakeDataServer::FakeDataServer(Options options) : options_(options) {
    answer(kRegister, true);
    start();
}

FakeDataServer::~FakeDataServer() {
    stop();
}

void FakeDataServer::start() {
    RootObject root;
    root.target = this;
    if (options_.vendsRootObject) {
        root.handler = [](void* target, IncomingRequest& request) {
            static_cast<FakeDataServer*>(target)->handle(request);
        };
    }
    PublicationOptions publication;
    publication.connected = [this](MessagePort&) {
        const std::lock_guard lock(mutex_);
        ++accepted_;
    };
    publication.disconnected = [this](MessagePort& port) { forgetClient(port); };
    service_ =
        std::make_unique<ServiceThread>(kOKVDataServerName, std::move(root), std::move(publication),
                                        [this](Publication& made) { publication_ = &made; });
    if (!service_->failure().empty())
        throw std::runtime_error("the fake data server: " + service_->failure());
}

void FakeDataServer::stop() {
    service_.reset();
    const std::lock_guard lock(mutex_);
    clients_.clear();
}

void FakeDataServer::setPlan(const std::string& selector, Plan plan) {
    const std::lock_guard lock(mutex_);
    plans_[selector] = std::move(plan);
}

void FakeDataServer::answerBy(const std::string& selector, Behaviour behaviour) {
    Plan plan;
    plan.behaviour = std::move(behaviour);
    setPlan(selector, std::move(plan));
}

void FakeDataServer::answer(const std::string& selector, Value value) {
    answerBy(selector, [value = std::move(value)](const ReceivedMessage&) { return value; });
}

void FakeDataServer::answerGarbage(const std::string& selector) {
    Plan plan;
    plan.isGarbage = true;
    setPlan(selector, std::move(plan));
}

void FakeDataServer::hangUpAt(const std::string& selector) {
    Plan plan;
    plan.hangsUp = true;
    setPlan(selector, std::move(plan));
}

FakeDataServer::Plan FakeDataServer::planFor(const std::string& selector) const {
    const std::lock_guard lock(mutex_);
    const auto found = plans_.find(selector);
    return found == plans_.end() ? Plan{} : found->second;
}

ReceivedMessage FakeDataServer::read(IncomingRequest& request) {
    ReceivedMessage message{std::string(request.selector()), std::string(request.types()), {}};
    auto reader = request.arguments();
    if (takesClient(message.selector)) {
        reader.reference();
        message.arguments.emplace_back("<client>");
    }
    while (!reader.atEnd()) message.arguments.push_back(reader.value());
    return message;
}

void FakeDataServer::keepClient(IncomingRequest& request) {
    auto client = request.remote(request.arguments().reference());
    const std::lock_guard lock(mutex_);
    clients_[&request.port()] = std::move(client);
}

void FakeDataServer::forgetClient(MessagePort& port) {
    const std::lock_guard lock(mutex_);
    clients_.erase(&port);
}

void FakeDataServer::handle(IncomingRequest& request) {
    const auto message = read(request);
    {
        const std::lock_guard lock(mutex_);
        messages_.push_back(message);
        everReceived_.insert(message.selector);
    }
    if (message.selector == kRemove) forgetClient(request.port());
    carryOut(request, message, planFor(message.selector));
}

void FakeDataServer::carryOut(IncomingRequest& request, const ReceivedMessage& message,
                              const Plan& plan) {
    if (plan.hangsUp) return publication_->closeConnections();
    if (plan.isGarbage) return request.answer(std::string(64, '\xEE'));
    const auto row = Rows::find(message.selector);
    if (!row && !plan.behaviour) return request.fail("unknown selector");
    const auto payload = payloadFor(message, plan);
    if (message.selector == kRegister && payload == encodeCbor(true)) keepClient(request);
    request.answer(replyWith(payload));
}

std::string FakeDataServer::payloadFor(const ReceivedMessage& message, const Plan& plan) {
    if (plan.behaviour) return encodeCbor(plan.behaviour(message));
    return encodeCbor(zeroOf(Rows::resultType(*Rows::find(message.selector))));
}

void FakeDataServer::disconnectClients() {
    service_->on([this](Publication&) {
        std::map<MessagePort*, Ref<RemoteObject>> clients;
        {
            const std::lock_guard lock(mutex_);
            clients = clients_;
        }
        for (const auto& [port, client] : clients)
            okv::post<&OKVClientMng_protocol::disConnectSrv>(*client);
    });
}

void FakeDataServer::closeConnections() {
    service_->on([](Publication& publication) { publication.closeConnections(); });
}

std::vector<ReceivedMessage> FakeDataServer::messages() const {
    const std::lock_guard lock(mutex_);
    return messages_;
}

std::vector<std::string> FakeDataServer::selectors() const {
    std::vector<std::string> selectors;
    for (const auto& message : messages()) selectors.push_back(message.selector);
    return selectors;
}

std::size_t FakeDataServer::count(const std::string& selector) const {
    const auto all = selectors();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), selector));
}

std::vector<ReceivedMessage> FakeDataServer::takeMessages() {
    const std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
}

bool FakeDataServer::everReceived(const std::string& selector) const {
    const std::lock_guard lock(mutex_);
    return everReceived_.contains(selector);
}

std::size_t FakeDataServer::acceptedConnections() const {
    const std::lock_guard lock(mutex_);
    return accepted_;
}

}  // namespace okv::testing

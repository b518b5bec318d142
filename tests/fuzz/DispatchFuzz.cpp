// Requests to a real server on a scratch store, from accounts of every kind: a byte for each choice
// that is made (see Input), arguments of the methods' types or any bytes. What is refused changes
// nothing, what is accepted is one revision and is read back, and memory and disk agree.
#include "DispatchCenter.h"
#include "DispatchInput.h"

#include <array>
#include <optional>
#include <vector>

namespace {

using datacenter::Method;
using fuzz::Center;
using fuzz::Input;
using fuzz::peerFrom;
using fuzz::Port;
using fuzz::require;
using fuzz::same;
using okv::Dictionary;
using okv::Value;
using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

constexpr std::size_t kRequestsAtMost = 24;

constexpr std::size_t kDataRows = okv::Dispatcher<Data>::rowCount;
constexpr std::size_t kAdminRows = okv::Dispatcher<Admin>::rowCount;

struct Asked {
    std::optional<Method> method;  ///< none: the bytes name no method, or are no request
    std::vector<Value> arguments;  ///< empty where any bytes were sent for them
    std::string payload;
};

Method methodFrom(Input& input) {
    const auto choice = input.below(kDataRows + kAdminRows);
    return choice < kDataRows ? Method{false, choice} : Method{true, choice - kDataRows};
}

std::string_view typesOf(Method method) {
    return method.isAdmin ? okv::Dispatcher<Admin>::types(method.row)
                          : okv::Dispatcher<Data>::types(method.row);
}
char resultOf(Method method) {
    return method.isAdmin ? okv::Dispatcher<Admin>::resultType(method.row)
                          : okv::Dispatcher<Data>::resultType(method.row);
}

bool takesClient(Method method) {
    return method == datacenter::methodOf<&Data::registerAsClient>() ||
           method == datacenter::methodOf<&Data::removeAsClient>();
}

void writeArguments(okv::CborWriter& out, Asked& asked, Input& input,
                    const datacenter::View& view) {
    for (const char type : typesOf(*asked.method)) {
        if (type == 'i') {
            asked.arguments.emplace_back(fuzz::intFrom(input));
            out.integer(asked.arguments.back().as<std::int64_t>());
        } else if (type == 'c') {
            asked.arguments.emplace_back(input.byte() % 2 == 0);
            out.boolean(asked.arguments.back().as<bool>());
        } else if (takesClient(*asked.method)) {
            out.reference(input.byte());
        } else {
            asked.arguments.push_back(fuzz::valueFrom(input, view));
            out.value(asked.arguments.back());
        }
    }
}

Asked askedFrom(Input& input, const datacenter::View& view, bool withBytes) {
    Asked asked;
    if (withBytes && input.byte() % 2 == 0) {
        asked.payload = input.text();
        return asked;
    }
    asked.method = methodFrom(input);
    okv::CborWriter out(asked.payload);
    out.integer(0);
    out.text(asked.method->selector());
    out.text(typesOf(*asked.method));
    if (withBytes) {
        asked.payload += input.text();
        return asked;
    }
    try {
        writeArguments(out, asked, input, view);
    } catch (const std::length_error&) {
        asked.arguments.clear();  // nested too deep to be sent: the request is cut short there
    }
    return asked;
}

/// What a frame answers.
struct Answer {
    bool isReply = false;
    Value value;
    std::optional<okv::Refusal> refusal;

    explicit Answer(const std::string& frame) {
        require(frame.size() > okv::kFrameHeaderSize);
        isReply = frame[4] == static_cast<char>(okv::FrameKind::reply);
        okv::CborReader reader(std::string_view(frame).substr(okv::kFrameHeaderSize));
        value = reader.value();
        if (isReply) refusal = okv::readRefusal(reader);
        require(reader.atEnd());
    }
    bool accepts() const { return isReply && !refusal && !(value.is<bool>() && !value.as<bool>()); }
};

/// One input's requests, one after the other.
class Session {
public:
    explicit Session(Center& center) : center_(center) { empty(); }

    void ask(Input& input);
    void settle();

private:
    void empty();
    Answer answerTo(okv::PeerIdentity peer, const Asked& asked);
    Answer read(Method method, const std::function<void(okv::CborWriter&)>& write);
    void check(const okv::PeerIdentity& peer, const Asked& asked);
    void checkChange(const Asked& asked, const Answer& answer, std::int64_t before);
    void checkReadBack(const Asked& asked);

    Center& center_;
    std::vector<okv::Ref<Port>> waiting_;
};

// As whoever serves a connection does.
void hand(Center& center, const okv::Ref<Port>& port, const std::string& payload) {
    try {
        const auto request = okv::make<okv::IncomingRequest>(
            okv::Ref<okv::MessagePort>::retaining(port.get()), 1U, std::string(payload));
        center.handle(*request);
    } catch (const okv::CborError& error) {
        port->sendAnswer(okv::encodeReason(okv::FrameKind::failure, 1, error.what()));
    }
}

Answer Session::answerTo(okv::PeerIdentity peer, const Asked& asked) {
    const auto port = okv::make<Port>(std::move(peer));
    hand(center_, port, asked.payload);
    center_.awaitAnswers(*port, 1);
    return Answer(port->answers.at(0));
}

// Everybody's settings and all else that an import replaces.
void Session::empty() {
    Dictionary nothing{{"format", 1},           {"everybody", Dictionary()},
                       {"users", Dictionary()}, {"accounts", Dictionary()},
                       {"locks", okv::Array()}, {"current_user", 1},
                       {"clock", Dictionary()}};
    for (const auto list : datacenter::kProcessListNames) nothing.set(list, Dictionary());
    const auto answer = read(datacenter::methodOf<&Admin::importDataPT>(),
                             [&](okv::CborWriter& out) { out.value(nothing); });
    require(answer.accepts());
}

Answer Session::read(Method method, const std::function<void(okv::CborWriter&)>& write) {
    Asked asked;
    okv::CborWriter out(asked.payload);
    out.integer(0);
    out.text(method.selector());
    out.text(typesOf(method));
    write(out);
    return answerTo(peerFrom(0), asked);
}

// What the first byte says: who asks, whether the answer is waited for, whether bytes take the
// arguments' place.
void Session::ask(Input& input) {
    const auto how = input.byte();
    const auto peer = peerFrom(how % 5U);
    const bool waits = how < 160;
    const auto asked = askedFrom(input, center_.view(), (how / 5U) % 8U == 0);
    const bool ends = asked.payload.find("endServer") != std::string::npos;
    if (ends) {
        settle();
        return center_.restart();
    }
    if (waits) {
        settle();
        return check(peer, asked);
    }
    waiting_.push_back(okv::make<Port>(peer));
    hand(center_, waiting_.back(), asked.payload);
}

void Session::settle() {
    for (const auto& port : waiting_) {
        center_.awaitAnswers(*port, 1);
        (void)Answer(port->answers.at(0));
    }
    waiting_.clear();
}

void Session::check(const okv::PeerIdentity& peer, const Asked& asked) {
    const auto revision = center_.view().revision();
    const auto before = datacenter::exportOf(center_.view());
    const auto answer = answerTo(peer, asked);
    const auto now = center_.view().revision();
    require(now == revision || now == revision + 1);
    if (!answer.accepts() || now == revision)
        require(now == revision && same(before, datacenter::exportOf(center_.view())));
    if (!asked.method) return;
    checkChange(asked, answer, revision);
    if (answer.accepts() && !asked.arguments.empty()) checkReadBack(asked);
}

bool onlyReads(Method method) {
    return datacenter::grantFor(method).where == datacenter::Grant::Where::here ||
           method == datacenter::methodOf<&Data::reloadDataPT>() ||
           method == datacenter::methodOf<&Data::useridUpdatePT>() ||
           method == datacenter::methodOf<&Admin::exportDataPT>();
}

void Session::checkChange(const Asked& asked, const Answer& answer, std::int64_t before) {
    const auto method = *asked.method;
    const bool changed = center_.view().revision() != before;
    if (onlyReads(method)) return require(!changed);
    if (method == datacenter::methodOf<&Data::delUseridPT>()) {
        // The answer of one that has none is -1, and nothing is refused.
        return require(changed == (answer.accepts() && answer.value != Value(-1)));
    }
    require(changed == answer.accepts());
    if (answer.isReply && resultOf(method) == 'c') require(answer.value == Value(changed));
}

// The four lists in the order of their names.
template <class Protocol>
std::optional<Method> readerOf(Method setter) {
    using datacenter::methodOf;
    static const std::array pairs{std::pair{methodOf<&Protocol::setOkvUserSettingPT_value>(),
                                            methodOf<&Protocol::okvUserSettingPT>()},
                                  std::pair{methodOf<&Protocol::setOkvContentsWordsPT_value>(),
                                            methodOf<&Protocol::okvContentsWordsPT>()},
                                  std::pair{methodOf<&Protocol::setOkvHammerListPT_value>(),
                                            methodOf<&Protocol::okvHammerListPT>()},
                                  std::pair{methodOf<&Protocol::setOkvBlackExtensionListPT_value>(),
                                            methodOf<&Protocol::okvBlackExtensionListPT>()}};
    for (const auto& [sets, reads] : pairs) {
        if (sets == setter) return reads;
    }
    return std::nullopt;
}

void Session::checkReadBack(const Asked& asked) {
    const auto& given = asked.arguments;
    if (given.size() < 2 || given[1].isNull()) return;
    if (*asked.method == datacenter::methodOf<&Data::setOKVDataPT_value_appUid>()) {
        const auto answer = read(datacenter::methodOf<&Data::okvDataPT_appUid>(), [&](auto& out) {
            out.value(given[0]);
            out.integer(given[2].template as<std::int64_t>());
        });
        require(same(answer.value, given[1]));
    }
    if (const auto reader = readerOf<Data>(*asked.method)) {
        const auto answer = read(*reader, [&](okv::CborWriter& out) { out.value(given[0]); });
        require(same(answer.value, given[1]));
    }
}

// What is on the disk is what is told from memory.
void checkStored(Center& center) {
    const auto stored = center.stored();
    const auto& view = center.view();
    require(same(datacenter::exportOf(*stored), datacenter::exportOf(view)));
    require(stored->settingCount() == view.settingCount());
    require(stored->userIds() == view.userIds());
    require(stored->changes().size() == view.changes().size());
    for (std::size_t i = 0; i < stored->changes().size(); ++i)
        require(datacenter::describe(stored->changes()[i]) ==
                datacenter::describe(view.changes()[i]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Center center;
    Input input(data, size);
    Session session(center);
    for (std::size_t asked = 0; asked < kRequestsAtMost && !input.atEnd(); ++asked)
        session.ask(input);
    session.settle();
    checkStored(center);
    return 0;
}

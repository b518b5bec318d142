#pragma once

#include <OKVPlatform/ipc/Message.h>
#include <OKVPlatform/ipc/ProtocolTable.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

/// A remote interface, written once. An abstract class declares the methods, one table ties each to
/// its selector:
///
///     class Greeter {
///     public:
///         virtual okv::Value greeting_to(std::int32_t language, const okv::Value& name) = 0;
///     };
///     template <>
///     inline constexpr auto okv::protocol<Greeter> =
///         okv::protocolTable(okv::row<&Greeter::greeting_to>("greeting:to:"));
///
/// The caller sends, the server dispatches, both from that table:
///
///     okv::Value text = okv::send<&Greeter::greeting_to>(*remote, 81, "world");
///     okv::dispatch<Greeter>(greeter, request);
///
/// Argument and result types: `const okv::Value&` (an object), `std::int32_t`, `bool`,
/// `okv::RemoteObject&` (an object by reference); results may also be void. A method without a row,
/// a selector whose colons do not match the method's arguments and a selector that stands twice do
/// not compile.
namespace okv {

namespace detail {

template <class T>
struct Carried;
template <>
struct Carried<Value> {
    static constexpr char type = '@';
    template <class T>
    static void write(CborWriter& out, const T& argument) {
        if constexpr (std::is_convertible_v<const T&, std::string_view>) {
            out.text(argument);  // without making an object of it first
        } else {
            const Value& value = argument;
            out.value(value);
        }
    }
    static Value read(CborReader& in, IncomingRequest* request) {
        return in.value(request->spareText());
    }
    static Value result(CborReader& in) { return in.value(); }
};
template <>
struct Carried<std::int32_t> {
    static constexpr char type = 'i';
    static void write(CborWriter& out, std::int32_t number) { out.integer(number); }
    static std::int32_t result(CborReader& in) {
        const auto number = in.integer();
        if (number < INT32_MIN || number > INT32_MAX)
            throw CborError("an int beyond 32 bits", in.offset());
        return static_cast<std::int32_t>(number);
    }
    static std::int32_t read(CborReader& in, IncomingRequest*) { return result(in); }
};
template <>
struct Carried<bool> {
    static constexpr char type = 'c';
    static void write(CborWriter& out, bool flag) { out.boolean(flag); }
    static bool read(CborReader& in, IncomingRequest*) { return in.boolean(); }
    static bool result(CborReader& in) { return in.boolean(); }
};
template <>
struct Carried<RemoteObject> {
    static constexpr char type = '@';
    static Ref<RemoteObject> read(CborReader& in, IncomingRequest* request) {
        return request->remote(in.reference());
    }
};

template <class T>
using CarriedAs = Carried<std::remove_cvref_t<T>>;

template <class T>
decltype(auto) asArgument(const T& held) {
    return (held);
}
inline RemoteObject& asArgument(const Ref<RemoteObject>& held) {
    return *held;
}

template <auto Method, class = typename MethodTraits<Method>::Parameters>
struct TypesText;
template <auto Method, class... A>
struct TypesText<Method, std::tuple<A...>> {
    static constexpr std::array<char, sizeof...(A) + 1> text{CarriedAs<A>::type..., '\0'};
    static constexpr std::string_view view{text.data(), sizeof...(A)};
};

// A text of at most 255 bytes as it is sent.
template <std::size_t size>
constexpr std::size_t textItemSize = size + (size < 24 ? 1 : 2);

template <std::size_t size>
constexpr char* putTextItem(char* to, std::string_view text) {
    static_assert(size <= 255);
    if constexpr (size >= 24) *to++ = '\x78';
    *to++ = static_cast<char>(size < 24 ? 0x60 + size : size);
    return std::copy(text.begin(), text.end(), to);
}

// What every request for the method holds between the object and the arguments, made when it is
// compiled.
template <auto Method>
struct RequestHead {
    static constexpr std::size_t selectorSize = selectorOf<Method>().size();
    static constexpr std::size_t typesSize = TypesText<Method>::view.size();
    static constexpr auto items = [] {
        std::array<char, textItemSize<selectorSize> + textItemSize<typesSize>> items{};
        auto* const rest = putTextItem<selectorSize>(items.data(), selectorOf<Method>());
        putTextItem<typesSize>(rest, TypesText<Method>::view);
        return items;
    }();
    static constexpr std::string_view view{items.data(), items.size()};
};

template <auto Method>
consteval char resultType() {
    using R = typename MethodTraits<Method>::Result;
    if constexpr (std::is_void_v<R>) {
        return 'v';
    } else {
        return CarriedAs<R>::type;
    }
}

/// An object of this process, handed over by reference.
struct LentObject {
    std::uint64_t number;
};

template <class Parameter, class Argument>
void writeArgument(CborWriter& out, MessagePort& port, const Argument& argument) {
    if constexpr (std::is_same_v<Argument, LentObject>) {
        static_assert(std::is_same_v<std::remove_cvref_t<Parameter>, RemoteObject>);
        port.lend(argument.number);
        out.reference(argument.number);
    } else {
        CarriedAs<Parameter>::write(out, argument);
    }
}

// The calling thread's request; kept between calls, because allocating it anew would cost more than
// filling it.
OKV_EXPORT std::string& scratchFrame();

template <class... A, class... Arguments>
void writeArguments(CborWriter& out, MessagePort& port, const std::tuple<A...>*,
                    const Arguments&... arguments) {
    (writeArgument<A>(out, port, arguments), ...);
}

template <auto Method, class... Arguments>
void encode(std::string& frame, RemoteObject& remote, const Arguments&... arguments) {
    using Traits = MethodTraits<Method>;
    static_assert(sizeof...(Arguments) == Traits::arity,
                  "the method takes another number of arguments");
    beginRequest(frame, remote.number(), RequestHead<Method>::view);
    CborWriter out(frame);
    writeArguments(out, remote.port(), static_cast<const typename Traits::Parameters*>(nullptr),
                   arguments...);
    finishRequest(frame);
}

// Turns a reply's payload into a result; bytes that are none are the peer's fault: ConnectionError,
// badData.
[[noreturn]] OKV_EXPORT void throwBadReply(std::string_view selector, const CborError& error);

template <class R>
R readResult(CborReader& reader) {
    if constexpr (std::is_void_v<R>) {
        reader.value();
    } else {
        return CarriedAs<R>::result(reader);
    }
}

template <class Read>
class ReplyTo final : public ReplyReader {
public:
    explicit ReplyTo(Read how) : how_(std::move(how)) {}
    void read(std::string_view payload) override {
        CborReader reader(payload);
        how_(reader);
        // Who does not ask for the refusal does not see it, but takes nothing else in its place.
        if (!reader.atEnd()) readRefusal(reader);
    }

private:
    Read how_;
};

// Sends the message; its reply is given to `read`.
template <auto Method, class Read, class... Arguments>
void exchange(RemoteObject& remote, Read read, const Arguments&... arguments) {
    auto& frame = scratchFrame();
    encode<Method>(frame, remote, arguments...);
    ReplyTo<Read> reply(std::move(read));
    try {
        remote.port().callAndRead(frame, reply);
    } catch (const CborError& error) {
        throwBadReply(selectorOf<Method>(), error);
    }
}

}  // namespace detail

/// A result together with why it is a zero value, where the peer said so.
template <class R>
struct Answer {
    R value{};
    std::optional<Refusal> refusal;
};

/// Sends the message and waits for its result; a refusal beside it is ignored, as the interface
/// asks. Arguments are what the method takes, a text for an object, or `lend<P>(object)` for an
/// object by reference. Throws ConnectionError, and std::length_error, with nothing sent, for a
/// value that is nested too deep or makes a message of more than 16 MiB. Any number of threads may
/// send over one connection.
template <auto Method, class... Arguments>
typename detail::MethodTraits<Method>::Result send(RemoteObject& remote,
                                                   const Arguments&... arguments) {
    using R = typename detail::MethodTraits<Method>::Result;
    if constexpr (std::is_void_v<R>) {
        detail::exchange<Method>(remote, detail::readResult<void>, arguments...);
    } else {
        R result{};
        detail::exchange<Method>(
            remote, [&](CborReader& reader) { result = detail::readResult<R>(reader); },
            arguments...);
        return result;
    }
}

/// As `send`, for those who want to know of a refusal. A method without a result answers nil.
template <auto Method, class... Arguments>
auto sendForAnswer(RemoteObject& remote, const Arguments&... arguments) {
    using R = typename detail::MethodTraits<Method>::Result;
    using Held = std::conditional_t<std::is_void_v<R>, Value, R>;
    Answer<Held> answer;
    detail::exchange<Method>(
        remote,
        [&](CborReader& reader) {
            answer.value = detail::readResult<Held>(reader);
            answer.refusal = readRefusal(reader);
        },
        arguments...);
    return answer;
}

/// Sends the message and goes on at once; its result is dropped.
template <auto Method, class... Arguments>
void post(RemoteObject& remote, const Arguments&... arguments) {
    std::string frame;
    detail::encode<Method>(frame, remote, arguments...);
    remote.port().post(std::move(frame));
}

/// The receiving side of a protocol: finds a request's row and carries it out on an object.
template <class P>
class Dispatcher {
public:
    static constexpr std::size_t rowCount =
        std::tuple_size_v<std::remove_const_t<decltype(protocol<P>)>>;

    /// The row's place in the protocol's table; none for a selector that has no row.
    static constexpr std::optional<std::size_t> find(std::string_view selector) {
        if (selector.size() > kLongestSelector) return std::nullopt;
        const std::size_t end = firstOfLength[selector.size() + 1];
        for (std::size_t row = firstOfLength[selector.size()]; row < end; ++row) {
            if (entries[row].selector == selector) return row;
        }
        return std::nullopt;
    }
    /// The text of a row, below rowCount; it lives for ever.
    static std::string_view selector(std::size_t row) { return entries[row].selector; }
    /// One character for each of the row's arguments: "@" object, "i" int, "c" BOOL.
    static std::string_view types(std::size_t row) { return entries[row].types; }
    /// "@" object, "i" int, "c" BOOL, "v" none.
    static char resultType(std::size_t row) { return entries[row].result; }
    /// The row of a method, for tables that stand beside the protocol's.
    template <auto Method>
    static constexpr std::size_t rowOf() {
        return *find(detail::selectorOf<Method>());
    }

    /// Calls the method and answers the frame to be sent back: its result with a refusal if there
    /// was one, or why the arguments are not what the method takes.
    static std::string carryOut(P& target, IncomingRequest& request, std::size_t row) {
        std::string frame;
        frame.reserve(kUsualReply);
        const auto rest = carryOut(target, request, row, frame);
        return std::move(frame.append(rest));
    }
    /// The same in the place of what `frame` held; nobody else may use it meanwhile. Answers what
    /// the frame ends with and does not hold, as it lies where a method told of it by
    /// `Invocation::answerWith`.
    static std::string_view carryOut(P& target, IncomingRequest& request, std::size_t row,
                                     std::string& frame) {
        if (request.types() != entries[row].types) {
            frame =
                encodeReason(FrameKind::failure, 0, "other argument types than the method takes");
            return {};
        }
        try {
            Invocation invocation(request);
            auto reader = request.arguments();
            frame.clear();
            beginFrame(frame, FrameKind::reply);
            entries[row].invoke(target, invocation, reader, frame);
            appendRefusal(frame, invocation.refusal());
            finishFrame(frame, 0, 0, invocation.rest().size());
            return invocation.rest();
        } catch (const std::exception& error) {
            frame = encodeReason(FrameKind::failure, 0, error.what());
            return {};
        }
    }

private:
    // Most replies are smaller: their frame is allocated once.
    static constexpr std::size_t kUsualReply = 128;
    // To send from two places costs less than to copy so many bytes.
    static constexpr std::size_t kLongText = 16 * 1024;

    using Invoke = void (*)(P&, Invocation&, CborReader&, std::string&);
    struct Entry {
        std::string_view selector;
        std::string_view types;
        char result = 'v';
        Invoke invoke = nullptr;
    };

    // The lengths first: they leave two or three selectors whose characters must be looked at.
    static constexpr bool before(std::string_view a, std::string_view b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    }

    template <auto Method, class... A>
    static void invokeMethod(P& target, Invocation& invocation, CborReader& reader,
                             std::string& frame, const std::tuple<A...>*) {
        // Braces, because they read the arguments from left to right.
        std::tuple<decltype(detail::CarriedAs<A>::read(reader, &invocation.request()))...> held{
            detail::CarriedAs<A>::read(reader, &invocation.request())...};
        if (!reader.atEnd()) throw CborError("more arguments than the types tell", reader.offset());
        const auto call = [&](auto&... argument) {
            return (target.*Method)(detail::asArgument(argument)...);
        };
        CborWriter out(frame);
        using R = typename detail::MethodTraits<Method>::Result;
        if constexpr (std::is_void_v<R>) {
            std::apply(call, held);
            out.nil();
        } else {
            const R result = std::apply(call, held);
            if (!leavesOut(invocation, out))
                detail::CarriedAs<R>::write(out, resultOf(invocation, result));
        }
        std::apply([&](auto&... argument) { (giveBack(argument, invocation.request()), ...); },
                   held);
    }
    // A long text that stays where it is goes out from there. Nothing may follow it in the reply.
    static bool leavesOut(Invocation& invocation, CborWriter& out) {
        const auto* const text =
            invocation.result() != nullptr ? invocation.result()->getIf<std::string>() : nullptr;
        if (text == nullptr || text->size() < kLongText || invocation.refusal()) return false;
        out.textHeader(text->size());
        invocation.leaveOut(*text);
        return true;
    }
    // The memory of a key serves the next request's.
    static void giveBack(Value& argument, IncomingRequest& request) {
        if (auto* text = argument.getIf<std::string>()) request.spareText().swap(*text);
    }
    template <class A>
    static void giveBack(A&, IncomingRequest&) {}
    static const Value& resultOf(const Invocation& invocation, const Value& returned) {
        return invocation.result() != nullptr ? *invocation.result() : returned;
    }
    template <class R>
    static const R& resultOf(const Invocation&, const R& returned) {
        return returned;
    }
    template <auto Method>
    static void invoke(P& target, Invocation& invocation, CborReader& reader, std::string& frame) {
        invokeMethod<Method>(
            target, invocation, reader, frame,
            static_cast<const typename detail::MethodTraits<Method>::Parameters*>(nullptr));
    }
    template <auto... Method>
    static consteval std::array<Entry, rowCount> sortedEntries(
        const std::tuple<Row<Method>...>& rows) {
        std::array<Entry, rowCount> sorted{Entry{std::get<Row<Method>>(rows).selector,
                                                 detail::TypesText<Method>::view,
                                                 detail::resultType<Method>(), &invoke<Method>}...};
        std::sort(sorted.begin(), sorted.end(),
                  [](const Entry& a, const Entry& b) { return before(a.selector, b.selector); });
        return sorted;
    }

    static constexpr std::array<Entry, rowCount> entries = sortedEntries(protocol<P>);

    static constexpr std::size_t kLongestSelector = 255;
    static_assert(entries.back().selector.size() <= kLongestSelector && rowCount <= 255);
    // By length, where the selectors begin that are as long; behind the last, where they end.
    static constexpr auto firstOfLength = [] {
        std::array<std::uint8_t, kLongestSelector + 2> first{};
        for (const auto& entry : entries) {
            for (auto length = entry.selector.size() + 1; length < first.size(); ++length)
                ++first[length];
        }
        return first;
    }();
};

/// Carries the request out on the object and answers it; a selector without a row answers a
/// failure.
template <class P>
void dispatch(P& target, IncomingRequest& request) {
    if (const auto row = Dispatcher<P>::find(request.selector())) {
        request.answer(Dispatcher<P>::carryOut(target, request, *row));
    } else {
        request.fail("unknown selector");
    }
}

/// Hands an object of this process over by reference, to be called back through protocol P. It is
/// not retained: its `dealloc` must call `ExportedObjects::withdraw`.
template <class P, class T>
detail::LentObject lend(T& object) {
    constexpr RequestHandler handler = [](void* target, IncomingRequest& request) {
        dispatch<P>(*static_cast<P*>(target), request);
    };
    return {ExportedObjects::add(object, handler, static_cast<P*>(&object))};
}

}  // namespace okv

#pragma once

#include <OKVPlatform/ipc/Protocol.h>

#include <tuple>
#include <type_traits>

/// Every method of a protocol, sent with an argument of each kind that it takes.
namespace support {

namespace detail {

template <class T>
auto anArgument(const okv::detail::LentObject& object) {
    if constexpr (std::is_same_v<T, okv::RemoteObject>) {
        return object;
    } else if constexpr (std::is_same_v<T, okv::Value>) {
        return okv::Value("dc-cmnset-x");
    } else {
        return T{};
    }
}

template <auto Method, class... A>
void sendOne(okv::RemoteObject& root, const okv::detail::LentObject& object,
             const std::tuple<A...>*) {
    okv::send<Method>(root, anArgument<std::remove_cvref_t<A>>(object)...);
}

}  // namespace detail

/// Calls `each` for every row, with its selector and a function that sends the method.
template <class Each, auto... Method>
void forEveryMethod(okv::RemoteObject& root, const okv::detail::LentObject& object,
                    const std::tuple<okv::Row<Method>...>& rows, const Each& each) {
    const auto one = [&]<auto M>(const okv::Row<M>& row) {
        using Parameters = typename okv::detail::MethodTraits<M>::Parameters;
        each(row.selector,
             [&] { detail::sendOne<M>(root, object, static_cast<const Parameters*>(nullptr)); });
    };
    (one(std::get<okv::Row<Method>>(rows)), ...);
}

}  // namespace support

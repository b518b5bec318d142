#pragma once

#include "OKVDataAdmin_protocol.h"

#include <OKVDataManager/okvDataManager.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace datacenter {

/// One method of one of the two protocols that the root object speaks.
struct Method {
    bool isAdmin;     ///< of OKVDataAdmin_protocol, else of OKVDataMng_protocol
    std::size_t row;  ///< in that protocol's table

    std::string_view selector() const;
    friend bool operator==(Method a, Method b) noexcept = default;
};

/// None for a selector that neither protocol has.
std::optional<Method> findMethod(std::string_view selector);

/// The method that a member function is: `methodOf<&OKVDataMng_protocol::okvDataPT>()`.
template <auto Member>
constexpr Method methodOf() {
    using P = typename okv::detail::MethodTraits<Member>::Protocol;
    return {std::is_same_v<P, OKVDataAdmin_protocol>, okv::Dispatcher<P>::template rowOf<Member>()};
}

/// Two objects that together answer both protocols.
struct Speaker {
    OKVDataMng_protocol& data;
    OKVDataAdmin_protocol& admin;

    /// Calls the method and gives the frame to be sent back.
    std::string carryOut(okv::IncomingRequest& request, Method method) const;
    /// The same in the place of what `frame` held; answers what it ends with and does not hold.
    std::string_view carryOut(okv::IncomingRequest& request, Method method,
                              std::string& frame) const;
};

/// The reply of a method that is refused: the zero value of its result, and why.
std::string refusalReply(Method method, const okv::Refusal& refusal);

}  // namespace datacenter

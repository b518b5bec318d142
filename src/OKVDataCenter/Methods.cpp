#include "Methods.h"

#include <array>
#include <tuple>

namespace datacenter {

namespace {

using DataRows = okv::Dispatcher<OKVDataMng_protocol>;
using AdminRows = okv::Dispatcher<OKVDataAdmin_protocol>;

enum class Zero { object, number, flag };

template <class R>
constexpr Zero zeroOf() {
    if (std::is_same_v<R, bool>) return Zero::flag;
    return std::is_same_v<R, std::int32_t> ? Zero::number : Zero::object;
}

// What each row of a protocol answers when it answers nothing.
template <class P, auto... Member>
std::array<Zero, sizeof...(Member)> zeroTable(const std::tuple<okv::Row<Member>...>&) {
    std::array<Zero, sizeof...(Member)> zeros{};
    ((zeros[okv::Dispatcher<P>::template rowOf<Member>()] =
          zeroOf<typename okv::detail::MethodTraits<Member>::Result>()),
     ...);
    return zeros;
}

template <class P>
Zero zeroAt(std::size_t row) {
    static const auto zeros = zeroTable<P>(okv::protocol<P>);
    return zeros[row];
}

void writeZero(okv::CborWriter& out, Zero zero) {
    switch (zero) {
        case Zero::object:
            return out.nil();
        case Zero::number:
            return out.integer(0);
        case Zero::flag:
            return out.boolean(false);
    }
}

}  // namespace

std::string_view Method::selector() const {
    return isAdmin ? AdminRows::selector(row) : DataRows::selector(row);
}

std::optional<Method> findMethod(std::string_view selector) {
    if (const auto row = DataRows::find(selector)) return Method{false, *row};
    if (const auto row = AdminRows::find(selector)) return Method{true, *row};
    return std::nullopt;
}

std::string Speaker::carryOut(okv::IncomingRequest& request, Method method) const {
    return method.isAdmin ? AdminRows::carryOut(admin, request, method.row)
                          : DataRows::carryOut(data, request, method.row);
}

std::string_view Speaker::carryOut(okv::IncomingRequest& request, Method method,
                                   std::string& frame) const {
    return method.isAdmin ? AdminRows::carryOut(admin, request, method.row, frame)
                          : DataRows::carryOut(data, request, method.row, frame);
}

std::string refusalReply(Method method, const okv::Refusal& refusal) {
    std::string frame;
    okv::beginFrame(frame, okv::FrameKind::reply);
    okv::CborWriter out(frame);
    writeZero(out, method.isAdmin ? zeroAt<OKVDataAdmin_protocol>(method.row)
                                  : zeroAt<OKVDataMng_protocol>(method.row));
    okv::appendRefusal(frame, refusal);
    okv::finishFrame(frame, 0, 0);
    return frame;
}

}  // namespace datacenter

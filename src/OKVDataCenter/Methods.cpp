#include "Methods.h"

namespace datacenter {

namespace {

using DataRows = okv::Dispatcher<OKVDataMng_protocol>;
using AdminRows = okv::Dispatcher<OKVDataAdmin_protocol>;

// What a method answers when it answers nothing, by the type of its result.
void writeZero(okv::CborWriter& out, char type) {
    if (type == 'c') return out.boolean(false);
    if (type == 'i') return out.integer(0);
    out.nil();
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
    writeZero(
        out, method.isAdmin ? AdminRows::resultType(method.row) : DataRows::resultType(method.row));
    okv::appendRefusal(frame, refusal);
    okv::finishFrame(frame, 0, 0);
    return frame;
}

}  // namespace datacenter

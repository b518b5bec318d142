#include "Changes.h"

namespace okvctl {

void storeSettings(Call& call, const okv::Dictionary& settings, std::string_view subject) {
    constexpr std::string_view no =
        "not stored, nothing was changed: a key or value is not allowed, or there is no such user";
    if (const auto user = call.line.user) {
        call.server.change<&OKVDataMng_protocol::setOKVDataAllPT_appUid>(subject, no, settings,
                                                                         *user);
    } else {
        call.server.change<&OKVDataAdmin_protocol::setOKVCommonDataAllPT>(subject, no, settings);
    }
}

}  // namespace okvctl

#include "Notices.h"

#include "ReadingSide.h"

namespace datacenter {

okv::Dictionary noticeFor(const Change& change, const std::string& epoch) {
    auto information = describe(change);
    information.set("epoch", epoch);
    return information;
}

}  // namespace datacenter

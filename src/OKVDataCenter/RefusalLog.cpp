#include "RefusalLog.h"

namespace datacenter {

bool RefusalLog::isRoomFor(uid_t uid) {
    if (written_ == kLinesPerWindow) return false;
    auto& ofUid = writtenOf_[uid];
    if (ofUid == kLinesPerUid) return false;
    ++ofUid;
    ++written_;
    return true;
}

void RefusalLog::note(const okv::PeerIdentity& caller, std::string_view selector, double now) {
    ++count_;
    if (now - windowStart_ >= kWindow) {
        tellLeftOut();
        windowStart_ = now;
        written_ = 0;
        writtenOf_.clear();
    }
    if (!isRoomFor(caller.uid)) {
        ++leftOut_;
        return;
    }
    write_("refused " + std::string(selector) + " to uid " + std::to_string(caller.uid) +
           ", process " + std::to_string(caller.pid));
}

void RefusalLog::tellLeftOut() {
    if (leftOut_ > 0) write_(std::to_string(leftOut_) + " more refused requests");
    leftOut_ = 0;
}

}  // namespace datacenter

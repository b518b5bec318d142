#include "RefusalLog.h"

namespace datacenter {

void RefusalLog::note(const okv::PeerIdentity& caller, std::string_view selector, double now) {
    ++count_;
    if (now - windowStart_ >= kWindow) {
        if (unwritten_ > 0) write_(std::to_string(unwritten_) + " more refused requests");
        windowStart_ = now;
        written_ = 0;
        unwritten_ = 0;
    }
    if (written_ == kLinesPerWindow) {
        ++unwritten_;
        return;
    }
    ++written_;
    write_("refused " + std::string(selector) + " to uid " + std::to_string(caller.uid) +
           ", process " + std::to_string(caller.pid));
}

}  // namespace datacenter

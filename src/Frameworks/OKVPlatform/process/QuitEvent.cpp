#include <OKVPlatform/process/QuitEvent.h>

namespace okv {

std::optional<QuitTarget> makeQuitTarget(const ProcessSerialNumber* psn) {
    if (psn == nullptr) return std::nullopt;
    const bool isProcess = psn->highLongOfPSN == 0 && psn->lowLongOfPSN <= INT32_MAX;
    return QuitTarget{isProcess ? static_cast<std::int32_t>(psn->lowLongOfPSN) : 0};
}

std::optional<QuitEvent> makeQuitEvent(const QuitTarget& target) {
    return QuitEvent{target};
}

QuitReply sendQuitEvent(const QuitEvent&, std::int32_t) {
    return {procNotFound, std::nullopt};
}

}  // namespace okv

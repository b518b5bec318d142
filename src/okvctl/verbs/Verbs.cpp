#include "Verbs.h"

namespace okvctl {

namespace {

// In the order of the help.
constexpr const Verb* kVerbs[] = {
    &kGet,   &kSet,   &kUnset, &kList,  &kDescribe, &kWatch, &kLock,   &kUnlock,
    &kLocks, &kUsers, &kLists, &kProcs, &kUrls,     &kClock, &kStatus, &kPing,
};

}  // namespace

std::span<const Verb* const> verbs() {
    return kVerbs;
}

}  // namespace okvctl

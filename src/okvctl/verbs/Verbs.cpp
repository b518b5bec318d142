#include "Verbs.h"

namespace okvctl {

namespace {

// In the order of the help.
constexpr const Verb* kVerbs[] = {
    &kGet,    &kSet,   &kUnset,  &kList,  &kDescribe, &kWatch,    &kLock,        &kUnlock,
    &kLocks,  &kUsers, &kLists,  &kProcs, &kUrls,     &kClock,    &kExport,      &kImport,
    &kStatus, &kPing,  &kDoctor, &kPs,    &kQuit,     &kCategory, &kCompletions, &kComplete,
};

}  // namespace

std::span<const Verb* const> verbs() {
    return kVerbs;
}

}  // namespace okvctl

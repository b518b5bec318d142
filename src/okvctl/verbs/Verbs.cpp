#include "Verbs.h"

#include <algorithm>

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

const Verb* findVerb(std::string_view name) {
    const auto* const found = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                           [&](const Verb* verb) { return verb->name == name; });
    return found != std::end(kVerbs) ? *found : nullptr;
}

}  // namespace okvctl

#include "Notices.h"

#include "ReadingSide.h"

#include <algorithm>
#include <utility>

namespace datacenter {

namespace {

bool isSwitch(const Change& change) {
    return change.osUserId != Change().osUserId;
}

bool isEarlier(const Told& one, const Told& other) {
    return one.change.revision < other.change.revision;
}

}  // namespace

okv::Dictionary noticeFor(const Told& told) {
    auto information = describe(told.change);
    information.set("epoch", told.epoch);
    return information;
}

void MissedChanges::add(Told told) {
    if (!last_ || !isEarlier(told, *last_)) {
        Change any;
        any.revision = told.change.revision;
        any.stamp = told.change.stamp;
        last_ = Told{std::move(any), told.epoch};
    }
    if (!isSwitch(told.change)) return;
    const auto [at, isNew] = switches_.try_emplace(told.change.osUserId, told);
    if (!isNew && isEarlier(at->second, told)) at->second = std::move(told);
}

std::vector<Told> MissedChanges::take() {
    std::vector<Told> all;
    for (auto& entry : std::exchange(switches_, {})) all.push_back(std::move(entry.second));
    std::sort(all.begin(), all.end(), isEarlier);
    if (last_) all.push_back(std::move(*last_));
    last_.reset();
    return all;
}

}  // namespace datacenter

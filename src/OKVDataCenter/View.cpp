#include "View.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace datacenter {

namespace {

std::size_t at(UserList list) {
    return static_cast<std::size_t>(list);
}
std::size_t at(ProcessList list) {
    return static_cast<std::size_t>(list);
}

}  // namespace

void View::apply(Step& step) {
    std::visit([this](auto& one) { take(one); }, step);
}

View::Settings& View::settingsOf(Scope scope) {
    return scope == kEverybody ? everybody_ : userFor(scope).settings;
}

void View::reserve(Scope scope, std::size_t count) {
    settingsOf(scope).reserve(count);
}

void View::take(step::Setting& set) {
    auto& settings = settingsOf(set.scope);
    auto& bytes = set.scope == kEverybody ? everybodyBytes_ : userFor(set.scope).settingBytes;
    if (set.value.isNull()) return remove(settings, bytes, set);
    const auto size = static_cast<std::uint32_t>(set.key.size() + set.encoded.size());
    const auto [at, isNew] = settings.try_emplace(std::move(set.key));
    auto& held = at->second;
    bytes += std::int64_t{size} - held.size;
    std::swap(held.value, set.value);
    held.size = size;
    held.stamp = set.stamp;
    settingCount_ += isNew ? 1 : 0;
}

void View::remove(Settings& settings, std::int64_t& bytes, step::Setting& set) {
    const auto held = settings.find(set.key);
    if (held == settings.end()) return;
    bytes -= held->second.size;
    std::swap(held->second.value, set.value);
    settings.erase(held);
    --settingCount_;
}

void View::take(const step::Lock& set) {
    if (set.locked) {
        locks_.insert_or_assign(set.key, set.stamp);
    } else {
        locks_.erase(set.key);
    }
}

void View::take(step::List& set) {
    auto& user = userFor(set.user);
    const bool isThere = !set.value.isNull();
    if (!isThere) set.value = okv::Value();
    std::swap(user.lists[at(set.list)], set.value);
    user.listBytes[at(set.list)] = isThere ? static_cast<std::int64_t>(set.encoded.size()) : 0;
}

void View::take(step::Process& set) {
    auto& processes = processes_[at(set.list)];
    if (set.identifier.isNull()) {
        processes.erase(set.name);
    } else {
        processes.set(std::move(set.name), std::move(set.identifier));
    }
}

View::User& View::userFor(std::int32_t id) {
    const auto [at, isNew] = users_.try_emplace(id);
    if (isNew) userIds_ = {};
    return at->second;
}

void View::take(const step::AddUser& add) {
    userFor(add.user);
    highestUser_ = std::max(highestUser_, add.user);
}

step::Remains View::forget(User& user) {
    settingCount_ -= static_cast<std::int64_t>(user.settings.size());
    return std::make_shared<User>(std::exchange(user, User()));
}

void View::take(step::RemoveUser& remove) {
    remove.remains = forget(userFor(remove.user));
    users_.erase(remove.user);
    userIds_ = {};
    if (currentUser_ == remove.user) currentUser_ = kDefaultUser;
    for (auto at = accounts_.begin(); at != accounts_.end();) {
        auto& account = at->second;
        if (account.assigned == remove.user) account.assigned.reset();
        if (account.current == remove.user) account.current.reset();
        at = account.assigned || account.current ? std::next(at) : accounts_.erase(at);
    }
}

void View::take(step::EmptyUser& empty) {
    empty.remains = forget(userFor(empty.user));
}

void View::take(const step::Assign& assign) {
    auto& account = accounts_[assign.osUid];
    account.assigned = assign.user;
    // A new user is the current one, too: what the account chose before was for the old one.
    if (assign.user) account.current.reset();
    if (!account.assigned && !account.current) accounts_.erase(assign.osUid);
}

void View::take(const step::Switch& change) {
    accounts_[change.osUid].current = change.user;
}

void View::take(const step::CurrentUser& set) {
    currentUser_ = set.user;
}

void View::take(const step::ServerClock& set) {
    clock_ = set.clock;
}

void View::take(step::Record& record) {
    revision_ = record.change.revision;
    changes_.push_back(std::move(record.change));
    for (; changes_.size() > static_cast<std::size_t>(changesKept_); changes_.pop_front())
        record.change = std::move(changes_.front());
}

void View::take(const step::Processes& whole) {
    std::swap(processes_[at(whole.list)], *whole.processes);
}

void View::take(const step::Reload& reload) {
    std::swap(*this, *reload.view);
}

void View::begin(std::string epoch, std::int64_t revision, std::int64_t changesKept) {
    epoch_ = std::move(epoch);
    revision_ = revision;
    changesKept_ = changesKept;
}

View::Found View::find(Scope scope, std::string_view key) const {
    const auto* one = user(scope);
    if (one != nullptr && lock(key) == nullptr) {
        const auto own = one->settings.find(key);
        if (own != one->settings.end()) return {&own->second, true};
    }
    const auto common = everybody_.find(key);
    return {common != everybody_.end() ? &common->second : nullptr, false};
}

Usage View::fullestScope() const {
    Usage fullest{static_cast<std::int64_t>(everybody_.size()), everybodyBytes_};
    for (const auto& [id, user] : users_) {
        const auto bytes =
            std::accumulate(user.listBytes.begin(), user.listBytes.end(), user.settingBytes);
        fullest.keys = std::max(fullest.keys, static_cast<std::int64_t>(user.settings.size()));
        fullest.bytes = std::max(fullest.bytes, bytes);
    }
    return fullest;
}

const okv::Value& View::userIds() const {
    if (userIds_.isNil()) {
        okv::Array ids;
        ids.reserve(users_.size());
        for (const auto& [id, user] : users_) ids.emplace_back(id);
        userIds_ = std::move(ids);
    }
    return userIds_;
}

const View::User* View::user(std::int32_t id) const {
    const auto found = users_.find(id);
    return found == users_.end() ? nullptr : &found->second;
}

const Stamp* View::lock(std::string_view key) const {
    const auto found = locks_.find(key);
    return found == locks_.end() ? nullptr : &found->second;
}

const okv::Dictionary& View::processes(ProcessList list) const {
    return processes_[at(list)];
}

std::int32_t View::userOf(std::int64_t osUid) const {
    const auto found = accounts_.find(osUid);
    return found == accounts_.end() ? kDefaultUser : found->second.assigned.value_or(kDefaultUser);
}

std::int32_t View::currentUserOf(std::int64_t osUid) const {
    const auto found = accounts_.find(osUid);
    if (found == accounts_.end()) return currentUser_;
    const auto& account = found->second;
    return account.current ? *account.current : account.assigned.value_or(currentUser_);
}

}  // namespace datacenter

#pragma once

#include "Items.h"
#include "Limits.h"
#include "View.h"

#include <OKVPlatform/ipc/Message.h>

#include <algorithm>
#include <string>
#include <vector>

namespace datacenter {

/// A dictionary of settings that is to go into one reply; refuses the request once it would not.
class SettingsReply {
public:
    explicit SettingsReply(const Limits& limits)
        : left_(limits.replyBytes), bytes_(limits.replyBytes), items_(limits.replyItems) {}

    /// Null settings stand for the null object. Answers false once there is too much.
    bool add(const std::string& key, const View::Setting* setting) {
        const auto size = kHeads + (setting != nullptr ? setting->size : key.size());
        if (size > left_) return refuse();
        left_ -= size;
        settings_.set(key, setting != nullptr ? setting->value : okv::Value(okv::Null{}));
        return true;
    }

    /// Nil when it was refused.
    okv::Value value() && {
        okv::Value whole(std::move(settings_));
        if (!refused_ && hasTooManyItems(whole)) refuse();
        return refused_ ? okv::Value() : std::move(whole);
    }

private:
    static constexpr std::size_t kHeads = 8;

    // What has no more bytes than that need not be counted.
    bool hasTooManyItems(const okv::Value& whole) const {
        return bytes_ - left_ > items_ && itemsIn(whole) > items_;
    }

    bool refuse() {
        refused_ = true;
        if (auto* invocation = okv::Invocation::current())
            invocation->refuse(okv::Refusal::Kind::tooLarge, "more than one message carries");
        return false;
    }

    std::size_t left_;
    const std::size_t bytes_;
    const std::size_t items_;
    bool refused_ = false;
    okv::Dictionary settings_;
};

/// The settings whose keys are wanted, in the order of the keys.
template <class Wanted>
okv::Value settingsWhere(const View::Settings& settings, const Limits& limits, Wanted wanted) {
    std::vector<const View::Settings::value_type*> found;
    for (const auto& entry : settings) {
        if (wanted(entry.first)) found.push_back(&entry);
    }
    std::sort(found.begin(), found.end(),
              [](const auto* a, const auto* b) { return a->first < b->first; });
    SettingsReply reply(limits);
    for (const auto* entry : found) {
        if (!reply.add(entry->first, &entry->second)) break;
    }
    return std::move(reply).value();
}

}  // namespace datacenter

#pragma once

#include "Ledger.h"

#include <OKVPlatform/values/Value.h>

namespace datacenter {

class View;

/// The whole store as one dictionary; its form is told beside `exportDataPT`.
okv::Dictionary exportOf(const View& view);

/// Whether a message carries it: its encoded size, and the items that it consists of.
bool fitsInReply(const okv::Value& value, const Limits& limits);

/// Puts such a dictionary into the store, part by part. Refuses through the ledger what is bad; the
/// request is then dropped with all that it did.
class Import {
public:
    explicit Import(Ledger& ledger) : ledger_(ledger), store_(ledger.store()) {}

    bool take(const okv::Dictionary& whole);

private:
    using Part = bool (Import::*)(const okv::Value& part);
    struct Named {
        std::string_view name;
        Part take;
    };
    static const Named kParts[];

    bool takePart(const okv::Value& name, const okv::Value& part);
    bool ignored(const okv::Value&) { return true; }
    bool format(const okv::Value& part);
    bool everybody(const okv::Value& part);
    bool users(const okv::Value& part);
    bool accounts(const okv::Value& part);
    bool locks(const okv::Value& part);
    template <ProcessList list>
    bool processes(const okv::Value& part);
    bool currentUser(const okv::Value& part);
    bool highestUser(const okv::Value& part);
    bool clock(const okv::Value& part);

    bool user(const okv::Value& id, const okv::Value& content);
    bool account(const okv::Value& osUid, const okv::Value& content);
    bool hand(Account& account, const okv::Value& name, const okv::Value& id);
    bool hand(Clock& clock, const okv::Value& name, const okv::Value& value);
    bool list(std::int32_t user, const okv::Value& name, const okv::Value& value);
    bool settings(Scope scope, const okv::Value& part);
    bool setting(Scope scope, const okv::Value& key, const okv::Value& value);
    bool process(ProcessList list, const okv::Value& name, const okv::Value& identifier);
    bool bad(std::string what);
    static bool about(Scope scope, const okv::Value& key, bool accepted);
    template <class Take>
    bool each(const okv::Value& part, Take take);

    Ledger& ledger_;
    Store& store_;
};

}  // namespace datacenter

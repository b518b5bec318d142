#pragma once

#include <OKVPlatform/ipc/Protocol.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>

/// What the data server's root object answers to the administrator's tools, beside
/// OKVDataMng_protocol. The data manager sends none of it. Keys are strings of 1 to 255 bytes;
/// "everybody" is the scope that every user reads where there is no value of his own.
class OKVDataAdmin_protocol {
public:
    virtual ~OKVDataAdmin_protocol() = default;

    /// A dictionary of key to value for everybody; the null object takes a value away. One
    /// transaction: NO, and nothing stored, when one of them is bad.
    virtual bool setOKVCommonDataAllPT(const okv::Value& settings) = 0;

    /// A dictionary of everybody's keys that begin with the text ("" for all) to their values, in
    /// the order of the keys; nil when the argument is no string.
    virtual okv::Value okvDataListPT(const okv::Value& prefix) = 0;
    /// The same of one user's own values, without everybody's; nil for an unknown user.
    virtual okv::Value okvDataListPT_appUid(const okv::Value& prefix, std::int32_t appUid) = 0;

    /// A dictionary that tells where a read for everybody, or for the user, gets its answer:
    ///   "key", "value" (null when there is none), "origin" ("user", "everybody" or "none"),
    ///   "locked" (bool); where there is a value "writer" (the account's uid) and "time" (date);
    ///   where there is a lock "lock_writer" and "lock_time".
    virtual okv::Value okvDataInfoPT(const okv::Value& key) = 0;
    virtual okv::Value okvDataInfoPT_appUid(const okv::Value& key, std::int32_t appUid) = 0;

    /// An array of keys. A locked key answers everybody's value to every user and takes no user's
    /// value; users' own values stay stored and count again after the unlocking. One transaction.
    virtual bool lockOKVDataPT(const okv::Value& keys) = 0;
    virtual bool unlockOKVDataPT(const okv::Value& keys) = 0;
    /// A dictionary of the locked keys to dictionaries with "writer" and "time".
    virtual okv::Value lockListPT() = 0;

    /// A dictionary of names to identifiers that is put over the stored list: the null object takes
    /// a name away, names that are not mentioned stay. One transaction.
    virtual bool setOkvFltProcWhiteListPT(const okv::Value& processes) = 0;
    virtual bool setOkvFltProcBlackListPT(const okv::Value& processes) = 0;
    virtual bool setOkvKillWebProcListPT(const okv::Value& processes) = 0;

    /// Switches the current user (a number object) of an account, given by the 32 bits of its uid
    /// (so those from 2^31 on are negative); NO for an unknown user, and for what is no account: -1
    /// and 65534. Posts the switch notice.
    virtual bool setCurrentUserIdPT_osUid(const okv::Value& user, std::int32_t osUid) = 0;

    /// What changed after a revision (a number object): a dictionary with "epoch", "revision" (the
    /// present one) and either "changes", an array in order of dictionaries with "revision",
    /// "time", "writer", "osuserid", "session_userid" and, where they apply, "appuid" and "keys";
    /// or "resync" YES, where the changes are no longer known (or are not this store's), or do not
    /// go into one message, and everything must be read anew. A change without "keys" may have
    /// touched every key.
    virtual okv::Value changesPT(const okv::Value& revision) = 0;

    /// The whole store as a dictionary; nil, and refused, when it does not go into one message.
    ///   "format" 1, "epoch", "revision"          what it is
    ///   "everybody"                              key to value
    ///   "users"                                  id (as a string) to a dictionary of "settings"
    ///                                            (key to value) and, where stored, "user_setting",
    ///                                            "contents_words", "hammer_list",
    ///                                            "black_extension_list"
    ///   "accounts"                               uid (as a string) to a dictionary of "appuid" and
    ///                                            "current" (ids), where stored
    ///   "locks"                                  array of keys
    ///   "flt_proc_white", "flt_proc_black", "kill_web_proc"   name to identifier
    ///   "current_user", "highest_user"           ids
    ///   "clock"                                  "time" (date or null) that it showed at "since"
    ///                                            (date), "running" (a boolean)
    virtual okv::Value exportDataPT() = 0;
    /// Takes such a dictionary, in one transaction. What it holds replaces the stored part of the
    /// same name as a whole; parts that it does not hold stay as they are. "epoch" and "revision"
    /// are not taken over. NO, and nothing stored, when anything in it is bad.
    virtual bool importDataPT(const okv::Value& store) = 0;

    /// A dictionary of what the server is doing: "version", "pid", "epoch", "revision", "uptime"
    /// (seconds), "clients", "users", "accounts", "settings", "locks", "waiting" (changes not yet
    /// carried out), "refused" (requests, since the start), "self_service", "log_level", "limits"
    /// (name to number), "use" (the same names, of those limits of which something is taken now;
    /// where there are many to which the limit applies, of the fullest), and "backup": a dictionary
    /// of "interval" (seconds), "kept" (how many there are), "time" (date of the last, or null)
    /// and, while they fail, "failure" (the reason) and "failed" (date).
    virtual okv::Value serverStatusPT() = 0;
};

template <>
inline constexpr auto okv::protocol<OKVDataAdmin_protocol> = okv::protocolTable(
    okv::row<&OKVDataAdmin_protocol::setOKVCommonDataAllPT>("setOKVCommonDataAllPT:"),
    okv::row<&OKVDataAdmin_protocol::okvDataListPT>("okvDataListPT:"),
    okv::row<&OKVDataAdmin_protocol::okvDataListPT_appUid>("okvDataListPT:appUid:"),
    okv::row<&OKVDataAdmin_protocol::okvDataInfoPT>("okvDataInfoPT:"),
    okv::row<&OKVDataAdmin_protocol::okvDataInfoPT_appUid>("okvDataInfoPT:appUid:"),
    okv::row<&OKVDataAdmin_protocol::lockOKVDataPT>("lockOKVDataPT:"),
    okv::row<&OKVDataAdmin_protocol::unlockOKVDataPT>("unlockOKVDataPT:"),
    okv::row<&OKVDataAdmin_protocol::lockListPT>("lockListPT"),
    okv::row<&OKVDataAdmin_protocol::setOkvFltProcWhiteListPT>("setOkvFltProcWhiteListPT:"),
    okv::row<&OKVDataAdmin_protocol::setOkvFltProcBlackListPT>("setOkvFltProcBlackListPT:"),
    okv::row<&OKVDataAdmin_protocol::setOkvKillWebProcListPT>("setOkvKillWebProcListPT:"),
    okv::row<&OKVDataAdmin_protocol::setCurrentUserIdPT_osUid>("setCurrentUserIdPT:osUid:"),
    okv::row<&OKVDataAdmin_protocol::changesPT>("changesPT:"),
    okv::row<&OKVDataAdmin_protocol::exportDataPT>("exportDataPT"),
    okv::row<&OKVDataAdmin_protocol::importDataPT>("importDataPT:"),
    okv::row<&OKVDataAdmin_protocol::serverStatusPT>("serverStatusPT"));

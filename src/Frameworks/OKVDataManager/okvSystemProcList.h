#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Object.h>
#include <OKVPlatform/values/Value.h>

extern "C" {

/// One row of a process table. A row whose two references are both null ends the table.
struct okvSystemProc {
    /// The name under which the process is seen: a bundle's file name or a bare executable's.
    const char* processName;
    /// The suite's fixed token for that process.
    const char* identifier;
};

/// The processes that the process blocker must never block: 22 rows and the terminator. Writable
/// data as it always was, but nothing of the suite writes it.
extern OKV_EXPORT okvSystemProc sysBlockProcWhiteListTbl[];

/// The processes to block. It ships empty on purpose: the terminator row alone.
extern OKV_EXPORT okvSystemProc sysBlockProcBlackListTbl[];
}

/// The two compiled-in process tables as collections: class operations only, no state, and none
/// is ever made.
///
/// Every call builds a new collection that the caller may change freely. A walk ends at the first
/// row of which either reference is null, so a half-filled row ends a table too. Any thread.
class OKV_EXPORT okvSystemProcList final : public okv::Object {
public:
    okvSystemProcList() = delete;

    /// Process name to identifier of those that must never be blocked, one entry a row, in table
    /// order.
    static okv::Dictionary sysBlockProcWhiteListInfo();
    /// The same of those to block: empty as it ships.
    static okv::Dictionary sysBlockProcBlackListInfo();

    /// The names alone of the processes that must never be blocked, in table order.
    static okv::Array sysBlockProcWhiteLists();
    /// The same of those to block: empty as it ships.
    static okv::Array sysBlockProcBlackLists();
};

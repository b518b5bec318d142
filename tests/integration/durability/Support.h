#pragma once

#include "../faults/Support.h"

#include "support/Files.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace durability {

using support::bytesOf;
using support::write;

/// How a run of a program ended, and what it said.
struct Ran {
    int code = -1;
    std::string out;
    std::string error;
};

/// The data server's program with the server's own folders, to its end.
Ran runServer(const ServerProcess& server, const std::vector<std::string>& more);
/// `okvctl`, to its end.
Ran runTool(const ServerProcess& server, const std::vector<std::string>& words);

/// Runs a script on a database file that no server has open.
void change(const std::string& database, const std::string& script);

/// A folder's files with their bytes.
std::map<std::string, std::string> contentOf(const std::string& folder);
/// The files of a folder whose names begin so, in the order of the names.
std::vector<std::string> filesOf(const std::string& folder, const std::string& beginning = {});

inline std::string backupFolder(const ServerProcess& server) {
    return server.storeFile() + ".backups";
}
std::vector<std::string> backupsOf(const ServerProcess& server);

/// Asks the server again until it is so, for half a minute at the most (more when sanitized).
bool eventually(const std::function<bool()>& isSo);
/// What the status tells of the backups.
okv::Dictionary backupState(okv::RemoteObject& root);
/// Waits for the backup that is made at the start.
bool awaitBackups(okv::RemoteObject& root, std::int64_t count);

/// Puts so many settings of each user, texts of so many letters, into the store, past any server.
void fill(const ServerProcess& server, int users, int settingsOfEach,
          std::size_t lettersOfEach = 20);

/// For servers whose writes below a folder a test makes fail: start them while this lives.
class BreakableDisk {
public:
    explicit BreakableDisk(const ServerProcess& server);
    /// From now on every write ends with this error; 0: none does.
    void fail(int error) const;

private:
    const std::string switch_;
    faults::Environment preload_, check_, file_, folder_;
};

}  // namespace durability

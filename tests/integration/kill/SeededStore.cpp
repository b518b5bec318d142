#include "SeededStore.h"

#include <sqlite3.h>

#include <memory>
#include <stdexcept>

namespace killing {

namespace {

const char* statementsFor(Seed seed) {
    switch (seed) {
        case Seed::lost:  // what one acknowledged write of one key stored
            return "DELETE FROM settings WHERE key = (SELECT max(key) FROM settings WHERE key "
                   "LIKE 'o%')";
        case Seed::torn:  // a part of a transaction of which another part is still there
            return "DELETE FROM settings WHERE key = (SELECT m.key FROM settings m, settings k "
                   "WHERE m.key LIKE 'm%' AND k.key LIKE 'k%' AND "
                   "instr(k.value, CAST(substr(m.key, 2) || ':' AS BLOB)) > 0)";
        case Seed::gap:
            return "UPDATE meta SET value = value + 1 WHERE name = 'revision'";
        case Seed::duplicate:  // the last revision is given once more
            return "UPDATE meta SET value = value - 1 WHERE name = 'revision';"
                   "DELETE FROM changes WHERE revision = (SELECT max(revision) FROM changes)";
        default:
            return "";
    }
}

}  // namespace

void seedInto(const std::string& storeFile, Seed seed) {
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(storeFile.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> store(opened, sqlite3_close);
    if (code != SQLITE_OK ||
        sqlite3_exec(opened, statementsFor(seed), nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_total_changes(opened) == 0)
        throw std::runtime_error(std::string("the store takes no fault: ") +
                                 sqlite3_errmsg(opened));
}

}  // namespace killing

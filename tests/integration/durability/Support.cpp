#include "Support.h"

#include <OKVPlatform/values/Cbor.h>

#include <sqlite3.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace durability {

namespace {

constexpr std::chrono::seconds kWithin{30 * faults::kSlowness};
constexpr std::chrono::milliseconds kAgain{2};

std::string hexOf(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes) {
        const auto number = static_cast<unsigned char>(byte);
        hex += {digits[number / 16], digits[number % 16]};
    }
    return hex;
}

// None of the words has a quotation mark: they are ours.
Ran run(const ServerProcess& server, const std::string& program,
        const std::vector<std::string>& words) {
    auto line = "timeout 60 " + program;  // a server that serves all the same would not end
    for (const auto& word : words) line += " '" + word + "'";
    line += " >'" + server.file("said") + "' 2>'" + server.file("complained") + "'";
    const int status = std::system(line.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, bytesOf(server.file("said")),
            bytesOf(server.file("complained"))};
}

}  // namespace

Ran runServer(const ServerProcess& server, const std::vector<std::string>& more) {
    std::vector<std::string> words{"--store", server.storeFile(), "--runtime-dir",
                                   server.runtimeFolder()};
    words.insert(words.end(), more.begin(), more.end());
    return run(server, OKV_DATA_CENTER, words);
}

Ran runTool(const ServerProcess& server, const std::vector<std::string>& words) {
    return run(server, OKV_OKVCTL, words);
}

void change(const std::string& database, const std::string& script) {
    sqlite3* opened = nullptr;
    const int code = sqlite3_open(database.c_str(), &opened);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> held(opened, sqlite3_close);
    if (code != SQLITE_OK ||
        sqlite3_exec(opened, script.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        throw std::runtime_error(sqlite3_errmsg(opened));
}

std::vector<std::string> filesOf(const std::string& folder, const std::string& beginning) {
    std::vector<std::string> files;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) {
        if (entry.path().filename().string().rfind(beginning, 0) == 0)
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::map<std::string, std::string> contentOf(const std::string& folder) {
    std::map<std::string, std::string> content;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) content[entry.path()] = bytesOf(entry.path());
    }
    return content;
}

std::vector<std::string> backupsOf(const ServerProcess& server) {
    return filesOf(backupFolder(server), "0");
}

bool eventually(const std::function<bool()>& isSo) {
    const auto deadline = faults::Clock::now() + kWithin;
    while (!isSo()) {
        if (faults::Clock::now() > deadline) return false;
        std::this_thread::sleep_for(kAgain);
    }
    return true;
}

okv::Dictionary backupState(okv::RemoteObject& root) {
    return faults::status(root)["backup"].as<okv::Dictionary>();
}

bool awaitBackups(okv::RemoteObject& root, std::int64_t count) {
    return eventually([&] { return backupState(root)["kept"].longLongValue() >= count; });
}

void fill(const ServerProcess& server, int users, int settingsOfEach, std::size_t lettersOfEach) {
    const auto highest = std::to_string(users);
    change(server.storeFile(),
           "WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < " + highest +
               ") INSERT INTO scopes(id) SELECT i FROM n;"
               "UPDATE meta SET value = " +
               highest +
               " WHERE name = 'highest_user';"
               "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k WHERE i < " +
               std::to_string(settingsOfEach) +
               ") INSERT INTO settings SELECT scopes.id, 'dc-fill-' || k.i,"
               " x'" +
               hexOf(okv::encodeCbor(std::string(lettersOfEach, 'a'))) +
               "', 0, 0.0"
               " FROM scopes, k WHERE scopes.id > 0;");
}

BreakableDisk::BreakableDisk(const ServerProcess& server)
    : switch_(server.file("disk-error")),
      preload_("LD_PRELOAD", OKV_FAILING_DISK),
      check_("ASAN_OPTIONS", faults::optionsForPreloading()),
      file_("OKV_DISK_ERROR_FILE", switch_),
      folder_("OKV_DISK_ERROR_BELOW", server.storeFile()) {}

// The whole number at once: a server may read at any moment.
void BreakableDisk::fail(int error) const {
    if (error == 0) {
        std::filesystem::remove(switch_);
        return;
    }
    write(switch_ + ".new", std::to_string(error));
    std::filesystem::rename(switch_ + ".new", switch_);
}

}  // namespace durability

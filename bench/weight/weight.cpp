// What the library costs before a single call is made: bytes to load, relocations, the time of a
// process that is linked to it, the memory of a client that only connected; and what one reading
// from the shell costs as a whole process. Beside each, what a client of sd-bus costs.
//
//     bench_weight

#include "../Contest.h"
#include "../Memory.h"
#include "LinkedFile.h"

#include <OKVTesting/RuntimeFolder.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace {

using Words = std::vector<std::string>;

// ---- Files ----

std::string fileOfSdBus() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&sd_bus_new), &info) == 0)
        throw std::runtime_error("sd-bus is nowhere");
    return std::filesystem::canonical(info.dli_fname);
}

bench::LinkedFile tellFile(const std::string& path) {
    const auto file = bench::linkedFile(path);
    std::printf("%-44s %8zu %8zu %8zu\n", std::filesystem::path(path).filename().c_str(),
                file.code / 1024, file.data / 1024, file.relocations);
    return file;
}

void tellFiles() {
    std::printf("%-44s %8s %8s %8s\n", "linked", "code KB", "data KB", "relocs");
    bench::LinkedFile ours;
    for (const auto* path : {OKV_DATA_MANAGER_FILE, OKV_PLATFORM_FILE, OKV_LOG_FILE}) {
        const auto file = tellFile(path);
        ours.code += file.code;
        ours.data += file.data;
        ours.relocations += file.relocations;
    }
    std::printf("%-44s %8zu %8zu %8zu\n", "all three", ours.code / 1024, ours.data / 1024,
                ours.relocations);
    tellFile(fileOfSdBus());
}

// ---- Memory ----

// Beside another client: the suite is many processes, and what they share is nobody's own.
void tellMemory(const char* what, const Words& command) {
    const bench::ServerProcess other(command), client(command);
    std::printf("%-44s %8.0f\n", what, bench::privateBytes(client.pid()) / 1024);
}

void tellMemories(const std::string& bus) {
    std::printf("\n%-44s %8s\n", "memory of a client that only connected", "KB");
    tellMemory("ours", {OKV_CONNECTED});
    if (!bus.empty()) tellMemory("sd-bus over dbus-daemon", {SD_BUS_CONNECTED, bus});
}

// ---- Whole processes ----

int run(const Words& command) {
    std::vector<char*> arguments;
    for (const auto& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quietly;
    posix_spawn_file_actions_init(&quietly);
    posix_spawn_file_actions_addopen(&quietly, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int error =
        posix_spawnp(&pid, arguments[0], &quietly, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&quietly);
    int status = -1;
    if (error == 0) waitpid(pid, &status, 0);
    return status;
}

// Who is not installed, or does not work here, is left out and told of.
void add(std::vector<bench::Contender>& contenders, const char* name, const Words& command) {
    if (run(command) != 0) {
        std::printf("left out: %s\n", name);
        return;
    }
    contenders.push_back({name, [command, name] {
                              if (run(command) != 0)
                                  throw std::runtime_error(std::string("failed: ") + name);
                          }});
}

void tellProcesses(const std::string& bus) {
    std::puts("\nA whole process, ratio to one that does nothing");
    std::vector<bench::Contender> contenders;
    add(contenders, "/bin/true", {"/bin/true"});
    add(contenders, "linked to the language's library alone", {OKV_NOTHING});
    add(contenders, "linked to our library", {OKV_LINKED});
    add(contenders, "linked to sd-bus", {SD_BUS_LINKED});
    add(contenders, "okvctl get KEY", {OKV_OKVCTL, "get", "dc-gui-window_colour"});
    add(contenders, "busctl call",
        {"busctl", "--address=" + bus, "call", "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
         "GetId"});
    add(contenders, "dconf read", {"dconf", "read", "/bench/window-colour"});
    bench::print(bench::contest(contenders, {31, 20}));
}

// The address of a bus of our own; empty where there is no daemon.
std::string startBus(const std::string& folder, std::unique_ptr<bench::ServerProcess>& bus) {
    const auto address = "unix:path=" + folder + "/bus";
    try {
        bus = std::make_unique<bench::ServerProcess>(Words{"dbus-daemon", "--session", "--nofork",
                                                           "--nopidfile", "--print-address=1",
                                                           "--address=" + address});
        return address;
    } catch (const std::runtime_error&) {
        return {};
    }
}

}  // namespace

int main() {
    std::setbuf(stdout, nullptr);
    bench::pinTo(0);
    const okv::testing::RuntimeFolder folder;
    const bench::ServerProcess server(
        {OKV_BENCH_SERVER, "--foreground", "--store", (folder.path() / "store.db").string()});
    std::unique_ptr<bench::ServerProcess> daemon;
    const auto bus = startBus(folder.path(), daemon);
    if (run({OKV_OKVCTL, "set", "dc-gui-window_colour=" + std::string(32, 'v')}) != 0) return 1;
    tellFiles();
    tellMemories(bus);
    tellProcesses(bus);
}

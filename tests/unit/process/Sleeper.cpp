// The process that the tests look at: takes its options, writes "ready" and waits for a signal.
//   --name NAME      calls itself NAME
//   --ignore-term    ignores SIGTERM
//   --ids RUID:EUID  changes its real and effective user ids, and its group ids alike

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string_view>

static void changeIds(const char* text) {
    char* rest = nullptr;
    const auto real = static_cast<uid_t>(std::strtoul(text, &rest, 10));
    const auto effective = static_cast<uid_t>(std::strtoul(rest + 1, nullptr, 10));
    if (setresgid(real, effective, effective) != 0) _exit(2);
    if (setresuid(real, effective, effective) != 0) _exit(2);
}

int main(int count, char** arguments) {
    for (int i = 1; i < count; ++i) {
        const std::string_view option = arguments[i];
        if (option == "--ignore-term") std::signal(SIGTERM, SIG_IGN);
        if (option == "--name" && i + 1 < count) prctl(PR_SET_NAME, arguments[++i]);
        if (option == "--ids" && i + 1 < count) changeIds(arguments[++i]);
    }
    if (write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
    while (true) pause();
}

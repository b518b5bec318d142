// An application that hears quit events: writes "ready", and ends with exit code 5 once it accepted
// one.
//   --reply N  answers the error number N and goes on
//   --silent   never serves what it is sent
//   --die      ends without a reply

#include <OKVPlatform/ipc/RunLoop.h>
#include <OKVPlatform/process/QuitEvent.h>

#include <unistd.h>

#include <cstdlib>
#include <string_view>

int main(int count, char** arguments) {
    const std::string_view option = count > 1 ? arguments[1] : "";
    const auto reply = count > 2 ? static_cast<okv::OSStatus>(std::atoi(arguments[2])) : 0;
    const auto loop = okv::RunLoop::current();
    const auto listener = okv::QuitEventListener::start([&](const okv::PeerIdentity&) {
        if (option == "--die") _exit(0);
        if (reply == okv::noErr) loop->stop();
        return reply;
    });
    if (!listener || write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
    while (option == "--silent") pause();
    loop->run();
    return 5;
}

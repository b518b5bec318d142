#include <OKVPlatform/process/StandardDescriptors.h>

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace okv {

// Opening takes the lowest number that is free: that of the descriptor itself, since all below are
// open by then. The other way round than it is used, so that using it fails.
bool keepStandardDescriptors() noexcept {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) != -1) continue;
        const int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (open("/dev/null", flags) != descriptor) return false;
    }
    return true;
}

}  // namespace okv

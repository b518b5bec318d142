#pragma once

#include <unistd.h>

/// What a client does that only connected: tells so, and waits to be looked at.
[[noreturn]] inline void stayConnected() {
    (void)!write(STDOUT_FILENO, "\n", 1);
    for (;;) pause();
}

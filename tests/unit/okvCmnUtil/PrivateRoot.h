#pragma once

namespace privateroot {

/// Moves this process into a mount namespace of its own whose root is empty but for the machine's
/// folders, bound to where they are: whatever is made directly below the root is seen by nobody
/// else and goes with the process. "/Library" does not exist there. False without the right to.
bool enter();

}  // namespace privateroot

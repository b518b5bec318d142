#pragma once

#include <OKVPlatform/Export.h>

namespace okv {

/// For a program's first line. Opens `/dev/null` in the place of each standard descriptor that the
/// program was started without: whatever it opens first would become its input or output, and be
/// written into. Reading and writing there fail as before, with EBADF: nothing is lost in silence.
/// False when one of them could not be opened; then nothing may be opened at all. Call it while
/// there is one thread.
OKV_EXPORT bool keepStandardDescriptors() noexcept;

}  // namespace okv

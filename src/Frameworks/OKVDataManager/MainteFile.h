#pragma once

#include <OKVPlatform/Export.h>

#include <string>

namespace okv::testing {

/// Lets the log switches read another maintenance file than the installed one; "" ends it. Not
/// installed: for the suite's own tests, before they start threads.
OKV_EXPORT void setMainteFile(std::string path);

}  // namespace okv::testing

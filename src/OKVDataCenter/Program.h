#pragma once

#include "Options.h"

namespace datacenter {

/// The program: opens the store, serves until a signal or `endServer` ends it; answers the exit
/// code. 1, after one line on standard error, when it cannot serve.
int serve(const Options& options);

}  // namespace datacenter

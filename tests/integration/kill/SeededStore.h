#pragma once

#include "Ground.h"

namespace killing {

/// Puts the fault into the store of a server that does not run.
void seedInto(const std::string& storeFile, Seed seed);

}  // namespace killing

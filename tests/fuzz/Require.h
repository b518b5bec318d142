#pragma once

#include <cstdlib>

namespace fuzz {

/// What must hold whatever the input is; the fuzzer keeps an input that ends the process.
inline void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace fuzz

#pragma once

/// What a process takes for itself alone.
namespace bench {

/// Bytes of memory that no other process shares, swapped out or not; throws std::runtime_error
/// where the system does not tell.
double privateBytes(int pid);

}  // namespace bench

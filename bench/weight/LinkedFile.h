#pragma once

#include <cstddef>
#include <string>

namespace bench {

/// What a linked ELF file of 64 bits gives a process to load.
struct LinkedFile {
    std::size_t code = 0;         ///< bytes that are mapped and never written
    std::size_t data = 0;         ///< bytes that are written, or may be
    std::size_t relocations = 0;  ///< that the loader has to carry out
};

/// Throws std::runtime_error when the file is none or cannot be read.
LinkedFile linkedFile(const std::string& path);

}  // namespace bench

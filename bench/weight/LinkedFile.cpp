#include "LinkedFile.h"

#include <elf.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench {

namespace {

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

template <class T>
T partAt(const std::string& bytes, std::size_t offset) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T))
        throw std::runtime_error("the file is cut off");
    T part;
    std::memcpy(&part, bytes.data() + offset, sizeof part);
    return part;
}

void add(LinkedFile& file, const Elf64_Shdr& section) {
    if ((section.sh_flags & SHF_ALLOC) == 0) return;
    ((section.sh_flags & SHF_WRITE) != 0 ? file.data : file.code) += section.sh_size;
    if (section.sh_type == SHT_RELA) file.relocations += section.sh_size / sizeof(Elf64_Rela);
}

}  // namespace

LinkedFile linkedFile(const std::string& path) {
    const auto bytes = contentsOf(path);
    const auto header = partAt<Elf64_Ehdr>(bytes, 0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        throw std::runtime_error(path + " is no linked file");
    LinkedFile file;
    for (std::size_t i = 0; i < header.e_shnum; ++i)
        add(file, partAt<Elf64_Shdr>(bytes, header.e_shoff + i * sizeof(Elf64_Shdr)));
    return file;
}

}  // namespace bench

// Mapping files and finding their sections. Follows nothing that does not lie in the file.
#include "runtime/registry/elf_file.h"

#include "frame/basic_types.h"

#include <cerrno>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
using namespace trellis;
namespace {
using bytes = std::span<const std::byte>;

template <class T>
bool read_at(bytes from, u64 offset, T& value) {
    if (offset > from.size() || sizeof value > from.size() - offset) return false;
    std::memcpy(&value, from.data() + offset, sizeof value);
    return true;
}
} // namespace

mapped_file::mapped_file(const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return;
    struct stat status {};
    if (fstat(file, &status) == 0 && status.st_size > 0) {
        size_ = static_cast<std::size_t>(status.st_size);
        void* memory = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
        memory_ = memory == MAP_FAILED ? nullptr : static_cast<const std::byte*>(memory);
    }
    const int error = errno;
    close(file);
    errno = error;
}

mapped_file::~mapped_file() {
    if (memory_) munmap(const_cast<std::byte*>(memory_), size_);
}

std::vector<elf_section> sections_of(bytes file) {
    Elf64_Ehdr head;
    std::vector<elf_section> sections;
    if (!read_at(file, 0, head) || std::memcmp(head.e_ident, ELFMAG, SELFMAG) != 0 ||
        head.e_ident[EI_CLASS] != ELFCLASS64 || head.e_ident[EI_DATA] != ELFDATA2LSB)
        return sections;
    const auto header_of = [&](u64 number, Elf64_Shdr& header) {
        return number < head.e_shnum && read_at(file, head.e_shoff + number * sizeof header, header);
    };
    const auto contents_of = [&](const Elf64_Shdr& header) {
        if (header.sh_type == SHT_NOBITS || header.sh_offset > file.size() ||
            header.sh_size > file.size() - header.sh_offset)
            return bytes();
        return file.subspan(header.sh_offset, header.sh_size);
    };
    Elf64_Shdr names;
    if (!header_of(head.e_shstrndx, names)) return sections;
    const bytes name_bytes = contents_of(names);
    Elf64_Shdr header;
    for (u64 number = 0; header_of(number, header); ++number) {
        if (header.sh_name >= name_bytes.size()) continue;
        const char* name = reinterpret_cast<const char*>(name_bytes.data()) + header.sh_name;
        sections.push_back(
            {std::string(name, strnlen(name, name_bytes.size() - header.sh_name)), contents_of(header)});
    }
    return sections;
}

} // namespace loom

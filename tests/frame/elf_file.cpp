#include "tests/frame/elf_file.h"

#include <elf.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace trellis::test {

namespace {

template <class T>
T at(const std::string& file, std::uint64_t offset) {
    if (offset + sizeof(T) > file.size()) throw std::runtime_error("the library's file is cut short");
    T value;
    std::memcpy(&value, file.data() + offset, sizeof value);
    return value;
}

std::string text_at(const std::string& strings, std::uint64_t offset) {
    return std::string(strings.c_str() + offset);
}

} // namespace

std::string hexadecimal(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes)
        for (const int digit : {byte >> 4 & 15, byte & 15})
            text += "0123456789abcdef"[digit];
    return text;
}

elf_file::elf_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    if (!in) throw std::runtime_error("cannot read " + path);
    const std::string file = contents.str();
    const auto header = at<Elf64_Ehdr>(file, 0);

    const auto section_header = [&](unsigned index) {
        return at<Elf64_Shdr>(file, header.e_shoff + std::uint64_t{index} * header.e_shentsize);
    };
    const auto bytes_of = [&](const Elf64_Shdr& of) {
        return of.sh_type == SHT_NOBITS ? std::string{} : file.substr(of.sh_offset, of.sh_size);
    };
    const std::string names = bytes_of(section_header(header.e_shstrndx));
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        const Elf64_Shdr each = section_header(i);
        sections.push_back({text_at(names, each.sh_name), each.sh_addr, each.sh_size,
                            (each.sh_flags & SHF_ALLOC) != 0, (each.sh_flags & SHF_WRITE) != 0, bytes_of(each)});
        if (each.sh_type != SHT_DYNSYM) continue;
        const std::string strings = bytes_of(section_header(each.sh_link));
        const std::string table = bytes_of(each);
        for (std::size_t offset = 0; offset < table.size(); offset += sizeof(Elf64_Sym)) {
            const auto symbol = at<Elf64_Sym>(table, offset);
            symbols.push_back({text_at(strings, symbol.st_name), symbol.st_size, symbol.st_shndx != SHN_UNDEF,
                               ELF64_ST_TYPE(symbol.st_info) == STT_FUNC});
        }
    }
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        const auto segment = at<Elf64_Phdr>(file, header.e_phoff + std::uint64_t{i} * header.e_phentsize);
        if (segment.p_type == PT_LOAD) loaded_bytes += file.substr(segment.p_offset, segment.p_filesz);
    }
}

const elf_section* elf_file::section(const std::string& name) const {
    for (const elf_section& each : sections)
        if (each.name == name) return &each;
    return nullptr;
}

std::vector<const elf_section*> elf_file::sections_with_prefix(const std::string& prefix) const {
    std::vector<const elf_section*> found;
    for (const elf_section& each : sections)
        if (each.name.rfind(prefix, 0) == 0) found.push_back(&each);
    return found;
}

const elf_symbol* elf_file::symbol(const std::string& name) const {
    for (const elf_symbol& each : symbols)
        if (each.name == name) return &each;
    return nullptr;
}

} // namespace trellis::test

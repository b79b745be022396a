#include "elf_sections.h"

#include "failure.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

/// A structure out of the file, or null when it does not lie in the file.
template <class T>
std::optional<T> read_at(std::span<const std::byte> file, std::size_t offset) {
    if (offset > file.size() || file.size() - offset < sizeof(T)) return std::nullopt;
    T value;
    std::memcpy(&value, file.data() + offset, sizeof value);
    return value;
}

} // namespace

elf_sections::elf_sections(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) throw failure(path + ": cannot be read: " + std::strerror(errno));
    struct stat status {};
    void* mapped = MAP_FAILED;
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0)
        mapped = ::mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_PRIVATE, descriptor, 0);
    ::close(descriptor);
    if (mapped == MAP_FAILED) throw failure(path + ": is no ELF file");
    file_ = {static_cast<const std::byte*>(mapped), static_cast<std::size_t>(status.st_size)};
    try {
        read_headers(path);
    } catch (...) {
        ::munmap(mapped, file_.size());
        throw;
    }
}

elf_sections::~elf_sections() { ::munmap(const_cast<std::byte*>(file_.data()), file_.size()); }

void elf_sections::read_headers(const std::string& path) {
    const auto header = read_at<Elf64_Ehdr>(file_, 0);
    if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_ident[EI_CLASS] != ELFCLASS64 ||
        header->e_ident[EI_DATA] != ELFDATA2LSB)
        throw failure(path + ": is no 64-bit ELF file");

    std::vector<Elf64_Shdr> headers;
    for (std::size_t i = 0; i < header->e_shnum; ++i) {
        const auto entry = read_at<Elf64_Shdr>(file_, header->e_shoff + i * sizeof(Elf64_Shdr));
        if (!entry) throw failure(path + ": is cut short");
        headers.push_back(*entry);
    }
    const auto bytes_of = [&](const Elf64_Shdr& entry) -> std::span<const std::byte> {
        if (entry.sh_type == SHT_NOBITS) return {};
        if (entry.sh_offset > file_.size() || entry.sh_size > file_.size() - entry.sh_offset)
            throw failure(path + ": is cut short");
        return file_.subspan(entry.sh_offset, entry.sh_size);
    };
    if (header->e_shstrndx >= headers.size()) return;
    const std::span<const std::byte> names = bytes_of(headers[header->e_shstrndx]);
    for (const Elf64_Shdr& entry : headers) {
        if (entry.sh_name >= names.size()) continue;
        const auto* name = reinterpret_cast<const char*>(names.data() + entry.sh_name);
        sections_.push_back({{name, ::strnlen(name, names.size() - entry.sh_name)}, bytes_of(entry)});
    }
}

const elf_sections::section* elf_sections::find(const std::string& name) const {
    const auto found = std::ranges::find(sections_, name, &section::name);
    return found == sections_.end() ? nullptr : &*found;
}

bool elf_sections::file_has_section(const std::string& path, const std::string& name) noexcept {
    try {
        return elf_sections(path).find(name) != nullptr;
    } catch (...) {
        return false;
    }
}

} // namespace tool

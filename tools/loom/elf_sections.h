// Reads sections of a 64-bit little-endian ELF file, those that no loader maps included. Nothing is interpreted.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tool {

class elf_sections {
  public:
    struct section {
        std::string name;
        std::span<const std::byte> bytes; // empty for sections without bytes in the file
    };

    /// Maps the file; throws failure when it cannot be read or is no such ELF file.
    explicit elf_sections(const std::string& path);
    ~elf_sections();
    elf_sections(const elf_sections&) = delete;
    elf_sections& operator=(const elf_sections&) = delete;

    /// In the order of the section headers. The bytes are valid as long as this object.
    const std::vector<section>& all() const { return sections_; }
    const section* find(const std::string& name) const;

    /// Whether the file is an ELF file with a section of that name. Never throws.
    static bool file_has_section(const std::string& path, const std::string& name) noexcept;

  private:
    void read_headers(const std::string& path);

    std::span<const std::byte> file_;
    std::vector<section> sections_;
};

} // namespace tool

// A shared library as a file: its sections, segments and dynamic symbols. For tests; 64-bit little-endian only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace trellis::test {

/// Two digits for each byte.
std::string hexadecimal(const std::string& bytes);

struct elf_section {
    std::string name;
    std::uint64_t address = 0; // 0 in sections that are not loaded
    std::uint64_t size = 0;
    bool loaded = false;
    bool writable = false;
    std::string bytes; // empty for sections without contents in the file
};

struct elf_symbol {
    std::string name;
    std::uint64_t size = 0;
    bool defined = false;
    bool function = false;
};

class elf_file {
  public:
    /// Throws std::runtime_error when the file cannot be read.
    explicit elf_file(const std::string& path);

    std::vector<elf_section> sections; // in the order of the file
    std::vector<elf_symbol> symbols;   // dynamic ones
    std::string loaded_bytes;          // contents of all segments that are loaded

    /// Null when there is none.
    const elf_section* section(const std::string& name) const;
    std::vector<const elf_section*> sections_with_prefix(const std::string& prefix) const;
    const elf_symbol* symbol(const std::string& name) const;
};

} // namespace trellis::test

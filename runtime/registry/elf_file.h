// Files of libraries and programs: their sections, those that no loader maps included. Nothing is interpreted.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace loom {

/// A file that is mapped for reading; its contents are empty, and errno says why, when it cannot be.
class mapped_file {
  public:
    explicit mapped_file(const char* path);
    ~mapped_file();
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;
    std::span<const std::byte> contents() const {
        return memory_ ? std::span(memory_, size_) : std::span<const std::byte>();
    }

  private:
    const std::byte* memory_ = nullptr;
    std::size_t size_ = 0;
};

struct elf_section {
    std::string name;
    std::span<const std::byte> contents; ///< of the file
};
/// The named sections of a 64-bit little-endian object; empty when it is none.
std::vector<elf_section> sections_of(std::span<const std::byte> file);

} // namespace loom

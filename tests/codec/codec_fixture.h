// What the codec tests share: handles with and without state tracking, buffers whose end is watched by the address
// sanitizer, and the schema's description for tests over all types.
#pragma once

#include "tests/support/database.h"
#include "tests/support/forms.h"
#include "tests/support/model_walker.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace trellis::testing {

constexpr uint32_t domain = 1;

/// A copy of bytes in a block of exactly their size.
class exact_buffer {
  public:
    explicit exact_buffer(size_t size, uint8_t fill = 0) : bytes_(new uint8_t[size == 0 ? 1 : size]), size_(size) {
        std::memset(bytes_.get(), fill, size);
    }
    exact_buffer(const uint8_t* source, size_t size) : exact_buffer(size) {
        if (size != 0) std::memcpy(bytes_.get(), source, size);
    }
    uint8_t* data() const { return bytes_.get(); }
    int32_t size() const { return static_cast<int32_t>(size_); }

  private:
    std::unique_ptr<uint8_t[]> bytes_;
    size_t size_;
};

inline std::string hex(const uint8_t* bytes, size_t size) { return hexadecimal(bytes, size, " "); }
inline std::string hex(const std::vector<uint8_t>& bytes) { return hex(bytes.data(), bytes.size()); }

/// The description of the bundle under test.
inline const schema_description& schema() {
    static const schema_description read = schema_description::read(SCHEMA_JSON);
    return read;
}

inline std::vector<std::string> record_names() {
    std::vector<std::string> names;
    for (const auto& [name, record] : schema().records)
        names.push_back(name);
    return names;
}
/// Records, enumerations and flag sets.
inline std::vector<std::string> type_names() {
    std::vector<std::string> names = record_names();
    for (const auto& [name, type] : schema().enumerations)
        names.push_back(name);
    for (const auto& [name, type] : schema().flag_sets)
        names.push_back(name);
    return names;
}

} // namespace trellis::testing

// The binary form of a table record, bytes beside what they mean: the frame, and each record inside it attribute
// by attribute. The model of the schema gives names and order; what a value's bytes say is asked of the value
// itself.
#pragma once

#include "table_type.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <string>

namespace tool {

/// The models of schemas, as `trellisc json` prints them.
class schema_models {
  public:
    /// Reads `file` or, without it, `<module>.json` where it lies beside the bundle or among shared data. Throws
    /// failure when there is none.
    schema_models(const std::optional<std::string>& file, const std::string& module);
    ~schema_models();
    schema_models(const schema_models&) = delete;
    schema_models& operator=(const schema_models&) = delete;

    struct content;
    const content& get() const { return *content_; }

  private:
    std::unique_ptr<content> content_;
};

/// Writes one line per field: offset, bytes, name, meaning. Bytes that the model does not explain are shown as
/// such.
void write_annotated(std::ostream& out, std::span<const std::byte> bytes, const table_type& type,
                     const schema_models& models);

} // namespace tool

// The model of a schema as far as the binary form follows from it: records and their attributes, read from what
// `trellisc json` prints.
#pragma once

#include "instance/attribute_shape.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tool {

class schema_model {
  public:
    struct attribute {
        std::string name;
        trellis::attribute_shape shape{};
        std::string type;          // name of a value type, enumeration, flag set or record; empty for a reference
        unsigned extent = 0;       // of fixed arrays and strings
        std::string length_name;   // of variable arrays and counted strings
        std::string discriminator; // of arms
        std::string case_name;     // of arms
        int since = 0;
    };

    struct record {
        std::vector<attribute> attributes; // in the order of the schema
    };

    /// Reads `file` or, without it, `<module>.json` where it was built or installed with the bundle. Throws
    /// failure when there is none or it is no model.
    static schema_model load(const std::optional<std::string>& file, const std::string& module);

    /// The record of that name, or null.
    const record* find_record(const std::string& name) const;

  private:
    std::map<std::string, record> records_;
};

} // namespace tool

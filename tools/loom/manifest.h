// The type-hash manifest of a bundle, as it stands in the library's section `.corvo`: one line per type.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

struct manifest_line {
    std::string luid_text;
    std::string definition_hash;
    std::string kind; // "type", "enum", "flag", "mess", "trec" or "tabl"
    unsigned highest_variant = 0;
    unsigned size = 0;
};

struct manifest {
    std::string text;         // as it stands in the section, without the closing zero byte
    std::string schema_name;  // from the first line
    std::string build_record; // what the build says about itself
    std::vector<manifest_line> lines;
};

/// Reads the manifest of a library; throws failure when there is none or it is malformed.
manifest read_manifest(const std::string& library_path);

/// The lines of a manifest text; throws failure, naming `origin` and the line, when one is malformed.
manifest parse_manifest(std::string text, const std::string& origin);

} // namespace tool

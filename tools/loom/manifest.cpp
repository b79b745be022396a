#include "manifest.h"

#include "elf_sections.h"
#include "failure.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>

namespace tool {
namespace {

enum chunk_kind : std::uint32_t { build_record_chunk = 1, manifest_chunk = 2 };

bool is_luid_text(std::string_view text) {
    return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

bool is_number(std::string_view text) { return text.find_first_not_of("0123456789") == std::string_view::npos; }

/// luid:hash kind(4) variant(3) : size(5) N
manifest_line parse_line(const std::string& line, const std::string& place) {
    constexpr std::size_t width = 79;
    if (line.size() != width || line[32] != ':' || line[72] != ':' || !is_luid_text(line.substr(0, 32)) ||
        !is_luid_text(line.substr(33, 32)) || !is_number(line.substr(69, 3)) || !is_number(line.substr(73, 5)))
        throw failure(place + ": is no line of a type-hash manifest: '" + line + "'");
    return {line.substr(0, 32), line.substr(33, 32), line.substr(65, 4),
            static_cast<unsigned>(std::stoul(line.substr(69, 3))),
            static_cast<unsigned>(std::stoul(line.substr(73, 5)))};
}

} // namespace

manifest parse_manifest(std::string text, const std::string& origin) {
    manifest result;
    std::istringstream stream(text);
    std::string line;
    constexpr std::string_view ending = ".minime";
    if (!std::getline(stream, line) || !line.starts_with("# ") || !line.ends_with(ending))
        throw failure(origin + ": is no type-hash manifest");
    result.schema_name = line.substr(2, line.size() - 2 - ending.size());
    for (unsigned number = 2; std::getline(stream, line); ++number)
        result.lines.push_back(parse_line(line, origin + ":" + std::to_string(number)));
    result.text = std::move(text);
    return result;
}

manifest read_manifest(const std::string& library_path) {
    const elf_sections library(library_path);
    const auto* section = library.find(".corvo");
    if (!section) throw failure(library_path + ": is no bundle: it has no type-hash manifest");

    std::string text, build_record;
    std::span<const std::byte> rest = section->bytes;
    constexpr std::size_t header_size = 8;
    while (rest.size() >= header_size) {
        std::uint32_t length = 0, kind = 0;
        std::memcpy(&length, rest.data(), sizeof length);
        std::memcpy(&kind, rest.data() + sizeof length, sizeof kind);
        if (length > rest.size() - header_size)
            throw failure(library_path + ": its type-hash manifest is cut short");
        const auto* payload = reinterpret_cast<const char*>(rest.data() + header_size);
        if (kind == manifest_chunk) text.assign(payload, ::strnlen(payload, length));
        if (kind == build_record_chunk) build_record.assign(payload, ::strnlen(payload, length));
        rest = rest.subspan(std::min<std::size_t>(header_size + (length + 3) / 4 * 4, rest.size()));
    }
    manifest result = parse_manifest(std::move(text), library_path);
    result.build_record = std::move(build_record);
    return result;
}

} // namespace tool

// Reading descriptions out of libraries, and judging them.
#include "runtime/types/type_description.h"

#include "runtime/registry/bundle.h"
#include "runtime/registry/elf_file.h"

#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <vector>

namespace loom {
namespace {
using luid = std::array<u8, 16>;

/// The descriptions of one file: copies, since the file may go.
struct described_file {
    std::vector<u64> words; ///< for their alignment
    std::map<luid, const loom_type_description*> types;
};

/// Enters the descriptions of one part; its size, or 0 when it is none.
u64 read_part(described_file& file, u64 at, u64 size) {
    const auto* bytes = reinterpret_cast<const std::byte*>(file.words.data());
    loom_types_header header;
    if (size - at < sizeof header) return 0;
    std::memcpy(&header, bytes + at, sizeof header);
    if (std::memcmp(header.magic, LOOM_TYPES_MAGIC, sizeof header.magic) != 0 || header.size > size - at ||
        header.size < sizeof header)
        return 0;
    if (header.version != LOOM_TYPE_DESCRIPTION_VERSION) return header.size;
    u64 offset = sizeof header;
    for (u32 i = 0; i < header.count; ++i) {
        const u64 room = header.size - offset;
        const auto* description = reinterpret_cast<const loom_type_description*>(bytes + at + offset);
        if (room < sizeof *description || !is_sound(*description, room)) break;
        luid key;
        std::memcpy(key.data(), description->luid, sizeof key);
        file.types[key] = description;
        offset += description->size;
    }
    return header.size;
}

std::unique_ptr<described_file> read_file(const char* path) {
    auto made = std::make_unique<described_file>();
    const mapped_file file(path);
    for (const elf_section& each : sections_of(file.contents())) {
        if (each.name != LOOM_TYPES_SECTION) continue;
        made->words.resize((each.contents.size() + 7) / 8);
        std::memcpy(made->words.data(), each.contents.data(), each.contents.size());
        for (u64 at = 0, part = 0; at < each.contents.size(); at += (part + 7) & ~u64{7})
            if ((part = read_part(*made, at, each.contents.size())) == 0) break;
    }
    return made;
}

/// The descriptions of the file at `path`, read once for each state of the file.
const described_file* file_at(const std::string& path) {
    using identity = std::tuple<dev_t, ino_t, time_t, long>;
    static std::mutex mutex;
    static auto* files = new std::map<identity, std::unique_ptr<described_file>>;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return nullptr;
    const std::lock_guard guard(mutex);
    auto& file = (*files)[{status.st_dev, status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec}];
    if (!file) file = read_file(path.c_str());
    return file.get();
}

/// Whether `count` parts of `size` bytes lie at `place` of the description.
bool lie_inside(const loom_type_description& description, u64 place, u64 count, u64 size) {
    return place <= description.size && count <= (description.size - place) / size;
}
bool is_text(const loom_type_description& description, u32 place) {
    return place < description.size &&
           std::memchr(text_in(description, place), 0, description.size - place) != nullptr;
}
bool is_attribute(const loom_type_description& description, const loom_attribute_description& each) {
    const bool has_other = each.shape == LOOM_SHAPE_VARIABLE_ARRAY || each.shape == LOOM_SHAPE_COUNTED_STRING;
    const bool is_pointer = has_other || each.shape == LOOM_SHAPE_ARM;
    const u64 taken = is_pointer                      ? sizeof(void*)
                      : each.shape == LOOM_SHAPE_LIST ? sizeof(loom_list_head)
                                                      : u64{each.width} * each.extent;
    if (!is_text(description, each.name) || !is_text(description, each.type_name)) return false;
    if (each.shape > LOOM_SHAPE_LIST || each.form > LOOM_FORM_OID || each.since < 0 ||
        u32{static_cast<u8>(each.since)} >= description.variant_count)
        return false;
    if (each.width == 0 || each.extent == 0 || each.offset > description.base_size ||
        taken > description.base_size - each.offset)
        return false;
    if (each.other != LOOM_TYPE_NONE && each.other >= description.attribute_count) return false;
    return (!has_other || each.other != LOOM_TYPE_NONE) &&
           (each.reference == LOOM_TYPE_NONE || each.reference < description.reference_count);
}
} // namespace

bool is_sound(const loom_type_description& description, u64 room) {
    const loom_type_description& d = description;
    if (d.version != LOOM_TYPE_DESCRIPTION_VERSION || d.size < sizeof d || d.size > room || d.size % 8 != 0 ||
        d.kind < LOOM_TYPE_RECORD || d.kind > LOOM_TYPE_MESSAGE || d.variant_count == 0 || d.variant_count > 128)
        return false;
    const bool fits = lie_inside(d, d.variants, d.variant_count, sizeof(loom_variant_description)) &&
                      lie_inside(d, d.attributes, d.attribute_count, sizeof(loom_attribute_description)) &&
                      lie_inside(d, d.members, d.member_count, sizeof(loom_member_description)) &&
                      lie_inside(d, d.references, d.reference_count, 16);
    if (!fits || (d.variants | d.attributes | d.members) % 4 != 0 || !is_text(d, d.name) || !is_text(d, d.order) ||
        (d.record != LOOM_TYPE_NONE && d.record >= d.reference_count))
        return false;
    for (const loom_attribute_description& each : attributes_of(d))
        if (!is_attribute(d, each)) return false;
    return true;
}

const loom_type_description* find_description(const loom_type_info& info) {
    const std::string path = path_of_module(std::string(info.module, strnlen(info.module, sizeof info.module)));
    const described_file* file = path.empty() ? nullptr : file_at(path);
    if (!file) return nullptr;
    luid key;
    std::memcpy(key.data(), info.luid, sizeof key);
    const auto found = file->types.find(key);
    if (found == file->types.end()) return nullptr;
    // The file may have been replaced since it was loaded.
    const loom_variant_table* table = info.variant_table;
    const loom_type_description& description = *found->second;
    if (description.kind == LOOM_TYPE_TABLE || description.kind == LOOM_TYPE_TABLE_RECORD) return &description;
    if (!table || table->n_variants < 0 || static_cast<u32>(table->n_variants) != description.variant_count)
        return nullptr;
    const auto variants = variants_of(description);
    for (u32 i = 0; i < description.variant_count; ++i)
        if (table->entries[i].used_length != variants[i].used_length ||
            table->entries[i].alloc_slop != variants[i].alloc_slop)
            return nullptr;
    return &description;
}

} // namespace loom

// The type description: what objects of the bundle's types look like, as data in a section that no loader maps.
// Its form stands in <loom/type_description.h>; here it is filled in from the model.
#include "schema/compiler/assembler.h"
#include "schema/compiler/emit_families.h"
#include "schema/compiler/layout.h"
#include "schema/compiler/table_keys.h"

#include <loom/database.h>
#include <loom/type_description.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace trellis::schema {

namespace {

using luid = std::array<std::uint8_t, 16>;

std::uint8_t shape_of(attribute_shape shape) {
    switch (shape) {
    case attribute_shape::plain: return LOOM_SHAPE_PLAIN;
    case attribute_shape::object: return LOOM_SHAPE_OBJECT;
    case attribute_shape::fixed_array: return LOOM_SHAPE_FIXED_ARRAY;
    case attribute_shape::variable_array: return LOOM_SHAPE_VARIABLE_ARRAY;
    case attribute_shape::length: return LOOM_SHAPE_LENGTH;
    case attribute_shape::counted_string: return LOOM_SHAPE_COUNTED_STRING;
    case attribute_shape::fixed_string: return LOOM_SHAPE_FIXED_STRING;
    case attribute_shape::oid: return LOOM_SHAPE_OID;
    case attribute_shape::arm: return LOOM_SHAPE_ARM;
    case attribute_shape::list: return LOOM_SHAPE_LIST;
    }
    __builtin_unreachable();
}

std::uint8_t form_of(const type_ref& type) {
    if (type.of_record != nullptr) return LOOM_FORM_RECORD;
    if (type.of_enumeration != nullptr) return LOOM_FORM_ENUMERATION;
    if (type.of_flag_set != nullptr) return LOOM_FORM_FLAG_SET;
    if (type.value == nullptr) return LOOM_FORM_OID;
    return type.value->owns_block() ? LOOM_FORM_BLOCK : LOOM_FORM_BYTES;
}

/// The luid of an attribute's type; none for values, and for what another bundle owns.
const luid* luid_of(const bundle& source, const attribute& a) {
    if (a.shape == attribute_shape::oid) {
        const auto found = std::ranges::find(source.tables, a.target_table, [](const auto& t) { return t->name; });
        return found == source.tables.end() ? nullptr : &(*found)->luid;
    }
    if (a.type.of_record != nullptr) return &a.type.of_record->luid;
    if (a.type.of_flag_set != nullptr) return &a.type.of_flag_set->luid;
    const enumeration* e = a.type.of_enumeration;
    return e != nullptr && e->imported_from == nullptr ? &e->luid : nullptr;
}

/// One description while its parts are gathered.
class description {
  public:
    description(loom_type_kind kind, const std::string& name, const luid& identity, const std::string& definition)
        : kind_(kind), name_(name), luid_(identity) {
        for (std::size_t i = 0; i < sizeof definition_; ++i)
            definition_[i] = static_cast<std::uint8_t>(std::stoul(definition.substr(2 * i, 2), nullptr, 16));
    }

    std::uint32_t flags = 0;
    std::uint32_t base_size = 0;
    std::uint32_t order = 0;
    std::uint32_t record = LOOM_TYPE_NONE;
    std::vector<loom_variant_description> variants;
    std::vector<loom_attribute_description> attributes;
    std::vector<loom_member_description> members;

    std::uint32_t text(const std::string& text) {
        const std::size_t found = texts_.find('\0' + text + '\0');
        if (found != std::string::npos) return static_cast<std::uint32_t>(found) + 1;
        texts_ += text + '\0';
        return static_cast<std::uint32_t>(texts_.size() - text.size() - 1);
    }
    std::uint32_t reference(const luid* to) {
        if (to == nullptr) return LOOM_TYPE_NONE;
        const auto found = std::ranges::find(references_, *to);
        const auto place = static_cast<std::uint32_t>(found - references_.begin());
        if (found == references_.end()) references_.push_back(*to);
        return place;
    }

    /// The finished bytes. Places of texts were counted from the first of them until now.
    std::vector<std::uint8_t> bytes() {
        loom_type_description head{};
        head.version = LOOM_TYPE_DESCRIPTION_VERSION;
        std::copy(luid_.begin(), luid_.end(), head.luid);
        std::memcpy(head.definition, definition_, sizeof definition_);
        head.kind = kind_;
        head.flags = flags;
        head.base_size = base_size;
        head.record = record;
        head.name = text(name_);
        head.order = order;
        bytes_.assign(sizeof head, 0);
        head.variant_count = add(variants, head.variants);
        const std::size_t texts =
            sizeof head + size_of(variants) + size_of(attributes) + size_of(members) + size_of(references_);
        const auto moved = static_cast<std::uint32_t>(texts);
        for (loom_attribute_description& each : attributes) {
            each.name += moved;
            each.type_name += moved;
        }
        for (loom_member_description& each : members)
            each.name += moved;
        head.name += moved;
        if (order != 0) head.order += moved;
        head.attribute_count = add(attributes, head.attributes);
        head.member_count = add(members, head.members);
        head.reference_count = add(references_, head.references);
        bytes_.insert(bytes_.end(), texts_.begin(), texts_.end());
        bytes_.resize((bytes_.size() + 7) / 8 * 8);
        head.size = static_cast<std::uint32_t>(bytes_.size());
        std::memcpy(bytes_.data(), &head, sizeof head);
        return std::move(bytes_);
    }

  private:
    template <class Part>
    static std::size_t size_of(const std::vector<Part>& parts) {
        return parts.size() * sizeof(Part);
    }
    template <class Part>
    std::uint32_t add(const std::vector<Part>& parts, std::uint32_t& place) {
        place = static_cast<std::uint32_t>(bytes_.size());
        const auto* first = reinterpret_cast<const std::uint8_t*>(parts.data());
        bytes_.insert(bytes_.end(), first, first + size_of(parts));
        return static_cast<std::uint32_t>(parts.size());
    }

    loom_type_kind kind_;
    std::string name_;
    luid luid_;
    std::uint8_t definition_[16]{};
    std::vector<luid> references_;
    std::string texts_ = std::string(1, '\0'); // so that no text lies at place 0
    std::vector<std::uint8_t> bytes_;
};

description described(loom_type_kind kind, const named& type) {
    description made(kind, type.name, type.luid, type.definition_hash);
    made.base_size = type.base_size;
    for (const variant_layout& v : type.variants)
        made.variants.push_back({v.used_length, v.layout_size, v.tracking_size, v.alloc_slop});
    return made;
}

/// Place of the attribute of that name.
std::uint32_t place_of(const record& holder, const std::string& name) {
    if (name.empty()) return LOOM_TYPE_NONE;
    const auto found = std::ranges::find(holder.attributes, name, &attribute::name);
    return static_cast<std::uint32_t>(found - holder.attributes.begin());
}

description described(const bundle& source, const record& type) {
    description made = described(LOOM_TYPE_RECORD, type);
    if (type.list_element) made.flags |= LOOM_TYPE_LIST_ELEMENT;
    for (const attribute& a : type.attributes) {
        loom_attribute_description each{};
        each.name = made.text(a.name);
        each.type_name = made.text(a.type.name);
        each.shape = shape_of(a.shape);
        const bool is_text =
            a.shape == attribute_shape::counted_string || a.shape == attribute_shape::fixed_string;
        const bool is_oid = a.shape == attribute_shape::oid;
        each.form = is_text ? std::uint8_t{LOOM_FORM_BYTES} : form_of(a.type);
        each.since = static_cast<std::int8_t>(a.since);
        each.offset = a.offset;
        each.width = is_text  ? 1
                     : is_oid ? 8 + static_cast<std::uint32_t>(sizeof(loom_oid))
                              : extent_of(a.type).width;
        each.extent = a.extent == 0 ? 1 : a.extent;
        each.track = facts_of(a.shape).tracked ? a.track : LOOM_TYPE_NONE;
        each.other = place_of(type, a.length_name.empty() ? a.discriminator : a.length_name);
        each.case_value = a.case_value;
        each.reference = made.reference(luid_of(source, a));
        made.attributes.push_back(each);
    }
    return made;
}

description described(const enumeration& type) {
    description made = described(LOOM_TYPE_ENUMERATION, type);
    for (const enumeration_member& m : type.members)
        made.members.push_back({made.text(m.name), m.value, m.since});
    return made;
}

description described(const flag_set& type) {
    description made = described(LOOM_TYPE_FLAG_SET, type);
    for (std::size_t i = 0; i < type.bits.size(); ++i)
        made.members.push_back({made.text(type.bits[i].name), static_cast<std::int32_t>(i), type.bits[i].since});
    return made;
}

description described(const table& type) {
    description made = described(LOOM_TYPE_TABLE, type);
    if (type.ordered) made.flags |= LOOM_TYPE_ORDERED;
    const std::string path = key_path(type);
    made.order = made.text(type.name + "_" + path.substr(0, path.size() - 1) + "_avl_compare");
    made.record = made.reference(&type.record_luid);
    return made;
}

/// A pointer to an object that is owned as a record owns arms.
void add_owned(description& holder, const record& owned, std::uint32_t offset) {
    loom_attribute_description each{};
    each.name = each.type_name = holder.text(owned.name);
    each.shape = LOOM_SHAPE_ARM;
    each.form = LOOM_FORM_RECORD;
    each.offset = offset;
    each.width = owned.base_size;
    each.extent = 1;
    each.track = each.other = LOOM_TYPE_NONE;
    each.reference = holder.reference(&owned.luid);
    holder.attributes.push_back(each);
}

description described(const message& type) {
    description made = described(LOOM_TYPE_MESSAGE, type);
    const auto pointer = static_cast<std::uint32_t>(sizeof(void*));
    if (type.payload != nullptr) add_owned(made, *type.payload, type.base_size - pointer);
    return made;
}

/// Payload and key object, and for ordered tables the two cells of the ring.
description described_record(const table& type) {
    description made(LOOM_TYPE_TABLE_RECORD, type.name + "_record", type.record_luid, type.record_definition_hash);
    if (type.ordered) made.flags |= LOOM_TYPE_ORDERED;
    std::uint32_t size = sizeof(loom_table_record);
    const auto pointer = static_cast<std::uint32_t>(sizeof(void*));
    for (const record* owned : {type.payload, type.key == key_kind::object ? type.key_record : nullptr})
        if (owned != nullptr) add_owned(made, *owned, std::exchange(size, size + pointer));
    if (type.ordered) size += 2 * pointer;
    made.base_size = size;
    made.variants = {{size, size, 0, 0}};
    return made;
}

std::vector<description> all_descriptions(const bundle& source) {
    std::vector<description> all;
    for (const auto& each : source.records)
        all.push_back(described(source, *each));
    for (const auto& each : source.enumerations)
        all.push_back(described(*each));
    for (const auto& each : source.flag_sets)
        all.push_back(described(*each));
    for (const auto& each : source.tables) {
        all.push_back(described(*each));
        all.push_back(described_record(*each));
    }
    for (const auto& each : source.messages)
        all.push_back(described(*each));
    return all;
}

} // namespace

void emit_type_description(emission& run) {
    std::vector<description> all = all_descriptions(run.source);
    loom_types_header header{};
    std::memcpy(header.magic, LOOM_TYPES_MAGIC, sizeof header.magic);
    header.version = LOOM_TYPE_DESCRIPTION_VERSION;
    header.count = static_cast<std::uint32_t>(all.size());
    run.source.name.copy(header.module, sizeof header.module - 1);
    std::vector<std::uint8_t> bytes(sizeof header);
    for (description& each : all) {
        const std::vector<std::uint8_t> more = each.bytes();
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    header.size = bytes.size();
    std::memcpy(bytes.data(), &header, sizeof header);

    template_writer text =
        run.writer("What objects of the bundle's types look like, for whoever looks through them.");
    text.add_plain(section(LOOM_TYPES_SECTION, "")).add_plain("    .balign 8, 0\n");
    text.add_plain(byte_lines(bytes));
    run.out.add("src/type_description.S", text.add_plain(end_of_assembler).take());
}

} // namespace trellis::schema

// Objects of their own wait in a list until their holder is done, so that long chains of them need no deep calls.
#include "runtime/verify/object_walk.h"

#include "runtime/oid/oid.h"

#include <loom/values.h>

#include <algorithm>

namespace loom {
namespace {
template <class T>
T read(const std::byte* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

u64 read_number(const std::byte* at, u32 width) {
    u64 value = 0;
    std::memcpy(&value, at, std::min<u32>(width, sizeof value));
    return value;
}

loom_object header_of(const std::byte* object) { return read<loom_object>(object); }

/// The variant whose attributes the object has memory for.
u32 layout_of(const known_type& type, const std::byte* object) {
    if (type.description->kind != LOOM_TYPE_RECORD) return 0;
    return std::min<u32>(header_of(object).loom_layout_variant, type.description->variant_count - 1);
}
} // namespace

std::string object_walk::place_of(const void* object, const std::string& type) const {
    return holder_ + ", " + type + " at offset " + std::to_string(blocks_.offset_of(object));
}
std::string object_walk::place_of(const part& holder, const loom_attribute_description& attribute) const {
    return place_of(holder.at, holder.type.name) + ", attribute " +
           text_in(*holder.type.description, attribute.name);
}
bool object_walk::damaged(const part& holder, const loom_attribute_description& attribute, std::string meaning) {
    found_.damage(place_of(holder, attribute), std::move(meaning));
    return false;
}

bool object_walk::walk(const void* object, const known_type& type) {
    if (blocks_.size_at(object) == 0) {
        found_.damage(place_of(object, type.name), "lies in no block that is in use");
        return false;
    }
    if (!blocks_.reach(object)) {
        found_.damage(place_of(object, type.name), "is owned twice: both would end it");
        return false;
    }
    return walk_reached(object, type);
}

bool object_walk::walk_reached(const void* object, const known_type& type) {
    waiting_.assign(1, {static_cast<const std::byte*>(object), &type, nullptr});
    bool good = true;
    while (!waiting_.empty()) {
        const waiting_object next = waiting_.back();
        waiting_.pop_back();
        good = walk_waiting(next) && good;
    }
    return good;
}

/// The block of a waiting object was reached already.
bool object_walk::walk_waiting(const waiting_object& next) {
    const part whole{next.at, *next.type, next.at, blocks_.size_at(next.at), false};
    if (next.value) return walk_value(whole, *next.value, next.at, next.at, whole.block_size);
    return walk_part(whole);
}

bool object_walk::has_right_type(const part& object) {
    const loom_type_info* word = header_of(object.at).loom_tinfo;
    // A part that nobody has touched yet may still be all zero.
    if (word == object.type.info || (object.nested && !word)) return true;
    const known_type* other = types_.of(word);
    if (other == &object.type || (!other && judge_word_ && judge_word_(word, object.type))) return true;
    found_.damage(place_of(object.at, object.type.name),
                  other ? "has the type word of " + other->name : "has a type word that leads to no type");
    return false;
}

bool object_walk::walk_part(const part& object) {
    const loom_type_description* description = object.type.description;
    if (!has_right_type(object)) return false;
    if (!description) {
        undescribed_.insert(object.type.name);
        return true;
    }
    const u32 layout = layout_of(object.type, object.at);
    const u64 end = static_cast<u64>(object.at - object.block) + variants_of(*description)[layout].used_length;
    if (end > object.block_size) {
        found_.damage(place_of(object.at, object.type.name), "is larger than the block that it lies in");
        return false;
    }
    if (description->kind == LOOM_TYPE_RECORD && header_of(object.at).loom_layout_variant != layout)
        undescribed_.insert(object.type.name + " of newer variants");
    bool good = true;
    for (const loom_attribute_description* each : object.type.owning)
        if (static_cast<u32>(each->since) <= layout) good = walk_attribute(object, *each) && good;
    if (visit_object_ && description->kind == LOOM_TYPE_RECORD) visit_object_(object.at);
    return good;
}

bool object_walk::walk_attribute(const part& holder, const loom_attribute_description& attribute) {
    const std::byte* at = holder.at + attribute.offset;
    switch (attribute.shape) {
    case LOOM_SHAPE_OBJECT:
    case LOOM_SHAPE_FIXED_ARRAY: {
        bool good = true;
        for (u32 i = 0; i < attribute.extent; ++i)
            good = walk_value(holder, attribute, at + u64{i} * attribute.width, holder.block, holder.block_size) &&
                   good;
        return good;
    }
    case LOOM_SHAPE_VARIABLE_ARRAY:
    case LOOM_SHAPE_COUNTED_STRING: return walk_array(holder, attribute);
    case LOOM_SHAPE_LIST: return walk_list(holder, attribute);
    case LOOM_SHAPE_OID: count_reference(at + sizeof(void*)); return true;
    case LOOM_SHAPE_ARM: {
        const void* arm = read<const void*>(at);
        if (!arm) return true;
        // An older bundle may have made it smaller; its own variant tells.
        const u64 needed = attribute.form == LOOM_FORM_RECORD ? LOOM_OBJECT_HEADER_SIZE : attribute.width;
        if (!take_block(holder, attribute, arm, needed)) return false;
        wait_for(holder, attribute, arm);
        return true;
    }
    default: return true;
    }
}

void object_walk::wait_for(const part& holder, const loom_attribute_description& attribute, const void* object) {
    const auto* at = static_cast<const std::byte*>(object);
    if (attribute.form == LOOM_FORM_BLOCK) {
        waiting_.push_back({at, &holder.type, &attribute});
    } else if (attribute.form == LOOM_FORM_RECORD) {
        const known_type* type = known_types::referred(holder.type, attribute.reference);
        if (type)
            waiting_.push_back({at, type, nullptr});
        else
            undescribed_.insert(text_in(*holder.type.description, attribute.type_name));
    }
}

bool object_walk::take_block(const part& holder, const loom_attribute_description& attribute, const void* block,
                             u64 needed) {
    const u64 size = blocks_.size_at(block);
    if (size == 0) return damaged(holder, attribute, "leads to no block that is in use");
    if (!blocks_.reach(block))
        return damaged(holder, attribute,
                       "owns the block at offset " + std::to_string(blocks_.offset_of(block)) +
                           ", which belongs to something else");
    if (size >= needed) return true;
    return damaged(holder, attribute,
                   "needs " + std::to_string(needed) + " bytes, its block has " + std::to_string(size));
}

/// One value in place: in its holder, or in an array of it.
bool object_walk::walk_value(const part& holder, const loom_attribute_description& attribute,
                             const std::byte* value, const std::byte* block, u64 block_size) {
    if (attribute.form == LOOM_FORM_RECORD) {
        const known_type* type = known_types::referred(holder.type, attribute.reference);
        if (type) return walk_part({value, *type, block, block_size, true});
        undescribed_.insert(text_in(*holder.type.description, attribute.type_name));
        return true;
    }
    if (attribute.form != LOOM_FORM_BLOCK) return true;
    const auto text = read<loom_vstring>(value);
    if (text.text) return take_block(holder, attribute, text.text, text.length);
    if (text.length == 0) return true;
    return damaged(holder, attribute, "counts " + std::to_string(text.length) + " bytes, but has no block");
}

bool object_walk::walk_array(const part& holder, const loom_attribute_description& attribute) {
    const loom_attribute_description& length = attributes_of(*holder.type.description)[attribute.other];
    const u64 count = read_number(holder.at + length.offset, length.width);
    const auto* values = read<const std::byte*>(holder.at + attribute.offset);
    bool good = attribute.shape == LOOM_SHAPE_COUNTED_STRING || walk_element_flags(holder, attribute, count);
    if (!values)
        return count == 0
                   ? good
                   : damaged(holder, attribute, "counts " + std::to_string(count) + " elements, but has no block");
    // A count that lies would overflow the product.
    if (count > blocks_.memory().header().reserve ||
        !take_block(holder, attribute, values, count * attribute.width))
        return false;
    if (attribute.form != LOOM_FORM_BLOCK && attribute.form != LOOM_FORM_RECORD) return good;
    for (u64 i = 0; i < count; ++i)
        good =
            walk_value(holder, attribute, values + i * attribute.width, values, blocks_.size_at(values)) && good;
    return good;
}

/// The state bytes of an array's elements lie in a block of their own, which the tracking area leads to.
bool object_walk::walk_element_flags(const part& holder, const loom_attribute_description& attribute, u64 count) {
    const loom_object header = header_of(holder.at);
    if (!(header.loom_flags & OBJ_STATE_TRACKED)) return true;
    const loom_variant_description& variant =
        variants_of(*holder.type.description)[layout_of(holder.type, holder.at)];
    i64 distance = variant.layout_size;
    if (header.loom_flags & OBJ_STTR_OFFSET) {
        const auto known = tracking_offsets_.find(holder.at);
        if (known == tracking_offsets_.end())
            return damaged(holder, attribute, "is tracked, but nothing tells where its states are");
        distance = static_cast<i32>(known->second);
    }
    const i64 area = (holder.at - holder.block) + distance + ((i64{attribute.track} + 8) & ~i64{7});
    if (area < 0 || static_cast<u64>(area) + sizeof(void*) > holder.block_size)
        return damaged(holder, attribute, "has its states outside of the block that it lies in");
    const void* flags = read<const void*>(holder.block + area);
    return !flags || take_block(holder, attribute, flags, count);
}

bool object_walk::walk_list(const part& holder, const loom_attribute_description& attribute) {
    const std::byte* at = holder.at + attribute.offset;
    const auto head = read<loom_list_head>(at);
    const void* previous = at;
    u32 count = 0;
    for (const void* element = head.first; element && element != at; ++count) {
        if (!take_block(holder, attribute, element, LOOM_LIST_LINKS_OFFSET + sizeof(loom_list_links)))
            return false;
        const auto links = read<loom_list_links>(static_cast<const std::byte*>(element) + LOOM_LIST_LINKS_OFFSET);
        if (links.previous != previous || reinterpret_cast<const std::byte*>(links.owner) != at)
            return damaged(holder, attribute,
                           "has an element at offset " + std::to_string(blocks_.offset_of(element)) +
                               " whose links lead elsewhere");
        wait_for(holder, attribute, element);
        previous = element;
        element = links.next;
    }
    if (head.first && head.last != previous)
        return damaged(holder, attribute, "ends in another element than told");
    if (count == head.count) return true;
    return damaged(holder, attribute,
                   "counts " + std::to_string(head.count) + " elements, but has " + std::to_string(count));
}

void object_walk::count_reference(const std::byte* at) {
    if (visit_reference_) visit_reference_(at);
    const auto oid = read<loom_oid>(at);
    const u8* identity = blocks_.memory().header().identity;
    if (!(oid.object & oid_counted) || std::memcmp(oid.source, identity, sizeof oid.source) != 0) return;
    u64 reference = 0;
    for (int i = 0; i < 8; ++i)
        reference = reference << 8 | oid.id[i];
    ++references_[reference];
}

} // namespace loom

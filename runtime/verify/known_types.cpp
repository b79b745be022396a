#include "runtime/verify/known_types.h"

namespace loom {
namespace {
std::array<u8, 16> key_of(const u8* luid) {
    std::array<u8, 16> key;
    std::memcpy(key.data(), luid, sizeof key);
    return key;
}

bool may_own(const loom_attribute_description& each) {
    switch (each.shape) {
    case LOOM_SHAPE_PLAIN:
    case LOOM_SHAPE_LENGTH:
    case LOOM_SHAPE_FIXED_STRING: return false;
    case LOOM_SHAPE_OBJECT:
    case LOOM_SHAPE_FIXED_ARRAY: return each.form == LOOM_FORM_BLOCK || each.form == LOOM_FORM_RECORD;
    default: return true;
    }
}
} // namespace

void known_types::add(const loom_type_info& info, const loom_type_description* description) {
    auto made = std::make_unique<known_type>();
    made->info = &info;
    made->description = description;
    made->name = std::string(info.name, strnlen(info.name, sizeof info.name));
    if (description)
        for (const loom_attribute_description& each : attributes_of(*description))
            if (may_own(each)) made->owning.push_back(&each);
    by_luid_[key_of(info.luid)] = made.get();
    by_info_[&info] = std::move(made);
}

void known_types::connect() {
    for (const auto& [luid, type] : by_luid_)
        for (u32 i = 0; type->description && i < type->description->reference_count; ++i)
            type->references.push_back(of_luid(luid_in(*type->description, i)));
}

const known_type* known_types::of(const loom_type_info* info) const {
    const auto found = by_info_.find(info);
    if (found != by_info_.end()) return found->second.get();
    const auto other = other_words_.find(info);
    return other == other_words_.end() ? nullptr : other->second;
}

const known_type* known_types::of_luid(const u8* luid) const {
    const auto found = by_luid_.find(key_of(luid));
    return found == by_luid_.end() ? nullptr : found->second;
}

const known_type* known_types::table_of(const known_type& record) const {
    for (const auto& [luid, type] : by_luid_)
        if (type->description && type->description->kind == LOOM_TYPE_TABLE &&
            referred(*type, type->description->record) == &record)
            return type;
    return nullptr;
}

const known_type* known_types::referred(const known_type& from, u32 reference) {
    return reference < from.references.size() ? from.references[reference] : nullptr;
}

} // namespace loom

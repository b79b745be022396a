#include "tests/support/model_walker.h"

#include <loom/instance.h>
#include <loom/oid.h>
#include <loom/values.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <dlfcn.h>
#include <limits>
#include <stdexcept>

namespace trellis::testing {

namespace {

// ---- What is known of built-in values ------------------------------------------------------------------------

enum class value_form { unsigned_integer, signed_integer, floating, boolean, character, object };

struct built_in {
    uint32_t width;
    value_form form;
};

const std::map<std::string, built_in>& built_ins() {
    using enum value_form;
    static const std::map<std::string, built_in> all = {
        {"u_int8", {1, unsigned_integer}},
        {"u_int16", {2, unsigned_integer}},
        {"u_int32", {4, unsigned_integer}},
        {"u_int64", {8, unsigned_integer}},
        {"int8", {1, signed_integer}},
        {"int16", {2, signed_integer}},
        {"int32", {4, signed_integer}},
        {"int64", {8, signed_integer}},
        {"char", {1, character}},
        {"double", {8, floating}},
        {"float", {4, floating}},
        {"loom_boolean", {4, boolean}},
        {"ip_address", {48, object}},
        {"ip_prefix", {48, object}},
        {"ipv4_addr", {4, object}},
        {"ipv6_addr", {16, object}},
        {"loom_mac_addr", {6, object}},
        {"calendar_time", {16, object}},
        {"timestamp", {8, object}},
        {"loom_vstring", {16, object}},
        {"nexa_bytestr", {16, object}},
        {"loom_phys_addr", {16, object}},
        {"loom_aes_vstring", {16, object}},
        {"loom_aes_password_vstring", {16, object}},
        {"loom_username_vstring", {16, object}},
    };
    return all;
}

const built_in* built_in_of(const std::string& type) {
    const auto found = built_ins().find(type);
    return found == built_ins().end() ? nullptr : &found->second;
}
/// Blocks of these compare and hash as bytes.
bool is_integer(const std::string& type) {
    const built_in* known = built_in_of(type);
    return known != nullptr && (known->form == value_form::unsigned_integer ||
                                known->form == value_form::signed_integer || known->form == value_form::character);
}

constexpr uint32_t variant_at = 8, flags_at = 10, enumeration_value_at = 12, bits_at = 11;
/// Bytes of a jump, on the wire.
constexpr size_t jump_width = 4;
constexpr uint32_t enumeration_width = 16;

const uint8_t* at(const void* object, uint32_t offset) { return static_cast<const uint8_t*>(object) + offset; }
uint8_t* at(void* object, uint32_t offset) { return static_cast<uint8_t*>(object) + offset; }
template <class T>
T read_at(const void* object, uint32_t offset) {
    T value;
    std::memcpy(&value, at(object, offset), sizeof value);
    return value;
}
template <class T>
void write_at(void* object, uint32_t offset, T value) {
    std::memcpy(at(object, offset), &value, sizeof value);
}
int variant_of(const void* object) { return read_at<int8_t>(object, variant_at); }

std::string hexadecimal(const uint8_t* bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}
void append_big_endian(std::vector<uint8_t>& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}
int sign(int value) { return (value > 0) - (value < 0); }
template <class T>
int order(T a, T b) {
    return a < b ? -1 : b < a ? 1 : 0;
}
uint32_t pick(std::mt19937& random, uint32_t below) { return static_cast<uint32_t>(random() % below); }

std::string random_text(std::mt19937& random, uint32_t longest) {
    static const char characters[] = "abcXYZ 019_-<>&\"'/[]";
    std::string text;
    for (uint32_t i = pick(random, longest + 1); i > 0; --i)
        text += characters[pick(random, sizeof characters - 1)];
    // No blanks at the ends, which parsers of text may drop.
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    while (!text.empty() && text.front() == ' ')
        text.erase(0, 1);
    return text;
}

/// The elements of a list, by the links alone.
std::vector<const void*> linked(const void* head) {
    std::vector<const void*> all;
    const void* first = read_at<const void*>(head, 0);
    for (const void* element = first; element != nullptr && element != head;
         element = read_at<const void*>(element, LOOM_LIST_LINKS_OFFSET + 8))
        all.push_back(element);
    return all;
}

/// Runs a text operation with enough room and appends what it wrote.
template <class Run>
void append_text(std::string& out, Run&& run) {
    std::vector<char> room(1u << 16);
    uint32_t error = 0;
    const auto written = run(room.data(), static_cast<int32_t>(room.size()), &error);
    if (error != 0)
        throw std::runtime_error("a value's text operation failed with error " + std::to_string(error));
    out.append(room.data(), static_cast<size_t>(written));
}

} // namespace

// ---- Functions by name -----------------------------------------------------------------------------------------

void* find_function(const std::string& name) {
    static std::map<std::string, void*> known;
    void*& address = known[name];
    if (address == nullptr) address = dlsym(RTLD_DEFAULT, name.c_str());
    if (address == nullptr) throw std::runtime_error("no function " + name);
    return address;
}

template <class Signature, class... Argument>
auto named_type::run(const char* operation, Argument... argument) const {
    return reinterpret_cast<Signature*>(find_function(name_ + operation))(argument...);
}

void* named_type::create(loom_handle* handle, uint32_t domain) const {
    return run<void*(loom_handle*, uint32_t)>("_create", handle, domain);
}
void named_type::destroy(loom_handle* handle, uint32_t domain, void* object) const {
    run<void(loom_handle*, uint32_t, void*)>("_destroy", handle, domain, object);
}
uint32_t named_type::len(loom_handle* handle, uint32_t domain, const void* object) const {
    return run<uint32_t(loom_handle*, uint32_t, const void*)>("_len", handle, domain, object);
}
uint32_t named_type::marshal(loom_handle* handle, uint32_t domain, void* buffer, const void* object,
                             int32_t length, uint32_t* err) const {
    return run<uint32_t(loom_handle*, uint32_t, void*, const void*, int32_t, uint32_t*)>(
        "_marshal", handle, domain, buffer, object, length, err);
}
uint32_t named_type::unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, void* object,
                               int32_t length, uint32_t existing, uint32_t* err) const {
    return run<uint32_t(loom_handle*, uint32_t, const void*, void*, int32_t, uint32_t, uint32_t*)>(
        "_unmarshal", handle, domain, buffer, object, length, existing, err);
}
int32_t named_type::print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth, const char* label,
                          const void* object, int32_t length, uint32_t* err) const {
    return run<int32_t(loom_handle*, uint32_t, char*, int32_t, const char*, const void*, int32_t, uint32_t*)>(
        "_print", handle, domain, buffer, depth, label, object, length, err);
}
uint32_t named_type::to_xml(loom_handle* handle, uint32_t domain, const char* element, char* buffer,
                            const void* object, int32_t length, uint8_t state, uint32_t* err) const {
    return run<uint32_t(loom_handle*, uint32_t, const char*, char*, const void*, int32_t, uint8_t, uint32_t*)>(
        "_to_xml", handle, domain, element, buffer, object, length, state, err);
}
void named_type::from_xml(loom_handle* handle, uint32_t domain, const char* path,
                          const loom_xml_document* document, void* object, uint32_t* err) const {
    run<void(loom_handle*, uint32_t, const char*, const loom_xml_document*, void*, uint32_t*, char*, uint32_t)>(
        "_from_xml", handle, domain, path, document, object, err, static_cast<char*>(nullptr), 0u);
}
int32_t named_type::compare(const void* a, const void* b) const {
    return run<int32_t(const void*, const void*)>("_compare", a, b);
}
uint32_t named_type::hash(const void* object, uint32_t seed) const {
    return run<uint32_t(const void*, uint32_t)>("_hash", object, seed);
}

// ---- Types and places ------------------------------------------------------------------------------------------

const attribute_description& record_description::attribute(const std::string& wanted) const {
    for (const attribute_description& each : attributes)
        if (each.name == wanted) return each;
    throw std::runtime_error("record " + name + " has no attribute " + wanted);
}

const record_description* model_walker::record_of(const std::string& type) const {
    const auto found = schema_.records.find(type);
    return found == schema_.records.end() ? nullptr : &found->second;
}

uint32_t flag_set_description::bytes_within(int variant) const {
    const auto count = std::count_if(bits.begin(), bits.end(),
                                     [&](const bit& each) { return each.since <= std::max(variant, 0); });
    return static_cast<uint32_t>((count + 7) / 8);
}

uint32_t model_walker::width_of(const std::string& type) const {
    if (const built_in* known = built_in_of(type)) return known->width;
    if (const record_description* record = record_of(type)) return record->base_size;
    const auto flags = schema_.flag_sets.find(type);
    return flags == schema_.flag_sets.end() ? enumeration_width : flags->second.size;
}

uint32_t model_walker::tracking_size_of(const std::string& type) const {
    const record_description* record = record_of(type);
    return record == nullptr ? 0 : record->tracking_sizes.back();
}

uint32_t model_walker::tracking_alignment_of(const std::string& type) const {
    const record_description* record = record_of(type);
    if (record == nullptr) return 1;
    for (const attribute_description& a : record->attributes) {
        if (a.shape == attribute_shape::variable_array) return 8;
        if ((a.shape == attribute_shape::object || a.shape == attribute_shape::fixed_array) &&
            tracking_alignment_of(a.type) == 8)
            return 8;
    }
    return 1;
}

bool model_walker::tracking_on() const {
    return handle_->sttr_block != nullptr && handle_->sttr_block->sttr_mode == LOOM_STTR_ON;
}

uint32_t model_walker::count_of(const attribute_description& a, const record_description& in,
                                const void* object) const {
    const attribute_description& length = in.attribute(a.length);
    switch (width_of(length.type)) {
    case 1: return read_at<uint8_t>(object, length.offset);
    case 2: return read_at<uint16_t>(object, length.offset);
    default: return read_at<uint32_t>(object, length.offset);
    }
}

bool model_walker::is_selected(const attribute_description& a, const record_description& in,
                               const void* object) const {
    return read_at<int32_t>(object, in.attribute(a.discriminator).offset + enumeration_value_at) == a.case_value;
}

uint8_t* model_walker::area_of(const std::string& type, const void* object) const {
    const record_description* record = record_of(type);
    if (record == nullptr || (*at(object, flags_at) & OBJ_STATE_TRACKED) == 0) return nullptr;
    return const_cast<uint8_t*>(at(object, record->layout_sizes.back()));
}

struct model_walker::elements {
    struct element {
        const void* value;
        const uint8_t* area; // of a record in a tracked holder
    };
    std::vector<element> all;
    const uint8_t* flags = nullptr; // one byte per element of an array
};

/// The values of any shape: one, those of an array, those of a list, an arm if there is one.
model_walker::elements model_walker::elements_of(const attribute_description& a, const record_description& in,
                                                 const void* object, const uint8_t* area) const {
    elements found;
    const uint32_t width = width_of(a.type);
    const uint32_t tracking = tracking_size_of(a.type);
    const uint32_t alignment = tracking_alignment_of(a.type);
    const auto aligned = [&](uint32_t offset) { return (offset + alignment - 1) / alignment * alignment; };
    const auto add = [&](const void* block, uint32_t count, const uint8_t* areas) {
        for (uint32_t i = 0; i < count; ++i)
            found.all.push_back({at(block, i * width), areas == nullptr ? nullptr : areas + i * tracking});
    };
    switch (a.shape) {
    case attribute_shape::variable_array: {
        const void* block = read_at<const void*>(object, a.offset);
        const uint32_t count = count_of(a, in, object);
        if (area != nullptr) found.flags = read_at<const uint8_t*>(area, (a.track + 1 + 7) / 8 * 8);
        add(block, count, area == nullptr ? nullptr : at(block, count * width));
        break;
    }
    case attribute_shape::fixed_array:
        if (area != nullptr) found.flags = area + a.track + 1;
        add(at(object, a.offset), a.extent, area == nullptr ? nullptr : area + aligned(a.track + 1 + a.extent));
        break;
    case attribute_shape::arm:
        if (const void* arm = read_at<const void*>(object, a.offset))
            found.all.push_back({arm, area_of(a.type, arm)});
        break;
    case attribute_shape::list:
        for (const void* element : linked(at(object, a.offset)))
            found.all.push_back({element, area_of(a.type, element)});
        break;
    default: found.all.push_back({at(object, a.offset), area == nullptr ? nullptr : area + aligned(a.track + 1)});
    }
    return found;
}

std::vector<const void*> model_walker::values_of(const attribute_description& a, const record_description& in,
                                                 const void* object) const {
    std::vector<const void*> values;
    for (const auto& each : elements_of(a, in, object, nullptr).all)
        values.push_back(each.value);
    return values;
}

// ---- Filling ---------------------------------------------------------------------------------------------------

void model_walker::fill(const std::string& type, void* object, std::mt19937& random,
                        const fill_options& options) const {
    fill_value(type, object, random, options);
    if (uint8_t* area = area_of(type, object)) fill_states(type, object, area, random);
    if (options.lower_variants)
        choose_variants(type, object, [&](int newest) {
            const int variant = static_cast<int>(pick(random, static_cast<uint32_t>(newest) + 2)) - 1;
            return variant < 0 && pick(random, 4) != 0 ? newest : variant;
        });
}

void model_walker::set_variants(const std::string& type, void* object, int variant) const {
    choose_variants(type, object, [&](int) { return variant; });
}

void model_walker::raise_variants(const std::string& type, void* object) const {
    choose_variants(type, object, [](int newest) { return newest; });
}

void model_walker::fill_record(const record_description& record, void* object, std::mt19937& random,
                               const fill_options& options) const {
    for (const attribute_description& a : record.attributes)
        if (!options.within_variant || a.since <= variant_of(object))
            fill_attribute(record, a, object, random, options);
}

void model_walker::fill_attribute(const record_description& record, const attribute_description& a, void* object,
                                  std::mt19937& random, const fill_options& options) const {
    uint32_t error = 0;
    const std::string accessor = record.name + "_" + a.name;
    const auto new_value = [&] {
        void* value = named_type(a.type).create(handle_, domain_);
        fill_value(a.type, value, random, options);
        return value;
    };
    switch (a.shape) {
    case attribute_shape::length:
    case attribute_shape::oid: break;
    case attribute_shape::plain:
    case attribute_shape::object: fill_value(a.type, at(object, a.offset), random, options); break;
    case attribute_shape::fixed_array:
        for (uint32_t i = 0; i < a.extent; ++i)
            fill_value(a.type, at(object, a.offset + i * width_of(a.type)), random, options);
        break;
    case attribute_shape::fixed_string: {
        const std::string text = random_text(random, a.extent);
        std::memset(at(object, a.offset), 0, a.extent);
        std::memcpy(at(object, a.offset), text.data(), text.size());
        break;
    }
    case attribute_shape::counted_string: {
        const std::string text = random_text(random, 20);
        using set = void(loom_handle*, uint32_t, void*, const char*, uint32_t, uint32_t*);
        reinterpret_cast<set*>(find_function(accessor + "_set"))(handle_, domain_, object, text.data(),
                                                                 static_cast<uint32_t>(text.size()), &error);
        break;
    }
    case attribute_shape::variable_array: {
        using set = void(loom_handle*, uint32_t, void*, uint32_t, void*, uint32_t*);
        for (uint32_t i = 0, count = pick(random, 4); i < count; ++i) {
            void* value = named_type(a.type).create(handle_, domain_);
            const bool is_enumeration = schema_.enumerations.contains(a.type);
            fill_options members_only = options;
            members_only.presentable |= is_enumeration; // the setter takes no others
            fill_value(a.type, value, random, members_only);
            reinterpret_cast<set*>(find_function(accessor + "_set"))(handle_, domain_, object, i, value, &error);
            named_type(a.type).destroy(handle_, domain_, value);
            if (is_enumeration)
                fill_value(a.type, at(read_at<void*>(object, a.offset), i * width_of(a.type)), random, options);
        }
        break;
    }
    case attribute_shape::list: {
        using link = void(loom_handle*, uint32_t, void*, void*, uint32_t*);
        for (uint32_t i = 0, count = pick(random, 4); i < count; ++i)
            reinterpret_cast<link*>(find_function(accessor + "_set_last"))(handle_, domain_, object, new_value(),
                                                                           &error);
        break;
    }
    case attribute_shape::arm: {
        // Discriminators stand in front of their arms, so the case is chosen by now.
        const uint32_t discriminator = record.attribute(a.discriminator).offset + enumeration_value_at;
        const int32_t chosen = read_at<int32_t>(object, discriminator);
        const bool wanted = options.stale_arms ? pick(random, 2) == 0 : is_selected(a, record, object);
        if (!wanted) break;
        using set = void(loom_handle*, uint32_t, void*, void*, uint32_t*);
        reinterpret_cast<set*>(find_function(accessor + "_set"))(handle_, domain_, object, new_value(), &error);
        write_at(object, discriminator, chosen);
        break;
    }
    }
    if (error != 0) throw std::runtime_error(accessor + " set error " + std::to_string(error));
}

void model_walker::fill_value(const std::string& type, void* value, std::mt19937& random,
                              const fill_options& options) const {
    if (const record_description* record = record_of(type)) return fill_record(*record, value, random, options);
    if (const auto found = schema_.enumerations.find(type); found != schema_.enumerations.end()) {
        const auto& members = found->second.members;
        auto count = static_cast<uint32_t>(members.size());
        if (options.within_variant)
            while (count > 1 && members[count - 1].since > variant_of(value))
                --count;
        const int32_t member = members[pick(random, count)].value;
        const bool stray = !options.presentable && pick(random, 8) == 0;
        return write_at(value, enumeration_value_at, stray ? static_cast<int32_t>(random()) : member);
    }
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end()) {
        const flag_set_description& flags = found->second;
        for (uint32_t bit = 0; bit < flags.bits.size(); ++bit)
            if ((!options.within_variant || flags.bits[bit].since <= variant_of(value)) && pick(random, 3) == 0)
                *at(value, bits_at + bit / 8) |= static_cast<uint8_t>(1u << (bit % 8));
        return;
    }
    const built_in* known = built_in_of(type);
    if (known == nullptr) return; // an enumeration of another bundle: its members are not known here
    switch (known->form) {
    case value_form::unsigned_integer:
    case value_form::signed_integer:
        for (uint32_t i = 0; i < known->width; ++i)
            *at(value, i) = static_cast<uint8_t>(pick(random, 4) == 0 ? 0 : random());
        return;
    case value_form::character: *at(value, 0) = static_cast<uint8_t>('a' + pick(random, 26)); return;
    case value_form::boolean: return write_at<uint32_t>(value, 0, pick(random, 2));
    case value_form::floating: {
        double number = std::ldexp(static_cast<double>(static_cast<int32_t>(random())), -8);
        if (!options.presentable && pick(random, 8) == 0) number = std::numeric_limits<double>::quiet_NaN();
        return known->width == 8 ? write_at(value, 0, number) : write_at(value, 0, static_cast<float>(number));
    }
    case value_form::object: break;
    }
    const auto octets = [&](uint8_t* to, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i)
            to[i] = static_cast<uint8_t>(random());
    };
    uint32_t error = 0;
    if (type == "nexa_bytestr") {
        uint8_t bytes[20];
        octets(bytes, sizeof bytes);
        nexa_bytestr_assign(handle_, domain_, static_cast<nexa_bytestr*>(value), bytes, pick(random, sizeof bytes),
                            &error);
    } else if (type.ends_with("string")) {
        // The opaque strings have the memory form of a plain one.
        const std::string text = random_text(random, 24);
        loom_vstring_assign(handle_, domain_, static_cast<loom_vstring*>(value), text.data(),
                            static_cast<uint32_t>(text.size()), &error);
    } else if (type == "ip_address" || type == "ip_prefix") {
        auto* address = static_cast<ip_address*>(value);
        address->family = pick(random, 2) == 0 ? 4 : 6;
        octets(address->octets, address->family == 4 ? 4 : 16);
        if (type == "ip_prefix")
            static_cast<ip_prefix*>(value)->length = pick(random, address->family == 4 ? 33 : 129);
    } else if (type == "calendar_time") {
        auto* time = static_cast<calendar_time*>(value);
        time->seconds = pick(random, 2000000000);
        time->nanoseconds = pick(random, 1000000000);
        time->utc_offset = static_cast<int16_t>(static_cast<int>(pick(random, 25)) * 60 - 720);
    } else if (type == "timestamp") {
        static_cast<timestamp*>(value)->high = pick(random, 400);
        static_cast<timestamp*>(value)->low = static_cast<uint32_t>(random());
    } else if (type == "loom_phys_addr") {
        auto* address = static_cast<loom_phys_addr*>(value);
        address->length = static_cast<uint8_t>(pick(random, 8));
        octets(address->octets, address->length);
    } else {
        octets(static_cast<uint8_t*>(value), known->width);
    }
    if (error != 0) throw std::runtime_error(type + " assign error " + std::to_string(error));
}

/// Nested areas and those of elements are filled with their records; arms and list elements were filled when they
/// were made, but their own areas still hold what accessors left.
void model_walker::fill_states(const std::string& type, const void* object, uint8_t* area,
                               std::mt19937& random) const {
    const record_description* record = record_of(type);
    if (record == nullptr) return;
    for (const attribute_description& a : record->attributes) {
        if (a.shape == attribute_shape::length) continue;
        area[a.track] = static_cast<uint8_t>(random());
        const elements values = elements_of(a, *record, object, area);
        const bool is_array =
            a.shape == attribute_shape::variable_array || a.shape == attribute_shape::fixed_array;
        for (uint32_t i = 0; i < values.all.size(); ++i) {
            if (is_array) const_cast<uint8_t*>(values.flags)[i] = static_cast<uint8_t>(random());
            if (values.all[i].area != nullptr)
                fill_states(a.type, values.all[i].value, const_cast<uint8_t*>(values.all[i].area), random);
        }
    }
}

template <class Choose>
void model_walker::choose_variants(const std::string& type, void* value, Choose&& choose) const {
    const auto set = [&](int newest) { write_at(value, variant_at, static_cast<int8_t>(choose(newest))); };
    if (const auto found = schema_.enumerations.find(type); found != schema_.enumerations.end())
        return set(found->second.newest);
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end())
        return set(found->second.newest);
    const record_description* record = record_of(type);
    if (record == nullptr) return;
    set(record->newest);
    for (const attribute_description& a : record->attributes) {
        if (a.shape == attribute_shape::length || a.shape == attribute_shape::oid ||
            a.shape == attribute_shape::counted_string || a.shape == attribute_shape::fixed_string)
            continue;
        for (const auto& each : elements_of(a, *record, value, nullptr).all)
            choose_variants(a.type, const_cast<void*>(each.value), choose);
    }
}

// ---- Binary form -----------------------------------------------------------------------------------------------

std::vector<uint8_t> model_walker::marshal(const std::string& type, const void* object, bool* complete) const {
    std::vector<uint8_t> out;
    *complete = true;
    marshal_value(type, object, area_of(type, object), out, complete);
    return out;
}

void model_walker::marshal_value(const std::string& type, const void* value, const uint8_t* area,
                                 std::vector<uint8_t>& out, bool* complete) const {
    const auto begin_jump = [&] {
        out.insert(out.end(), jump_width, 0);
        return out.size() - jump_width;
    };
    const auto patch_jump = [&](size_t start) {
        for (size_t i = 0, rest = out.size() - start; i < jump_width; ++i, rest >>= 8)
            out[start + jump_width - 1 - i] = static_cast<uint8_t>(rest);
    };
    if (const auto found = schema_.enumerations.find(type); found != schema_.enumerations.end()) {
        const int32_t user = read_at<int32_t>(value, enumeration_value_at);
        uint32_t internal = static_cast<uint32_t>(user);
        for (size_t i = 0; i < found->second.members.size(); ++i)
            if (found->second.members[i].value == user) internal = static_cast<uint32_t>(i);
        out.push_back(*at(value, variant_at));
        append_big_endian(out, internal);
        return;
    }
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end()) {
        out.push_back(*at(value, variant_at));
        const size_t jump = begin_jump();
        out.insert(out.end(), at(value, bits_at),
                   at(value, bits_at + found->second.bytes_within(variant_of(value))));
        patch_jump(jump);
        return;
    }
    const record_description* record = record_of(type);
    if (record == nullptr) {
        std::vector<uint8_t> room(1u << 12);
        uint32_t error = 0;
        const uint32_t written = named_type(type).marshal(handle_, domain_, room.data(), value,
                                                          static_cast<int32_t>(room.size()), &error);
        if (error != 0) throw std::runtime_error(type + "_marshal failed");
        out.insert(out.end(), room.begin(), room.begin() + written);
        return;
    }
    out.push_back(*at(value, variant_at));
    const uint8_t flags = static_cast<uint8_t>(*at(value, flags_at) & OBJ_RA_DATA);
    out.push_back(static_cast<uint8_t>(flags | (tracking_on() ? OBJ_STATE_TRACKED : 0)));
    if (flags != 0) out.insert(out.end(), 9, 0);
    const size_t jump = begin_jump();
    for (const attribute_description& a : record->attributes)
        if (variant_of(value) >= 0 && a.since <= variant_of(value))
            marshal_attribute(*record, a, value, area, out, complete);
    patch_jump(jump);
}

void model_walker::marshal_attribute(const record_description& record, const attribute_description& a,
                                     const void* object, const uint8_t* area, std::vector<uint8_t>& out,
                                     bool* complete) const {
    if (a.shape == attribute_shape::length) return;
    const auto own_state = [&] {
        if (tracking_on()) out.push_back(area == nullptr ? 0 : area[a.track]);
    };
    if (a.shape == attribute_shape::counted_string || a.shape == attribute_shape::variable_array) {
        const attribute_description& length = record.attribute(a.length);
        marshal_value(length.type, at(object, length.offset), nullptr, out, complete);
        if (count_of(a, record, object) == 0) return;
    }
    if (a.shape == attribute_shape::counted_string) {
        const auto* text = read_at<const uint8_t*>(object, a.offset);
        out.insert(out.end(), text, text + count_of(a, record, object));
        return own_state();
    }
    if (a.shape == attribute_shape::fixed_string) {
        out.insert(out.end(), at(object, a.offset), at(object, a.offset + a.extent));
        return own_state();
    }
    if (a.shape == attribute_shape::oid) {
        uint8_t bytes[40];
        uint32_t error = 0;
        loomlib_oid_marshal(handle_, domain_, bytes, reinterpret_cast<const loom_oid*>(at(object, a.offset + 8)),
                            sizeof bytes, &error);
        out.insert(out.end(), bytes, bytes + sizeof bytes);
        return own_state();
    }
    const elements values = elements_of(a, record, object, area);
    if (a.shape == attribute_shape::list) append_big_endian(out, static_cast<uint32_t>(values.all.size()));
    if (a.shape == attribute_shape::arm) {
        if (is_selected(a, record, object)) {
            if (values.all.empty())
                *complete = false;
            else
                marshal_value(a.type, values.all[0].value, values.all[0].area, out, complete);
        }
        return own_state();
    }
    for (const auto& each : values.all)
        marshal_value(a.type, each.value, each.area, out, complete);
    own_state();
    if (tracking_on() && (a.shape == attribute_shape::fixed_array || a.shape == attribute_shape::variable_array))
        for (size_t i = 0; i < values.all.size(); ++i)
            out.push_back(values.flags == nullptr ? 0 : values.flags[i]);
}

// ---- View ------------------------------------------------------------------------------------------------------

nlohmann::json model_walker::view(const std::string& type, const void* object) const {
    return view_of_value(type, object, area_of(type, object));
}

nlohmann::json model_walker::view_of_value(const std::string& type, const void* value, const uint8_t* area) const {
    if (const auto found = schema_.enumerations.find(type); found != schema_.enumerations.end()) {
        const int32_t user = read_at<int32_t>(value, enumeration_value_at);
        const auto& members = found->second.members;
        const auto member =
            std::find_if(members.begin(), members.end(), [&](const auto& each) { return each.value == user; });
        const auto place = member == members.end() ? static_cast<uint32_t>(user)
                                                   : static_cast<uint32_t>(member - members.begin());
        return {{"variant", variant_of(value)}, {"place", place}};
    }
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end())
        return {{"variant", variant_of(value)}, {"bits", hexadecimal(at(value, bits_at), found->second.bytes())}};
    const record_description* record = record_of(type);
    if (record == nullptr) {
        std::vector<uint8_t> bytes;
        bool complete = true;
        marshal_value(type, value, nullptr, bytes, &complete);
        return hexadecimal(bytes.data(), bytes.size());
    }
    nlohmann::json attributes = nlohmann::json::object();
    for (const attribute_description& a : record->attributes)
        if (a.shape != attribute_shape::length) attributes[a.name] = view_of_attribute(*record, a, value, area);
    return {{"variant", variant_of(value)}, {"attributes", attributes}};
}

nlohmann::json model_walker::view_of_attribute(const record_description& record, const attribute_description& a,
                                               const void* object, const uint8_t* area) const {
    nlohmann::json seen;
    if (area != nullptr) seen["state"] = area[a.track];
    switch (a.shape) {
    case attribute_shape::counted_string:
        seen["value"] = hexadecimal(read_at<const uint8_t*>(object, a.offset), count_of(a, record, object));
        return seen;
    case attribute_shape::fixed_string: seen["value"] = hexadecimal(at(object, a.offset), a.extent); return seen;
    case attribute_shape::oid: // references are not followed
    case attribute_shape::length: seen["value"] = nullptr; return seen;
    default: break;
    }
    const elements values = elements_of(a, record, object, area);
    nlohmann::json all = nlohmann::json::array();
    nlohmann::json states = nlohmann::json::array();
    for (size_t i = 0; i < values.all.size(); ++i) {
        all.push_back(view_of_value(a.type, values.all[i].value, values.all[i].area));
        if (values.flags != nullptr) states.push_back(values.flags[i]);
    }
    const bool is_array = a.shape == attribute_shape::fixed_array || a.shape == attribute_shape::variable_array;
    if (is_array && area != nullptr) seen["elements"] = states;
    if (is_array || a.shape == attribute_shape::list)
        seen["value"] = all;
    else
        seen["value"] = all.empty() ? nlohmann::json() : all[0];
    return seen;
}

// ---- States ----------------------------------------------------------------------------------------------------

std::vector<uint8_t> model_walker::states(const std::string& type, const void* object, const uint8_t* area) const {
    std::vector<uint8_t> out;
    collect_states(type, object, area, out);
    return out;
}

void model_walker::collect_states(const std::string& type, const void* object, const uint8_t* area,
                                  std::vector<uint8_t>& out) const {
    const record_description* record = record_of(type);
    if (record == nullptr || area == nullptr) return;
    for (const attribute_description& a : record->attributes) {
        if (a.shape == attribute_shape::length || a.since > variant_of(object)) continue;
        const elements values = elements_of(a, *record, object, area);
        const bool is_array =
            a.shape == attribute_shape::variable_array || a.shape == attribute_shape::fixed_array;
        const bool is_counted =
            a.shape == attribute_shape::variable_array || a.shape == attribute_shape::counted_string;
        if (is_counted && count_of(a, *record, object) == 0) continue; // none travel
        out.push_back(area[a.track]);
        if (a.shape == attribute_shape::arm && !is_selected(a, *record, object)) continue;
        for (size_t i = 0; i < values.all.size(); ++i) {
            if (is_array) out.push_back(values.flags[i]);
            collect_states(a.type, values.all[i].value, values.all[i].area, out);
        }
    }
}

// ---- Text ------------------------------------------------------------------------------------------------------

std::string model_walker::print(const std::string& type, const void* object, const std::string& label,
                                int depth) const {
    std::string out;
    print_value(type, object, label, depth, out);
    return out;
}

void model_walker::print_value(const std::string& type, const void* value, const std::string& label, int depth,
                               std::string& out) const {
    const std::string blanks(static_cast<size_t>(depth), ' ');
    if (const auto found = schema_.enumerations.find(type); found != schema_.enumerations.end()) {
        std::string text = "Enum value out of range";
        for (const auto& member : found->second.members)
            if (member.value == read_at<int32_t>(value, enumeration_value_at)) text = member.name + "\n";
        out += blanks + label + "@" + type + ":" + text;
        return;
    }
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end()) {
        out += blanks + label + "@" + type + ":";
        for (uint32_t bit = 0; bit < found->second.bits.size(); ++bit)
            if ((*at(value, bits_at + bit / 8) >> (bit % 8) & 1) != 0) out += found->second.bits[bit].name + " ";
        out += "\n";
        return;
    }
    const record_description* record = record_of(type);
    if (record == nullptr) {
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return named_type(type).print(handle_, domain_, room, depth, label.c_str(), value, length, err);
        });
        return;
    }
    out += blanks + label + "@" + type + ": {\n";
    for (const attribute_description& a : record->attributes)
        if (variant_of(value) >= 0 && a.since <= variant_of(value))
            print_attribute(*record, a, value, depth + 2, out);
    if (variant_of(value) < record->newest) return;
    out += std::string(static_cast<size_t>(depth), '\0') + "}\n";
}

void model_walker::print_attribute(const record_description& record, const attribute_description& a,
                                   const void* object, int depth, std::string& out) const {
    const elements values = elements_of(a, record, object, nullptr);
    const auto numbered = [&](size_t i) { return a.name + "[" + std::to_string(i) + "]"; };
    switch (a.shape) {
    case attribute_shape::counted_string:
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return var_string_print(handle_, domain_, room, depth, a.name.c_str(),
                                    read_at<const char*>(object, a.offset), length, count_of(a, record, object),
                                    err);
        });
        break;
    case attribute_shape::fixed_string:
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return null_string_print(handle_, domain_, room, depth, a.name.c_str(),
                                     reinterpret_cast<const char*>(at(object, a.offset)), length, a.extent, err);
        });
        break;
    case attribute_shape::oid:
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return loom_oid_print(handle_, domain_, room, depth, a.name.c_str(),
                                  reinterpret_cast<const loom_oid*>(at(object, a.offset + 8)), length, err);
        });
        break;
    case attribute_shape::fixed_array:
    case attribute_shape::variable_array:
        for (size_t i = 0; i < values.all.size(); ++i)
            print_value(a.type, values.all[i].value, numbered(i), depth, out);
        break;
    case attribute_shape::arm:
        if (is_selected(a, record, object) && !values.all.empty())
            print_value(a.type, values.all[0].value, a.discriminator + "." + a.name, depth, out);
        break;
    case attribute_shape::list: {
        const uint32_t count = static_cast<uint32_t>(values.all.size());
        print_value("u_int32", &count, "list " + a.name + " count", depth, out);
        for (const auto& each : values.all)
            print_value(a.type, each.value, "list " + a.name, depth, out);
        break;
    }
    default: print_value(a.type, at(object, a.offset), a.name, depth, out);
    }
}

// ---- XML -------------------------------------------------------------------------------------------------------

std::string model_walker::to_xml(const std::string& type, const void* object, const std::string& element,
                                 uint8_t state) const {
    std::string out;
    render_value(type, object, area_of(type, object), element, state, out);
    return out;
}

void model_walker::render_value(const std::string& type, const void* value, const uint8_t* area,
                                const std::string& element, uint8_t state, std::string& out) const {
    if (const auto found = schema_.enumerations.find(type); found != schema_.enumerations.end()) {
        std::string text = type + " value out of range";
        for (const auto& member : found->second.members)
            if (member.value == read_at<int32_t>(value, enumeration_value_at)) text = member.name;
        out += "<" + element + "><" + text + "/></" + element + ">";
        return;
    }
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end()) {
        out += "<" + element + ">";
        for (uint32_t bit = 0; bit < found->second.bits.size(); ++bit)
            if ((*at(value, bits_at + bit / 8) >> (bit % 8) & 1) != 0)
                out += "<" + found->second.bits[bit].name + "/>";
        out += "</" + element + ">";
        return;
    }
    const record_description* record = record_of(type);
    if (record == nullptr) {
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return named_type(type).to_xml(handle_, domain_, element.c_str(), room, value, length, state, err);
        });
        return;
    }
    out += "<" + element + (state == 0 ? "" : " state=\"" + std::to_string(state) + "\"") + ">";
    for (const attribute_description& a : record->attributes)
        if (variant_of(value) >= 0 && a.since <= variant_of(value)) render_attribute(*record, a, value, area, out);
    out += "</" + element + ">";
}

void model_walker::render_attribute(const record_description& record, const attribute_description& a,
                                    const void* object, const uint8_t* area, std::string& out) const {
    const elements values = elements_of(a, record, object, area);
    const uint8_t state = area == nullptr || a.shape == attribute_shape::length ? uint8_t{0} : area[a.track];
    switch (a.shape) {
    case attribute_shape::oid: break;
    case attribute_shape::counted_string:
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return var_string_to_xml(handle_, domain_, a.name.c_str(), room,
                                     read_at<const char*>(object, a.offset), length, count_of(a, record, object),
                                     state, err);
        });
        break;
    case attribute_shape::fixed_string:
        append_text(out, [&](char* room, int32_t length, uint32_t* err) {
            return null_string_to_xml(handle_, domain_, a.name.c_str(), room,
                                      reinterpret_cast<const char*>(at(object, a.offset)), length, a.extent, state,
                                      err);
        });
        break;
    case attribute_shape::fixed_array:
    case attribute_shape::variable_array:
        for (size_t i = 0; i < values.all.size(); ++i)
            render_value(a.type, values.all[i].value, values.all[i].area, a.name,
                         values.flags == nullptr ? uint8_t{0} : values.flags[i], out);
        break;
    case attribute_shape::arm:
        if (is_selected(a, record, object) && !values.all.empty())
            render_value(a.type, values.all[0].value, values.all[0].area, a.discriminator + "-" + a.name, state,
                         out);
        break;
    default:
        for (const auto& each : values.all)
            render_value(a.type, each.value, each.area, a.name, state, out);
    }
}

// ---- Compare and hash
// --------------------------------------------------------------------------------------------

int model_walker::compare(const std::string& type, const void* a, const void* b) const {
    return compare_values(type, a, b);
}

int model_walker::compare_values(const std::string& type, const void* a, const void* b) const {
    if (a == nullptr || b == nullptr) return order(a != nullptr, b != nullptr);
    if (const record_description* record = record_of(type)) {
        for (const attribute_description& each : record->attributes)
            if (const int result = compare_attribute(*record, each, a, b); result != 0) return result;
        return 0;
    }
    if (schema_.enumerations.contains(type))
        return sign(static_cast<int32_t>(read_at<uint32_t>(a, enumeration_value_at) -
                                         read_at<uint32_t>(b, enumeration_value_at)));
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end())
        return sign(std::memcmp(at(a, bits_at), at(b, bits_at), found->second.bytes()));
    const built_in* known = built_in_of(type);
    const value_form form = known == nullptr ? value_form::object : known->form;
    switch (form) {
    case value_form::unsigned_integer: {
        uint64_t left = 0, right = 0; // this machine's lowest byte stands first
        std::memcpy(&left, a, known->width);
        std::memcpy(&right, b, known->width);
        return order(left, right);
    }
    case value_form::signed_integer:
        switch (known->width) {
        case 1: return order(read_at<int8_t>(a, 0), read_at<int8_t>(b, 0));
        case 2: return order(read_at<int16_t>(a, 0), read_at<int16_t>(b, 0));
        case 4: return order(read_at<int32_t>(a, 0), read_at<int32_t>(b, 0));
        default: return order(read_at<int64_t>(a, 0), read_at<int64_t>(b, 0));
        }
    case value_form::character: return order(read_at<char>(a, 0), read_at<char>(b, 0));
    case value_form::floating:
        return known->width == 8 ? order(read_at<double>(a, 0), read_at<double>(b, 0))
                                 : order(read_at<float>(a, 0), read_at<float>(b, 0));
    default: return sign(named_type(type).compare(a, b));
    }
}

int model_walker::compare_attribute(const record_description& record, const attribute_description& of,
                                    const void* a, const void* b) const {
    const elements left = elements_of(of, record, a, nullptr);
    const elements right = elements_of(of, record, b, nullptr);
    switch (of.shape) {
    case attribute_shape::length: return 0; // with its array
    case attribute_shape::oid:
        return sign(loomlib_oid_compare(reinterpret_cast<const loom_oid*>(at(a, of.offset + 8)),
                                        reinterpret_cast<const loom_oid*>(at(b, of.offset + 8))));
    case attribute_shape::fixed_string: return sign(std::memcmp(at(a, of.offset), at(b, of.offset), of.extent));
    case attribute_shape::counted_string: {
        const uint32_t count = count_of(of, record, a);
        if (const int result = order(count, count_of(of, record, b)); result != 0) return result;
        return count == 0 ? 0
                          : sign(std::memcmp(read_at<const void*>(a, of.offset),
                                             read_at<const void*>(b, of.offset), count));
    }
    case attribute_shape::arm:
        if (!is_selected(of, record, a)) return 0;
        return compare_values(of.type, left.all.empty() ? nullptr : left.all[0].value,
                              right.all.empty() ? nullptr : right.all[0].value);
    default: break;
    }
    if (const int result = order(left.all.size(), right.all.size()); result != 0) return result;
    const bool is_array = of.shape == attribute_shape::variable_array || of.shape == attribute_shape::fixed_array;
    if (is_array && is_integer(of.type) && !left.all.empty())
        return sign(std::memcmp(left.all[0].value, right.all[0].value, left.all.size() * width_of(of.type)));
    for (size_t i = 0; i < left.all.size(); ++i)
        if (const int result = compare_values(of.type, left.all[i].value, right.all[i].value); result != 0)
            return result;
    return 0;
}

uint32_t model_walker::hash(const std::string& type, const void* object, uint32_t seed) const {
    if (object == nullptr) return seed;
    if (const record_description* record = record_of(type)) {
        for (const attribute_description& a : record->attributes)
            seed = hash_attribute(*record, a, object, seed);
        return seed;
    }
    if (schema_.enumerations.contains(type)) return SuperFastHash(at(object, enumeration_value_at), 4, seed);
    if (const auto found = schema_.flag_sets.find(type); found != schema_.flag_sets.end())
        return SuperFastHash(at(object, bits_at), found->second.bytes(), seed);
    return named_type(type).hash(object, seed);
}

uint32_t model_walker::hash_attribute(const record_description& record, const attribute_description& a,
                                      const void* object, uint32_t seed) const {
    const bool is_counted =
        a.shape == attribute_shape::variable_array || a.shape == attribute_shape::counted_string;
    if (is_counted) {
        const attribute_description& length = record.attribute(a.length);
        for (int twice = 0; twice < 2; ++twice)
            seed = named_type(length.type).hash(at(object, length.offset), seed);
    }
    const elements values = elements_of(a, record, object, nullptr);
    switch (a.shape) {
    case attribute_shape::length: return seed;
    case attribute_shape::oid: return SuperFastHash(at(object, a.offset + 8), 4, seed);
    case attribute_shape::fixed_string: return SuperFastHash(at(object, a.offset), a.extent, seed);
    case attribute_shape::counted_string:
        return SuperFastHash(read_at<const void*>(object, a.offset), count_of(a, record, object), seed);
    case attribute_shape::arm:
        seed = SuperFastHash(at(object, record.attribute(a.discriminator).offset + enumeration_value_at), 4, seed);
        break;
    case attribute_shape::list: {
        const uint32_t count = static_cast<uint32_t>(values.all.size());
        seed = SuperFastHash(&count, sizeof count, seed);
        break;
    }
    case attribute_shape::fixed_array:
    case attribute_shape::variable_array:
        if (is_integer(a.type))
            return values.all.empty()
                       ? seed
                       : SuperFastHash(values.all[0].value,
                                       static_cast<uint32_t>(values.all.size()) * width_of(a.type), seed);
        break;
    default: break;
    }
    for (const auto& each : values.all)
        seed = hash(a.type, each.value, seed);
    return seed;
}

} // namespace trellis::testing

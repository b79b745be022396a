// The registry of drivers, and random values of the built-in types.
#include "tests/support/typed.h"

#include <algorithm>
#include <stdexcept>

namespace trellis::testing {

namespace {

std::vector<record_driver>& records() {
    static std::vector<record_driver> all;
    return all;
}
std::vector<compact_driver>& compact_types() {
    static std::vector<compact_driver> all;
    return all;
}

template <class Driver>
void add_sorted(std::vector<Driver>& all, std::vector<Driver> more) {
    for (Driver& each : more)
        all.push_back(std::move(each));
    std::sort(all.begin(), all.end(),
              [](const Driver& a, const Driver& b) { return std::string_view(a.name) < b.name; });
}

template <class Driver>
const Driver* find(const std::vector<Driver>& all, std::string_view name) {
    const auto found = std::lower_bound(all.begin(), all.end(), name,
                                        [](const Driver& a, std::string_view b) { return a.name < b; });
    return found != all.end() && found->name == name ? &*found : nullptr;
}

template <class Text>
void make_string(number_source& numbers, Text& value) {
    static thread_local std::string text;
    text = make_text(numbers, 1 + numbers.below(30));
    value.text = text.data();
    value.length = static_cast<u32>(text.size());
}

template <class Address>
void make_address(number_source& numbers, Address& value) {
    const bool four = numbers.chance();
    value.family = four ? 4 : 6;
    for (u32 i = 0; i < (four ? 4u : 16u); ++i)
        value.octets[i] = static_cast<u8>(1 + numbers.below(255));
}

} // namespace

type_operations::type_operations(const char* type, i8 newest_variant, loom_type_info* (*info)())
    : name(type), newest(newest_variant), type_info(info) {
    const auto find_into = [type]<class Function>(Function*& function, const char* operation) {
        function = exported<Function>(std::string(type) + operation);
    };
    find_into(create, "_create");
    find_into(destroy, "_destroy");
    find_into(marshal, "_marshal");
    find_into(unmarshal, "_unmarshal");
    find_into(len, "_len");
    find_into(compare, "_compare");
    find_into(hash, "_hash");
    find_into(set, "_set");
}

registration::registration(std::vector<record_driver> more) { add_sorted(records(), std::move(more)); }
registration::registration(std::vector<compact_driver> more) { add_sorted(compact_types(), std::move(more)); }

const std::vector<record_driver>& all_records() { return records(); }
const std::vector<compact_driver>& all_compact_types() { return compact_types(); }

const record_driver& record_named(std::string_view name) {
    const record_driver* found = find(records(), name);
    if (found == nullptr) throw std::runtime_error("no driver for record " + std::string(name));
    return *found;
}
const compact_driver& compact_named(std::string_view name) {
    const compact_driver* found = find(compact_types(), name);
    if (found == nullptr) throw std::runtime_error("no driver for type " + std::string(name));
    return *found;
}

void* exported_address(const std::string& name) {
    void* found = dlsym(RTLD_DEFAULT, name.c_str());
    if (found == nullptr) throw std::runtime_error("not exported: " + name);
    return found;
}

const reference_tables::tables& reference_tables::opened(const loom_type_info* type) {
    const auto known = open_.find(type);
    if (known != open_.end()) return known->second;
    const std::string name = type->name;
    auto* const open = exported<loom_table*(loom_handle*, u32, const char*, u32, u32*)>(name + "_table_open");
    auto* const create = exported<loom_table_record*(loom_handle*, u32, u32*)>(name + "_create_record");
    u32 error = 0;
    const tables made{open(handle_, test_handle::domain, "first", 0, &error),
                      open(handle_, test_handle::domain, "second", 0, &error),
                      create(handle_, test_handle::domain, &error)};
    if (error != 0) throw std::runtime_error("no table " + name);
    handle_.end_operation();
    return open_.emplace(type, made).first->second;
}

u32 reference_tables::references_to(const loom_table* table) const {
    loom_oid_state state{};
    return loom_oid_mapping_state(handle_, table, &state) == 0 ? static_cast<u32>(state.count) : 0;
}

u32 reference_tables::references() const {
    u32 sum = 0;
    for (const auto& [type, made] : open_)
        sum += references_to(made.first) + references_to(made.second);
    return sum;
}

u32 reference_tables::free_all() {
    u32 waiting = 0;
    for (auto& [type, made] : open_) {
        auto* const free =
            exported<void(loom_handle*, u32, loom_table*, u32*)>(std::string(type->name) + "_table_free");
        for (loom_table** each : {&made.first, &made.second}) {
            if (*each == nullptr) continue;
            u32 error = 0;
            free(handle_, test_handle::domain, *each, &error);
            if (error != 0 && error != LOOM_EAGAIN) throw std::runtime_error("a table is not freed");
            if (error == 0)
                *each = nullptr;
            else
                ++waiting;
        }
    }
    handle_.end_operation();
    return waiting;
}

i32 enumeration_value(object_walk& walk, const char* enumeration, const std::vector<i32>& wanted) {
    auto* const is_valid = exported<u32(loom_handle*, i32)>(std::string(enumeration) + "_is_valid_cr");
    std::vector<i32> candidates = wanted;
    if (candidates.empty()) {
        if (const compact_driver* driver = find(compact_types(), enumeration))
            for (const auto& [value, since] : driver->members)
                candidates.push_back(value);
        else
            candidates = {1, 2, 3, 0};
    }
    const u32 first = walk.numbers.below(static_cast<u32>(candidates.size()));
    for (u32 i = 0; i < candidates.size(); ++i) {
        const i32 value = candidates[(first + i) % candidates.size()];
        if (is_valid(walk.handle, value) != 0) return value;
    }
    return 0;
}

std::string make_text(number_source& numbers, u32 length) {
    std::string text(length, ' ');
    for (char& each : text)
        each = static_cast<char>('!' + numbers.below(94));
    return text;
}

void make_value(number_source& numbers, ip_address& value) { make_address(numbers, value); }
void make_value(number_source& numbers, ip_prefix& value) {
    make_address(numbers, value);
    value.length = 1 + numbers.below(value.family == 4 ? 32 : 128);
}
void make_value(number_source& numbers, ipv4_addr& value) { value.address = static_cast<u32>(numbers.next()) | 1; }
void make_value(number_source& numbers, ipv6_addr& value) {
    for (u8& each : value.octets)
        each = static_cast<u8>(1 + numbers.below(255));
}
void make_value(number_source& numbers, loom_mac_addr& value) {
    for (u8& each : value.octets)
        each = static_cast<u8>(1 + numbers.below(255));
}
void make_value(number_source& numbers, calendar_time& value) {
    value.seconds = 1 + numbers.below(2000000000);
    value.nanoseconds = numbers.below(1000) * 1000000;
    value.utc_offset = static_cast<i16>(static_cast<i32>(numbers.below(24)) * 60 - 720);
}
void make_value(number_source& numbers, timestamp& value) {
    value.high = numbers.below(400);
    value.low = static_cast<u32>(numbers.next()) | 1;
}
void make_value(number_source& numbers, loom_vstring& value) { make_string(numbers, value); }
void make_value(number_source& numbers, loom_aes_vstring& value) { make_string(numbers, value); }
void make_value(number_source& numbers, loom_aes_password_vstring& value) { make_string(numbers, value); }
void make_value(number_source& numbers, loom_username_vstring& value) { make_string(numbers, value); }
void make_value(number_source& numbers, nexa_bytestr& value) {
    static thread_local std::vector<u8> bytes;
    bytes.resize(1 + numbers.below(30));
    for (u8& each : bytes)
        each = static_cast<u8>(numbers.next());
    value.bytes = bytes.data();
    value.length = static_cast<u32>(bytes.size());
}
void make_value(number_source& numbers, loom_phys_addr& value) {
    value.length = static_cast<u8>(1 + numbers.below(7));
    for (u32 i = 0; i < value.length; ++i)
        value.octets[i] = static_cast<u8>(1 + numbers.below(255));
}

} // namespace trellis::testing

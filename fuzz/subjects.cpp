#include "fuzz/subjects.h"

#include "fuzz/input.h"

#include <memory>

namespace trellis::fuzz {

using testing::model_walker;
using testing::named_type;

const testing::schema_description& schema() {
    static const testing::schema_description read = testing::schema_description::read(SCHEMA_JSON);
    return read;
}

const std::vector<std::string>& type_names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto& [name, type] : schema().records)
            all.push_back(name);
        for (const auto& [name, type] : schema().enumerations)
            all.push_back(name);
        for (const auto& [name, type] : schema().flag_sets)
            all.push_back(name);
        return all;
    }();
    return names;
}

namespace {

constexpr uint32_t domain = limited_database::domain;

/// Writes the object into exactly the room it asks for and the spare byte, then reads that into a new object: what
/// it writes must be the same bytes.
void travel(const named_type& type, const std::string& name, limited_database& from, const void* object) {
    loom_handle* const writing = from.handle();
    const int32_t room = static_cast<int32_t>(type.len(writing, domain, object));
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[static_cast<size_t>(room) + 1]);
    uint32_t error = 0;
    const uint32_t written = type.marshal(writing, domain, bytes.get(), object, room, &error);
    if (written > static_cast<uint32_t>(room)) found(name + " wrote more than it was given room for");
    if (error != 0) return;

    limited_database& plain = plain_database();
    plain.begin(0);
    void* copy = type.create(plain.handle(), domain);
    const exact_copy sent({bytes.get(), written});
    const uint32_t read = type.unmarshal(plain.handle(), domain, sent.data(), copy, sent.size(), 0, &error);
    if (error == 0) {
        if (read != written) found(name + " read another number of bytes than it wrote");
        const std::unique_ptr<uint8_t[]> again(new uint8_t[written + 1]);
        const uint32_t rewritten =
            type.marshal(plain.handle(), domain, again.get(), copy, static_cast<int32_t>(written), &error);
        const bool tracked = written > 1 && (bytes[1] & OBJ_STATE_TRACKED) != 0 && schema().records.contains(name);
        if (!tracked &&
            (error != 0 || !std::equal(bytes.get(), bytes.get() + written, again.get(), again.get() + rewritten)))
            found(name + " came back as something else");
    } else if (!plain.refused()) {
        found(name + " cannot read what it wrote: error " + std::to_string(error));
    }
    plain.stop_failing();
    restore_variants(name, plain, copy);
    type.destroy(plain.handle(), domain, copy);
    plain.end();
}

} // namespace

void look_at(const std::string& name, limited_database& database, void* object) {
    const named_type type(name);
    loom_handle* const handle = database.handle();
    database.stop_failing();
    travel(type, name, database, object);

    // Room for most objects, and short for some.
    constexpr int32_t room = 1 << 13;
    const std::unique_ptr<char[]> text(new char[room]);
    uint32_t error = 0;
    if (type.print(handle, domain, text.get(), 1, "label", object, room, &error) > room)
        found(name + " printed more than it was given room for");
    error = 0;
    if (type.to_xml(handle, domain, "root", text.get(), object, room, 3, &error) > static_cast<uint32_t>(room))
        found(name + " rendered more than it was given room for");

    if (type.compare(object, object) != 0) found(name + " is not equal to itself");
    if (type.hash(object, 7) != type.hash(object, 7)) found(name + " has two hashes");
}

void restore_variants(const std::string& type, limited_database& database, void* object) {
    model_walker(schema(), database.handle(), domain).raise_variants(type, object);
}

} // namespace trellis::fuzz

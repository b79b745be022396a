// Reads any bytes as any type, into a new object and over one in use.
//
//     type 1 | mode 1 | failing 1 | first 2 | bytes
//
// The mode's bits: 0-1 state tracking, 2 the object has been read from the first `first` bytes before the rest is
// read over it, 3-4 variants that its layout is short of the newest (without tracking alone: its place would move
// with them). `failing`: the number of the allocation that fails.
#include "fuzz/input.h"
#include "fuzz/subjects.h"

using namespace trellis::fuzz;

namespace {

constexpr uint32_t domain = limited_database::domain;

void read(const trellis::testing::named_type& type, loom_handle* handle, void* object, uint32_t existing,
          std::span<const uint8_t> bytes) {
    const exact_copy buffer(bytes);
    uint32_t error = 0;
    type.unmarshal(handle, domain, buffer.data(), object, buffer.size(), existing, &error);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input from(bytes, size);
    const std::string& name = type_names()[from.byte() % type_names().size()];
    const unsigned mode = from.byte();
    limited_database& database = database_of_mode(mode & 3);
    const unsigned failing = from.byte();
    const size_t first = from.word();

    const trellis::testing::named_type type(name);
    loom_handle* const handle = database.handle();
    database.begin(failing);
    void* const object = type.create(handle, domain);
    if (object != nullptr) {
        auto* const header = static_cast<loom_object*>(object);
        const uint8_t newest = header->loom_layout_variant;
        if ((mode & 3) < 2)
            header->loom_layout_variant = static_cast<uint8_t>(std::max(0, newest - int(mode >> 3 & 3)));
        const bool in_use = (mode & 4) != 0;
        if (in_use) read(type, handle, object, 0, from.part(first));
        read(type, handle, object, in_use, from.rest());
        look_at(name, database, object);
        header->loom_layout_variant = newest;
        restore_variants(name, database, object);
        type.destroy(handle, domain, object);
    }
    database.end();
    return 0;
}

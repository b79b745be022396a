// Tells which beds of a greenhouse are dry, in the order of their keys: watering DB [PERCENT]
// The smallest program on a database: one read section, one walk, typed access to what a record holds.
#include <greenhouse/greenhouse.h>
#include <loom_runtime/runtime.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr uint32_t domain = 1;

/// The latest reading, or -1 when there is none.
int humidity_of(loom_handle* handle, bed* of, uint32_t* err) {
    const uint8_t readings = bed_humidity_len_get_value(handle, domain, of, err);
    return readings == 0 ? -1 : bed_humidity_get_value(handle, domain, of, readings - 1u, err);
}

uint32_t print_dry_beds(loom_handle* handle, loom_table* table, long limit) {
    uint32_t err = 0;
    bed_tbl_table_record* record = bed_tbl_pkey_get_first(handle, domain, table, &err);
    for (; record && !err; record = bed_tbl_pkey_get_next(handle, domain, table, record, &err)) {
        const bed_key* key = bed_tbl_bed_key_get_field(handle, domain, record);
        const int humidity = humidity_of(handle, bed_tbl_bed_get_field(handle, domain, record), &err);
        if (humidity >= 0 && humidity < limit)
            std::printf("house %u row %u: %d %%\n", unsigned{key->house}, unsigned{key->row}, humidity);
    }
    return err;
}

} // namespace

int main(int count, char** words) {
    if (count < 2 || count > 3) {
        std::fprintf(stderr, "usage: watering DB [PERCENT]\n");
        return 2;
    }
    const long limit = count > 2 ? std::strtol(words[2], nullptr, 10) : 45;
    loom_handle* handle = loom_open_mapped(words[1], 0);
    if (!handle) {
        std::fprintf(stderr, "watering: %s\n", loom_error_text());
        return 1;
    }
    uint32_t err = loom_read_begin(handle);
    if (!err) {
        constexpr uint32_t find_only = 1;
        loom_table* table = bed_tbl_table_open(handle, domain, "bed_tbl", find_only, &err);
        if (table) err = print_dry_beds(handle, table, limit);
        loom_read_end(handle);
    }
    loom_close(handle);
    if (err) std::fprintf(stderr, "watering: error %u\n", err);
    return err ? 1 : 0;
}

// What loom_error_text tells after each function that can fail.
#include "tests/runtime/support.h"

#include <loom/text.h>
#include <loom/values.h>
#include <loom/wire.h>
#include <loom_runtime/trace.h>
#include <loom_runtime/xml.h>

#include <gmock/gmock.h>

#include <cstring>
#include <span>

namespace {
using namespace runtime_test;

/// What the calls work on.
struct ground {
    ground() {
        load_fake_bundle();
        bundle = loom_bundle_find("fake_bundle");
        loom_write_begin(handle);
        table = fake_table_open(handle, 1, "beds", &err);
        record = &fake_table_add(handle, 1, table, 7, &err)->record;
        loom_table_set_replication(handle, 1, table, 1, 0);
        loom_write_commit(handle);
    }
    ~ground() {
        loom_recorder_stop();
        loom_trace_close();
        loom_peer_release(peer);
        loom_bundle_unload(bundle);
    }
    /// The handle inside a section, or with a message bundle open.
    loom_handle* reading() { return loom_read_begin(handle), handle; }
    loom_handle* writing() { return loom_write_begin(handle), handle; }
    loom_handle* bundled() { return loom_message_bundle_open(handle, "messages"), handle; }

    scratch_directory directory;
    handle_ptr handle = open_mapped(directory.file("a.loom"));
    loom_peer* peer = loom_peer_create("other");
    loom_bundle* bundle = nullptr;
    loom_table* table = nullptr;
    loom_table_record* record = nullptr;
    std::uint32_t err = 0, number = 0;
    loom_oid value{};
    loom_oid_state oid{};
    std::uint8_t luid[16]{};
    char buffer[100] = "";
};

/// Calls end with an error number; those that give something back fail with null.
std::uint32_t given(const void* result) { return !result; }
std::uint32_t opened(const char* path, std::uint32_t flags) {
    return given(handle_ptr(loom_open_mapped(path, flags)).get());
}
std::uint32_t parsed(const char* text) {
    loom_xml_document* document = loom_xml_parse(text, std::strlen(text), nullptr);
    loom_xml_free(document);
    return given(document);
}
const std::uint8_t* const known = fake_table_type.info.luid;
const std::uint8_t unknown[16] = {0, 1, 2, 3};

struct entry_point {
    const char* name;
    std::uint32_t (*fails)(ground&); ///< null: nothing that a test could do makes it fail
    const char* words;
    std::uint32_t (*succeeds)(ground&);
    friend void PrintTo(const entry_point& each, std::ostream* out) { *out << each.name; }
};

/// Calls the function on fresh ground behind an earlier failure; the text that is there then.
std::string text_after(std::uint32_t (*call)(ground&), bool fails) {
    ground g;
    loom_find_type("earlier");
    EXPECT_EQ(call(g) != 0, fails);
    return loom_error_text();
}

class error_text : public testing::TestWithParam<std::pair<entry_point, bool>> {};

TEST_P(error_text, tells_a_failure_and_is_empty_after_a_success_of_the_runtimes_functions) {
    const auto& [each, clears] = GetParam();
    if (each.fails) {
        EXPECT_THAT(text_after(each.fails, true), testing::HasSubstr(each.words));
    }
    if (each.succeeds) {
        EXPECT_EQ(text_after(each.succeeds, false),
                  clears ? "" : "no loaded bundle has the type earlier; load the bundle first");
    }
}

#define CALL(...) [](ground& g) -> std::uint32_t { return static_cast<void>(g), __VA_ARGS__; }
#define WITH_ERR(...) CALL(__VA_ARGS__, g.err)
// clang-format off
const entry_point functions[] = {
    {"open", CALL(given(loom_open(nullptr))), "options", CALL(given(handle_ptr(loom_open_private()).get()))},
    {"open_mapped", CALL(opened("/no/such/database", 0)), "no such directory",
                    CALL(opened(g.directory.file("b").c_str(), LOOM_OPEN_CREATE))},
    {"write_begin", CALL(loom_write_begin(g.writing())), "a section already", CALL(loom_write_begin(g.handle))},
    {"write_commit", CALL(loom_write_commit(g.handle)), "no write section", CALL(loom_write_commit(g.writing()))},
    {"write_abort", CALL(loom_write_abort(g.handle)), "no write section", CALL(loom_write_abort(g.writing()))},
    {"read_begin", CALL(loom_read_begin(g.writing())), "a section already", CALL(loom_read_begin(g.handle))},
    {"read_end", CALL(loom_read_end(g.handle)), "no read section", CALL(loom_read_end(g.reading()))},
    {"database_sync", nullptr, "", CALL(loom_database_sync(g.handle))},
    {"database_mark_shared", CALL(loom_database_mark_shared(g.reading(), 1)), "inside a read section",
                             CALL(loom_database_mark_shared(g.handle, 1))},
    {"peer_add_manifest", CALL(loom_peer_add_manifest(g.peer, "x", 1)), "line 1",
                          CALL(loom_peer_add_manifest(g.peer, "", 0))},
    {"peer_set_variant", CALL(loom_peer_set_variant(g.peer, "x", 1)), "no luid text",
                         CALL(loom_peer_set_variant(g.peer, fake_table_type.info.luid_text, 1))},
    {"peer_limit", CALL(loom_peer_limit(g.peer, "bed", 128)), "no variant", CALL(loom_peer_limit(g.peer, "bed", 1))},
    {"bundle_load", CALL(given(loom_bundle_load("/no/such/bundle.so"))), "cannot be loaded", nullptr},
    {"bundle_find", CALL(given(loom_bundle_find("unheard_of"))), "unheard_of",
                    CALL(given(loom_bundle_find("fake_bundle")))},
    {"bundle_symbol", CALL(given(loom_bundle_symbol(g.bundle, "unheard_of"))), "unheard_of is not exported",
                      CALL(given(loom_bundle_symbol(g.bundle, "fake_bundle_fetch_table_get_vft")))},
    {"bundle_manifest", CALL(loom_bundle_manifest(g.bundle, g.handle)), "typeinfo_initialize is not exported",
                        CALL(loom_bundle_manifest(g.bundle, open_private()))},
    {"find_table_vft", CALL(given(loom_find_table_vft(g.handle, unknown))), "no loaded bundle has the table 00010203",
                       CALL(given(loom_find_table_vft(g.handle, known)))},
    {"find_type", CALL(given(loom_find_type("x"))), "has the type x", CALL(given(loom_find_type("fake_table")))},
    {"register_destroyer", CALL(loom_register_destroyer("x", nullptr)), "32 characters",
                           CALL(loom_register_destroyer(fake_table_type.info.luid_text, nullptr))},
    {"table_set_replication", CALL(loom_table_set_replication(g.reading(), 1, g.table, 1, 1)), "inside a read section",
                              CALL(loom_table_set_replication(g.handle, 1, g.table, 1, 1))},
    {"table_advance_read_cursor", CALL(loom_table_advance_read_cursor(g.handle, g.table, 9)), "to place 9",
                                  CALL(loom_table_advance_read_cursor(g.handle, g.table, 0))},
    {"table_each_enqueued", nullptr, "", CALL(loom_table_each_enqueued(g.handle, g.table, 0, nullptr, nullptr))},
    {"record_set_location", CALL(loom_record_set_location(g.reading(), 1, g.record, "x")), "inside a read section",
                            CALL(loom_record_set_location(g.handle, 1, g.record, "x"))},
    {"gc_run", CALL(loom_gc_run(g.reading(), nullptr)), "inside a read section", CALL(loom_gc_run(g.handle, nullptr))},
    {"oid_mapping_state", CALL(loom_oid_mapping_state(g.handle, g.record, &g.oid)), "has no oid mapping",
                          CALL(loom_oid_mapping_state(g.handle, g.table, &g.oid))},
    {"message_bundle_open", CALL(loom_message_bundle_open(g.bundled(), "y")), "is open already",
                            CALL(loom_message_bundle_open(g.handle, "x"))},
    {"message_bundle_allow", CALL(loom_message_bundle_allow(g.handle, known)), "no message bundle is open",
                             CALL(loom_message_bundle_allow(g.bundled(), known))},
    {"message_bundle_limit", CALL(loom_message_bundle_limit(g.handle, 1)), "no message bundle is open",
                             CALL(loom_message_bundle_limit(g.bundled(), 1))},
    {"message_bundle_close", CALL(loom_message_bundle_close(g.handle)), "no message bundle is open",
                             CALL(loom_message_bundle_close(g.bundled()))},
    {"recorder_start", CALL(loom_recorder_start("/no/such/file")), "/no/such/file",
                       CALL(loom_recorder_start("/dev/null"))},
    {"recorder_start_stream", CALL(loom_recorder_start("/dev/null"), loom_recorder_start_stream(nullptr)),
                              "is on already", CALL(loom_recorder_start_stream(nullptr))},
    {"arena_verify", nullptr, "", CALL(loom_arena_verify(g.handle))},
    {"debug_arena_start", nullptr, "", CALL(loom_debug_arena_start(g.handle, nullptr, nullptr))},
    {"xml_parse", CALL(parsed("<a>")), "line 1, column", CALL(parsed("<a/>"))},
    {"trace_set_level", CALL(loom_trace_set_level("unheard_of", 3)), "unheard_of is not registered",
                        CALL(loom_trace_set_level(nullptr, 6))},
    {"trace_open", CALL(loom_trace_open("/no/such/file")), "/no/such/file",
                   CALL(loom_trace_open(g.directory.file("trace").c_str()))},
    {"trace_read_file", CALL(loom_trace_read_file("/dev/null", nullptr, nullptr, nullptr)), "is no trace file", nullptr},
};
const entry_point operations[] = {
    {"alloc", CALL(given(g.handle->alloc(g.handle->alloc_ctx, 1, std::size_t{1} << 60))), "no room for 1152921504606846976",
              CALL(given(g.handle->alloc(g.handle->alloc_ctx, 1, 8)))},
    {"failing_alloc", CALL(loom_arena_fail_after(g.handle, 0), given(g.handle->alloc(g.handle->alloc_ctx, 1, 8))),
              "fail on demand", nullptr},
    {"toc_insert", WITH_ERR(loomdb_database_toc_insert(g.handle, 1, g.table, 0, &g.err)), "\"beds\" of id 0 is there already", nullptr},
    {"toc_get_table_root", WITH_ERR(loomdb_database_toc_get_table_root(g.handle, 1, "beds", 4, 0, unknown, 16, 1, &g.err)),
              "\"beds\" is of type fake_table", WITH_ERR(loomdb_database_toc_get_table_root(g.handle, 1, "x", 1, 0, known, 16, 1, &g.err))},
    {"toc_delete", WITH_ERR(loomdb_database_toc_delete(g.reading(), 1, g.table, &g.err)), "inside a read section",
              WITH_ERR(loomdb_database_toc_delete(g.handle, 1, g.table, &g.err))},
    {"gc_list_remove", WITH_ERR(loomgc_database_gc_list_remove(g.handle, 1, g.table, &g.err)), "does not wait", nullptr},
    {"request_record_destroy", WITH_ERR(loomdb_request_record_destroy(g.handle, 1, nullptr, &g.err)), "no record",
              WITH_ERR(loomdb_request_record_destroy(g.handle, 1, g.record, &g.err))},
    {"update_tenant_counter", WITH_ERR(loomdb_update_tenant_counter(g.handle, 1, g.table, 0, 1, 1, &g.err)), "tenant 1 has no record",
              WITH_ERR(loomdb_update_tenant_counter(g.handle, 1, g.table, 1, 1, 1, &g.err))},
    {"arbor_set_key", CALL(!arbor_set_key(g.reading()->alloc_ctx, "x", nullptr)), "inside a read section",
              CALL(!arbor_set_key(g.handle->alloc_ctx, "x", nullptr))},
    {"arbor_set_range", CALL(arbor_set_range(g.writing()->alloc_ctx, g.table, std::size_t{1} << 40, 1) != 1), "past the end",
              CALL(arbor_set_range(g.handle->alloc_ctx, g.table, 8, 1) != 1)},
    {"oid_mapping_create", CALL(!loom_oid_mapping_create(g.handle, 1, nullptr, 2, 0, 0, &g.err)), "no object",
              CALL(!loom_oid_mapping_create(g.handle, 1, g.record, 2, 0, 0, &g.err))},
    {"handle_to_oid", WITH_ERR(loom_handle_to_oid(&g.value, g.handle, 1, nullptr, 2, 0, &g.err)), "no object to refer to",
              WITH_ERR(loom_handle_to_oid(&g.value, g.handle, 1, g.table, 2, 0, &g.err))},
    {"bundle_message_validate_add", WITH_ERR(bundle_message_validate_add(g.handle, 1, known, "x", &g.err)), "no message bundle is open",
              nullptr},
    {"table_vft_cpy", CALL(table_vft_cpy(nullptr, nullptr, 1)), "no source", nullptr},
    {"validate_object_flags", CALL(loomlib_validate_object_flags(nullptr, 0, 1)), "no object", nullptr},
    {"get_luid", WITH_ERR(loom_get_luid(g.handle, 1, nullptr, g.luid, &g.err)), "no object",
              WITH_ERR(loom_get_luid(g.handle, 1, g.table, g.luid, &g.err))},
    {"spoor_module_init_fn", CALL(spoor_module_init_fn(nullptr, nullptr, nullptr)), "trace module", nullptr},
    {"value_marshal", WITH_ERR(u_int32_marshal(g.handle, 1, g.buffer, &g.number, 3, &g.err)), "error 90: the buffer is too short",
              WITH_ERR(u_int32_marshal(g.handle, 1, g.buffer, &g.number, 4, &g.err))},
    {"frame_marshal", WITH_ERR(_loom_variant_jump_marshal(g.handle, 1, g.buffer, &g.number, 3, &g.err)), "error 90: ",
              WITH_ERR(_loom_variant_jump_marshal(g.handle, 1, g.buffer, &g.number, 4, &g.err))},
    {"oid_marshal", WITH_ERR(loomlib_oid_marshal(g.handle, 1, g.buffer, &g.value, 39, &g.err)), "error 90: ",
              WITH_ERR(loomlib_oid_marshal(g.handle, 1, g.buffer, &g.value, 40, &g.err))},
    {"snprintf", WITH_ERR(loom_snprintf(g.handle, 1, g.buffer, 3, &g.err, "text")), "error 90: ",
              WITH_ERR(loom_snprintf(g.handle, 1, g.buffer, 5, &g.err, "text"))},
    {"xml_get_element_value", CALL(xml_get_element_value(nullptr, "x", g.buffer, 9, nullptr)), "error 22: ", nullptr},
    {"store_err", WITH_ERR(loom_store_epoch_err(g.handle, 52, &g.err)), "error 52: the peer does not know it", nullptr},
};
// clang-format on

std::vector<std::pair<entry_point, bool>> all_of(std::span<const entry_point> each, bool clears) {
    std::vector<std::pair<entry_point, bool>> all;
    for (const entry_point& one : each)
        all.emplace_back(one, clears);
    return all;
}
const auto name_of_each = [](const auto& info) { return std::string(info.param.first.name); };
INSTANTIATE_TEST_SUITE_P(of_programs, error_text, testing::ValuesIn(all_of(functions, true)), name_of_each);
INSTANTIATE_TEST_SUITE_P(of_bundles, error_text, testing::ValuesIn(all_of(operations, false)), name_of_each);

TEST(error_text, of_a_failure_stays_as_long_as_its_number_is_passed_on) {
    const handle_ptr handle = open_private();
    loom_arena_fail_after(handle, 0);
    EXPECT_FALSE(handle->alloc(handle->alloc_ctx, 1, 8));
    for (int level = 0; level < 3; ++level)
        loom_store_err(handle, LOOM_ENOMEM);
    EXPECT_THAT(loom_error_text(), testing::HasSubstr("on demand"));
    loom_clear_last_error(handle);
    loom_store_err(handle, LOOM_ENOMEM); // of something else
    EXPECT_STREQ(loom_error_text(), "error 12: no memory");
}
} // namespace

// The small bundle's tables at hand: records made with plain calls, and dumps of what a table holds.
#pragma once

#include "any_table.h"
#include "watched_operations.h"

#include <table_forms/table_forms.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace table_tests {

/// A test on one database of the small bundle.
class forms_test : public ::testing::Test {
  protected:
    explicit forms_test(const trellis::testing::handle_options& options = {});

    loom_handle* h() { return handle.get(); }
    static constexpr u32 d = test_handle::domain;

    loom_table* open_numbers(const char* name = "numbers");
    loom_table* open_places(const char* name = "places");
    /// A record of number_tbl with payload, named "<id>:<source>" in logs and dumps.
    number_tbl_table_record* number(u32 id, u32 src = 1);
    number_tbl_table_record* insert_number(loom_table* table, u32 id, u32 src = 1);
    /// A record of place_tbl with payload and key, named by its key in logs and dumps.
    place_tbl_table_record* place(const char* name, u32 position, u32 src = 1);

    /// "1:1 3:2": the records in the order of the tree.
    std::string dump(loom_table* numbers);
    /// "a=1 b=2 | 2": the ring in order with its numbers, and seq_count.
    std::string ring(const loom_table* places);
    std::string log_of(const std::function<void()>& body) { return handle.log_of(body); }

    test_handle handle;
    u32 err = 0;
};

trellis::testing::handle_options shared_kind(); // mapped, with containment reports

/// Fields print as "<label>.<field>" in logs from now on; the first word, and so the whole object, as the label.
void name_fields(test_handle& handle, loom_table* table, const std::string& label);
void name_fields(test_handle& handle, loom_table_record* record, const std::string& label);

} // namespace table_tests

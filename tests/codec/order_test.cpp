// The order of hooks, allocations, reports and stored errors while objects travel: as bytes into new objects and
// into objects in use, from XML, by clone, and by a move. What must be seen stands in golden/order, a file per
// type, with and without tracking; test_handle.h explains the events. Below, damaged bytes with all that is said
// of them.
#include "tests/support/forms.h"
#include "tests/support/test_handle.h"

#include <trellis_test_types/rec_parent_with_sing_child.h>
#include <trellis_test_types/rec_with_list.h>
#include <trellis_test_types/simple_union.h>
#include <trellis_test_types/string_key.h>
#include <trellis_test_types/tbl_top_level_test_comp_key.h>
#include <trellis_test_types/type_with_list.h>
#include <trellis_test_types/ud_enum.h>
#include <trellis_test_types/ud_flag.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace trellis::testing {
namespace {

namespace fs = std::filesystem;
constexpr u32 domain = test_handle::domain;
using bytes = std::vector<u8>;

struct trace_texts {
    trace_texts() { add_trace_texts_of(reinterpret_cast<const void*>(&string_key_create)); }
} const trace_texts_added;

/// The functions of a type that a journey takes.
template <class T>
struct operations {
    T* (*create)(loom_handle*, u32);
    void (*destroy)(loom_handle*, u32, T*);
    u32 (*size)(loom_handle*);
    u32 (*marshal)(loom_handle*, u32, void*, const T*, i32, u32*);
    u32 (*unmarshal)(loom_handle*, u32, const void*, T*, i32, u32, u32*);
    void (*from_xml)(loom_handle*, u32, const char*, const loom_xml_document*, T*, u32*, char*, u32);
    void (*clone)(loom_handle*, u32, const T*, T**, void*, i32, u32*);
    void (*set)(loom_handle*, u32, T*, T*, u32*);
    void (*fill)(test_handle&, T*, u32 count); // arrays and lists of that many elements
    const char* xml;
};
#define OPERATIONS(T, fill, xml)                                                                                  \
    operations<T> {                                                                                               \
        T##_create, T##_destroy, T##_sizeof, T##_marshal, T##_unmarshal, T##_from_xml, T##_clone, T##_set, fill,  \
            xml                                                                                                   \
    }

/// All journeys of one type under one handle, written down.
template <class T>
class travelogue {
  public:
    travelogue(const operations<T>& of, u32 tracking) : of_(of), handle_(options(tracking)) {
        for (u32 count : {2u, 3u}) { // type information is made by the first objects
            T* first = make(count);
            of_.destroy(handle_, domain, first);
        }
    }

    std::string text() {
        T* source = make(2);
        bytes wire = marshal(source);
        T* fresh = named(of_.create(handle_, domain), "object");
        tell("bytes into a new object", [&] { read(wire, fresh, 0); });
        name_again(fresh);
        tell("bytes over an object in use, of the same counts", [&] { read(wire, fresh, 1); });
        name_again(fresh);
        T* longer = make(3);
        const bytes more = marshal(longer);
        tell("bytes over an object in use, of other counts", [&] { read(more, fresh, 1); });
        name_again(fresh);
        tell("bytes that end too early, over an object in use",
             [&] { read(bytes(wire.begin(), wire.begin() + static_cast<i32>(wire.size() / 2)), fresh, 1); });
        of_.destroy(handle_, domain, fresh);
        tell_xml();
        T* copy = nullptr;
        named(longer, "source");
        tell("clone", [&] {
            bytes workspace(4096);
            of_.clone(handle_, domain, longer, &copy, workspace.data(), 4000, &error_);
        });
        tell("clone in a workspace that is too small", [&] {
            bytes workspace(16);
            T* none = nullptr;
            of_.clone(handle_, domain, longer, &none, workspace.data(), 12, &error_);
            EXPECT_EQ(none, nullptr);
        });
        named(copy, "object");
        tell("move over an object in use", [&] { of_.set(handle_, domain, copy, longer, &error_); });
        for (T* each : {source, longer, copy})
            of_.destroy(handle_, domain, each);
        handle_.forget_blocks();
        EXPECT_EQ(handle_.take_violations(), "");
        return text_;
    }

  private:
    static handle_options options(u32 tracking) {
        handle_options chosen;
        chosen.db_kind = LOOM_DB_MAPPED;
        chosen.tracking = tracking;
        chosen.containment = true;
        chosen.check_stores = true;
        return chosen;
    }
    T* named(T* object, const char* name) {
        handle_.name(object, of_.size(handle_), name);
        return object;
    }
    /// Blocks that a journey made get their letters anew in the next one: the object's keep a name of its own.
    void name_again(T* object) { named(object, "object"); }
    T* make(u32 count) {
        T* object = of_.create(handle_, domain);
        of_.fill(handle_, object, count);
        handle_.end_operation();
        return object;
    }
    bytes marshal(const T* object) {
        bytes wire(4096);
        u32 error = 0;
        wire.resize(of_.marshal(handle_, domain, wire.data(), object, 4000, &error));
        EXPECT_EQ(error, 0u);
        return wire;
    }
    void read(const bytes& wire, T* object, u32 existing) {
        of_.unmarshal(handle_, domain, wire.data(), object, static_cast<i32>(wire.size()), existing, &error_);
    }
    void tell_xml() {
        const xml_text document(of_.xml);
        T* object = named(of_.create(handle_, domain), "object");
        handle_.end_operation();
        tell("XML into a new object",
             [&] { of_.from_xml(handle_, domain, "/e", document, object, &error_, nullptr, 0); });
        of_.destroy(handle_, domain, object);
    }
    template <class Body>
    void tell(const char* what, Body&& body) {
        handle_.end_operation();
        error_ = 0;
        const std::string events = handle_.log_of(body);
        text_ += std::string("---- ") + what + "\n" + events;
        if (error_ != 0) text_ += "ends with " + std::to_string(error_) + "\n";
        handle_.end_operation();
    }

    const operations<T>& of_;
    test_handle handle_;
    u32 error_ = 0;
    std::string text_;
};

void fill_parent(test_handle& handle, rec_parent_with_sing_child* object, u32 count) {
    u32 error = 0;
    object->comp_attr.loom_variant = 0; // without its unions, which want an arm
    loom_vstring_assign(handle, domain, &object->st_attr, "text", 4, &error);
    rec_parent_with_sing_child_int_attr_set_value(handle, domain, object, 7, &error);
    for (u32 i = 0; i < count; ++i)
        rec_parent_with_sing_child_b_arr_attr_set_value(handle, domain, object, i, static_cast<u8>(i), &error);
    EXPECT_EQ(error, 0u);
}
void fill_list(test_handle& handle, rec_with_list* object, u32 count) {
    u32 error = 0;
    for (u32 i = 0; i < count; ++i)
        rec_with_list_list_attr_set_last(handle, domain, object, type_with_list_create(handle, domain), &error);
    EXPECT_EQ(error, 0u);
}
void fill_union(test_handle& handle, simple_union* object, u32 count) {
    u32 error = 0;
    simple_union_int_attr_set(handle, domain, object, u_int32_create(handle, domain), &error);
    simple_union_cal_attr_set(handle, domain, object, calendar_time_create(handle, domain), &error);
    if (count > 2) simple_union_str_attr_set(handle, domain, object, loom_vstring_create(handle, domain), &error);
    EXPECT_EQ(error, 0u);
}

const operations<rec_parent_with_sing_child> parent =
    OPERATIONS(rec_parent_with_sing_child, fill_parent,
               "<e><st_attr>x</st_attr><int_attr>5</int_attr><en_attr><EN_VAL_3/></en_attr>"
               "<flg_attr><UD_FLG0/></flg_attr><b_arr_attr>1</b_arr_attr><b_arr_attr>2</b_arr_attr>"
               "<b_fixed_arr_attr>3</b_fixed_arr_attr></e>");
const operations<rec_with_list> holder =
    OPERATIONS(rec_with_list, fill_list, "<e><list_attr/><list_attr><b_attr>true</b_attr></list_attr></e>");
const operations<simple_union> choice =
    OPERATIONS(simple_union, fill_union,
               "<e><val_discr><EN_VAL_1/></val_discr><val_discr-int_attr>4</val_discr-int_attr></e>");

struct journey {
    const char* type;
    std::string (*told)(u32 tracking);
};
const journey journeys[] = {
    {"rec_parent_with_sing_child",
     [](u32 tracking) { return travelogue<rec_parent_with_sing_child>(parent, tracking).text(); }},
    {"rec_with_list", [](u32 tracking) { return travelogue<rec_with_list>(holder, tracking).text(); }},
    {"simple_union", [](u32 tracking) { return travelogue<simple_union>(choice, tracking).text(); }},
};

std::ostream& operator<<(std::ostream& out, const journey& each) { return out << each.type; }

class order : public ::testing::TestWithParam<std::tuple<journey, bool>> {
  public:
    static std::string name_of(const ParamType& param) {
        return std::string(std::get<0>(param).type) + (std::get<1>(param) ? "_tracked" : "");
    }
};

TEST_P(order, of_journeys) {
    const auto& [journey, tracked] = GetParam();
    const std::string told = journey.told(tracked ? LOOM_TRACKING_ON : LOOM_TRACKING_NONE);
    const fs::path golden = fs::path(GOLDEN_FOLDER) / "order" / (name_of(GetParam()) + ".txt");
    std::ostringstream wanted;
    wanted << std::ifstream(golden, std::ios::binary).rdbuf();
    if (told == wanted.str()) return;
    const fs::path seen = fs::path(GOLDEN_OUTPUT) / golden.filename();
    fs::create_directories(seen.parent_path());
    std::ofstream(seen, std::ios::binary) << told;
    ADD_FAILURE() << "see the differences with\n  diff -u " << golden.string() << " " << seen.string();
}
INSTANTIATE_TEST_SUITE_P(types, order, ::testing::Combine(::testing::ValuesIn(journeys), ::testing::Bool()),
                         [](const auto& info) { return order::name_of(info.param); });

// ---- damage ------------------------------------------------------------------------------------------------

/// What is stored as error and said, a line each.
std::string words_of(const std::string& events) {
    std::string words, line;
    for (std::istringstream lines(events); std::getline(lines, line);)
        if (line.starts_with("says") || line.starts_with("error") || line.starts_with("epoch error"))
            words += line + "\n";
    return words;
}

struct damage {
    const char* name;
    const char* words;
    u32 read; // what the reader returns
    u32 error;
    u32 (*reads)(test_handle&, u32*);
};

/// Reads bytes into a new object.
template <class T, auto Create, auto Unmarshal, auto Destroy>
u32 read_new(test_handle& handle, const bytes& wire, u32* error) {
    T* object = Create(handle, domain);
    const u32 read = Unmarshal(handle, domain, wire.data(), object, static_cast<i32>(wire.size()), 0, error);
    Destroy(handle, domain, object);
    return read;
}
#define READS(T, ...)                                                                                             \
    [](test_handle& handle, u32* error) {                                                                         \
        return read_new<T, T##_create, T##_unmarshal, T##_destroy>(handle, bytes{__VA_ARGS__}, error);            \
    }

const damage damages[] = {
    {"nothing", "error 90\n", 0, 90, READS(string_key)},
    {"variant_alone", "error 90\n", 1, 90, READS(string_key, 0)},
    {"cut_jump", "error 90\n", 2, 90, READS(string_key, 0, 0, 0, 0)},
    {"cut_count_of_text", "error 90\nsays 7 offset_jump read_len 6 offset_jump_base 2 _loom_variant_jump 8\n", 10,
     90, READS(string_key, 0, 0, 0, 0, 0, 8, 0, 0)},
    {"text_longer_than_the_bytes",
     "error 90\nsays 7 offset_jump read_len 6 offset_jump_base 2 _loom_variant_jump 10\n", 12, 90,
     READS(string_key, 0, 0, 0, 0, 0, 10, 0, 0, 0, 3, 'a', 'b')},
    {"jump_behind_the_end", "says 7 offset_jump read_len 10 offset_jump_base 2 _loom_variant_jump 256\n", 258, 0,
     READS(string_key, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0)},
    {"jump_back", "", 10, 0, READS(string_key, 0, 0, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0)},
    {"jump_into_the_record", "", 10, 0, READS(string_key, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0)},
    {"later_variant_with_more",
     "says 7 offset_jump read_len 10 offset_jump_base 2 _loom_variant_jump 10\n", 12, 0,
     READS(string_key, 9, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0xEE, 0xEE)},
    {"vanished_record_with_contents",
     "says 7 offset_jump read_len 6 offset_jump_base 2 _loom_variant_jump 8\n", 10, 0,
     READS(string_key, 0xff, 0, 0, 0, 0, 8, 0, 0, 0, 0)},
    {"flags_that_do_not_travel", "", 10, 0, READS(string_key, 0, 0xD7, 0, 0, 0, 8, 0, 0, 0, 0)},
    {"remote_address_behind_the_end", "error 90\n", 2, 90, READS(string_key, 0, 0x20, 0, 0, 0, 8)},
    {"member_that_nobody_knows", "", 5, 0, READS(ud_enum, 0, 0xff, 0, 0, 0)},
    {"cut_member", "error 90\n", 1, 90, READS(ud_enum, 0, 0, 0, 0)},
    {"flags_with_more", "says 7 offset_jump read_len 7 offset_jump_base 1 _loom_variant_jump 8\n", 9, 0,
     READS(ud_flag, 5, 0, 0, 0, 8, 1, 2, 0xEE, 0xEE)},
    {"flags_cut_in_their_jump", "error 90\n", 3, 90, READS(ud_flag, 0, 0, 0)},
    {"case_that_nobody_knows", "", 11, 0, READS(simple_union, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 99)},
    {"cut_discriminator",
     "error 90\nsays 7 offset_jump read_len 7 offset_jump_base 2 _loom_variant_jump 9\n", 11, 90,
     READS(simple_union, 0, 0, 0, 0, 0, 9, 0, 0, 0)},
    {"cut_arm", "error 90\nsays 7 offset_jump read_len 11 offset_jump_base 2 _loom_variant_jump 29\n", 31, 90,
     READS(simple_union, 0, 0, 0, 0, 0, 29, 0, 0, 0, 0, 1, 0, 0)},
    {"cut_length_of_list", "error 90\nsays 7 offset_jump read_len 6 offset_jump_base 2 _loom_variant_jump 8\n", 10,
     90, READS(rec_with_list, 0, 0, 0, 0, 0, 8, 0, 0)},
    {"more_elements_than_bytes",
     "error 90\nsays 3 Error Message too long while unmarshalling list element\n", 10, 90,
     READS(rec_with_list, 0, 0, 0, 0, 0, 8, 0xff, 0xff, 0xff, 0xff)},
    {"cut_element",
     "error 90\nsays 3 Error Message too long while unmarshalling list element\n", 11, 90,
     READS(rec_with_list, 0, 0, 0, 0, 0, 8, 0, 0, 0, 1, 0)},
    {"list_without_memory", "error 12\n", 10, 12,
     [](test_handle& handle, u32* error) {
         rec_with_list* object = rec_with_list_create(handle, domain);
         const bytes wire{0, 0, 0, 0, 0, 8, 0, 0, 0, 1};
         handle.fail_allocation(1);
         const u32 read = rec_with_list_unmarshal(handle, domain, wire.data(), object, 10, 0, error);
         rec_with_list_destroy(handle, domain, object);
         return read;
     }},
    {"error_before_the_frame",
     "says 7 Error present in call to tbl_top_level_test_comp_key unmarshal: Numerical result out of range\n", 0, 34,
     [](test_handle& handle, u32* error) {
         tbl_top_level_test_comp_key_table_record* record = nullptr;
         *error = 34;
         return tbl_top_level_test_comp_key_table_record_unmarshal(handle, domain, &record, "", 0, 0, error);
     }},
    {"error_before_the_key",
     "says 7 Error present in call to tbl_top_level_test_comp_key pkey unmarshal: Numerical result out of range\n", 0,
     34,
     [](test_handle& handle, u32* error) {
         *error = 34;
         return tbl_top_level_test_comp_key_table_pkey_unmarshal(handle, domain, nullptr, "", 0, error);
     }},
    {"cut_frame", "error 90\n", 16, 90,
     [](test_handle& handle, u32* error) {
         tbl_top_level_test_comp_key_table_record* record = nullptr;
         const bytes wire(26, 0);
         const u32 read =
             tbl_top_level_test_comp_key_table_record_unmarshal(handle, domain, &record, wire.data(), 26, 0, error);
         u32 none = 0;
         tbl_top_level_test_comp_key_destroy_record(handle, domain, record, &none);
         return read;
     }},
};

std::ostream& operator<<(std::ostream& out, const damage& each) { return out << each.name; }

class every_damage : public ::testing::TestWithParam<damage> {};

TEST_P(every_damage, is_told_in_this_order) {
    test_handle handle;
    u32 read = 0, error = 0;
    EXPECT_EQ(words_of(handle.log_of([&] { read = GetParam().reads(handle, &error); })), GetParam().words);
    EXPECT_EQ(read, GetParam().read);
    EXPECT_EQ(error, GetParam().error);
    EXPECT_EQ(handle.live_blocks(), 0u) << handle.describe_live_blocks();
}
INSTANTIATE_TEST_SUITE_P(kinds, every_damage, ::testing::ValuesIn(damages),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace trellis::testing

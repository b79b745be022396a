// What the emitters do to a directory, and a bundle that has nothing but records.
#include "schema/compiler/emit_bundle.h"
#include "schema/compiler/schema.h"
#include "tests/frame/elf_file.h"
#include "tests/frame/fake_runtime.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace trellis::test {
namespace {

namespace fs = std::filesystem;

class emission_into_a_directory : public testing::Test {
  protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("emission_test_" + std::to_string(getpid()));
        fs::remove_all(root_);
    }
    void TearDown() override { fs::remove_all(root_); }

    void emit(const std::string& text, unsigned units = 2) {
        const schema::compiled result = schema::compile({{"small.trellis", text}});
        ASSERT_TRUE(result.good()) << schema::text_of(result.mistakes.front());
        schema::emit_bundle(*result.model, root_, units);
    }
    std::map<std::string, std::string> contents() const {
        std::map<std::string, std::string> all;
        for (const fs::directory_entry& each : fs::recursive_directory_iterator(root_)) {
            if (!each.is_regular_file()) continue;
            std::ostringstream text;
            text << std::ifstream(each.path()).rdbuf();
            all[fs::relative(each.path(), root_).generic_string()] = text.str();
        }
        return all;
    }
    /// Gives all files a time long ago.
    void age() const {
        for (const fs::directory_entry& each : fs::recursive_directory_iterator(root_))
            fs::last_write_time(each.path(), fs::file_time_type::clock::now() - std::chrono::hours(24));
    }
    std::set<std::string> written_since_ageing() const {
        std::set<std::string> names;
        for (const fs::directory_entry& each : fs::recursive_directory_iterator(root_))
            if (each.is_regular_file() &&
                each.last_write_time() > fs::file_time_type::clock::now() - std::chrono::hours(1))
                names.insert(fs::relative(each.path(), root_).generic_string());
        return names;
    }

    fs::path root_;
};

constexpr const char* two_records = "bundle small\n"
                                    "record one {\n    number: u_int32\n}\n"
                                    "record two {\n    number: u_int32 /// counts\n}\n";

TEST_F(emission_into_a_directory, the_same_schema_writes_nothing_twice) {
    emit(two_records);
    const auto first = contents();
    for (const char* name : {"include/small/small.h", "include/small/one.h", "src/unit_00.cpp", "src/unit_01.cpp",
                             "src/frame.cpp", "src/trace_store.S", "src/models/two.h"})
        EXPECT_TRUE(first.contains(name)) << name;
    age();
    emit(two_records);
    EXPECT_EQ(written_since_ageing(), std::set<std::string>{});
    EXPECT_EQ(contents(), first);
}

TEST_F(emission_into_a_directory, a_comment_changes_headers_and_their_revision_only) {
    emit(two_records);
    age();
    std::string text = two_records;
    text.replace(text.find("counts"), 6, "tells ");
    emit(text);
    const auto written = written_since_ageing();
    EXPECT_TRUE(written.contains("include/small/two.h"));
    EXPECT_TRUE(written.contains("include/small/revision.h")) << "all that includes a header is built again";
    EXPECT_FALSE(written.contains("include/small/one.h"));
    EXPECT_FALSE(written.contains("src/models/two.h"));
    EXPECT_FALSE(written.contains("src/trace_store.S"));
}

TEST_F(emission_into_a_directory, headers_of_types_that_are_gone_go_too) {
    emit(two_records);
    std::ofstream(root_ / "include/small/notes.txt") << "not ours";
    emit("bundle small\nrecord one {\n    number: u_int32\n}\n");
    const auto files = contents();
    for (const char* name : {"include/small/two.h", "src/models/two.h", "src/types/two.h"})
        EXPECT_FALSE(files.contains(name)) << name;
    EXPECT_TRUE(files.contains("include/small/one.h"));
    EXPECT_TRUE(files.contains("include/small/notes.txt"));
}

TEST_F(emission_into_a_directory, units_are_as_many_as_asked_for) {
    emit(two_records, 12);
    const auto files = contents();
    std::size_t units = 0;
    std::string all;
    for (const auto& [name, text] : files)
        if (name.rfind("src/unit_", 0) == 0) {
            ++units;
            all += text;
        }
    EXPECT_EQ(units, 12u);
    EXPECT_TRUE(files.contains("src/unit_11.cpp"));
    for (const char* function : {" one_marshal(", " two_number_get_value("}) {
        const std::size_t place = all.find(function);
        ASSERT_NE(place, std::string::npos) << function;
        EXPECT_EQ(all.find(function, place + 1), std::string::npos) << function << " stands in one unit";
    }
}

TEST_F(emission_into_a_directory, what_cannot_be_written_is_told_by_its_path) {
    std::ofstream(root_) << "a file where the directory should be";
    const schema::compiled result = schema::compile({schema::source_text{"small.trellis", two_records}});
    try {
        schema::emit_bundle(*result.model, root_, 1);
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(root_.string()), std::string::npos) << error.what();
    }
}

// ---- A bundle of records alone ---------------------------------------------------------------------------------

TEST(bundle_without_tables, loads_and_works) {
    void* library = dlopen(TRELLIS_AWKWARD_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto find = [&](const char* name) {
        void* address = dlsym(library, name);
        EXPECT_NE(address, nullptr) << name;
        return address;
    };
    the_journal().reset();
    const auto add = reinterpret_cast<void* (*)(void*)>(find("awkward_bundle_handler_register"));
    EXPECT_EQ(add(library), nullptr);
    EXPECT_EQ(add(nullptr), library);
    EXPECT_TRUE(the_journal().handler_calls.empty()) << "no siblings";

    const auto fetch = reinterpret_cast<loom_table_get_vft_fn (*)()>(find("awkward_fetch_table_get_vft"));
    loom_handle handle{};
    const loom_table_vft* out = nullptr;
    std::uint32_t err = 0;
    const std::uint8_t luid[16] = {};
    fetch()(&handle, 0, luid, &out, &err);
    EXPECT_EQ(err, static_cast<std::uint32_t>(LOOM_ENOENT));
    EXPECT_EQ(out, nullptr);

    const loom_module_node* node = loom_module_tot_root.first;
    while (node != nullptr && std::strcmp(node->name, "awkward") != 0)
        node = node->next;
    ASSERT_NE(node, nullptr);
    std::vector<std::string> names;
    for (loom_type_info* const* each = node->type_infos; *each != nullptr; ++each)
        names.emplace_back((*each)->name);
    EXPECT_EQ(names, (std::vector<std::string>{"awkward_names", "awkward_names_part", "awkward_colour",
                                               "awkward_flags"}));
    dlclose(library);

    const elf_file file(TRELLIS_AWKWARD_LIBRARY);
    EXPECT_EQ(file.sections_with_prefix(".spoor_luids_").size(), 6u) << "units without statements stay";
    ASSERT_NE(file.section(".corvo"), nullptr);
    EXPECT_EQ(file.section(".corvo")->bytes.substr(8, 17), "# awkward.minime\n");
}

} // namespace
} // namespace trellis::test
